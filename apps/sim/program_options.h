// The command line of kav-sim.
#pragma once

#include <chrono>    // std::chrono::milliseconds
#include <optional>  // std::optional
#include <string>    // std::string

#include "apps/sim/quote_server.h"
#include "apps/sim/source_choice.h"

namespace kav_sim {

struct program_options {
  std::string bind_address = "127.0.0.1";
  unsigned short port = 0;
  source_choice source;
  double speed = 1;
  std::optional<std::string> user, password;
  bool list = false;
  double heartbeat_seconds = 5;
  bool quiet = false;
  double seconds = 0;  // 0: until a signal
  behaviour how;
  double outage_after_seconds = 0;  // 0: no outage
  double outage_seconds = 5;
};

constexpr int k_exit_good = 0;
constexpr int k_exit_failed = 1;     // cannot listen
constexpr int k_exit_bad_input = 2;  // option or tick file

// Reads the command line. A value: the program ends with this status now; --help and --version
// have been printed on standard output, a complaint (one line) on standard error.
std::optional<int> parse_command_line(int argc, char** argv, program_options& options);

}  // namespace kav_sim
