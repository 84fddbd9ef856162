# What `cmake --install` adds beside the library and its header: the pkg-config file, the CMake
# package (find_package(Brakwell) gives Brakwell::Brakwell) and the udev rules. fixturesim and
# fixturectl install themselves from their own directories, where their targets are made.
include(CMakePackageConfigHelpers)

set(BRAKWELL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Brakwell)
set(BRAKWELL_UDEV_RULES_DIR lib/udev/rules.d CACHE STRING
    "Where the udev rules are installed, relative to the prefix")

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

install(FILES ${CMAKE_CURRENT_LIST_DIR}/../packaging/udev/70-brakwell.rules
        DESTINATION ${BRAKWELL_UDEV_RULES_DIR})
