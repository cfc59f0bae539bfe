# What `cmake --install` puts where. Components are packages: library, development, tools, which is the
# programs, and python.
include(CMakePackageConfigHelpers)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/kavquote)
set(built ${PROJECT_BINARY_DIR}/installed)

install(TARGETS kavquote EXPORT kavquoteTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library
                NAMELINK_COMPONENT development)
install(FILES api/kav_multicast.h api/kav_quote_api.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kavquote/api COMPONENT development)

# find_package(kavquote 1 CONFIG) gives the target kavquote::kavquote.
install(EXPORT kavquoteTargets NAMESPACE kavquote:: DESTINATION ${package_folder}
        COMPONENT development)
configure_package_config_file(cmake/kavquoteConfig.cmake.in ${built}/kavquoteConfig.cmake
                              INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${built}/kavquoteConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${built}/kavquoteConfig.cmake ${built}/kavquoteConfigVersion.cmake
        DESTINATION ${package_folder} COMPONENT development)

# pkg-config kavquote; the paths in it begin at the file itself, so that the prefix can be moved.
set(pkgconfig_folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH from_pc_to_include ${CMAKE_INSTALL_PREFIX}/${pkgconfig_folder}
     ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(cmake/kavquote.pc.in ${built}/kavquote.pc @ONLY)
install(FILES ${built}/kavquote.pc DESTINATION ${pkgconfig_folder} COMPONENT development)
