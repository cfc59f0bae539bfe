// The rhythm of a session: heartbeats, passes, pauses between reconnections.
#include <algorithm>  // std::sort
#include <ctime>      // time
#include <thread>     // std::this_thread::sleep_for

#include "apps/sim/wire.h"
#include "tests/client/session_support.h"

namespace kav_session {
namespace {

constexpr milliseconds k_busy_machine{900};  // what a pause may take longer
constexpr const char* k_lost = "OnLog(0, [on_cache_callback] EVENT_REMOTE_DISCONNECT,thd_is_run:1)";

class interval_test : public session_fixture {
 protected:
  std::vector<kav_sim::received_message> of_type(std::size_t connection, char type) {
    std::vector<kav_sim::received_message> found;
    for (const kav_sim::received_message& m : m_server->received(connection)) {
      if (m.type() == type) found.push_back(m);
    }
    return found;
  }
  static std::int64_t epoch_second(clock::time_point at) {
    const auto now = std::chrono::system_clock::now().time_since_epoch() - (clock::now() - at);
    return std::chrono::duration_cast<std::chrono::seconds>(now).count();
  }
  static milliseconds between(clock::time_point from, clock::time_point to) {
    return std::chrono::duration_cast<milliseconds>(to - from);
  }
};

#define EXPECT_PAUSE(expected_ms, actual)                                         \
  do {                                                                            \
    const milliseconds pause_ = (actual);                                         \
    EXPECT_GE(pause_.count(), (expected_ms)-5);                                   \
    EXPECT_LE(pause_.count(), (expected_ms) + (k_busy_machine * k_slow).count()); \
  } while (false)

TEST_F(interval_test, heartbeats_leave_in_each_second_whose_sum_with_the_first_is_a_multiple_of_5) {
  log_in();
  // The worker notes its first second between these two; system time lags by a tick at most.
  const std::string quiet = "OnLog(0, [QuoteClient] nothing to reg or unreg)";
  ASSERT_TRUE(m_record.wait_text(quiet));
  const std::int64_t earliest =
      epoch_second(m_record.nth("OnLoginResult(true, )").at - milliseconds{15});
  const std::int64_t latest = epoch_second(m_record.nth(quiet).at);
  std::this_thread::sleep_for(milliseconds{17'000});
  const std::vector<kav_sim::received_message> beats = of_type(0, 'H');
  ASSERT_GE(beats.size(), 3u);
  ASSERT_LE(beats.size(), 4u);
  const std::int64_t rest = kav_sim::heartbeat_seconds(beats.front().bytes) % 5;
  bool fits = false;
  for (std::int64_t first = earliest; first <= latest; ++first) {
    fits = fits || (first + rest) % 5 == 0;
  }
  EXPECT_TRUE(fits) << earliest << " to " << latest << ", rest " << rest;
  for (std::size_t i = 0; i < beats.size(); ++i) {
    EXPECT_EQ(rest, kav_sim::heartbeat_seconds(beats[i].bytes) % 5);
    if (i == 0) continue;
    EXPECT_EQ(5, kav_sim::heartbeat_seconds(beats[i].bytes) -
                     kav_sim::heartbeat_seconds(beats[i - 1].bytes));
    EXPECT_GE(between(beats[i - 1].at, beats[i].at).count(), 4000 - 5);
    EXPECT_LE(between(beats[i - 1].at, beats[i].at).count(), 6000);
  }
}

TEST_F(interval_test, passes_with_requests_are_500_ms_apart_or_1500_around_a_heartbeat) {
  m_how.answer_register = false;
  log_in();
  m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>('1'), "IF2509");
  ASSERT_TRUE(wait_until([this] { return m_server->received_count('N') >= 9; }, k_patience));
  // One request a pass, and a line behind it; when a request is read here says less.
  const std::string sent = "OnLog(0, [QuoteClient] send 1 reg req, 0 unreg req)";
  std::size_t passes = 0;
  bool beat = false;
  for (const kav_sim::received_message& m : m_server->received(0)) {
    beat = beat || m.type() == 'H';
    if (m.type() != 'N') continue;
    ASSERT_TRUE(m_record.wait_text(sent, passes + 1));
    EXPECT_EQ("kav-worker", m_record.nth(sent, passes).thread);
    if (passes > 0) {
      EXPECT_PAUSE(beat ? 1500 : 500,
                   between(m_record.nth(sent, passes - 1).at, m_record.nth(sent, passes).at));
    }
    ++passes;
    beat = false;
  }
  EXPECT_GE(passes, 9u);
}

// Idle passes leave no trace of their own; a wish shows when the next one comes.
TEST_F(interval_test, wish_is_picked_up_within_100_ms_unless_a_heartbeat_is_on_its_way) {
  log_in();
  const std::string quiet = "OnLog(0, [QuoteClient] nothing to reg or unreg)";
  std::vector<milliseconds> quickest;
  for (std::size_t round = 1; round <= 4; ++round) {
    ASSERT_TRUE(m_record.wait_text(quiet, 2 * round - 1));
    const clock::time_point start = clock::now();
    register_symbol("IF2509");
    quickest.push_back(since(start));
    ASSERT_TRUE(m_record.wait_text(quiet, 2 * round));
    m_api->UnregisterSymbol(static_cast<KavKqsIntrumentType>('1'), "IF2509");
    ASSERT_TRUE(m_record.wait_text("OnSymbolUnregistered(", round));
  }
  std::sort(quickest.begin(), quickest.end());
  EXPECT_LE(quickest.front(), milliseconds{100} + k_busy_machine / 4 * k_slow);
  EXPECT_LE(quickest.back(), milliseconds{1100} + k_busy_machine * k_slow);
}

TEST_F(interval_test, reconnection_attempts_are_2_seconds_apart) {
  log_in();
  m_server->go_down();
  const std::string failed =
      "OnLog(3, [QuoteClient] connect server failed. " + address_text() + ")";
  ASSERT_TRUE(m_record.wait_text(failed, 3));
  EXPECT_EQ("kav-worker", m_record.nth(failed).thread);
  // A pass that the worker was sleeping in ends first, 1100 ms after its beginning at most.
  const milliseconds first = between(m_record.nth(k_lost).at, m_record.nth(failed).at);
  EXPECT_GE(first.count(), 2000);
  EXPECT_LE(first, milliseconds{3100} + k_busy_machine * k_slow);
  EXPECT_PAUSE(2000, between(m_record.nth(failed, 0).at, m_record.nth(failed, 1).at));
  EXPECT_PAUSE(2000, between(m_record.nth(failed, 1).at, m_record.nth(failed, 2).at));
}

TEST_F(interval_test, unanswered_relogin_is_given_up_after_5_seconds_and_begun_again_2_later) {
  log_in();
  m_how.login = kav_sim::login_answer::ignore;
  m_server->set_behaviour(m_how);
  m_server->drop_all();
  const std::string timeout = "OnLog(3, [QuoteClient] wait for login response timeout.)";
  ASSERT_TRUE(m_record.wait_text(timeout));
  // The login leaves 2 seconds after the loss; when it is read here says less.
  EXPECT_GE(between(m_record.nth(k_lost).at, m_record.nth(timeout).at).count(), 2000 + 5000);
  EXPECT_LE(between(of_type(1, 'L').front().at, m_record.nth(timeout).at),
            milliseconds{5000} + k_busy_machine * k_slow);
  ASSERT_TRUE(wait_until([this] { return m_server->received_count(2, 'L') == 1; }, k_patience));
  EXPECT_PAUSE(2000, between(m_record.nth(timeout).at, of_type(2, 'L').front().at));
  EXPECT_EQ(2u, m_server->connections().ever - m_server->connections().current);
}

TEST_F(interval_test, relogin_without_a_list_is_begun_again_after_5_and_2_seconds) {
  log_in();
  m_how.list = kav_sim::list_answer::ignore;
  m_server->set_behaviour(m_how);
  m_server->drop_all();
  ASSERT_TRUE(wait_until([this] { return m_server->received_count(2, 'L') == 1; }, k_patience));
  const std::string answered = "OnLog(0, [QuoteClient] on_login_resp,thread_is_running:1";
  EXPECT_PAUSE(7000, between(m_record.nth(answered).at, of_type(2, 'L').front().at));
  m_how.list = kav_sim::list_answer::normal;
  m_server->set_behaviour(m_how);
  EXPECT_EQ("2", status_by_login());
}

}  // namespace
}  // namespace kav_session
