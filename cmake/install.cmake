# Two export sets, so that users of the shared library need no development files of zlib.
include(CMakePackageConfigHelpers)
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/mervane_pkcs11)

install(TARGETS mervane_pkcs11 EXPORT mervane_pkcs11_shared
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS mervane_pkcs11_static EXPORT mervane_pkcs11_static
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
foreach(kind shared static)
  install(EXPORT mervane_pkcs11_${kind} NAMESPACE mervane:: FILE mervane_pkcs11-${kind}.cmake
          DESTINATION ${package_folder})
endforeach()
if(MERVANE_TOOL)
  install(TARGETS mervane-p11 RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

configure_package_config_file(cmake/config.cmake.in ${PROJECT_BINARY_DIR}/mervane_pkcs11-config.cmake
        INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/mervane_pkcs11-config-version.cmake
        COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/mervane_pkcs11-config.cmake
              ${PROJECT_BINARY_DIR}/mervane_pkcs11-config-version.cmake
        DESTINATION ${package_folder})
