# Flags and small functions that every folder uses.

# Warnings for our own code; never handed to users of the library, and none inside their builds, where
# a compiler that we have not tried may see more than ours.
add_library(kavquote_warnings INTERFACE)
if(PROJECT_IS_TOP_LEVEL)
  target_compile_options(kavquote_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
    $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety>)
endif()
if(CMAKE_UNITY_BUILD)
  # Of sources compiled together, none is the one to which, as g++ sees it, unnamed namespaces belong.
  target_compile_options(kavquote_warnings INTERFACE
                         $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-subobject-linkage>)
endif()

# What compiler, C library and linker offer against the misuse of a mistake in our own code; never
# handed to users of the library. docs/security.md tells what is in it and what it costs.
option(KAVQUOTE_HARDEN "Compile and link with stack protection, checked copies, read-only tables" ON)
add_library(kavquote_hardening INTERFACE)
if(KAVQUOTE_HARDEN)
  target_compile_options(kavquote_hardening INTERFACE
    -fstack-protector-strong -fstack-clash-protection -fcf-protection=full -D_GLIBCXX_ASSERTIONS)
  target_link_options(kavquote_hardening INTERFACE
    LINKER:-z,relro,-z,now,-z,noexecstack,-z,text,-z,separate-code)

  # Level 3 knows the sizes of what is allocated as well. Where the compiler cannot, the C library
  # warns. Neither level works without optimisation, and sanitizers have checks of their own.
  include(CheckCXXSourceCompiles)
  set(CMAKE_REQUIRED_FLAGS "-O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -Werror")
  check_cxx_source_compiles("#include <cstring>\nint main() {}" KAVQUOTE_FORTIFY_3)
  unset(CMAKE_REQUIRED_FLAGS)
  if(KAVQUOTE_FORTIFY_3)
    set(fortify -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
  else()
    set(fortify -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  endif()
  if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    target_compile_options(kavquote_hardening INTERFACE
      "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:${fortify}>")
  endif()

  # Tells the system that every place that is jumped to is marked as such. The linker would believe
  # that of itself if the C library's start files were marked too. Their _init and _fini have nothing
  # to do in a shared object: these names, which nobody defines, leave them out.
  include(CheckLinkerFlag)
  check_linker_flag(CXX "LINKER:-z,ibt,-z,shstk" KAVQUOTE_LINKER_MARKS_JUMPS)
  if(KAVQUOTE_LINKER_MARKS_JUMPS)
    target_link_options(kavquote_hardening INTERFACE
      $<$<IN_LIST:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY$<SEMICOLON>MODULE_LIBRARY>:LINKER:-z,ibt,-z,shstk,-init=kav_no_init,-fini=kav_no_fini>)
  endif()

  include(CheckPIESupported)
  check_pie_supported(LANGUAGES CXX)
endif()

# kav_harden(TARGET...): the same for programs and the static libraries that they are made of; programs
# run at addresses that nobody can foretell.
function(kav_harden)
  foreach(target ${ARGN})
    target_link_libraries(${target} PRIVATE kavquote_hardening)
    set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ${KAVQUOTE_HARDEN})
  endforeach()
endfunction()

# Functions and classes are visible outside the shared object: users of the socket layer and the
# toolkit link against them too.
set(CMAKE_CXX_VISIBILITY_PRESET default)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES AND PROJECT_IS_TOP_LEVEL)
  set(CMAKE_BUILD_TYPE Release)
endif()

# kav_compile_fast(SOURCE...): sources whose speed does not matter and which take long to optimise stay
# as they are in the presets for daily work, which leaves them no checked copies.
function(kav_compile_fast)
  set_source_files_properties(${ARGN} PROPERTIES
                              COMPILE_OPTIONS "$<$<CONFIG:RelWithDebInfo>:-O0;-U_FORTIFY_SOURCE>")
endfunction()

# kav_compile_as_test(TARGET): in the presets for daily work tests, not what they test, are compiled
# without optimisation, which takes half the time; the headers that they all need are read once.
function(kav_compile_as_test target)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  target_compile_features(${target} PRIVATE cxx_std_20)
  target_compile_options(${target} PRIVATE $<$<CONFIG:RelWithDebInfo>:-O0>)
  target_link_libraries(${target} PRIVATE kavquote_warnings)
  target_compile_definitions(${target} PRIVATE GTEST_HAS_PTHREAD=1)  # as in those headers
  target_precompile_headers(${target} REUSE_FROM kav_test_headers)
endfunction()

# kav_add_test_library(NAME SOURCES... [LIBRARIES...]): what several test programs share.
function(kav_add_test_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBRARIES" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  kav_compile_as_test(${name})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${arg_LIBRARIES})
endfunction()

# kav_add_test(NAME SOURCES... LIBRARIES... [TIMEOUT seconds] [RUN_SERIAL])
# One GoogleTest program; each of its tests becomes a CTest test of its own. RUN_SERIAL: no other test
# runs at the same time.
function(kav_add_test name)
  cmake_parse_arguments(arg "RUN_SERIAL" "TIMEOUT" "SOURCES;LIBRARIES" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  add_executable(${name} ${arg_SOURCES})
  kav_compile_as_test(${name})
  target_link_libraries(${name} PRIVATE kavquote::kavquote GTest::gtest GTest::gmock
                        GTest::gtest_main ${arg_LIBRARIES})
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT ${arg_TIMEOUT} RUN_SERIAL ${arg_RUN_SERIAL})
endfunction()

# kav_install_programs_as_tools(): programs of this folder and those below are installed as the
# component tools, and find the library beside them wherever the whole is moved to.
macro(kav_install_programs_as_tools)
  set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME tools)
  file(RELATIVE_PATH from_programs_to_library ${CMAKE_INSTALL_FULL_BINDIR}
       ${CMAKE_INSTALL_FULL_LIBDIR})
  set(CMAKE_INSTALL_RPATH "$ORIGIN/${from_programs_to_library}")
endmacro()
