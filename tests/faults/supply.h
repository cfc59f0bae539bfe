// Memory, threads and descriptors as the library gets them, so that a test can refuse them.
//
// This program's operators new and delete, its pthread_create(), socket(), epoll_create1() and
// eventfd() are those of supply.cpp. They serve everybody; only what the library asks for on behalf
// of one supply is counted and refused.
#pragma once

#include <atomic>   // std::atomic
#include <cstddef>  // std::size_t

namespace kav_faults {

// One kind of thing that can be refused. Any thread.
class source {
 public:
  // The n-th request from the very first on is refused, counted from 1, or all from it on.
  void refuse_one(long nth) { refuse(nth, nth); }
  void refuse_from(long nth);
  void refuse_all_from_now() { refuse_from(asked() + 1); }
  void restore() { refuse(0, -1); }

  bool grants();  // counts a request
  long asked() const { return m_asked.load(); }
  long refused() const { return m_refused.load(); }

 private:
  void refuse(long first, long last);

  std::atomic<long> m_first{0}, m_last{-1};
  std::atomic<long> m_asked{0}, m_refused{0};
};

// What one client is given, and what it still has. Outlives everything that it has given.
struct supply {
  source memory, threads, descriptors;

  long refused() const { return memory.refused() + threads.refused() + descriptors.refused(); }
  void refuse_all_from_now() {
    for (source* const each : {&memory, &threads, &descriptors}) each->refuse_all_from_now();
  }
  void restore() {
    for (source* const each : {&memory, &threads, &descriptors}) each->restore();
  }
  bool has_all_back() const { return live_threads == 0 && live_blocks == 0; }

  std::atomic<long> live_blocks{0};
  std::atomic<long> live_threads{0};  // that the library has made
};

// As long as it lives, the calling thread is inside the library, at the cost of `from`; threads
// that are made meanwhile are the library's as well.
class in_library {
 public:
  explicit in_library(supply& from);
  in_library(const in_library&) = delete;
  in_library& operator=(const in_library&) = delete;
  ~in_library();

 private:
  supply* const m_before;
};

}  // namespace kav_faults
