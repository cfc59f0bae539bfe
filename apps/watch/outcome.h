// How the program ends: one status for each kind of failure, and the one line that explains it.
#pragma once

#include <string>  // std::string

namespace kav_watch {

// Listed for users in --help.
enum class exit_status : int {
  ended_well = 0,
  unexpected = 1,
  bad_option = 2,
  no_connection = 3,
  login_refused = 4,
  no_symbol_list = 5,
  unknown_symbol = 6,
  session_over = 7,
  no_answer = 8,
  write_failed = 9,
  no_multicast = 10,
  quotes_lost = 11,  // of the recorder only
};

struct outcome {
  exit_status status = exit_status::ended_well;
  // One line, what happened and what to do; empty when all went well or lines have told it.
  std::string message;
};

}  // namespace kav_watch
