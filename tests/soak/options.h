// The command line of kav-soak.
#pragma once

#include <cstdint>   // std::uint64_t
#include <optional>  // std::optional
#include <string>    // std::string

namespace kav_soak {

constexpr int k_exit_good = 0;
constexpr int k_exit_bad = 1;    // the verdict, or something that keeps it from being found
constexpr int k_exit_usage = 2;  // a bad option

struct soak_options {
  double minutes = 1;
  std::string samples;  // path of the CSV file; empty: none
  std::uint64_t seed = 1;
};

// The exit status when the program is to end at once.
std::optional<int> parse_command_line(int argc, char** argv, soak_options& options);

}  // namespace kav_soak
