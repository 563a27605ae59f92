# What tests and fuzz targets share: the scriptable module, generated certificates, fixtures and
# scenarios.

find_package(GTest REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)

# A real shared library that the tests load by path.
add_library(fake_module MODULE ${PROJECT_SOURCE_DIR}/tests/fake/module.cpp)
target_include_directories(fake_module PRIVATE ${PROJECT_SOURCE_DIR})

set(certs_folder ${PROJECT_BINARY_DIR}/certs)
set(make_certs ${PROJECT_SOURCE_DIR}/tests/data/make-certs)
add_custom_command(OUTPUT ${certs_folder}/done
  COMMAND ${CMAKE_COMMAND} -E make_directory ${certs_folder}
  COMMAND ${make_certs} ${certs_folder}
  DEPENDS ${make_certs})
add_custom_target(test_certs DEPENDS ${certs_folder}/done)

add_library(test_support STATIC ${PROJECT_SOURCE_DIR}/tests/support.cpp ${PROJECT_SOURCE_DIR}/tests/scenarios.cpp)
add_dependencies(test_support fake_module test_certs)
target_include_directories(test_support PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(test_support PUBLIC mervane_pkcs11_static GTest::gmock OpenSSL::Crypto ${CMAKE_DL_LIBS})
# Designated initialisers omit members on purpose.
target_compile_options(test_support PUBLIC -Wno-missing-field-initializers)
target_compile_options(fake_module PRIVATE -Wno-missing-field-initializers)
target_compile_definitions(test_support PUBLIC
  MERVANE_FAKE_MODULE="$<TARGET_FILE:fake_module>" MERVANE_TEST_CERTS="${certs_folder}"
  MERVANE_SOURCE="${PROJECT_SOURCE_DIR}")
