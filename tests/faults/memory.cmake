# Memory, threads and descriptors refused. The programs replace operator new, pthread_create() and
# what opens descriptors. Most of their time is waiting, so each leads many lives side by side.
kav_add_test_library(kav_refused_core SOURCES ${CMAKE_CURRENT_LIST_DIR}/session_life.cpp
                     LIBRARIES kav_sim_core kav_test_system kavquote::kavquote)

foreach(refused memory multicast threads descriptors sock)
  kav_add_test(${refused}_refused_test
    SOURCES
      ${CMAKE_CURRENT_LIST_DIR}/${refused}_refused_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/supply.cpp
    LIBRARIES kav_refused_core ${CMAKE_DL_LIBS}
    TIMEOUT 300)
endforeach()
