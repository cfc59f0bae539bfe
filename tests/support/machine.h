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

// Processor seconds that everybody but this process has had since the system began, all cores
// together, those that the host of a virtual machine has kept included. An estimate from below:
// interrupts that come while this process runs are taken for its own.
double processor_seconds_of_others();

}  // namespace kav_test
