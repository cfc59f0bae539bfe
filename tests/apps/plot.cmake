# The plots: reading and layout alone, then the program.
kav_add_test(kav_plot_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/plot_axis_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/plot_program_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/watch_process.cpp
  LIBRARIES kav_plot_core ZLIB::ZLIB util)
target_compile_definitions(kav_plot_test PRIVATE KAV_TESTED_PROGRAM="$<TARGET_FILE:kav-plot>")
add_dependencies(kav_plot_test kav-plot)
