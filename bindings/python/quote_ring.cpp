#include "bindings/python/quote_ring.h"

#include <sys/eventfd.h>  // eventfd
#include <unistd.h>       // read, write, close

#include <algorithm>     // std::min
#include <cerrno>        // errno
#include <cstring>       // std::memcpy
#include <stdexcept>     // std::invalid_argument
#include <system_error>  // std::system_error
#include <utility>       // std::exchange

namespace kav_python {
namespace {

using record = KAVMarketDepthQuoteData;

constexpr std::size_t k_copied_at_once = 256;  // 88 KB, some 10 us: so long may a push() wait

int make_eventfd() {
  const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  return fd;
}

std::size_t checked(std::size_t capacity) {
  if (capacity == 0) throw std::invalid_argument("a ring has room for one quote at least");
  return capacity;
}

}  // namespace

quote_ring::quote_ring(std::size_t capacity, when_full policy)
    : m_capacity(checked(capacity)),
      m_policy(policy),
      m_records(std::make_unique_for_overwrite<record[]>(capacity)),
      m_fd(make_eventfd()) {}

quote_ring::~quote_ring() { ::close(m_fd); }

bool quote_ring::make_room(std::unique_lock<std::mutex>& lock) {
  if (m_policy == when_full::wait) {
    m_room.wait(lock, [this] { return m_closed || m_size < m_capacity; });
    return false;
  }
  if (m_size < m_capacity) return false;
  m_first = (m_first + 1) % m_capacity;
  --m_size;
  ++m_dropped;
  return !std::exchange(m_drop_untold, true);
}

void quote_ring::put(const record& quote) {
  std::memcpy(&m_records[(m_first + m_size) % m_capacity], &quote, sizeof(record));
  ++m_size;
  ++m_received;
}

void quote_ring::announce() {
  if (m_waiters > 0) m_filled.notify_all();
  if (!std::exchange(m_armed, false)) return;
  const std::uint64_t one = 1;
  // Fails only when the counter is full, and then the descriptor is readable anyway.
  [[maybe_unused]] const ssize_t written = ::write(m_fd, &one, sizeof(one));
}

bool quote_ring::push(const record& quote) {
  std::unique_lock lock(m_lock);
  const bool first_drop = make_room(lock);
  if (m_closed) return false;
  put(quote);
  announce();
  return first_drop;
}

void quote_ring::close() {
  const std::lock_guard lock(m_lock);
  m_closed = true;
  m_room.notify_all();
  announce();
}

std::size_t quote_ring::take_some(record* to, std::size_t most) {
  const std::size_t count = std::min({most, m_size, m_capacity - m_first});
  if (count == 0) return 0;
  std::memcpy(to, &m_records[m_first], count * sizeof(record));
  m_first = (m_first + count) % m_capacity;
  m_size -= count;
  if (m_policy == when_full::wait) m_room.notify_one();
  return count;
}

std::size_t quote_ring::take(record* to, std::size_t most) {
  const std::lock_guard whole_batch(m_take_lock);
  std::size_t taken = 0;
  while (taken < most) {
    const std::lock_guard lock(m_lock);
    const std::size_t some = take_some(to + taken, std::min(most - taken, k_copied_at_once));
    if (some == 0) break;
    taken += some;
  }
  return taken;
}

bool quote_ring::wait_until(deadline limit) {
  std::unique_lock lock(m_lock);
  ++m_waiters;
  const bool is_ready = m_filled.wait_until(lock, limit, [this] { return ready(); });
  --m_waiters;
  return is_ready;
}

bool quote_ring::arm() {
  const std::lock_guard lock(m_lock);
  m_armed = !ready();
  return !m_armed;
}

void quote_ring::clear_fd() {
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t got = ::read(m_fd, &count, sizeof(count));
}

bool quote_ring::closed() const {
  const std::lock_guard lock(m_lock);
  return m_closed;
}

std::size_t quote_ring::size() const {
  const std::lock_guard lock(m_lock);
  return m_size;
}

std::uint64_t quote_ring::received() const {
  const std::lock_guard lock(m_lock);
  return m_received;
}

std::uint64_t quote_ring::dropped() const {
  const std::lock_guard lock(m_lock);
  return m_dropped;
}

std::uint64_t quote_ring::tell_dropped() {
  const std::lock_guard lock(m_lock);
  m_drop_untold = false;
  return m_dropped;
}

}  // namespace kav_python
