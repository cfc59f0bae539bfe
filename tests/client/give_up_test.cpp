// How long a client goes on trying to log in again.
#include "tests/client/session_support.h"

namespace kav_session {
namespace {

class give_up_test : public session_fixture {};

TEST_F(give_up_test, worker_ends_without_a_callback_after_10_unanswered_relogins) {
  log_in();
  m_how.login = kav_sim::login_answer::ignore;
  m_server->set_behaviour(m_how);
  const clock::time_point start = clock::now();
  m_server->drop_all();
  const std::string end = "OnLog(0, [QuoteClient] _th_kqc_send_and_reconn end)";
  ASSERT_TRUE(m_record.wait_text(end, 1, milliseconds{100'000}));
  const milliseconds took = since(start);
  EXPECT_GE(took.count(), 70'000);
  EXPECT_LE(took.count(), 85'000);
  EXPECT_EQ(10u, m_record.text_count("OnLog(3, [QuoteClient] wait for login response timeout.)"));
  EXPECT_EQ(11u, m_server->received_count('L'));
  EXPECT_EQ(11u, m_server->connections().ever);
  EXPECT_EQ(1u, m_record.text_count("OnLoginResult("));
  EXPECT_FALSE(m_record.has("OnServerDisconnected()"));
  EXPECT_EQ("0", status_by_login());
  m_how.login = kav_sim::login_answer::accept;
  m_server->set_behaviour(m_how);
  EXPECT_TRUE(conn_server());
  EXPECT_NE(0, send_login());
  EXPECT_TRUE(m_record.wait_text("OnLoginResult(true, )", 2));
}

}  // namespace
}  // namespace kav_session
