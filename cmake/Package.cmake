# cpack -G DEB (in the build directory): one package with everything `cmake --install` puts in
# place, under /usr: library, header, pkg-config file, CMake package, tools, udev rules and the
# sysusers entry. The postinst makes the groups; the ldconfig trigger refreshes the linker cache.
set(BRAKWELL_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/brakwell)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/../LICENSE DESTINATION ${BRAKWELL_DOC_DIR} RENAME copyright)
# Debian keeps the changelog compressed, without a time stamp in the gzip header.
execute_process(COMMAND gzip -9nc ${CMAKE_CURRENT_LIST_DIR}/../packaging/deb/changelog
                OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz DESTINATION ${BRAKWELL_DOC_DIR})

set(CPACK_PACKAGE_NAME brakwell)
set(CPACK_PACKAGE_VENDOR "Brakwell developers")
set(CPACK_PACKAGE_CONTACT "Brakwell developers <brakwell-dev@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "test fixture control library for factory test stations")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
       "libBrakwell drives a factory test fixture (fixture boards on USB serial\n"
       "ports, pneumatic press, DIO modules) through a plain C API. With fixturesim,\n"
       "a virtual fixture to develop against, fixturectl, a command-line host, and\n"
       "the udev rules a station needs.")
set(CPACK_RESOURCE_FILE_LICENSE ${CMAKE_CURRENT_LIST_DIR}/../LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)  # added to the Depends below
set(CPACK_DEBIAN_PACKAGE_DEPENDS "python3")  # for the Python package
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/../packaging/deb/postinst
                                       ${CMAKE_CURRENT_LIST_DIR}/../packaging/deb/triggers)
include(CPack)
