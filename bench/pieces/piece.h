// Names for the benchmarks of the pieces.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>  // std::size_t
#include <string>   // std::string
#include <utility>  // std::forward

namespace kav_bench {

// "piece/variant/size/who": "kav" is the library, anything else its yardstick, which has the same
// name up to there.
template <class F>
void add_piece(const std::string& name, F&& body) {
  benchmark::RegisterBenchmark(name.c_str(), std::forward<F>(body));
}

// The same for one of several sizes, which the body gets.
template <class F>
void add_piece(std::string name, std::size_t size, const char* who, F body) {
  name.append("/").append(std::to_string(size)).append("/").append(who);
  add_piece(name, [=](benchmark::State& state) { body(state, size); });
}

// Makes a call before main(), for benchmarks whose names are put together.
struct at_start {
  explicit at_start(void (*call)()) { call(); }
};

// The compiler must not know the length: memcpy() of the C library is the yardstick, not what a
// compiler makes of one for a known length.
template <class T>
T unknown(T value) {
  benchmark::DoNotOptimize(value);
  return value;
}

}  // namespace kav_bench
