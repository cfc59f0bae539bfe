// What this process uses now.
#pragma once

#include <cstddef>  // std::size_t
#include <cstdint>  // std::uint64_t

namespace kav_faults {

struct process_state {
  std::size_t descriptors = 0, threads = 0;
  std::uint64_t resident_kib = 0;
};

process_state state_of_process();

inline double difference(std::uint64_t now, std::uint64_t before) {
  return static_cast<double>(now) - static_cast<double>(before);
}

}  // namespace kav_faults
