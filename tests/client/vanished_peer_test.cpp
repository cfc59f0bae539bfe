// A server that is suddenly not there any more, and says nothing: its power is gone, or a cable is
// cut. Only the system can find that out, since nothing arrives.
#include <gtest/gtest.h>

#include <cstring>  // memcpy
#include <thread>   // std::this_thread

#include "tests/client/session_support.h"
#include "tests/support/two_networks.h"

namespace {

using namespace kav_session;
using kav_test::two_networks;

// Until a peer that has vanished is a lost connection.
constexpr milliseconds k_notice_limit{20'000};

const std::string k_lost_line = "OnLog(0, [on_cache_callback] EVENT_REMOTE_DISCONNECT";

// The server is on the other side of a cable that can be cut.
class vanished_peer_test : public session_fixture {
 protected:
  void SetUp() override {
    if (!m_networks.obstacle().empty()) GTEST_SKIP() << m_networks.obstacle();
    m_options.bind_address = two_networks::k_far_ip;
    m_networks.far().run([this] { start_server(); });
    // The threads of the client, and those that they start, live in the network of the caller.
    m_networks.near().run([this] {
      KqsTcpInfo server = endpoint_of(m_server->port());
      std::memcpy(server.m_ServerIp, two_networks::k_far_ip, sizeof("192.0.2.2"));
      ASSERT_TRUE(m_api->ConnServer(server, &m_record));
    });
    ASSERT_TRUE(wait_until([this] { return m_server->connections().ever == 1; }, k_patience));
  }

  void log_in_and_register() {
    send_login();
    ASSERT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
    register_symbol("IF2509");
  }
  // After a cut; how long it took from there.
  void expect_noticed(clock::time_point cut) {
    ASSERT_TRUE(m_record.wait_text(k_lost_line, 1, 2 * k_notice_limit));
    EXPECT_LE(since(cut), k_notice_limit);
  }

  two_networks m_networks;
};

TEST_F(vanished_peer_test, before_the_login_is_a_lost_connection) {
  const auto cut = clock::now();
  ASSERT_TRUE(m_networks.cut_cable());
  expect_noticed(cut);
  EXPECT_TRUE(m_record.wait_text("OnServerDisconnected()"));
  EXPECT_EQ("0", status_by_login());
}

TEST_F(vanished_peer_test, that_a_login_was_sent_to_is_a_lost_connection) {
  const auto cut = clock::now();
  ASSERT_TRUE(m_networks.cut_cable());
  // Late, so that the system has looked for the peer already, and begins anew with these bytes.
  std::this_thread::sleep_until(cut + milliseconds{7000});
  EXPECT_NE(0, send_login());
  expect_noticed(cut);
  EXPECT_TRUE(m_record.wait_text("OnServerDisconnected()"));
}

TEST_F(vanished_peer_test, after_the_login_is_mended_when_it_is_back) {
  log_in_and_register();
  const auto cut = clock::now();
  ASSERT_TRUE(m_networks.cut_cable());
  expect_noticed(cut);
  EXPECT_FALSE(m_record.has("OnServerDisconnected()"));
  ASSERT_TRUE(m_networks.mend_cable());
  EXPECT_TRUE(m_record.wait_text("OnSymbolRegistered(49, IF2509, true)", 2));
  m_server->push_quote(quote_of("IF2509", 1), '1');
  EXPECT_TRUE(wait_until([this] { return m_record.quote_count() == 1; }, k_patience));
}

TEST_F(vanished_peer_test, that_stays_away_is_asked_again_and_again) {
  log_in_and_register();
  ASSERT_TRUE(m_networks.cut_cable());
  expect_noticed(clock::now());
  EXPECT_TRUE(
      m_record.wait_text("OnLog(3, [QuoteClient] connect server failed.", 1, milliseconds{30'000}));
  ASSERT_TRUE(m_networks.mend_cable());
  EXPECT_TRUE(m_record.wait_text("OnSymbolRegistered(49, IF2509, true)", 2));
}

TEST_F(vanished_peer_test, is_not_one_that_is_silent_only) {
  log_in_and_register();
  m_server->stall(true);
  EXPECT_FALSE(m_record.wait_text(k_lost_line, 1, k_notice_limit + milliseconds{2000}));
  m_server->stall(false);
  m_server->push_quote(quote_of("IF2509", 1), '1');
  EXPECT_TRUE(wait_until([this] { return m_record.quote_count() == 1; }, k_patience));
}

}  // namespace
