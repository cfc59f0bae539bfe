// The command line of kav-watch.
#pragma once

#include <optional>  // std::optional
#include <variant>   // std::variant

#include "apps/watch/information.h"
#include "apps/watch/outcome.h"
#include "apps/watch/secrets.h"
#include "apps/watch/source_options.h"

namespace kav_watch {

enum class output_format { automatic, table, plain, csv, json };

struct watch_options : source_options {
  output_format format = output_format::automatic;
  bool list_only = false;
  bool green_up = false;
};

using parsed_options = std::variant<watch_options, information, outcome>;

// `password` was taken from the arguments or the environment before; the value in `argv` is not
// looked at.
parsed_options parse_options(int argc, const char* const* argv,
                             const std::optional<secret>& password);

}  // namespace kav_watch
