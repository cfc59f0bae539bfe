# A program of its own: its tests give a thread a network of its own, when they may.
kav_add_test(kav_test_local_address SOURCES ${CMAKE_CURRENT_LIST_DIR}/local_address_test.cpp
             LIBRARIES kav_test_support)
