#include "sock/wake_event.h"

#include <linux/futex.h>  // FUTEX_WAIT_PRIVATE, FUTEX_WAKE_PRIVATE
#include <sys/syscall.h>  // SYS_futex
#include <unistd.h>       // syscall

#include <ctime>  // timespec

namespace VORLAN {
namespace SOCK {
namespace {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t) &&
                  std::atomic<std::uint32_t>::is_always_lock_free,
              "the kernel waits on the plain word");

timespec to_timespec(std::chrono::nanoseconds time) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  timespec result{};
  result.tv_sec = static_cast<std::time_t>(seconds.count());
  result.tv_nsec = static_cast<long>((time - seconds).count());
  return result;
}

}  // namespace

void wake_event::notify() {
  m_epoch.fetch_add(1, std::memory_order_seq_cst);
  if (m_sleepers.load(std::memory_order_seq_cst) == 0) return;
  ::syscall(SYS_futex, &m_epoch, FUTEX_WAKE_PRIVATE, 0x7fffffff, nullptr, nullptr, 0);
}

void wake_event::wait(std::uint32_t ticket, std::chrono::nanoseconds limit) {
  const timespec relative = to_timespec(limit);
  m_sleepers.fetch_add(1, std::memory_order_seq_cst);
  if (m_epoch.load(std::memory_order_seq_cst) == ticket) {
    ::syscall(SYS_futex, &m_epoch, FUTEX_WAIT_PRIVATE, ticket,
              limit < limit.zero() ? nullptr : &relative, nullptr, 0);
  }
  m_sleepers.fetch_sub(1, std::memory_order_seq_cst);
}

}  // namespace SOCK
}  // namespace VORLAN
