// What a network does to a feed: leaves datagrams out and swaps neighbours, at random by a seed.
#pragma once

#include <cstdint>   // std::uint64_t
#include <optional>  // std::optional
#include <random>    // std::mt19937_64
#include <vector>    // std::vector

#include "apps/feed/datagram.h"

namespace kav_feed {

// Probabilities, 0 to 1.
struct disturbance_options {
  double loss = 0;
  double reorder = 0;  // of being swapped with the successor that is not left out
};

// One feed's. The same options, seed and datagrams give the same result.
class disturbance {
 public:
  disturbance(const disturbance_options& options, std::uint64_t seed)
      : m_options(options), m_random(seed) {}

  // Appends what leaves now: nothing, `next`, or `next` and the one before it. The latter is not
  // swapped once more.
  void pass(const datagram& next, std::vector<datagram>& out);
  // Appends what waits for a successor that never comes; it counts as not swapped.
  void finish(std::vector<datagram>& out);

  std::uint64_t left_out() const { return m_left_out; }
  std::uint64_t swapped() const { return m_swapped; }  // pairs

 private:
  bool happens(double probability);

  const disturbance_options m_options;
  std::mt19937_64 m_random;
  std::optional<datagram> m_held;
  std::uint64_t m_left_out = 0;
  std::uint64_t m_swapped = 0;
};

}  // namespace kav_feed
