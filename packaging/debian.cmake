# Debian packages: `cpack -G DEB` in a build with -DKAVQUOTE_DEBIAN=ON -DCMAKE_INSTALL_PREFIX=/usr.
# One package for each component; ./kav packages builds and tries them.
set(KAVQUOTE_PACKAGE_REVISION 1 CACHE STRING "Debian revision of the packages")
set(KAVQUOTE_PACKAGE_CONTACT "kavquote maintainers <maintainers@kavquote.example>" CACHE STRING
    "Name and address of who maintains the packages")

set(library_package libkavquote${PROJECT_VERSION_MAJOR})
set(development_package libkavquote-dev)
set(tools_package kavquote-tools)
set(python_package python3-kavquote)
set(debian_version ${PROJECT_VERSION}-${KAVQUOTE_PACKAGE_REVISION})

# ---- files that each package must have ----

# kav_pack(INPUT OUTPUT): without name and time of the file, so that the same becomes the same.
function(kav_pack input output)
  execute_process(COMMAND gzip -9nc ${input} OUTPUT_FILE ${output} COMMAND_ERROR_IS_FATAL ANY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${input})
endfunction()

# The day of the package is that of SOURCE_DATE_EPOCH, if that is set.
string(TIMESTAMP changelog_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
kav_pack(${PROJECT_SOURCE_DIR}/CHANGELOG.md ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz)
foreach(component library development tools python)
  set(package ${${component}_package})
  configure_file(changelog.in ${CMAKE_CURRENT_BINARY_DIR}/${package}.changelog @ONLY)
  kav_pack(${CMAKE_CURRENT_BINARY_DIR}/${package}.changelog
           ${CMAKE_CURRENT_BINARY_DIR}/${package}.changelog.gz)
  set(documents ${CMAKE_INSTALL_DATADIR}/doc/${package})
  install(FILES copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz DESTINATION ${documents}
          COMPONENT ${component})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${package}.changelog.gz
          RENAME changelog.Debian.gz DESTINATION ${documents} COMPONENT ${component})
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${development_package}/examples
        COMPONENT development PATTERN CMakeLists.txt EXCLUDE)

# ---- what is said about them ----

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "${KAVQUOTE_PACKAGE_CONTACT}")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_OUTPUT_FILE_PREFIX ${PROJECT_BINARY_DIR}/debs)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL library development tools python)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${KAVQUOTE_PACKAGE_REVISION})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SOURCE kavquote)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # else it comes before that of each package

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library_package})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_MULTIARCH same)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "market-data client library for Chinese futures
Logs in to a quote server and hands every quote of the registered symbols to a
callback of the program, as one fixed record. Receives the multicast feeds of
the exchanges as well.")

# Packages of programs that are linked to the library ask for the version that they were built with,
# or a later one; the loader's cache learns of it. CMake 3.25 calls ldconfig beside, which does no harm.
set(control_files ${CMAKE_CURRENT_BINARY_DIR}/control)
file(WRITE ${control_files}/shlibs
     "libkavquote ${PROJECT_VERSION_MAJOR} ${library_package} (>= ${PROJECT_VERSION})\n")
file(WRITE ${control_files}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${control_files}/shlibs ${control_files}/triggers)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${development_package})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_MULTIARCH same)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "market-data client library for Chinese futures (headers)
What programs that use libkavquote are compiled with: headers, a CMake
package, a file for pkg-config, and examples.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${tools_package})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_TOOLS_DEPENDS library)
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS gnuplot-nox)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "quote-server simulator, viewer and more for Chinese futures
Programs around libkavquote: a quote server that invents or replays quotes, a
viewer, a recorder and a program that draws what it recorded, a publisher of
multicast feeds, a decoder of captures.")

# Compiled when it is installed, and cleaned of that when it goes, as Debian's own Python packages.
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME ${python_package})
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= 3.11), python3 (<< 3.12), python3-numpy")
set(CPACK_COMPONENT_PYTHON_DEPENDS library)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/python/postinst
                                              ${CMAKE_CURRENT_SOURCE_DIR}/python/prerm)
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "market-data client for Chinese futures, for Python
Sessions with a quote server; quotes one by one, with async for, as
callbacks, or as NumPy arrays of the library's own records.")

include(CPack)
