// The command line of kav-faults.
#pragma once

#include <optional>  // std::optional
#include <string>    // std::string
#include <vector>    // std::vector

namespace kav_faults {

constexpr int k_exit_good = 0;
constexpr int k_exit_bad = 1;    // something that must hold does not, or a file is not written
constexpr int k_exit_usage = 2;  // a bad option

struct program_options {
  std::vector<std::string> only;  // names of faults; empty: all
  std::string json;               // path; empty: none
};

// The exit status when the program is to end at once.
std::optional<int> parse_command_line(int argc, char** argv, program_options& options);

}  // namespace kav_faults
