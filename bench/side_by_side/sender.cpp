#include "bench/side_by_side/sender.h"

#include <sys/prctl.h>   // prctl
#include <sys/socket.h>  // send, shutdown

#include <algorithm>  // std::min
#include <ctime>      // clock_nanosleep

#include "apps/sim/wire.h"
#include "bench/side_by_side/processors.h"
#include "bench/side_by_side/stamped_quote.h"
#include "bench/side_by_side/statistics.h"

namespace kav_bench {

namespace {

using kav_sim::k_quote_bytes;

constexpr std::size_t k_flood_burst = 65536 / k_quote_bytes;  // messages in about 64 KiB
constexpr std::int64_t k_catch_up_ns = 1'000'000;  // later than this, the schedule starts anew
constexpr std::int64_t k_before_end_ns = 10'000'000;
constexpr std::int64_t k_second_ns = 1'000'000'000;

void wait_until(std::int64_t deadline_ns, bool sleep) {
  if (!sleep) {
    while (monotonic_ns() < deadline_ns) {
    }
    return;
  }
  const timespec at{deadline_ns / k_second_ns, deadline_ns % k_second_ns};
  while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) != 0) {
  }
}

bool send_whole(int fd, const char* data, std::size_t left) {
  while (left > 0) {
    const ssize_t sent = ::send(fd, data, left, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    data += sent;
    left -= static_cast<std::size_t>(sent);
  }
  return true;
}

// One connection's stream, with its own count.
class connection_stream {
 public:
  // `messages`: one for each symbol, named in turn; outlives this object.
  connection_stream(int fd, const std::vector<std::string>& messages, std::size_t burst)
      : m_fd(fd), m_messages(&messages) {
    for (std::size_t i = 0; i < burst; ++i) m_bytes += messages[0];
  }

  bool send_messages(std::size_t count, quote_mark mark, quote_mark last_mark) {
    for (std::size_t i = 0; i < count; ++i) {
      char* const message = m_bytes.data() + i * k_quote_bytes;
      if (m_messages->size() > 1) next_symbol(message);
      write_stamp(message, {0, m_sequence++, i + 1 == count ? last_mark : mark});
    }
    const std::int64_t now = monotonic_ns();
    for (std::size_t i = 0; i < count; ++i) write_sent_time(&m_bytes[i * k_quote_bytes], now);
    return send_whole(m_fd, m_bytes.data(), count * k_quote_bytes);
  }

  bool finish() {
    const bool sent = send_messages(1, quote_mark::end, quote_mark::end);
    ::shutdown(m_fd, SHUT_WR);  // a receiver that saw the mark may have gone already
    return sent;
  }

 private:
  void next_symbol(char* message) {
    (*m_messages)[m_next_symbol].copy(message, k_quote_bytes);
    m_next_symbol = (m_next_symbol + 1) % m_messages->size();
  }

  int m_fd;
  const std::vector<std::string>* m_messages;
  std::string m_bytes;  // room for one burst
  std::int64_t m_sequence = 0;
  std::size_t m_next_symbol = 0;
};

bool send_flood(std::vector<connection_stream>& streams, std::size_t count, quote_mark mark) {
  for (std::size_t sent = 0, turn = 0; sent < count; ++turn) {
    const std::size_t now = std::min(k_flood_burst, count - sent);
    if (!streams[turn % streams.size()].send_messages(now, mark, mark)) return false;
    sent += now;
  }
  return true;
}

// How far the sends were behind their deadlines goes to `late`.
bool send_paced(std::vector<connection_stream>& streams, const stream_plan& plan, std::size_t count,
                quote_mark mark, std::vector<std::int64_t>& late) {
  const std::int64_t gap = plan.gap.count();
  const bool sleep = plan.gap > plan.spin_up_to;
  const bool marked = mark == quote_mark::counted && plan.burst > 1;
  const quote_mark last = marked ? quote_mark::last_of_burst : mark;
  std::int64_t deadline = monotonic_ns();
  for (std::size_t sent = 0, turn = 0; sent < count; ++turn, sent += plan.burst) {
    deadline += gap;
    wait_until(deadline, sleep);
    late.push_back(monotonic_ns() - deadline);
    if (late.back() > k_catch_up_ns) deadline += late.back();
    if (!streams[turn % streams.size()].send_messages(plan.burst, mark, last)) return false;
  }
  return true;
}

bool send_part(std::vector<connection_stream>& streams, const stream_plan& plan, std::size_t count,
               quote_mark mark, std::vector<std::int64_t>& late) {
  return plan.gap.count() == 0 ? send_flood(streams, count, mark)
                               : send_paced(streams, plan, count, mark, late);
}

}  // namespace

sent_stream send_stream(const std::vector<int>& sockets, const stream_plan& plan) {
  ::prctl(PR_SET_TIMERSLACK, 1);
  stay_on(plan.processor);
  std::vector<std::string> messages;
  for (std::size_t i = 0; i < plan.symbols; ++i) {
    messages.push_back(quote_message_for(symbol_name(i)));
  }
  std::vector<connection_stream> streams;
  streams.reserve(sockets.size());
  for (const int fd : sockets) {
    streams.emplace_back(fd, messages, plan.gap.count() == 0 ? k_flood_burst : plan.burst);
  }
  sent_stream result;
  std::vector<std::int64_t> late;
  late.reserve((plan.warm_up + plan.counted) / plan.burst + 2);
  result.whole = send_part(streams, plan, plan.warm_up, quote_mark::warm_up, late);
  late.clear();
  const std::int64_t begin = monotonic_ns();
  result.whole = result.whole && send_part(streams, plan, plan.counted, quote_mark::counted, late);
  result.seconds = static_cast<double>(monotonic_ns() - begin) * 1e-9;
  wait_until(monotonic_ns() + k_before_end_ns, true);
  for (connection_stream& stream : streams) result.whole = stream.finish() && result.whole;
  if (!late.empty()) result.late_p50_us = static_cast<double>(percentile(late, 50)) * 1e-3;
  return result;
}

}  // namespace kav_bench
