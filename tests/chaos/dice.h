// Random numbers that are the same on every machine and with every standard library.
#pragma once

#include <cstdint>  // std::uint64_t

namespace kav_chaos {

// The splitmix64 sequence. One thread at a time.
class dice {
 public:
  explicit dice(std::uint64_t seed) : m_state(seed) {}
  // Different for each pair of seed and life, also for neighbours.
  dice(std::uint64_t seed, std::uint64_t life) : m_state(dice{seed}.next() + life) {
    m_state = next();
  }

  std::uint64_t next() {
    std::uint64_t mixed = m_state += 0x9e3779b97f4a7c15u;
    mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9u;
    mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebu;
    return mixed ^ (mixed >> 31);
  }
  // 0 to sides - 1.
  unsigned roll(unsigned sides) { return static_cast<unsigned>(next() % sides); }
  unsigned between(unsigned low, unsigned high) { return low + roll(high - low + 1); }
  bool one_in(unsigned chances) { return roll(chances) == 0; }
  bool percent(unsigned chance) { return roll(100) < chance; }

 private:
  std::uint64_t m_state;
};

}  // namespace kav_chaos
