# The capture decoder: its parts alone, then the program.
if(TARGET kav_decode_core)
  kav_add_test(kav_decode_test
    SOURCES decode_capture_test.cpp decode_group_test.cpp decode_options_test.cpp
            decode_packet_test.cpp decode_packets.cpp decode_quote_test.cpp
    LIBRARIES kav_decode_core kav_test_support)

  kav_add_test(kav_decode_program_test
    SOURCES decode_live_test.cpp decode_packets.cpp decode_program_test.cpp
    LIBRARIES kav_decode_core kav_test_support
    TIMEOUT 180)
  target_compile_definitions(kav_decode_program_test
                             PRIVATE KAV_DECODE_PROGRAM="$<TARGET_FILE:kav-decode>")
  add_dependencies(kav_decode_program_test kav-decode)
endif()
