// The command line of kav-feed.
#pragma once

#include <optional>  // std::optional

#include "apps/feed/publisher.h"
#include "apps/sim/source_choice.h"

namespace kav_feed {

struct program_options {
  kav_sim::source_choice source;
  publisher_options publishing;
  double speed = 1;
  double rate = 0;          // datagrams a second; 0: no limit
  std::uint64_t count = 0;  // 0: no limit
  double seconds = 0;       // 0: until a signal or the file's end
  double wait_seconds = 0;
  bool quiet = false;
};

constexpr int k_exit_good = 0;
constexpr int k_exit_failed = 1;     // cannot publish
constexpr int k_exit_bad_input = 2;  // option or tick file

// Reads the command line. A value: the program ends with this status now; --help and --version
// have been printed on standard output, a complaint (one line) on standard error.
std::optional<int> parse_command_line(int argc, char** argv, program_options& options);

}  // namespace kav_feed
