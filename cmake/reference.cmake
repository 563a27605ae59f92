# The API reference: the public headers as Doxygen reads them, and the documents. A declaration without
# documentation is a warning, and a warning an error.
find_package(Doxygen 1.9 REQUIRED)
set(DOXYGEN_PROJECT_NAME "Mervane PKCS#11")
set(DOXYGEN_PROJECT_NUMBER ${PROJECT_VERSION})
set(DOXYGEN_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/reference)
set(DOXYGEN_HAVE_DOT NO)
set(DOXYGEN_HTML_TIMESTAMP NO)
set(DOXYGEN_JAVADOC_AUTOBRIEF YES)
set(DOXYGEN_BUILTIN_STL_SUPPORT YES)
# Comment groups without a title: one comment for declarations that belong together.
set(DOXYGEN_DISTRIBUTE_GROUP_DOC YES)
set(DOXYGEN_STRIP_FROM_PATH ${MERVANE_INCLUDE_FOLDER} ${PROJECT_SOURCE_DIR})
set(DOXYGEN_STRIP_FROM_INC_PATH ${MERVANE_INCLUDE_FOLDER})
set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)
set(DOXYGEN_QUIET YES)
# What ClsPkcs11 is made of: installed, since it is in its header, but not for programs.
set(DOXYGEN_EXCLUDE ${MERVANE_INCLUDE_FOLDER}/mervane/pkcs11/state.h
    ${MERVANE_INCLUDE_FOLDER}/mervane/pkcs11/wrappers.h ${MERVANE_INCLUDE_FOLDER}/mervane/pkcs11/records.h)
set(DOXYGEN_USE_MDFILE_AS_MAINPAGE ${PROJECT_SOURCE_DIR}/README.md)
set(DOXYGEN_IMAGE_PATH docs)
file(GLOB documents CONFIGURE_DEPENDS docs/*.md)
doxygen_add_docs(reference ${MERVANE_INCLUDE_FOLDER}/mervane README.md CHANGELOG.md CONTRIBUTING.md SECURITY.md ${documents} ALL)
install(DIRECTORY ${PROJECT_BINARY_DIR}/reference/html DESTINATION ${CMAKE_INSTALL_DOCDIR})
