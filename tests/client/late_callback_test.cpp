// A caller whose callbacks return late, so that what they were about has gone meanwhile.
#include <sys/socket.h>  // shutdown

#include <cstring>   // std::memcpy
#include <optional>  // std::optional
#include <thread>    // std::thread

#include "client/kqs_messages.h"
#include "tests/client/session_support.h"
#include "tests/support/gate.h"
#include "tests/support/tcp_peer.h"

namespace kav_session {
namespace {

using kav_test::gate;
using kav_test::tcp_connection;
using kav_test::tcp_peer;

const char k_begin_line[] = "OnLog(0, [QuoteClient] _th_kqc_send_and_reconn begin)";
const char k_end_line[] = "OnLog(0, [QuoteClient] _th_kqc_send_and_reconn end)";
const char k_lost_line[] = "OnLog(0, [on_cache_callback] EVENT_REMOTE_DISCONNECT,thd_is_run:";
const char k_refusal_line[] = "OnLog(0, [QuoteClient] on_login_resp,thread_is_running:0, result: N";
const char k_answer_line[] = "OnLog(0, [QuoteClient] on_login_resp,thread_is_running:0, result: Y";

template <class T>
std::string bytes_of(const T& message) {
  return {reinterpret_cast<const char*>(&message), sizeof(message)};
}

std::string login_accepted() {
  kqs_login_resp answer{};
  answer.type = k_kqs_login_resp;
  answer.result = k_kqs_login_accepted;
  return bytes_of(answer);
}

std::string login_refused() {
  kqs_login_resp answer{};
  answer.type = k_kqs_login_resp;
  answer.result = 'N';
  std::memcpy(answer.reason, "bad password", 12);
  return bytes_of(answer);
}

std::string quote_message() {
  kqs_quote message{};
  message.type = k_kqs_quote;
  message.instrument_type = '1';
  message.quote = quote_of("IF2509", 1);
  return bytes_of(message);
}

std::string list_of_one_symbol() {
  kqs_symbol_list_resp symbol{};
  symbol.type = k_kqs_symbol_list_resp;
  symbol.instrument_type = '1';
  std::memcpy(symbol.symbol, "IF2509", 6);
  kqs_symbol_list_resp end{};
  end.type = k_kqs_symbol_list_resp;
  end.end_mark = k_kqs_list_end;
  return bytes_of(symbol) + bytes_of(end);
}

class late_callback_test : public session_fixture {
 protected:
  void TearDown() override {
    m_gate.open();
    session_fixture::TearDown();
  }
  void wait_callbacks_returned() {
    ASSERT_TRUE(wait_until([this] { return m_record.running() == 0; }, k_patience));
  }
  // Both happen at once: the answer to the login is being logged when the server's end is noticed,
  // and the worker begins while that end is being logged.
  void begin_worker_while_the_loss_is_logged() {
    m_record.set_hook([this](const call& it) {
      if (it.what.starts_with(k_answer_line)) {
        wait_until([this] { return m_record.has(k_lost_line); }, k_patience);
      } else if (it.what == k_lost_line + std::string{"0)"}) {
        wait_until([this] { return m_record.has(k_begin_line); }, k_patience);
      } else if (it.what.starts_with("OnQuote")) {
        m_gate.pass();
      }
    });
  }
  void log_in_at(tcp_peer& peer, tcp_connection& server, const std::string& answer) {
    ASSERT_TRUE(conn_server_at(peer.port()));
    server = peer.accept();
    ASSERT_NE(0, send_login());
    ASSERT_EQ(sizeof(kqs_login_req), server.read_exactly(sizeof(kqs_login_req)).size());
    ASSERT_TRUE(server.write(answer));
    ::shutdown(server.fd(), SHUT_WR);
  }

  gate m_gate;
};

TEST_F(late_callback_test, a_connection_freed_while_its_loss_is_logged_is_looked_at_no_more) {
  log_in();
  m_record.set_hook([this](const call& it) {
    if (it.what == k_lost_line + std::string{"1)"}) m_gate.pass();
  });
  m_server->reset_all();
  ASSERT_TRUE(m_gate.wait_reached());
  m_api->DisConnServer();  // gives the thread up that is in the callback, and frees its connection
  EXPECT_TRUE(m_record.has(k_end_line));
  m_gate.open();
  wait_callbacks_returned();
  log_in();
  register_symbol("IF2509");
  EXPECT_FALSE(m_record.has("OnServerDisconnected()"));
}

TEST_F(late_callback_test, a_loss_that_is_logged_late_leaves_the_next_connection_alone) {
  connect();
  m_record.set_hook([this](const call& it) {
    if (it.what == k_lost_line + std::string{"0)"}) m_gate.pass();
  });
  ASSERT_TRUE(wait_until([this] { return m_server->connections().current == 1; }, k_patience));
  m_server->reset_all();
  ASSERT_TRUE(m_gate.wait_reached());
  m_api->DisConnServer();
  ASSERT_TRUE(conn_server());  // frees the first connection; the second may get its address
  m_gate.open();
  wait_callbacks_returned();
  EXPECT_FALSE(m_record.has("OnServerDisconnected()"));
  ASSERT_NE(0, send_login());
  EXPECT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
}

TEST_F(late_callback_test, a_worker_that_begins_while_the_loss_is_logged_is_told_of_it) {
  begin_worker_while_the_loss_is_logged();
  tcp_peer peer;
  tcp_connection server{-1};
  log_in_at(peer, server, login_accepted());
  EXPECT_TRUE(m_record.wait_text("OnLoginResult(false, query symbol error)"));
  EXPECT_FALSE(m_record.has("OnServerDisconnected()"));
  ASSERT_TRUE(wait_until([] { return library_threads("kav-worker") == 0; }, k_patience));
  EXPECT_TRUE(conn_server_at(peer.port()));
  EXPECT_TRUE(peer.accept().is_open());
}

TEST_F(late_callback_test, a_session_that_begins_while_its_loss_is_logged_is_mended) {
  begin_worker_while_the_loss_is_logged();
  tcp_peer peer;
  tcp_connection server{-1};
  log_in_at(peer, server, login_accepted() + quote_message() + list_of_one_symbol());
  ASSERT_TRUE(m_gate.wait_reached());
  EXPECT_EQ(sizeof(kqs_symbol_list_req), server.read_exactly(sizeof(kqs_symbol_list_req)).size());
  m_gate.open();  // now the list is read
  EXPECT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
  tcp_connection again = peer.accept();
  EXPECT_EQ(sizeof(kqs_login_req), again.read_exactly(sizeof(kqs_login_req)).size());
  EXPECT_FALSE(m_record.has("OnServerDisconnected()"));
}

TEST_F(late_callback_test, a_refusal_that_is_logged_late_says_nothing_about_the_next_session) {
  tcp_peer first_peer, second_peer;
  m_record.set_hook([&](const call& it) {
    if (it.what.starts_with(k_refusal_line)) m_gate.pass();
    if (it.what == "OnServerDisconnected()") {
      EXPECT_TRUE(conn_server_at(second_peer.port()));
      EXPECT_NE(0, send_login());
    }
  });
  tcp_connection first{-1};
  log_in_at(first_peer, first, login_refused() + login_refused());
  ASSERT_TRUE(m_gate.wait_reached());
  tcp_connection second = second_peer.accept();
  EXPECT_EQ(sizeof(kqs_login_req), second.read_exactly(sizeof(kqs_login_req)).size());
  ASSERT_TRUE(second.write(login_accepted()));
  EXPECT_EQ(sizeof(kqs_symbol_list_req), second.read_exactly(sizeof(kqs_symbol_list_req)).size());
  ASSERT_TRUE(second.write(list_of_one_symbol()));
  EXPECT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
  m_gate.open();
  wait_callbacks_returned();
  EXPECT_FALSE(m_record.has("OnLoginResult(false"));
  EXPECT_FALSE(m_record.has("OnLog(3, [QuoteClient] login failed"));
  EXPECT_FALSE(m_record.has("OnLog(0, [QuoteClient] relogin"));
}

TEST_F(late_callback_test, a_caller_may_connect_again_when_he_hears_that_it_failed) {
  tcp_peer peer;
  std::optional<bool> connected;
  m_record.set_hook([&](const call& it) {
    if (it.what.starts_with("OnLog(3, [QuoteClient] init connect server failed.")) {
      connected = conn_server_at(peer.port());
    }
  });
  const kav_test::refusing_port nobody;
  EXPECT_FALSE(conn_server_at(nobody.port()));
  EXPECT_EQ(true, connected);
  EXPECT_TRUE(peer.accept().is_open());
  EXPECT_EQ(1u, m_record.text_count("OnServerConnected()"));
}

TEST_F(late_callback_test, a_caller_may_connect_again_when_he_hears_of_invalid_parameters) {
  tcp_peer peer;
  std::optional<bool> connected;
  m_record.set_hook([&](const call& it) {
    if (it.what == "OnLog(3, [QuoteClient] invalid params.)") {
      connected = conn_server_at(peer.port());
    }
  });
  const kav_test::refusing_port nobody;
  EXPECT_FALSE(conn_server_at(nobody.port()));  // from now on the client has somebody to tell
  std::vector<KqsTcpInfo> none;
  EXPECT_FALSE(m_api->ConnServer(none, &m_record));
  EXPECT_EQ(true, connected);
  EXPECT_TRUE(peer.accept().is_open());
}

TEST_F(late_callback_test, a_lost_connection_costs_nothing_while_the_server_is_away) {
  const std::size_t before = open_descriptors();
  {
    tcp_peer peer;
    tcp_connection server{-1};
    ASSERT_TRUE(conn_server_at(peer.port()));
    server = peer.accept();
    ASSERT_NE(0, send_login());
    ASSERT_EQ(sizeof(kqs_login_req), server.read_exactly(sizeof(kqs_login_req)).size());
    ASSERT_TRUE(server.write(login_accepted()));
    ASSERT_EQ(sizeof(kqs_symbol_list_req), server.read_exactly(sizeof(kqs_symbol_list_req)).size());
    ASSERT_TRUE(server.write(list_of_one_symbol()));
    ASSERT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
  }
  ASSERT_TRUE(m_record.wait_text("OnLog(3, [QuoteClient] connect server failed."));
  EXPECT_TRUE(wait_until([before] { return open_descriptors() <= before; }, milliseconds{1500}));
}

TEST_F(late_callback_test, a_caller_may_connect_again_while_his_first_announcement_lasts) {
  tcp_peer peer;
  m_record.set_hook([this, port = peer.port()](const call& it) {
    if (it.what == "OnServerConnected()" && it.thread == "caller") m_gate.pass();
    // The second one is the test's own end.
    if (it.what == "OnServerDisconnected()" && m_record.text_count(it.what) == 1) {
      EXPECT_TRUE(conn_server_at(port));
    }
  });
  std::thread caller([&] { EXPECT_TRUE(conn_server_at(peer.port())); });
  tcp_connection first = peer.accept();
  EXPECT_TRUE(m_gate.wait_reached());
  first.close_with_fin();
  tcp_connection second = peer.accept();
  EXPECT_TRUE(second.is_open());
  m_gate.open();
  caller.join();
  wait_callbacks_returned();
  EXPECT_EQ(2u, m_record.text_count("OnServerConnected()"));
  ASSERT_NE(0, send_login());
  EXPECT_EQ(sizeof(kqs_login_req), second.read_exactly(sizeof(kqs_login_req)).size());
}

}  // namespace
}  // namespace kav_session
