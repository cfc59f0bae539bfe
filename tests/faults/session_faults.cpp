// The server is there, but does not do what it should.
#include "tests/faults/stage.h"
#include "tests/faults/time_lapse.h"
#include "tests/support/wait_until.h"

namespace kav_faults {

namespace {

constexpr milliseconds k_stall{3000};
constexpr milliseconds k_silence{8000};
constexpr long k_callback_lapse = 10;
constexpr double k_silent_tries = 10;  // after that the client gives up
constexpr double k_try_s = 7;          // 2 s until it connects, 5 s for the answer
constexpr std::size_t k_half_message = 180;

// After a session that the client has given up.
void expect_new_login(fault_result& r, stage& s) {
  s.server.change_behaviour([](kav_sim::behaviour& b) { b.login = kav_sim::login_answer::accept; });
  r.expect(s.client.log_in(s.server.port()), "ConnServer and LoginToKqs succeed afterwards");
}

}  // namespace

fault_result stalled_in_a_message() {
  fault_result r;
  stage s;
  if (!s.open(r)) return r;
  const std::string message = quote_bytes(1);
  const clock::time_point at = clock::now();
  s.server.send_raw(0, message.substr(0, k_half_message));
  std::this_thread::sleep_for(k_stall);
  r.expect(s.client.events.calls_since(at).empty(), "the client is told nothing while it lasts");
  const clock::time_point goes_on = clock::now();
  s.server.send_raw(0, message.substr(k_half_message));
  if (r.expect(s.client.events.wait_call("OnQuote"), "the message is delivered when it is whole")) {
    r.quotes_s = s.client.events.first_after(at, "OnQuote");
    r.add("from the message's last byte to `OnQuote`",
          *s.client.events.first_after(goes_on, "OnQuote") * 1000, "ms");
  }
  r.calls = s.client.events.calls_since(at);
  r.expect(s.server.connections().ever == 1, "the connection is kept");
  return r;
}

fault_result silent_at_login() {
  fault_result r;
  r.note = "nothing happens until the caller ends it; watched for 8 s";
  stage s;
  s.server.change_behaviour([](kav_sim::behaviour& b) { b.login = kav_sim::login_answer::ignore; });
  r.expect(s.server.start(), "the server starts");
  const clock::time_point at = clock::now();
  r.expect(s.client.connect(s.server.port()) && s.client.send_login(), "the login is sent");
  std::this_thread::sleep_for(k_silence);
  r.calls = s.client.events.calls_since(at);
  r.expect(r.calls == std::vector<std::string>{"OnServerConnected()"}, "nobody is told anything");
  const auto took = s.client.destroy();
  r.add("`DestroyKAVQuoteApi` meanwhile", static_cast<double>(took.count()), "ms");
  r.expect(took < k_stop_limit, "DestroyKAVQuoteApi() returns within a second");
  return r;
}

fault_result silent_at_relogin() {
  fault_result r;
  r.note = "simulated time: clock and sleeps of the process run 10 times as fast";
  stage s;
  if (!s.open(r)) return r;
  s.server.change_behaviour([](kav_sim::behaviour& b) { b.login = kav_sim::login_answer::ignore; });
  const clock::time_point at = clock::now();
  {
    const time_lapse lapse{k_callback_lapse};
    s.server.drop_all();
    s.client.events.wait_call(k_worker_end, 1, k_patience * k_callback_lapse);
  }
  r.noticed_s = s.client.events.first_after(at, k_loss);
  r.calls = s.client.events.calls_since(at);
  const auto gave_up = s.client.events.first_after(at, k_worker_end);
  r.add("until the client gives up", gave_up.value_or(-1), "s");
  r.expect(gave_up && *gave_up > k_silent_tries * k_try_s - 1 &&
               *gave_up < k_silent_tries * k_try_s + 20,
           "the client gives up after 10 tries of 7 s");
  r.expect(s.client.events.count("OnLogin") == 1 && s.client.events.count("OnServerDis") == 0,
           "no callback but OnLog tells it");
  expect_new_login(r, s);
  return r;
}

fault_result refused_at_relogin() {
  fault_result r;
  stage s;
  if (!s.open(r)) return r;
  s.server.change_behaviour([](kav_sim::behaviour& b) { b.login = kav_sim::login_answer::refuse; });
  const clock::time_point at = clock::now();
  s.server.drop_all();
  r.expect(s.client.events.wait_call(k_worker_end), "the client gives up at once");
  r.noticed_s = s.client.events.first_after(at, k_loss);
  r.calls = s.client.events.calls_since(at);
  r.add("until the client gives up", *s.client.events.first_after(at, k_worker_end), "s");
  r.expect(s.client.events.count("OnLogin") == 1 && s.client.events.count("OnServerDis") == 0,
           "no callback but OnLog tells it");
  expect_new_login(r, s);
  return r;
}

}  // namespace kav_faults
