// What one receiver process measures, and the callback object that measures it.
#pragma once

#include <condition_variable>  // std::condition_variable
#include <cstdint>             // std::int64_t
#include <mutex>               // std::mutex
#include <vector>              // std::vector

#include "bench/side_by_side/process_usage.h"
#include "bench/side_by_side/stamped_quote.h"
#include "tests/support/quotes_only.h"

namespace kav_bench {

// Figures of a finished stream, sent as bytes from the receiver's process to the one that asked.
struct measured {
  std::uint64_t counted = 0, received = 0;
  std::uint64_t out_of_order = 0;  // sequences that were not the next one: lost, doubled, swapped
  process_usage begin, end;        // around the counted part
  std::uint64_t peak_kib = 0, threads = 0;
  std::int64_t login_ns = 0, register_ns = 0;  // of the library's client
};

// The common part of one or more streams that one process receives.
//
// Threads:   each stream on a thread of its own; the waiting one is another.
class measurement {
 public:
  explicit measurement(std::size_t streams) : m_open(streams) {}

  void stream_begins();  // its first counted quote is there
  void stream_ends();    // its end mark is there
  bool wait_for_end(std::int64_t limit_ns);
  const process_usage& begin() const { return m_begin; }  // both once it has ended
  const process_usage& end() const { return m_end; }

 private:
  std::mutex m_lock;
  std::condition_variable m_ended;
  std::size_t m_open;
  bool m_begun = false;
  process_usage m_begin, m_end;
};

// Takes the quotes of one stream. Its first line is where a receiver's latency ends.
//
// Threads:   OnQuote() on one thread at a time; the results are read when the measurement has
// ended.
class measuring_event : public kav_test::quotes_only {
 public:
  // Room for `samples` latencies is made, and touched, now; 0: quotes are only counted.
  measuring_event(measurement& whole, std::size_t samples);

  void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override;

  const std::vector<std::int64_t>& latencies() const { return m_latencies; }
  const std::vector<std::int64_t>& last_latencies() const { return m_last_latencies; }
  std::uint64_t counted() const { return m_counted; }
  std::uint64_t received() const { return static_cast<std::uint64_t>(m_received); }
  std::uint64_t out_of_order() const { return m_out_of_order; }

 private:
  void count(std::int64_t now, const quote_stamp& stamp);

  measurement& m_whole;
  const bool m_timed;
  std::vector<std::int64_t> m_latencies, m_last_latencies;  // never beyond what was reserved
  std::uint64_t m_counted = 0, m_out_of_order = 0;
  std::int64_t m_received = 0;
};

}  // namespace kav_bench
