// The whole program but for main().
#pragma once

namespace kav_plot {

int run_program(int argc, const char* const* argv);  // returns the exit status

}  // namespace kav_plot
