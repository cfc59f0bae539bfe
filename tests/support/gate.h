// A place that another thread is held at until the test lets it go on.
#pragma once

#include <atomic>  // std::atomic
#include <chrono>  // std::chrono::milliseconds

#include "tests/support/wait_until.h"

namespace kav_test {

class gate {
 public:
  void open() { m_open.store(true); }
  // Returns when it has been opened, after two minutes at the latest.
  void pass() {
    m_reached.store(true);
    wait_until([this] { return m_open.load(); }, std::chrono::milliseconds{120'000});
  }
  // True as soon as somebody is at the gate; waits 20 s.
  bool wait_reached() const {
    return wait_until([this] { return m_reached.load(); }, std::chrono::milliseconds{20'000});
  }

 private:
  std::atomic<bool> m_open{false}, m_reached{false};
};

}  // namespace kav_test
