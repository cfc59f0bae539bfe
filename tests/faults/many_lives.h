// Many lives side by side: most of each is waiting.
#pragma once

#include <gtest/gtest.h>

#include <atomic>      // std::atomic
#include <chrono>      // std::chrono::seconds
#include <functional>  // std::function
#include <thread>      // std::thread
#include <vector>      // std::vector

#include "tests/faults/session_life.h"
#include "tests/faults/supply.h"
#include "tests/support/process_view.h"
#include "tests/support/wait_until.h"

namespace kav_faults {

constexpr int k_side_by_side = kav_test::k_sanitized ? 24 : 48;

// Runs life(1) to life(last). Afterwards the process has the descriptors that it had before.
inline void run_lives(long last, const std::function<void(long)>& life) {
  const std::size_t before = kav_test::open_descriptors();
  std::atomic<long> next{1};
  std::vector<std::thread> hosts;
  hosts.reserve(k_side_by_side);
  for (int i = 0; i < k_side_by_side; ++i) {
    hosts.emplace_back([&] {
      for (long n = next++; n <= last; n = next++) life(n);
    });
  }
  for (std::thread& host : hosts) host.join();
  EXPECT_TRUE(
      wait_until([&] { return kav_test::open_descriptors() == before; }, std::chrono::seconds{5}))
      << kav_test::open_descriptors() << " descriptors instead of " << before;
}

// How often a life asks for one kind of thing when it gets all.
inline long requests_of_a_life(source supply::*kind) {
  supply plenty;
  EXPECT_EQ("", session_life(plenty).run());
  return (plenty.*kind).asked();
}

// Lives that are refused one request each, every one in turn.
inline void refuse_each(source supply::*kind) {
  const long requests = requests_of_a_life(kind);
  std::atomic<long> refused{0};
  run_lives(requests, [&](long n) {
    supply once;
    (once.*kind).refuse_one(n);
    EXPECT_EQ("", session_life(once).run()) << "request " << n << " of " << requests;
    refused += (once.*kind).refused();
  });
  // Most: how often a life asks depends on time, and on a busy machine.
  EXPECT_LE(requests / 2, refused);
}

// Lives that are refused everything of that kind from one request on, every one in turn, until it
// is there again a little later.
inline void refuse_from_each(source supply::*kind) {
  const long requests = requests_of_a_life(kind);
  std::atomic<long> concerned{0};
  run_lives(requests, [&](long n) {
    supply scarce;
    (scarce.*kind).refuse_from(n);
    EXPECT_EQ("", session_life(scarce).run()) << "requests from " << n << " of " << requests;
    if (scarce.refused() != 0) ++concerned;
  });
  EXPECT_LE(requests / 2, concerned);
}

}  // namespace kav_faults
