#include "apps/sim/feed.h"

#include <thread>  // std::this_thread::sleep_until

namespace kav_sim {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds k_slice{50};  // longest time without a look at keep_going()
constexpr milliseconds k_look{5};    // between two looks at the registrations
constexpr unsigned k_ticks_per_look = 256;

bool wait_for_registration(const quote_server& server, const feed_options& options) {
  std::uint64_t requests = 0;
  steady_time changed_at = steady_clock::now();
  for (;;) {
    if (!options.keep_going()) return false;
    const std::uint64_t now_requests = server.counters().register_requests;
    if (now_requests != requests) {
      requests = now_requests;
      changed_at = steady_clock::now();
    }
    if (server.registered() && steady_clock::now() - changed_at >= k_registration_settle)
      return true;
    std::this_thread::sleep_for(k_look);
  }
}

bool wait_until_due(steady_time due, const feed_options& options) {
  for (;;) {
    const steady_time now = steady_clock::now();
    if (now >= due) return true;
    if (!options.keep_going()) return false;
    std::this_thread::sleep_until(std::min(due, now + k_slice));
  }
}

bool push_as_fast_as_read(quote_server& server, const tick& t, const feed_options& options,
                          push_result& result) {
  while (!server.push_quote_waiting(t.record, t.type, k_slice, &result)) {
    if (!options.keep_going()) return false;
  }
  return true;
}

}  // namespace

feed_result run_feed(tick_source& source, quote_server& server, const feed_options& options) {
  feed_result result;
  const bool full_speed = options.speed <= 0;
  if ((full_speed || options.wait_for_registration) && !wait_for_registration(server, options)) {
    return result;
  }
  const steady_time start = steady_clock::now();
  tick t{};
  std::chrono::microseconds due{0};
  for (;;) {
    if (result.ticks % k_ticks_per_look == 0 && !options.keep_going()) return result;
    // Whoever lost the connection finds the rest when back.
    if (full_speed && !server.registered() && !wait_for_registration(server, options)) {
      return result;
    }
    if (!source.next(t, due)) break;
    push_result pushed;
    if (full_speed) {
      if (!push_as_fast_as_read(server, t, options, pushed)) return result;
    } else {
      const std::chrono::duration<double, std::micro> wait{static_cast<double>(due.count()) /
                                                           options.speed};
      const auto at = start + std::chrono::duration_cast<steady_clock::duration>(wait);
      if (!wait_until_due(at, options)) return result;
      pushed = server.push_quote(t.record, t.type);
    }
    ++result.ticks;
    result.queued += pushed.queued;
  }
  result.at_end = true;
  return result;
}

}  // namespace kav_sim
