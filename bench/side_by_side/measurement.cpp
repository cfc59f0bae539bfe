#include "bench/side_by_side/measurement.h"

#include <chrono>  // std::chrono::nanoseconds

namespace kav_bench {

namespace {

// Storage whose pages are there before the measurement begins.
std::vector<std::int64_t> touched_storage(std::size_t size) {
  std::vector<std::int64_t> values(size, 1);
  values.clear();
  return values;
}

void add_within_capacity(std::vector<std::int64_t>& values, std::int64_t value) {
  if (values.size() < values.capacity()) values.push_back(value);
}

}  // namespace

void measurement::stream_begins() {
  const std::lock_guard<std::mutex> hold{m_lock};
  if (m_begun) return;
  m_begun = true;
  m_begin = own_usage();
}

void measurement::stream_ends() {
  const std::lock_guard<std::mutex> hold{m_lock};
  if (m_open == 0 || --m_open > 0) return;
  m_end = own_usage();
  m_ended.notify_all();
}

bool measurement::wait_for_end(std::int64_t limit_ns) {
  std::unique_lock<std::mutex> hold{m_lock};
  return m_ended.wait_for(hold, std::chrono::nanoseconds{limit_ns}, [this] { return m_open == 0; });
}

measuring_event::measuring_event(measurement& whole, std::size_t samples)
    : m_whole(whole),
      m_timed(samples > 0),
      m_latencies(touched_storage(samples)),
      m_last_latencies(touched_storage(samples)) {}

void measuring_event::OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* quote) {
  const std::int64_t now = m_timed ? monotonic_ns() : 0;
  const quote_stamp stamp = read_stamp(*quote);
  if (stamp.sequence != m_received) ++m_out_of_order;
  ++m_received;
  if (stamp.mark == quote_mark::warm_up) return;
  if (stamp.mark == quote_mark::end) return m_whole.stream_ends();
  count(now, stamp);
}

void measuring_event::count(std::int64_t now, const quote_stamp& stamp) {
  if (m_counted++ == 0) m_whole.stream_begins();
  if (!m_timed) return;
  add_within_capacity(m_latencies, now - stamp.sent_ns);
  if (stamp.mark == quote_mark::last_of_burst) {
    add_within_capacity(m_last_latencies, now - stamp.sent_ns);
  }
}

}  // namespace kav_bench
