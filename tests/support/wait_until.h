// Waiting in tests: on a condition, with a deadline, never on a hopeful sleep.
#pragma once

#include <chrono>  // std::chrono::milliseconds
#include <thread>  // std::this_thread::sleep_for

// Looks at condition() each millisecond until it is true or `limit` has passed; the result is the
// condition's last value. Choose the limit for a busy machine: a condition that comes true ends
// the wait at once, so a generous one costs nothing.
template <class Condition>
bool wait_until(Condition condition, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds{1});
  }
  return true;
}
