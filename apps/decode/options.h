// The command line of kav-decode.
#pragma once

#include <cstdint>     // std::uint64_t
#include <functional>  // std::less
#include <optional>    // std::optional
#include <set>         // std::set
#include <string>      // std::string
#include <variant>     // std::variant

#include "apps/decode/group_table.h"
#include "apps/decode/outcome.h"
#include "apps/watch/information.h"

namespace kav_decode {

enum class output_format { csv, json };

struct decode_options {
  std::string path;  // "-": standard input
  group_table groups;
  std::set<std::string, std::less<>> symbols;  // empty: all
  output_format format = output_format::csv;
  bool time = false;
  bool summary_only = false;
  bool quiet = false;
  std::optional<std::uint64_t> count;
};

using kav_watch::information;

using parsed_options = std::variant<decode_options, information, outcome>;
parsed_options parse_options(int argc, const char* const* argv);

}  // namespace kav_decode
