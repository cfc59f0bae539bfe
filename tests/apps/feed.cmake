# Tests of the publisher of multicast feeds: its parts alone, then over this host's loopback.
find_package(ZLIB REQUIRED)
kav_add_test(feed_core_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/feed_encode_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/feed_lumen_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/feed_disturbance_test.cpp
  LIBRARIES kav_feed_core kav_test_support)
kav_add_test(feed_publisher_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/feed_publisher_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/feed_program_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/watch_process.cpp
  LIBRARIES kav_feed_core ZLIB::ZLIB util)
add_dependencies(feed_publisher_test kav-feed)
target_compile_definitions(feed_publisher_test PRIVATE
  KAV_TESTED_PROGRAM="$<TARGET_FILE:kav-feed>")
