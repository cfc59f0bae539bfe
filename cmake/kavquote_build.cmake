# Flags and small functions that every folder uses.

# Warnings for our own code; never handed to users of the library.
add_library(kavquote_warnings INTERFACE)
target_compile_options(kavquote_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)

# Functions and classes are visible outside the shared object: users of the socket layer and the
# toolkit link against them too.
set(CMAKE_CXX_VISIBILITY_PRESET default)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES AND PROJECT_IS_TOP_LEVEL)
  set(CMAKE_BUILD_TYPE Release)
endif()

# kav_compile_fast(SOURCE...): sources whose speed does not matter and which take long to optimise stay
# as they are in the presets for daily work.
function(kav_compile_fast)
  set_source_files_properties(${ARGN} PROPERTIES
                              COMPILE_OPTIONS $<$<CONFIG:RelWithDebInfo>:-O0>)
endfunction()

# kav_add_test(NAME SOURCES... LIBRARIES... [TIMEOUT seconds] [RUN_SERIAL])
# One GoogleTest program; each of its tests becomes a CTest test of its own. RUN_SERIAL: no other test
# runs at the same time. In the presets for daily work the tests, not what they test, are compiled
# without optimisation, which takes half the time.
function(kav_add_test name)
  cmake_parse_arguments(arg "RUN_SERIAL" "TIMEOUT" "SOURCES;LIBRARIES" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  add_executable(${name} ${arg_SOURCES})
  set_target_properties(${name} PROPERTIES CXX_EXTENSIONS OFF)
  target_compile_features(${name} PRIVATE cxx_std_20)
  target_compile_options(${name} PRIVATE $<$<CONFIG:RelWithDebInfo>:-O0>)
  target_link_libraries(${name} PRIVATE kavquote_warnings kavquote::kavquote GTest::gtest
                        GTest::gmock GTest::gtest_main ${arg_LIBRARIES})
  target_precompile_headers(${name} REUSE_FROM kav_test_headers)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT ${arg_TIMEOUT} RUN_SERIAL ${arg_RUN_SERIAL})
endfunction()
