# Whole sessions over loopback. Most of their time is waiting, so they run well side by side.
kav_add_test_library(kav_session_support SOURCES ${CMAKE_CURRENT_LIST_DIR}/session_support.cpp
                     LIBRARIES kav_test_support kav_sim_core GTest::gtest)

# The longest first: CTest starts tests in this order when it knows no better.
kav_add_test(give_up_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/give_up_test.cpp
             LIBRARIES kav_session_support TIMEOUT 150)
kav_add_test(lives_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/lives_test.cpp
             LIBRARIES kav_session_support TIMEOUT 300)
kav_add_test(vanished_peer_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/vanished_peer_test.cpp
             LIBRARIES kav_session_support)
kav_add_test(interval_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/interval_test.cpp
             LIBRARIES kav_session_support)
kav_add_test(session_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/session_test.cpp
             LIBRARIES kav_session_support)
kav_add_test(reconnect_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/reconnect_test.cpp
             LIBRARIES kav_session_support)
kav_add_test(host_promises_test
             SOURCES ${CMAKE_CURRENT_LIST_DIR}/host_promises_test.cpp
             LIBRARIES kav_session_support)
kav_add_test(late_callback_test
             SOURCES ${CMAKE_CURRENT_LIST_DIR}/late_callback_test.cpp
             LIBRARIES kav_session_support)
kav_add_test(destroy_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/destroy_test.cpp
             LIBRARIES kav_session_support)
kav_add_test(password_memory_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/password_memory_test.cpp
             LIBRARIES kav_session_support)
find_package(ZLIB REQUIRED)
kav_add_test(replay_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/replay_test.cpp
             LIBRARIES kav_session_support ZLIB::ZLIB)
target_compile_definitions(replay_test PRIVATE KAV_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
