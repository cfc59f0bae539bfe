# Quotes from multicast groups. Needs a host that lets its programs join groups.
kav_add_test(multicast_reception_test
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/multicast_reception_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/../support/process_view.cpp
    ${CMAKE_CURRENT_LIST_DIR}/../support/system_calls.cpp
    ${CMAKE_CURRENT_LIST_DIR}/../support/tcp_peer.cpp
  LIBRARIES kav_session_support ${CMAKE_DL_LIBS})
