# The recorder: its parts alone, then the program against the simulator's server and the simulator.
kav_add_test(kav_record_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/record_gzip_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/record_sorting_test.cpp
  LIBRARIES kav_record_core)

if(TARGET kav_sim_core)
  kav_add_test(kav_record_program_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/record_multicast_test.cpp
            ${CMAKE_CURRENT_LIST_DIR}/record_program_test.cpp
            ${CMAKE_CURRENT_LIST_DIR}/watch_multicast.cpp
            ${CMAKE_CURRENT_LIST_DIR}/watch_process.cpp
    LIBRARIES kav_record_core kav_sim_core util
    TIMEOUT 180)
  target_compile_definitions(kav_record_program_test PRIVATE
    KAV_TESTED_PROGRAM="$<TARGET_FILE:kav-record>" KAV_SIM_PROGRAM="$<TARGET_FILE:kav-sim>")
  add_dependencies(kav_record_program_test kav-record kav-sim)
endif()
