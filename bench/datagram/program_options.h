// What the command line asks for.
#pragma once

#include <optional>  // std::optional
#include <string>    // std::string

namespace kav_bench {

struct program_options {
  bool quick = false;
  std::string json_file;  // empty: none
};

// The exit status when the program is to end at once: help was asked for, or an option is bad.
std::optional<int> parse_command_line(int argc, char** argv, program_options& out);

}  // namespace kav_bench
