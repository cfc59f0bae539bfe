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
// Threads: notify() from any thread; ticket() and wait() from the one that sleeps.
class wake_event {
 public:
  std::uint32_t ticket() const { return m_epoch.load(std::memory_order_seq_cst); }
  void notify();
  // Returns when notify() has been called since `ticket`, when `limit` has passed (negative: no
  // limit), or at times without a reason.
  void wait(std::uint32_t ticket, std::chrono::nanoseconds limit);

 private:
  std::atomic<std::uint32_t> m_epoch{0};     // counts notifications; the kernel waits on it
  std::atomic<std::uint32_t> m_sleepers{0};  // spares notify() the system call when zero
};

}  // namespace SOCK
}  // namespace VORLAN
