#include "apps/feed/publisher.h"

#include <algorithm>  // std::min
#include <thread>     // std::this_thread::sleep_until

#include "apps/feed/encode.h"

namespace kav_feed {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds k_slice{50};  // longest sleep without a look at keep_going()
constexpr milliseconds k_look{20};   // at least between two looks

datagram encode_exchange(feed which, const KAVMarketDepthQuoteData& tick) {
  switch (which) {
    case feed::cffex:
      return encode_cffex(tick);
    case feed::czce:
      return encode_czce(tick);
    case feed::gfex:
      return encode_gfex(tick);
    default:
      return encode_shfe(tick);
  }
}

// The feeds draw from generators of their own: which others are published changes nothing.
std::uint64_t seed_of(std::uint64_t seed, feed which) {
  return seed * k_feed_count + index_of(which);
}

}  // namespace

// One run's clock and limits.
class publisher::timing {
 public:
  explicit timing(const run_options& options)
      : m_options(options), m_pace(options.rate, m_start), m_ready(m_start), m_look_at(m_start) {}

  // Waits until a tick's time has come; `due` as its source tells it.
  stop wait_for_tick(std::chrono::microseconds due) {
    if (m_options.speed > 0) {
      const std::chrono::duration<double, std::micro> wait{static_cast<double>(due.count()) /
                                                           m_options.speed};
      m_ready = m_start + std::chrono::duration_cast<steady_clock::duration>(wait);
    }
    return wait_until(m_ready);
  }
  // Waits until one datagram more may leave.
  stop wait_for_datagram() { return wait_until(m_pace.next(m_ready, steady_clock::now())); }
  // After each datagram that has been made.
  stop count_made() {
    return ++m_made == m_options.count ? stop{run_end::count_reached} : std::nullopt;
  }

 private:
  stop wait_until(steady_time due) {
    for (;;) {
      const steady_time now = steady_clock::now();
      if (const stop end = look(now)) return end;
      if (now >= due) return std::nullopt;
      std::this_thread::sleep_until(std::min({due, now + k_slice, end_time(due)}));
    }
  }

  stop look(steady_time now) {
    if (now >= end_time(steady_time::max())) return run_end::time_over;
    if (now < m_look_at || !m_options.keep_going) return std::nullopt;
    m_look_at = now + k_look;
    return m_options.keep_going() ? std::nullopt : stop{run_end::told_to_stop};
  }

  steady_time end_time(steady_time otherwise) const {
    return m_options.limit.count() > 0 ? m_start + m_options.limit : otherwise;
  }

  const run_options& m_options;
  const steady_time m_start = steady_clock::now();
  pace m_pace;
  steady_time m_ready;  // of the current tick
  steady_time m_look_at;
  std::uint64_t m_made = 0;
};

publisher::publisher(const publisher_options& options) : m_options(options) {
  for (const feed which : k_all_feeds) {
    m_feeds.push_back({false, disturbance{options.disturbed, seed_of(options.seed, which)}});
  }
}

bool publisher::open(std::string& error) {
  if (!m_sender.open(m_options.groups, m_options.interface, error)) return false;
  for (const feed_group& group : m_options.groups) state(group.which).wanted = true;
  return true;
}

run_end publisher::run(kav_sim::tick_source& source, const run_options& options,
                       std::string& error) {
  timing when{options};
  const stop end = publish_all(source, when, error);
  if (end == run_end::failed || !send_held(error)) return run_end::failed;
  return end.value_or(run_end::source_ended);
}

publisher::stop publisher::publish_all(kav_sim::tick_source& source, timing& when,
                                       std::string& error) {
  kav_sim::tick tick{};
  std::chrono::microseconds due{0};
  while (source.next(tick, due)) {
    if (const stop end = when.wait_for_tick(due)) return end;
    ++m_ticks;
    if (const stop end = publish_tick(tick.record, when, error)) return end;
  }
  return std::nullopt;
}

publisher::stop publisher::publish_tick(const KAVMarketDepthQuoteData& tick, timing& when,
                                        std::string& error) {
  const std::optional<feed> exchange = exchange_feed(tick);
  if (!exchange) {
    ++m_without_record;
    return std::nullopt;
  }
  if (state(*exchange).wanted) {
    m_made.assign(1, encode_exchange(*exchange, tick));
    if (const stop end = publish_made(*exchange, when, error)) return end;
  }
  if (!in_lumen(*exchange) || !state(feed::lumen).wanted) return std::nullopt;
  m_made.clear();
  m_lumen.encode(tick, m_made);
  return publish_made(feed::lumen, when, error);
}

publisher::stop publisher::publish_made(feed which, timing& when, std::string& error) {
  for (const datagram& made : m_made) {
    m_passed.clear();
    state(which).disturbed.pass(made, m_passed);
    if (const stop end = send_passed(which, when, error)) return end;
    if (const stop end = when.count_made()) return end;
  }
  return std::nullopt;
}

publisher::stop publisher::send_passed(feed which, timing& when, std::string& error) {
  for (const datagram& passed : m_passed) {
    if (const stop end = when.wait_for_datagram()) return end;
    if (!m_sender.send(which, passed, error)) return run_end::failed;
    ++state(which).sent;
  }
  return std::nullopt;
}

// What still waits for a successor; a few datagrams at most, for which no end waits.
bool publisher::send_held(std::string& error) {
  for (const feed which : k_all_feeds) {
    m_passed.clear();
    state(which).disturbed.finish(m_passed);
    for (const datagram& held : m_passed) {
      if (!m_sender.send(which, held, error)) return false;
      ++state(which).sent;
    }
  }
  return true;
}

publisher_counts publisher::counts() const {
  publisher_counts result;
  for (const feed which : k_all_feeds) {
    const published& from = m_feeds[index_of(which)];
    result.feeds[index_of(which)] = {from.sent, from.disturbed.left_out(),
                                     from.disturbed.swapped()};
  }
  result.ticks = m_ticks;
  result.without_record = m_without_record;
  return result;
}

}  // namespace kav_feed
