# The viewer: its parts alone, then the program against the simulator's server.
kav_add_test(kav_watch_test
  SOURCES watch_group_test.cpp watch_inbox_test.cpp watch_options_test.cpp watch_output_test.cpp
          watch_quote_test.cpp watch_reception_test.cpp watch_secrets_test.cpp watch_table_test.cpp
          watch_text_test.cpp watch_tracker_test.cpp
  LIBRARIES kav_watch_core)

if(TARGET kav_sim_core)
  kav_add_test(kav_watch_program_test
    SOURCES watch_multicast.cpp watch_multicast_test.cpp watch_process.cpp watch_program_test.cpp
            watch_terminal_test.cpp
    LIBRARIES kav_watch_core kav_sim_core kav_test_system util
    TIMEOUT 180)
  target_compile_definitions(kav_watch_program_test
                             PRIVATE KAV_TESTED_PROGRAM="$<TARGET_FILE:kav-watch>")
  add_dependencies(kav_watch_program_test kav-watch)
endif()
