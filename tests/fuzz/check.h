// What a fuzzer does when something is wrong: it says what, and aborts.
#pragma once

#include <cstdio>   // std::fprintf
#include <cstdlib>  // std::abort

namespace kav_fuzz {

[[noreturn]] inline void fail(const char* what, const char* file, int line) {
  std::fprintf(stderr, "%s:%d: not so: %s\n", file, line, what);
  std::abort();
}

}  // namespace kav_fuzz

#define KAV_CHECK(condition) \
  ((condition) ? static_cast<void>(0) : ::kav_fuzz::fail(#condition, __FILE__, __LINE__))
