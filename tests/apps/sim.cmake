# Tests of the quote-server simulator.
find_package(ZLIB REQUIRED)
kav_add_test(sim_server_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/sim_wire_test.cpp ${CMAKE_CURRENT_LIST_DIR}/sim_server_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/sim_fault_test.cpp
  LIBRARIES kav_sim_core)
kav_add_test(sim_source_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/sim_tick_file_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/sim_market_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/sim_program_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/watch_process.cpp
  LIBRARIES kav_sim_core ZLIB::ZLIB util)
add_dependencies(sim_source_test kav-sim)
target_compile_definitions(sim_source_test PRIVATE
  KAV_TESTED_PROGRAM="$<TARGET_FILE:kav-sim>" KAV_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
