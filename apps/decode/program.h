// The whole program but for main().
#pragma once

namespace kav_decode {

// Returns the exit status.
int run_program(int argc, char** argv);

}  // namespace kav_decode
