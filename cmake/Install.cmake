# What `cmake --install` adds beside the library and its header: the pkg-config file, the CMake
# package (find_package(Brakwell) gives Brakwell::Brakwell), the udev rules and the sysusers entry
# for their groups. fixturesim and fixturectl install themselves from their own directories,
# where their targets are made.
include(CMakePackageConfigHelpers)

set(BRAKWELL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Brakwell)
# udev and systemd-sysusers read packages' files from /usr/lib whatever the install prefix is
# (a /usr/local/lib/udev would never be read); DESTDIR still applies, for staging and packages.
set(BRAKWELL_UDEV_RULES_DIR /usr/lib/udev/rules.d CACHE PATH "Where udev reads the rules from")
set(BRAKWELL_SYSUSERS_DIR /usr/lib/sysusers.d CACHE PATH "Where systemd-sysusers reads from")

# An installed program finds libBrakwell beside it, wherever the tree was installed.
set(BRAKWELL_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

# pkg-config: the prefix is found from the .pc file's own place, so the tree can be moved.
file(RELATIVE_PATH BRAKWELL_PC_PREFIX_FROM_PCDIR "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig"
     "/prefix")
configure_file(${CMAKE_CURRENT_LIST_DIR}/../packaging/brakwell.pc.in
               ${CMAKE_CURRENT_BINARY_DIR}/brakwell.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/brakwell.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(EXPORT BrakwellTargets NAMESPACE Brakwell:: DESTINATION ${BRAKWELL_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/../packaging/BrakwellConfig.cmake.in
                              ${CMAKE_CURRENT_BINARY_DIR}/BrakwellConfig.cmake
                              INSTALL_DESTINATION ${BRAKWELL_CMAKE_DIR}
                              PATH_VARS CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/BrakwellConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/BrakwellConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/BrakwellConfigVersion.cmake
        DESTINATION ${BRAKWELL_CMAKE_DIR})

install(FILES ${CMAKE_CURRENT_LIST_DIR}/../packaging/udev/60-brakwell.rules
              ${CMAKE_CURRENT_LIST_DIR}/../packaging/udev/70-brakwell-access.rules
        DESTINATION ${BRAKWELL_UDEV_RULES_DIR})
install(FILES ${CMAKE_CURRENT_LIST_DIR}/../packaging/sysusers.d/brakwell.conf
        DESTINATION ${BRAKWELL_SYSUSERS_DIR})
