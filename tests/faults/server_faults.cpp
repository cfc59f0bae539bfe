// The server goes away, for shorter or longer.
#include <algorithm>  // std::max, std::min

#include "tests/faults/process_state.h"
#include "tests/faults/server_child.h"
#include "tests/faults/stage.h"
#include "tests/faults/time_lapse.h"
#include "tests/support/process_view.h"
#include "tests/support/wait_until.h"

namespace kav_faults {

namespace {

using std::chrono::seconds;

constexpr std::size_t k_attempts = 3;
constexpr double k_attempt_pause_s = 2;  // between two tries to connect
constexpr double k_slack_s = 1;          // a busy machine
constexpr seconds k_short_absence{3}, k_long_absence{600};
constexpr double k_fewest_tries = 100;  // a busy machine, 30 times as fast
constexpr long k_absence_lapse = 30;
constexpr std::uint64_t k_most_growth_kib = 1024;

// A child that serves, and a client with quotes.
struct played {
  bool open(fault_result& r) {
    return r.expect(server.start(), "the server starts") &&
           r.expect(client.log_in(server.port()), "the first login succeeds") &&
           r.expect(client.register_first_symbol(), "a symbol is registered") &&
           r.expect(client.events.wait_quotes(100), "quotes flow at first");
  }
  server_child server;
  host client;
};

std::size_t most(std::size_t a, std::size_t b) { return std::max(a, b); }
std::size_t fewest(std::size_t a, std::size_t b) { return std::min(a, b); }

// Descriptors and threads come and go with each try; what there is at any time until the next one
// has failed, `choose` says how to put it together.
process_state state_over_one_try(played& p, std::size_t (*choose)(std::size_t, std::size_t)) {
  const std::size_t before = p.client.events.count(k_refused);
  process_state all = state_of_process();
  wait_until(
      [&] {
        const process_state now = state_of_process();
        all.descriptors = choose(all.descriptors, now.descriptors);
        all.threads = choose(all.threads, now.threads);
        return p.client.events.count(k_refused) > before;
      },
      milliseconds{10'000});
  return all;
}

double longest_gap(const std::vector<double>& times) {
  double longest = 0;
  for (std::size_t i = 1; i < times.size(); ++i)
    longest = std::max(longest, times[i] - times[i - 1]);
  return longest;
}

void expect_quick_notice(fault_result& r) {
  r.expect(r.noticed_s && *r.noticed_s < k_slack_s, "the loss is noticed at once");
}

void expect_return_within(fault_result& r, double limit_s) {
  r.expect(r.quotes_s && *r.quotes_s < limit_s,
           "quotes flow again within " + std::to_string(limit_s) + " s");
}

// Back at `at`; the client was in a pause then, and has to log in and register.
double latest_return(seconds absence) {
  return static_cast<double>(absence.count()) + k_attempt_pause_s + 1 + 2 * k_slack_s;
}

}  // namespace

fault_result server_killed() {
  fault_result r;
  played p;
  if (!p.open(r)) return r;
  const clock::time_point at = clock::now();
  p.server.kill_it();
  r.expect(p.client.events.wait_call(k_refused, k_attempts), "the client keeps trying");
  r.noticed_s = p.client.events.first_after(at, k_loss);
  expect_quick_notice(r);
  r.calls = p.client.events.calls_since(at);
  const double pause = longest_gap(p.client.events.all_after(at, k_refused));
  r.add("between two tries", pause, "s");
  r.expect(pause < k_attempt_pause_s + k_slack_s, "a try every 2 s");
  const auto took = p.client.disconnect();
  r.add("`DisConnServer` meanwhile", static_cast<double>(took.count()), "ms");
  r.expect(took < k_stop_limit, "DisConnServer() returns within a second");
  return r;
}

fault_result server_back_after_3_seconds() {
  fault_result r;
  played p;
  if (!p.open(r)) return r;
  const clock::time_point at = clock::now();
  p.server.kill_it();
  std::this_thread::sleep_until(at + k_short_absence);
  r.expect(p.server.start(), "the server comes back on its port");
  measure_return(r, p.client.events, at, k_loss);
  expect_quick_notice(r);
  expect_return_within(r, latest_return(k_short_absence));
  return r;
}

fault_result server_back_after_10_minutes() {
  fault_result r;
  r.note =
      "simulated time: clock and sleeps of the process run 30 times as fast while the server "
      "is away";
  played p;
  if (!p.open(r)) return r;
  const clock::time_point at = clock::now();
  p.server.kill_it();
  r.expect(p.client.events.wait_call(k_refused, 2), "the client keeps trying");
  const process_state early = state_over_one_try(p, most);
  {
    const time_lapse lapse{k_absence_lapse};
    wait_until([&] { return clock::now() >= at + k_long_absence; }, milliseconds{k_long_absence});
  }
  p.client.events.wait_call(k_refused, p.client.events.count(k_refused) + 1);
  const process_state late = state_over_one_try(p, fewest);
  r.expect(p.server.start(), "the server comes back on its port");
  measure_return(r, p.client.events, at, k_loss);
  expect_quick_notice(r);
  expect_return_within(r, latest_return(k_long_absence) + k_absence_lapse);
  const auto attempts = static_cast<double>(p.client.events.count(k_refused));
  r.add("tries that failed", attempts, "");
  r.expect(attempts > k_fewest_tries, "the client tries as often as it should");
  r.add("more descriptors after them", difference(late.descriptors, early.descriptors), "");
  r.add("more threads", difference(late.threads, early.threads), "");
  const double growth = difference(late.resident_kib, early.resident_kib);
  r.add("more resident memory", growth, "KiB");
  r.expect(late.descriptors <= early.descriptors, "no descriptor is left by a try");
  r.expect(late.threads <= early.threads, "no thread is left by a try");
  r.expect(kav_test::k_sanitized || growth < k_most_growth_kib, "no memory is left by a try");
  return r;
}

}  // namespace kav_faults
