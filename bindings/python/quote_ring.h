// Where the library's receive thread leaves quotes and Python picks them up.
//
// Threads:  push() on one thread of the library at a time; everything else on any thread. The lock
//           is held for a look, or for copying k_copied_at_once records; nobody who holds it waits
//           for anything else, Python's interpreter lock included.
// Shutdown: close() ends every wait and every push(). What had arrived stays to be taken.
// Memory:   capacity * 345 bytes, of which the system provides those that were used.
#pragma once

#include <chrono>              // std::chrono::steady_clock
#include <condition_variable>  // std::condition_variable
#include <cstddef>             // std::size_t
#include <cstdint>             // std::uint64_t
#include <memory>              // std::unique_ptr
#include <mutex>               // std::mutex

#include "api/kav_quote_api.h"

namespace kav_python {

// What a push() into a full ring does: the oldest quote makes room, or the library waits.
enum class when_full { drop_oldest, wait };

class quote_ring {
 public:
  using deadline = std::chrono::steady_clock::time_point;

  // Throws std::system_error when the system has no descriptor left.
  quote_ring(std::size_t capacity, when_full policy);
  ~quote_ring();
  quote_ring(const quote_ring&) = delete;
  quote_ring& operator=(const quote_ring&) = delete;

  // True: it was the first that cost another one its place since the last call of tell_dropped().
  bool push(const KAVMarketDepthQuoteData& quote);
  void close();

  // Copies up to `most` quotes, oldest first, and returns how many; never waits.
  std::size_t take(KAVMarketDepthQuoteData* to, std::size_t most);
  // True: there is something to take, or nothing will come any more.
  bool wait_until(deadline limit);
  // True: the same, at once. False: fd() becomes readable as soon as it is so.
  bool arm();
  void clear_fd();
  int fd() const { return m_fd; }

  bool closed() const;
  std::size_t size() const;
  std::size_t capacity() const { return m_capacity; }
  std::uint64_t received() const;
  std::uint64_t dropped() const;
  std::uint64_t tell_dropped();

 private:
  // All under m_lock.
  bool ready() const { return m_size > 0 || m_closed; }
  bool make_room(std::unique_lock<std::mutex>& lock);
  void put(const KAVMarketDepthQuoteData& quote);
  std::size_t take_some(KAVMarketDepthQuoteData* to, std::size_t most);
  void announce();

  const std::size_t m_capacity;  // constant, as are the next three
  const when_full m_policy;
  const std::unique_ptr<KAVMarketDepthQuoteData[]> m_records;
  const int m_fd;  // an eventfd

  std::mutex m_take_lock;  // taken before m_lock: a batch is not split between two takers

  mutable std::mutex m_lock;  // guards everything below
  std::condition_variable m_filled, m_room;
  std::size_t m_first = 0, m_size = 0;
  std::size_t m_waiters = 0;  // inside wait_until()
  bool m_armed = false;       // somebody waits for m_fd
  bool m_closed = false;
  bool m_drop_untold = false;
  std::uint64_t m_received = 0, m_dropped = 0;
};

}  // namespace kav_python
