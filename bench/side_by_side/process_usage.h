// What a process has used so far, all its threads together.
#pragma once

#include <sys/types.h>  // pid_t

#include <cstdint>   // std::uint64_t
#include <optional>  // std::optional

namespace kav_bench {

struct process_usage {
  std::int64_t at_ns = 0;  // CLOCK_MONOTONIC
  double cpu_seconds = 0;
  std::uint64_t voluntary = 0, involuntary = 0;  // context switches
  std::uint64_t resident_kib = 0;
  std::uint64_t allocations = 0;  // of this process; 0 of another one
};

// Of this process. Allocates nothing, so that it may be called in the middle of a measurement.
process_usage own_usage();
// Of a process that runs and is ours to look at; context switches are those of its present threads.
std::optional<process_usage> usage_of(pid_t process);

// Fields of /proc/<process>/status; 0 when it cannot be read.
std::uint64_t status_field(pid_t process, const char* name);

}  // namespace kav_bench
