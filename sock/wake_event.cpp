#include "sock/wake_event.h"

#include <linux/futex.h>  // FUTEX_WAIT_PRIVATE, FUTEX_WAKE_PRIVATE
#include <sys/eventfd.h>  // eventfd
#include <sys/syscall.h>  // SYS_futex
#include <unistd.h>       // syscall, read, write, close

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

wake_event::~wake_event() {
  const int bell = m_bell.load(std::memory_order_relaxed);
  if (bell >= 0) ::close(bell);
}

void wake_event::notify() {
  m_epoch.fetch_add(1, std::memory_order_seq_cst);
  if (m_listening.load(std::memory_order_seq_cst)) ring();
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

int wake_event::open_bell() {
  if (m_bell.load(std::memory_order_relaxed) < 0) {
    m_bell.store(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), std::memory_order_relaxed);
  }
  return m_bell.load(std::memory_order_relaxed);
}

bool wake_event::listen(std::uint32_t ticket) {
  m_listening.store(true, std::memory_order_seq_cst);
  return m_epoch.load(std::memory_order_seq_cst) == ticket;
}

void wake_event::ring() const {
  const std::uint64_t once = 1;
  // Fails only when it has been rung very often already.
  static_cast<void>(!::write(m_bell.load(std::memory_order_relaxed), &once, sizeof(once)));
}

void wake_event::silence_bell() {
  std::uint64_t times = 0;
  static_cast<void>(!::read(m_bell.load(std::memory_order_relaxed), &times, sizeof(times)));
}

}  // namespace SOCK
}  // namespace VORLAN
