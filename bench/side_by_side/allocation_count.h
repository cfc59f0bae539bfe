// Counts what this process allocates, the library's shared object included.
#pragma once

#include <cstdint>  // std::uint64_t

namespace kav_bench {

// Calls of malloc, calloc and realloc so far, operator new among them. With a sanitizer, which
// brings its own malloc, nothing is counted.
std::uint64_t allocation_count();
bool allocations_are_counted();

}  // namespace kav_bench
