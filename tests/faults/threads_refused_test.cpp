// What the library does when threads are refused: once at each place where it creates one, and for
// good from each place on until there are some again.
#include <gtest/gtest.h>

#include <chrono>      // std::chrono_literals
#include <functional>  // std::function

#include "tests/faults/many_lives.h"
#include "tests/faults/session_life.h"
#include "tests/faults/supply.h"

namespace {

using namespace std::chrono_literals;
using kav_faults::session_life;
using kav_faults::supply;

// Threads in the order in which a connection creates them.
enum nth_thread : long { k_receive = 1, k_send, k_event, k_reconnect, k_worker };
constexpr long k_close = k_worker;  // of a connection without a worker

class one_thread_refused_test : public testing::Test {
 protected:
  void start(long nth) {
    m_supply.threads.refuse_one(nth);
    ASSERT_TRUE(m_life.start());
  }
  // Whatever was refused: the next try works, and nothing is left in the end.
  void TearDown() override {
    EXPECT_EQ(1, m_supply.threads.refused());
    EXPECT_TRUE(m_life.reach_quote()) << m_life.fault();
    EXPECT_TRUE(m_life.destroy()) << m_life.fault();
  }
  void refuse_logins() {
    m_life.server().change_behaviour(
        [](kav_sim::behaviour& how) { how.login = kav_sim::login_answer::refuse; });
  }
  bool wait(const std::function<bool()>& condition) { return wait_until(condition, 10s); }

  supply m_supply;
  session_life m_life{m_supply};
};

}  // namespace

TEST(threads_refused_test, a_session_survives_each_single_refusal) {
  kav_faults::refuse_each(&supply::threads);
}

TEST(threads_refused_test, a_session_survives_a_drought_that_begins_at_any_thread) {
  kav_faults::refuse_from_each(&supply::threads);
}

// ---- What the host sees of it

TEST_F(one_thread_refused_test, without_a_receive_send_or_event_thread_there_is_no_connection) {
  for (const long nth : {k_receive, k_send, k_event}) {
    supply once;
    once.threads.refuse_one(nth);
    session_life life(once);
    ASSERT_TRUE(life.start());
    EXPECT_FALSE(life.connect()) << nth;
    EXPECT_EQ(0, once.live_threads) << nth;
    EXPECT_TRUE(life.reach_quote()) << life.fault();
    EXPECT_TRUE(life.destroy()) << life.fault();
  }
  start(k_receive);
  EXPECT_FALSE(m_life.connect());
}

TEST_F(one_thread_refused_test, without_a_reconnect_thread_the_session_is_as_good) {
  start(k_reconnect);
  EXPECT_TRUE(m_life.connect());
  EXPECT_TRUE(m_life.log_in());
  EXPECT_TRUE(wait([this] { return m_life.events().logins == 1; }));
  EXPECT_EQ(0, m_life.events().disconnections);
}

TEST_F(one_thread_refused_test, without_a_worker_the_login_has_failed_and_the_connection_is_over) {
  start(k_worker);
  ASSERT_TRUE(m_life.connect());
  ASSERT_TRUE(m_life.log_in());
  EXPECT_TRUE(wait([this] { return m_life.events().disconnections == 1; }));
  EXPECT_EQ(1, m_life.events().refusals);
  EXPECT_EQ(0, m_life.events().logins);
  EXPECT_TRUE(wait([this] { return m_supply.live_threads == 0; }));
}

TEST_F(one_thread_refused_test, without_a_closing_thread_the_server_learns_the_end_at_once) {
  start(k_close);
  refuse_logins();
  ASSERT_TRUE(m_life.connect());
  ASSERT_TRUE(m_life.log_in());
  EXPECT_TRUE(wait([this] { return m_life.events().disconnections == 1; }));
  EXPECT_TRUE(wait([this] { return m_life.server().connections().current == 0; }));
  EXPECT_TRUE(wait([this] { return m_supply.live_threads == 3; })) << "the event thread has ended";
  m_life.server().change_behaviour(
      [](kav_sim::behaviour& how) { how.login = kav_sim::login_answer::accept; });
}
