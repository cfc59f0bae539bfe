// What the figures were measured on.
#pragma once

#include <cstdint>  // std::uint64_t
#include <string>   // std::string

namespace kav_test {

struct machine {
  std::string cpu, kernel, date;  // date: UTC, YYYY-MM-DD HH:MM
  unsigned cores = 0;
  std::uint64_t memory_kib = 0;
  double load = 0;  // average over the last minute
};

// As it is now.
machine this_machine();

}  // namespace kav_test
