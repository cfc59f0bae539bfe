// Reading a connection's socket on behalf of its event thread.
#pragma once

#include <atomic>   // std::atomic
#include <cstddef>  // std::size_t
#include <cstdint>  // std::uint32_t
#include <memory>   // std::shared_ptr

#include "sock/wake_event.h"

namespace VORLAN {
namespace SOCK {

struct event_run;

// Whose turn it is to read: the event thread's, or that of one thread that has borrowed it. Who has
// the turn hands on what he has read before the other one reads on.
//
// Threads: as said at each operation; without a lock.
class reading_turn {
 public:
  // Event thread. False: lent. Else nobody can borrow until end_event_read(). The event thread
  // begins with the turn.
  bool begin_event_read();
  void end_event_read() { m_state.store(k_nobody, std::memory_order_release); }

  // Event thread. Like begin_event_read(), but ends a loan, when need be after the read that the
  // borrower has begun. False: there was no loan to end.
  bool take_back();
  bool is_lent() const { return m_state.load(std::memory_order_acquire) > k_event; }

  // Event thread. What keeps the borrower from reading, as a number; 0: nothing does. The same
  // number again means that he has been at it ever since.
  std::uint32_t absence() const;

 private:
  friend class reading_loan;

  // The last three: lent. Those marked * are soon over.
  static constexpr std::uint32_t k_nobody = 0;   // the event thread may read, anybody may borrow
  static constexpr std::uint32_t k_event = 1;    // * the event thread reads
  static constexpr std::uint32_t k_changes = 2;  // * the borrower reads, comes or goes
  static constexpr std::uint32_t k_waits = 3;    // the borrower waits for bytes
  static constexpr std::uint32_t k_absent = 4;   // this or more: the borrower is busy

  bool change(std::uint32_t from, std::uint32_t to) {
    return m_state.compare_exchange_strong(from, to, std::memory_order_acq_rel);
  }

  std::atomic<std::uint32_t> m_state{k_event};
};

// The borrower's side. A thread that would sleep until the event thread has read something for it
// waits for the bytes itself, so that one thread wakes for them instead of two. While the borrower
// is busy for long, the event thread takes the turn back: the peer is always read from. Ends and
// errors of the connection stay the event thread's.
//
// Threads: one, the borrower.
class reading_loan {
 public:
  // `wake` is notified when the event thread ends the loan, and outlives it.
  explicit reading_loan(wake_event& wake) : m_wake(wake) {}
  reading_loan(const reading_loan&) = delete;
  reading_loan& operator=(const reading_loan&) = delete;
  ~reading_loan();

  // False: the event thread is reading just now, or the connection is over.
  bool borrow(std::shared_ptr<event_run> run);
  void give_back();
  // As far as the borrower has noticed.
  bool is_held() const { return m_run != nullptr; }

  // Waits until there is something to read, the loan has ended, or `wake` was notified after
  // `ticket`; not for long when the event thread was reading just now.
  void wait(std::uint32_t ticket);
  // Is there something to read? If not, the borrower is no longer busy.
  bool may_read();
  // After may_read(): some bytes, with which the borrower is busy until its next call; 0: none for
  // now, or the loan has ended.
  std::size_t read(char* to, std::size_t size);
  // The borrower is busy with something else until its next call.
  void leave();

 private:
  bool open_watcher();
  bool may_wait();
  bool watch(int sock);
  void unwatch();
  bool begin_change();
  void end_change(std::uint32_t state);
  void end_loan();
  void forget();
  std::uint32_t next_absence();

  wake_event& m_wake;
  int m_watcher = -1;                // epoll instance with the bell of m_wake and a lent socket
  std::shared_ptr<event_run> m_run;  // null: nothing is borrowed
  bool m_busy = false;               // the event thread was reading when this one wanted to
  bool m_readable = false;           // there may be something to read
  std::uint64_t m_serial = 0;        // of the loan; what the watcher calls its socket
  std::uint32_t m_absence = reading_turn::k_absent;  // the latest
};

}  // namespace SOCK
}  // namespace VORLAN
