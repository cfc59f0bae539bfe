// The command line of kav-record.
#pragma once

#include <chrono>    // std::chrono::milliseconds
#include <cstddef>   // std::size_t
#include <optional>  // std::optional
#include <variant>   // std::variant

#include "apps/record/day_files.h"
#include "apps/watch/information.h"
#include "apps/watch/outcome.h"
#include "apps/watch/secrets.h"
#include "apps/watch/source_options.h"

namespace kav_record {

struct record_options : kav_watch::source_options {
  file_options files;
  std::size_t queue = 0;                              // quotes that may wait for the disk
  std::optional<std::chrono::milliseconds> progress;  // nothing: no lines of progress
};

using parsed_options = std::variant<record_options, kav_watch::information, kav_watch::outcome>;

// `password` was taken from the arguments or the environment before.
parsed_options parse_options(int argc, const char* const* argv,
                             const std::optional<kav_watch::secret>& password);

}  // namespace kav_record
