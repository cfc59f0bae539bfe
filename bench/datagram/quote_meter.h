// The caller's object of every road: stamps what it gets.
#pragma once

#include <atomic>   // std::atomic
#include <chrono>   // std::chrono::nanoseconds
#include <cstdint>  // std::int64_t
#include <ctime>    // clockid_t
#include <vector>   // std::vector

#include "tests/support/quotes_only.h"

namespace kav_bench {

using std::chrono::nanoseconds;

// The stamp that a sender puts into a record: whole nanoseconds, exact in a double for three months
// of uptime.
double stamp_now();

struct span {
  nanoseconds wall{0};
  nanoseconds cpu{0};  // of the receiving thread
};

// Two ways to measure. "Drain": the first quote is held back until the test has filled the socket's
// buffer; the time from there to the last quote is taken. "Steady": each quote's way from its stamp
// to the callback's first line.
//
// Threads: OnQuote() on the receiving thread; the rest on the measuring thread, begin_...() while
//          no datagram is under way.
class quote_meter final : public kav_test::quotes_only {
 public:
  void begin_drain(unsigned quotes);
  bool wait_held() const;  // until the first quote is being held; false: none within a second
  void release();
  // False: fewer quotes than announced have come within a second.
  bool wait_drained(span& out) const;

  void begin_steady(std::size_t quotes);
  // Returns when `quotes` have come or, since some may be lost, none has for a while.
  std::vector<nanoseconds> take_delays(std::size_t quotes);
  // CPU time of the thread that delivered the last first quote.
  nanoseconds cpu_of_receiver() const;

  unsigned seen() const { return m_seen.load(std::memory_order_acquire); }

  void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override;

 private:
  void on_drained_quote(unsigned number);
  void hold();
  void finish();

  std::atomic<bool> m_steady{false};
  std::atomic<unsigned> m_seen{0}, m_wanted{0};
  std::atomic<bool> m_held{false}, m_released{false}, m_done{false};
  std::atomic<clockid_t> m_receiver_clock{CLOCK_THREAD_CPUTIME_ID};
  // Receiving thread until m_done.
  span m_start, m_end;
  std::vector<nanoseconds> m_delays;
};

}  // namespace kav_bench
