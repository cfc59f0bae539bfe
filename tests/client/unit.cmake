# Single messages and operations of the client.
kav_add_test(kav_test_client
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/client_life_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/connection_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/dispatch_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/endless_peer_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/kqs_messages_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/multicast_decoding_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/registration_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/symbol_list_test.cpp
  LIBRARIES kav_sim_core kav_test_support)

# Apart: this program replaces the global operators new and delete.
kav_add_test(kav_test_client_slots
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/slot_order_test.cpp
  LIBRARIES kav_sim_core)
