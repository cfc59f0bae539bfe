// Waiting for work without polling.
#pragma once

#include <atomic>   // std::atomic
#include <chrono>   // std::chrono::nanoseconds
#include <cstdint>  // std::uint32_t

namespace VORLAN {
namespace SOCK {

// Lets a thread sleep until there is work. The sleeper takes a ticket, looks for work, and waits
// with that ticket if there was none: work announced in between ends the wait at once.
//
// Threads: notify() from any thread; everything else from the one that sleeps.
class wake_event {
 public:
  wake_event() = default;
  wake_event(const wake_event&) = delete;
  wake_event& operator=(const wake_event&) = delete;
  ~wake_event();

  std::uint32_t ticket() const { return m_epoch.load(std::memory_order_seq_cst); }
  void notify();
  // Returns when notify() has been called since `ticket`, when `limit` has passed (negative: no
  // limit), or at times without a reason.
  void wait(std::uint32_t ticket, std::chrono::nanoseconds limit);

  // For a sleeper that waits for a descriptor too. open_bell(), once, is a descriptor that becomes
  // readable with notify() while the sleeper listens, -1 if the system has none left. It sleeps
  // between listen() and end_listening() unless listen() is false: notified since `ticket`.
  int open_bell();
  bool listen(std::uint32_t ticket);
  void end_listening() { m_listening.store(false, std::memory_order_relaxed); }
  void silence_bell();

 private:
  void ring() const;

  std::atomic<std::uint32_t> m_epoch{0};     // counts notifications; the kernel waits on it
  std::atomic<std::uint32_t> m_sleepers{0};  // spares notify() the system call when zero
  std::atomic<bool> m_listening{false};      // between listen() and end_listening()
  std::atomic<int> m_bell{-1};               // an eventfd, owned
};

}  // namespace SOCK
}  // namespace VORLAN
