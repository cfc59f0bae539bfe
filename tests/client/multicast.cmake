# Quotes from multicast groups. Needs a host that lets its programs join groups.
kav_add_test(multicast_reception_test
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/multicast_reception_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/../support/system_calls.cpp
  LIBRARIES kav_session_support ${CMAKE_DL_LIBS})

# Alone on the machine: the system drops what nobody reads for two milliseconds.
find_package(ZLIB REQUIRED)
kav_add_test(multicast_feed_test
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/multicast_feed_test.cpp
  LIBRARIES kav_session_support kav_feed_core ZLIB::ZLIB
  TIMEOUT 600 RUN_SERIAL)
target_compile_definitions(multicast_feed_test PRIVATE KAV_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
