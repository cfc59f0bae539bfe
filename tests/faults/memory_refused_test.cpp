// What the library does when memory is refused: once at each place where it asks for some, and for
// good from each place on until it is back.
#include <gtest/gtest.h>

#include <chrono>  // std::chrono::seconds
#include <memory>  // std::unique_ptr

#include "tests/faults/many_lives.h"
#include "tests/faults/session_life.h"
#include "tests/faults/supply.h"

namespace {

using kav_faults::session_life;
using kav_faults::supply;

// Ends of clients while nothing at all is to be had.
class drought_test : public testing::Test {
 protected:
  void expect_nothing_left() {
    EXPECT_TRUE(wait_until([this] { return m_supply.has_all_back(); }, k_limit))
        << m_supply.live_threads << " threads, " << m_supply.live_blocks << " blocks";
    m_life.reset();
    EXPECT_TRUE(
        wait_until([this] { return kav_test::open_descriptors() == m_descriptors; }, k_limit));
  }

  static constexpr std::chrono::seconds k_limit{10};
  const std::size_t m_descriptors = kav_test::open_descriptors();
  supply m_supply;
  std::unique_ptr<session_life> m_life = std::make_unique<session_life>(m_supply);
};

}  // namespace

TEST(memory_refused_test, a_life_with_all_the_memory_it_asks_for_leaves_nothing_behind) {
  const std::size_t before = kav_test::open_descriptors();
  EXPECT_LT(50, kav_faults::requests_of_a_life(&supply::memory));
  EXPECT_EQ(before, kav_test::open_descriptors());
}

TEST(memory_refused_test, a_session_survives_each_single_refusal) {
  kav_faults::refuse_each(&supply::memory);
}

TEST(memory_refused_test, a_session_survives_a_drought_that_begins_at_any_request) {
  kav_faults::refuse_from_each(&supply::memory);
}

// ---- The end of a client while nothing at all is to be had

TEST_F(drought_test, a_client_that_was_never_used_is_destroyed) {
  ASSERT_TRUE(m_life->start());
  m_supply.refuse_all_from_now();
  EXPECT_TRUE(m_life->destroy()) << m_life->fault();
  expect_nothing_left();
}

TEST_F(drought_test, a_client_in_a_session_is_destroyed) {
  ASSERT_TRUE(m_life->start());
  ASSERT_TRUE(m_life->reach_quote()) << m_life->fault();
  m_supply.refuse_all_from_now();
  EXPECT_TRUE(m_life->destroy()) << m_life->fault();
  expect_nothing_left();
}

TEST_F(drought_test, a_client_that_tries_to_reconnect_is_destroyed) {
  ASSERT_TRUE(m_life->start());
  ASSERT_TRUE(m_life->reach_quote()) << m_life->fault();
  m_supply.refuse_all_from_now();
  m_life->server().drop_all();
  ASSERT_TRUE(wait_until([this] { return m_supply.memory.refused() > 2; }, k_limit));
  EXPECT_TRUE(m_life->destroy()) << m_life->fault();
  expect_nothing_left();
}

TEST_F(drought_test, a_refused_login_is_told_and_its_connection_cut_and_given_back_at_the_end) {
  ASSERT_TRUE(m_life->start());
  m_life->server().change_behaviour(
      [](kav_sim::behaviour& how) { how.login = kav_sim::login_answer::refuse; });
  ASSERT_TRUE(m_life->connect());
  m_supply.threads.refuse_all_from_now();
  ASSERT_TRUE(m_life->log_in());
  EXPECT_TRUE(wait_until([this] { return m_life->events().disconnections == 1; }, k_limit));
  EXPECT_EQ(1, m_life->events().refusals);
  EXPECT_TRUE(wait_until([this] { return m_life->server().connections().current == 0; }, k_limit))
      << "the server is to learn it at once";
  EXPECT_TRUE(m_life->destroy()) << m_life->fault();
  expect_nothing_left();
}

TEST_F(drought_test, a_connection_that_found_no_closing_thread_is_closed_when_there_is_one_again) {
  ASSERT_TRUE(m_life->start());
  m_life->server().change_behaviour(
      [](kav_sim::behaviour& how) { how.login = kav_sim::login_answer::refuse; });
  ASSERT_TRUE(m_life->connect());
  m_supply.refuse_all_from_now();
  ASSERT_TRUE(m_life->log_in());
  ASSERT_TRUE(wait_until([this] { return m_life->events().disconnections == 1; }, k_limit));
  ASSERT_TRUE(wait_until([this] { return m_supply.live_threads == 3; }, k_limit))
      << "no event thread";
  m_supply.restore();
  ASSERT_TRUE(m_life->connect());
  EXPECT_TRUE(wait_until([this] { return m_supply.live_threads == 4; }, k_limit)) << "the new ones";
  EXPECT_TRUE(m_life->be_refused()) << m_life->fault();
  EXPECT_TRUE(m_life->reach_quote()) << m_life->fault();
  EXPECT_TRUE(m_life->destroy()) << m_life->fault();
  expect_nothing_left();
}

TEST_F(drought_test, a_connection_outlives_its_client_and_goes_with_the_next_one) {
  ASSERT_TRUE(m_life->start());
  ASSERT_TRUE(m_life->connect());
  ASSERT_TRUE(wait_until([this] { return m_life->server().connections().current == 1; }, k_limit));
  m_supply.refuse_all_from_now();
  m_life->forsake();
  EXPECT_EQ(1u, m_life->server().connections().current) << "no session, so nobody has closed it";
  m_life->server().drop_all();
  ASSERT_TRUE(wait_until([this] { return m_supply.live_threads == 3; }, k_limit))
      << "no event thread";
  m_supply.restore();
  DestroyKAVQuoteApi(CreateKAVQuoteApi());
  expect_nothing_left();
}

// ---- What the host hears

TEST_F(drought_test, a_registration_and_a_query_that_are_dropped_are_logged) {
  ASSERT_TRUE(m_life->start());
  ASSERT_TRUE(m_life->reach_quote()) << m_life->fault();
  ASSERT_TRUE(m_life->wind_up()) << m_life->fault();
  const int lists = m_life->events().lists;
  m_supply.memory.refuse_all_from_now();
  m_life->query();
  m_life->register_symbol();
  EXPECT_EQ(2, m_life->events().memory_lines);
  m_supply.restore();
  m_life->query();
  EXPECT_TRUE(wait_until([&] { return m_life->events().lists == lists + 1; }, k_limit));
  EXPECT_TRUE(m_life->reach_quote()) << m_life->fault();
  EXPECT_TRUE(m_life->destroy()) << m_life->fault();
  EXPECT_EQ("", m_life->fault());
  expect_nothing_left();
}

TEST_F(drought_test, a_host_without_memory_for_any_log_line_loses_nothing_else) {
  m_life->events().logs_to_throw = 1'000'000;
  ASSERT_TRUE(m_life->start());
  EXPECT_TRUE(m_life->be_refused()) << m_life->fault();
  EXPECT_TRUE(m_life->reach_quote()) << m_life->fault();
  const std::size_t connections = m_life->server().connections().ever;
  EXPECT_TRUE(m_life->lose_connection()) << m_life->fault();
  EXPECT_EQ(connections + 1, m_life->server().connections().ever) << "for the loss alone";
  EXPECT_TRUE(m_life->wind_up()) << m_life->fault();
  EXPECT_TRUE(m_life->destroy()) << m_life->fault();
  EXPECT_GT(1'000'000, m_life->events().logs_to_throw) << "there were lines";
  expect_nothing_left();
}

TEST_F(drought_test, a_host_without_memory_for_its_login_loses_the_connection_and_gets_it_back) {
  ASSERT_TRUE(m_life->start());
  m_life->events().login_results_to_throw = 1;
  EXPECT_TRUE(m_life->reach_quote()) << m_life->fault();
  EXPECT_EQ(0, m_life->events().login_results_to_throw);
  EXPECT_EQ(2u, m_life->server().connections().ever);
  EXPECT_EQ(1, m_life->events().logins) << "mended without the host";
  EXPECT_EQ(1, m_life->events().memory_lines);
  EXPECT_TRUE(m_life->destroy()) << m_life->fault();
  expect_nothing_left();
}

TEST_F(drought_test, a_host_without_memory_for_a_refused_login_is_told_of_the_end_all_the_same) {
  ASSERT_TRUE(m_life->start());
  m_life->events().login_results_to_throw = 1;
  m_life->events().disconnections_to_throw = 1;
  EXPECT_TRUE(m_life->be_refused()) << m_life->fault();
  EXPECT_TRUE(wait_until([&] { return m_life->events().disconnections_to_throw == 0; }, k_limit));
  EXPECT_EQ(0, m_life->events().login_results_to_throw);
  EXPECT_TRUE(m_life->reach_quote()) << m_life->fault();
  EXPECT_TRUE(m_life->destroy()) << m_life->fault();
  expect_nothing_left();
}

TEST_F(drought_test, a_host_without_memory_for_an_early_loss_can_connect_again) {
  ASSERT_TRUE(m_life->start());
  ASSERT_TRUE(m_life->connect());
  ASSERT_TRUE(wait_until([this] { return m_life->server().connections().current == 1; }, k_limit));
  m_life->events().disconnections_to_throw = 1;
  m_life->server().drop_all();
  EXPECT_TRUE(wait_until([&] { return m_life->events().disconnections == 1; }, k_limit));
  EXPECT_TRUE(m_life->reach_quote()) << m_life->fault();
  EXPECT_EQ(1, m_life->events().disconnections);
  EXPECT_TRUE(m_life->destroy()) << m_life->fault();
  expect_nothing_left();
}

TEST_F(drought_test, a_host_without_memory_for_a_quote_loses_the_connection_and_gets_it_back) {
  ASSERT_TRUE(m_life->start());
  ASSERT_TRUE(m_life->reach_quote()) << m_life->fault();
  const std::size_t connections = m_life->server().connections().ever;
  m_life->events().quotes_to_throw = 1;
  EXPECT_TRUE(m_life->reach_quote()) << m_life->fault();
  EXPECT_EQ(connections + 1, m_life->server().connections().ever);
  EXPECT_EQ(1, m_life->events().logins) << "mended without the host";
  EXPECT_EQ(1, m_life->events().memory_lines);
  EXPECT_TRUE(m_life->destroy()) << m_life->fault();
  expect_nothing_left();
}

TEST_F(drought_test, a_host_without_memory_for_a_list_loses_the_connection_and_gets_it_back) {
  ASSERT_TRUE(m_life->start());
  ASSERT_TRUE(m_life->reach_quote()) << m_life->fault();
  const std::size_t connections = m_life->server().connections().ever;
  m_life->events().lists_to_throw = 1;
  m_life->query();
  EXPECT_TRUE(
      wait_until([&] { return m_life->server().connections().ever == connections + 1; }, k_limit));
  EXPECT_TRUE(m_life->reach_quote()) << m_life->fault();
  EXPECT_EQ(1, m_life->events().logins) << "mended without the host";
  EXPECT_TRUE(m_life->destroy()) << m_life->fault();
  expect_nothing_left();
}
