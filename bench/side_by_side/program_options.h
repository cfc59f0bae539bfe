// The command line of kav-side-by-side.
#pragma once

#include <optional>  // std::optional
#include <string>    // std::string
#include <vector>    // std::vector

#include "bench/side_by_side/receiver_job.h"

namespace kav_bench {

struct program_options {
  std::vector<std::string> receivers;  // names of all_receivers(), each built
  std::vector<std::string> scenarios;  // names of all_scenarios()
  unsigned rounds = 9;
  double seconds = 0.4;
  unsigned spin_up_to_us = 200;  // gaps between messages that the sender spins, not sleeps
  int processor = -1;            // the sender's alone; -1: where the system likes
  double scale = 1;              // of the scenarios whose size is not in seconds: 0.1 with --quick
  std::string json_path, cdf_folder;
  receiver_job job;  // with a receiver's name: this process is one
};

constexpr int k_exit_good = 0;
constexpr int k_exit_failed = 1;
constexpr int k_exit_bad_input = 2;

// Reads the command line. A value: the program ends with this status now; --help has been printed
// on standard output, a complaint (one line) on standard error.
std::optional<int> parse_command_line(int argc, char** argv, program_options& options);

}  // namespace kav_bench
