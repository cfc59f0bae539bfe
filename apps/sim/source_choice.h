// Which quotes a program hands out: those of a file, or made-up ones.
#pragma once

#include <cstdint>  // std::uint64_t
#include <memory>   // std::unique_ptr
#include <string>   // std::string

#include "apps/sim/tick_source.h"

namespace kav_sim {

struct source_choice {
  std::string tick_path;    // empty: the made-up market, as of now
  bool loop = false;        // the file from its beginning again when it has ended
  bool gold_codes = false;  // the file's gold contracts go by the codes that a quote server uses
  double rate = 2;          // made-up snapshots of each symbol per second
  std::uint64_t seed = 1;
};

// Null when the file cannot be read; `error` is one line then.
std::unique_ptr<tick_source> make_source(const source_choice& choice, std::string& error);

}  // namespace kav_sim
