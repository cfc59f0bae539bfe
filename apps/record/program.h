// The whole program but for main().
#pragma once

namespace kav_record {

// Returns the exit status; does not return when a thread of the session cannot be ended.
int run_program(int argc, char** argv);

}  // namespace kav_record
