# What the client does when something fails: a program that measures it, and tests of the same faults.
find_package(CLI11 REQUIRED)
find_package(fmt REQUIRED)
set(here ${CMAKE_CURRENT_LIST_DIR})

kav_add_test_library(kav_faults_core
  SOURCES
  ${here}/caller.cpp ${here}/fault.cpp ${here}/fork_faults.cpp ${here}/linked_library.cpp
  ${here}/link_fault.cpp ${here}/loading_faults.cpp ${here}/process_state.cpp
  ${here}/result_lines.cpp ${here}/server_child.cpp ${here}/server_faults.cpp
  ${here}/session_faults.cpp ${here}/signal_faults.cpp ${here}/stage.cpp
  ${here}/stream_faults.cpp ${here}/time_lapse.cpp
  LIBRARIES kav_sim_core kav_test_system kavquote::kavquote)
target_compile_definitions(kav_faults_core PRIVATE
  KAV_SIM_PROGRAM="$<TARGET_FILE:kav-sim>" KAV_LIBRARY="$<TARGET_FILE:kavquote>"
  KAV_LOADER_PROGRAM="$<TARGET_FILE:kav-faults-loader>")
target_link_libraries(kav_faults_core PRIVATE fmt::fmt ${CMAKE_DL_LIBS})
add_dependencies(kav_faults_core kav-sim kav-faults-loader)

# Not linked with the library.
add_executable(kav-faults-loader
  ${here}/loader.cpp ${here}/caller.cpp ${here}/process_state.cpp ${here}/result_lines.cpp)
set_target_properties(kav-faults-loader PROPERTIES CXX_EXTENSIONS OFF)
target_compile_features(kav-faults-loader PRIVATE cxx_std_20)
target_link_libraries(kav-faults-loader PRIVATE kavquote_warnings kav_test_system fmt::fmt
                                                Threads::Threads ${CMAKE_DL_LIBS})

add_executable(kav-faults ${here}/main.cpp ${here}/options.cpp ${here}/report.cpp)
set_target_properties(kav-faults PROPERTIES CXX_EXTENSIONS OFF)
target_link_libraries(kav-faults PRIVATE kavquote_warnings kav_faults_core CLI11::CLI11 fmt::fmt)
kav_compile_fast(${here}/options.cpp)

kav_add_test(kav_faults_test SOURCES ${here}/faults_test.cpp LIBRARIES kav_faults_core)
