// How the program ends: one status for each kind of failure, and the one line that explains it.
#pragma once

#include <string>  // std::string

namespace kav_decode {

// Listed for users in --help.
enum class exit_status : int {
  ended_well = 0,
  failed = 1,
  bad_option = 2,
  no_capture = 3,
  cut_off = 4,
};

struct outcome {
  exit_status status = exit_status::ended_well;
  std::string message;  // one line, what happened and what to do; empty when all went well
};

}  // namespace kav_decode
