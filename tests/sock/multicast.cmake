# A program of its own: its tests need a host that lets them join multicast groups.
kav_add_test(kav_test_multicast
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/socket_multicast_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/../support/system_calls.cpp
  LIBRARIES kav_test_system ${CMAKE_DL_LIBS})
