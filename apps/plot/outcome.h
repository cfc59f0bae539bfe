// How the program ends: one status for each kind of failure, and the one line that explains it.
#pragma once

#include <string>  // std::string

namespace kav_plot {

// Listed for users in --help.
enum class exit_status : int {
  ended_well = 0,
  unexpected = 1,
  bad_option = 2,
  unreadable = 3,
  unknown_symbol = 4,
  no_gnuplot = 5,
  write_failed = 6,
};

struct outcome {
  exit_status status = exit_status::ended_well;
  std::string message;  // one line, what happened and what to do
};

}  // namespace kav_plot
