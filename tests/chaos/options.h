// The command line of kav-chaos.
#pragma once

#include <cstdint>   // std::uint64_t
#include <optional>  // std::optional
#include <string>    // std::string
#include <variant>   // std::variant

namespace kav_chaos {

// Listed for users in --help.
enum class exit_status : int {
  kept = 0,
  broken = 1,
  bad_option = 2,
  cannot_run = 3,
};

struct chaos_options {
  unsigned lives = 0;
  std::uint64_t seed = 0;
  unsigned parallel = 0;
  std::optional<unsigned> life;  // this one only
  bool script = false;
  bool verbose = false;
};

// What to print before ending: the help or version on standard output, an error on standard error.
struct early_end {
  exit_status status = exit_status::kept;
  std::string text;
};

std::variant<chaos_options, early_end> parse_options(int argc, const char* const* argv);

}  // namespace kav_chaos
