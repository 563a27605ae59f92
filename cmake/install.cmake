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
  install(FILES docs/mervane-p11.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES completions/mervane-p11.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          RENAME mervane-p11)
  install(FILES completions/_mervane-p11 DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
  install(FILES completions/mervane-p11.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
  install(DIRECTORY docs/schema DESTINATION ${CMAKE_INSTALL_DATADIR}/mervane-p11)
endif()

# Relative, so that the installed tree can be moved.
file(RELATIVE_PATH MERVANE_PREFIX_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/mervane_pkcs11.pc.in ${PROJECT_BINARY_DIR}/mervane_pkcs11.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/mervane_pkcs11.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

configure_package_config_file(cmake/config.cmake.in ${PROJECT_BINARY_DIR}/mervane_pkcs11-config.cmake
        INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/mervane_pkcs11-config-version.cmake
        COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/mervane_pkcs11-config.cmake
              ${PROJECT_BINARY_DIR}/mervane_pkcs11-config-version.cmake
        DESTINATION ${package_folder})
