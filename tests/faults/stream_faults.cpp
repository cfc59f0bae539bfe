// Bytes that are wrong, or too many.
#include <malloc.h>  // malloc_trim

#include <algorithm>  // std::max, std::nth_element
#include <random>     // std::mt19937

#include "tests/faults/process_state.h"
#include "tests/faults/stage.h"
#include "tests/support/wait_until.h"

namespace kav_faults {

namespace {

using std::chrono::seconds;

constexpr int k_garbage_rounds = 50;
constexpr std::size_t k_garbage_bytes = 200;
constexpr milliseconds k_round{40};
constexpr milliseconds k_room_wait{50};
constexpr seconds k_flood{3}, k_slow{6};
constexpr unsigned k_slow_rate = 10'000;
constexpr milliseconds k_sleep{1000};
// Up to 10 s for the worker, which waits for the thread in the callbacks, and one callback more.
constexpr milliseconds k_destroy_limit{14'000};

// Random bytes that begin like no message, so that each round is thrown away and not waited for.
std::string garbage_bytes(std::mt19937& random) {
  std::string bytes(k_garbage_bytes, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() & 0xFF);
  bytes[0] = '\x7f';
  return bytes;
}

}  // namespace

fault_result garbage() {
  fault_result r;
  r.note = "50 times 200 random bytes, 5,000 quotes/s; the longest time of the 50";
  stage s;
  if (!s.open(r)) return r;
  quote_feed feed{s.server, 5000};
  r.expect(s.client.events.wait_quotes(100), "quotes flow at first");
  std::mt19937 random{1};
  const clock::time_point begin = clock::now();
  double longest = 0;
  for (int round = 0; round < k_garbage_rounds; ++round) {
    const clock::time_point at = clock::now();
    s.server.send_raw(0, garbage_bytes(random));
    measure_return(r, s.client.events, at, "OnLog(3, receive unknown msg type)");
    if (!r.expect(r.quotes_s.has_value(), "quotes flow again")) return r;
    longest = std::max(longest, *r.quotes_s);
    std::this_thread::sleep_for(k_round);
  }
  r.quotes_s = longest;
  r.calls = s.client.events.calls_since(begin);
  r.calls.resize(std::min<std::size_t>(r.calls.size(), 2));
  feed.stop();
  wait_until([&] { return s.server.all_written(); }, k_patience);
  r.add("quotes lost with it, each time",
        static_cast<double>(s.client.events.missing()) / k_garbage_rounds, "");
  r.expect(s.server.connections().ever == 1, "the connection is kept");
  return r;
}

fault_result flood() {
  fault_result r;
  r.note = "one connection over loopback, server and client on the same two processors";
  stage s;
  if (!s.open(r)) return r;
  const process_state before = state_of_process();
  const clock::time_point at = clock::now();
  std::uint64_t sent = 0, most_kib = 0;
  while (clock::now() < at + k_flood) {
    if (s.server.push_quote_waiting(numbered_quote(static_cast<double>(sent + 1)), '1',
                                    k_room_wait)) {
      ++sent;
    }
    if (sent % 65536 == 0) most_kib = std::max(most_kib, state_of_process().resident_kib);
  }
  const caller& events = s.client.events;
  r.expect(wait_until([&] { return events.quotes() == sent; }, k_patience), "no quote is lost");
  const double took = seconds_between(at, clock::now());
  r.expect(events.missing() == 0 && events.out_of_order() == 0, "every quote comes in order");
  r.add("quotes", static_cast<double>(sent), "");
  r.add("quotes/s", static_cast<double>(sent) / took, "");
  r.add("lost", static_cast<double>(sent) - static_cast<double>(events.quotes()), "");
  r.add("most memory more, server's queue included", difference(most_kib, before.resident_kib),
        "KiB");
  r.calls = events.calls_since(at);
  r.expect(r.calls == std::vector<std::string>{"OnQuote"}, "nothing but quotes is told");
  return r;
}

fault_result slow_callback() {
  fault_result r;
  stage s;
  std::atomic<bool> slow{false};
  s.client.events.in_quote = [&] {
    if (slow.load()) std::this_thread::sleep_for(k_sleep);
  };
  if (!s.open(r)) return r;
  quote_feed feed{s.server, k_slow_rate};
  r.expect(s.client.events.wait_quotes(k_slow_rate), "quotes flow at first");
  slow.store(true);
  std::this_thread::sleep_for(k_sleep);
  const process_state before = state_of_process();
  const clock::time_point at = clock::now();
  const std::uint64_t sent_before = feed.sent();
  std::this_thread::sleep_for(k_slow);
  const double took = seconds_between(at, clock::now());
  const process_state after = state_of_process();
  const auto arrived = static_cast<double>(feed.sent() - sent_before);
  const double growth = difference(after.resident_kib, before.resident_kib);
  r.add("resident memory grows by", growth / took / 1024, "MiB/s");
  r.add("of which the messages themselves", arrived * 367 / took / 1024 / 1024, "MiB/s");
  r.expect(s.server.counters().quotes_dropped == 0, "the server is not held up");
  feed.stop();
  slow.store(false);
  const auto all_there = [&] { return s.client.events.quotes() == feed.sent(); };
  r.expect(wait_until(all_there, k_patience), "every quote is delivered in the end");
  r.expect(s.client.events.missing() == 0, "none is lost");
  slow.store(true);
  quote_feed again{s.server, k_slow_rate};
  s.client.events.wait_quotes(1);
  const auto gone = s.client.destroy();
  again.stop();
  ::malloc_trim(0);
  r.add("`DestroyKAVQuoteApi` meanwhile", static_cast<double>(gone.count()), "ms");
  r.expect(gone < k_destroy_limit,
           "DestroyKAVQuoteApi() returns after 10 s and a callback at the latest");
  return r;
}

}  // namespace kav_faults
