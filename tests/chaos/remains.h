// What a run leaves behind in its process.
#pragma once

#include <chrono>   // std::chrono::milliseconds
#include <cstddef>  // std::size_t
#include <string>   // std::string
#include <vector>   // std::vector

namespace kav_chaos {

struct remains {
  std::size_t descriptors = 0;
  std::vector<std::string> threads;  // names of the library's
  std::size_t heap_bytes = 0;        // in use; 0 where a sanitizer has the heap
  std::size_t resident_kb = 0;
};
remains look_at_process();

// Waits until nothing is left that was not there before; what is still left at the limit, one text
// each.
std::vector<std::string> left_behind(const remains& before, std::size_t lives,
                                     std::chrono::milliseconds limit);

}  // namespace kav_chaos
