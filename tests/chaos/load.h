// How much the machine is behind, as far as it matters to those who measure times on it.
#pragma once

#include <atomic>  // std::atomic
#include <chrono>  // std::chrono::steady_clock
#include <mutex>   // std::mutex
#include <thread>  // std::thread

namespace kav_chaos {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int k_slow = 3;  // sanitizers take their time
#else
constexpr int k_slow = 1;
#endif

// A thread that sleeps for short times and looks how much longer it has slept than it wanted; and
// that starts threads and looks when they begin: a new thread waits much longer for its first turn
// than one that has slept, and whoever ends a connection that has just been made waits for its.
class load_meter {
 public:
  load_meter();
  ~load_meter();
  load_meter(const load_meter&) = delete;
  load_meter& operator=(const load_meter&) = delete;

  // How much longer than on an idle machine an operation may have taken that ends now.
  std::chrono::milliseconds slack() const;
  std::chrono::milliseconds worst() const { return std::chrono::milliseconds{m_worst_ms.load()}; }

 private:
  void measure();
  static long long nap_late_ms();
  static long long thread_late_ms();

  std::atomic<bool> m_done{false};
  std::atomic<long long> m_recent_ms{0};  // most of the last seconds
  std::atomic<long long> m_worst_ms{0};
  std::thread m_thread;  // last: uses the members above
};

}  // namespace kav_chaos
