// Losses: which the worker mends, which it gives up on, which the caller hears of.
#include <thread>  // std::this_thread::sleep_for

#include "apps/sim/wire.h"
#include "client/ckqc_tcp.h"
#include "client/kqc_connection.h"
#include "tests/client/session_support.h"

namespace kav_session {
namespace {

const char k_end_line[] = "OnLog(0, [QuoteClient] _th_kqc_send_and_reconn end)";
const char k_lost_line[] = "OnLog(0, [on_cache_callback] EVENT_REMOTE_DISCONNECT,thd_is_run:1)";

class reconnect_test : public session_fixture {
 protected:
  // Logged in on its connection number `connection`, and back to normal.
  bool wait_session(std::size_t connection) {
    return wait_until(
        [&] {
          const kav_sim::connection_state state = m_server->connection(connection);
          return state.open && state.logged_in && m_server->received_count(connection, 'S') == 1;
        },
        k_patience);
  }
  bool wait_registered(std::size_t connection, const std::vector<std::string>& symbols) {
    return wait_until([&] { return m_server->connection(connection).registered == symbols; },
                      k_patience);
  }
  void log_in_with_two_symbols() {
    log_in();
    register_symbol("IF2509", '1');
    register_symbol("Au(T+D)", '3');
    ASSERT_TRUE(wait_registered(0, {"0", "IF2509"}));
  }
  void expect_quotes_flow() {
    const std::size_t before = m_record.quote_count();
    m_server->push_quote(quote_of("IF2509", 1), '1');
    EXPECT_TRUE(wait_until([&] { return m_record.quote_count() == before + 1; }, k_patience));
  }
  // The caller knows of nothing but fresh registrations.
  void expect_silent_return() {
    EXPECT_EQ(1u, m_record.text_count("OnLoginResult("));
    EXPECT_EQ(1u, m_record.text_count("OnServerConnected()"));
    EXPECT_EQ(0u, m_record.text_count("OnServerDisconnected()"));
    EXPECT_EQ("2", status_by_login());
  }
};

TEST_F(reconnect_test, closed_connection_comes_back_with_all_wanted_symbols) {
  log_in_with_two_symbols();
  m_server->drop_all();
  ASSERT_TRUE(wait_session(1));
  ASSERT_TRUE(wait_registered(1, {"0", "IF2509"}));
  EXPECT_TRUE(m_record.wait_text("OnSymbolRegistered(49, IF2509, true)", 2));
  EXPECT_TRUE(m_record.wait_text("OnSymbolRegistered(51, Au(T+D), true)", 2));
  expect_quotes_flow();
  expect_silent_return();
  EXPECT_EQ("kav-event", m_record.nth(k_lost_line).thread);
  EXPECT_TRUE(
      m_record.has("OnLog(0, [QuoteClient] on_login_resp,thread_is_running:1, result: Y,  " +
                   address_text() + ")"));
  EXPECT_TRUE(m_record.has("OnLog(0, [QuoteClient] relogin success, " + address_text() + ")"));
  EXPECT_EQ(m_server->received(0).front().bytes, m_server->received(1).front().bytes);
}

TEST_F(reconnect_test, reset_connection_comes_back_with_all_wanted_symbols) {
  log_in_with_two_symbols();
  m_server->reset_all();
  ASSERT_TRUE(wait_registered(1, {"0", "IF2509"}));
  expect_quotes_flow();
  expect_silent_return();
}

TEST_F(reconnect_test, stalled_server_is_kept_until_it_goes_on) {
  log_in_with_two_symbols();
  m_server->stall(true);
  m_server->push_quote(quote_of("IF2509", 1), '1');
  std::this_thread::sleep_for(milliseconds{1500});
  EXPECT_FALSE(m_record.has(k_lost_line));
  EXPECT_EQ(0u, m_record.quote_count());
  m_server->stall(false);
  EXPECT_TRUE(wait_until([this] { return m_record.quote_count() == 1; }, k_patience));
  EXPECT_EQ(1u, m_server->connections().ever);
}

TEST_F(reconnect_test, message_cut_in_the_middle_by_a_loss_does_not_spoil_the_next_stream) {
  log_in_with_two_symbols();
  m_how.loss = kav_sim::loss_kind::truncate;
  m_how.loss_after_messages = 1;
  m_how.loss_limit = 1;
  m_how.truncate_bytes = 200;
  m_server->set_behaviour(m_how);
  m_server->push_quote(quote_of("IF2509", 1), '1');
  ASSERT_TRUE(wait_registered(1, {"0", "IF2509"}));
  EXPECT_EQ(0u, m_record.quote_count());
  expect_quotes_flow();
  EXPECT_FALSE(m_record.has("OnLog(3, [QuoteClient] receive unknown"));
}

TEST_F(reconnect_test, server_that_is_away_for_5_seconds_is_found_again) {
  log_in_with_two_symbols();
  m_server->outage(milliseconds{5000});
  ASSERT_TRUE(wait_registered(1, {"0", "IF2509"}));
  EXPECT_TRUE(m_record.has("OnLog(3, [QuoteClient] connect server failed. " + address_text()));
  expect_quotes_flow();
  expect_silent_return();
}

TEST_F(reconnect_test, losses_one_after_another_are_all_mended) {
  log_in_with_two_symbols();
  for (std::size_t connection = 1; connection <= 3; ++connection) {
    connection % 2 == 0 ? m_server->reset_all() : m_server->drop_all();
    ASSERT_TRUE(wait_registered(connection, {"0", "IF2509"})) << connection;
  }
  expect_quotes_flow();
  expect_silent_return();
}

TEST_F(reconnect_test, wishes_of_the_time_without_a_connection_are_met_after_it) {
  log_in_with_two_symbols();
  m_server->drop_all();
  ASSERT_TRUE(m_record.wait_text(k_lost_line));
  m_api->UnregisterSymbol(static_cast<KavKqsIntrumentType>('1'), "IF2509");
  m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>('2'), "cs1709");
  ASSERT_TRUE(wait_registered(1, {"0", "cs1709"}));
  EXPECT_FALSE(m_record.has("OnSymbolUnregistered("));
}

TEST_F(reconnect_test, refused_relogin_ends_the_worker_without_a_callback) {
  log_in_with_two_symbols();
  m_how.login = kav_sim::login_answer::refuse;
  m_server->set_behaviour(m_how);
  m_server->drop_all();
  ASSERT_TRUE(m_record.wait_text(k_end_line));
  EXPECT_TRUE(m_record.has("OnLog(0, [QuoteClient] relogin failed, " + address_text() + ")"));
  EXPECT_EQ(1u, m_record.text_count("OnLoginResult("));
  EXPECT_FALSE(m_record.has("OnServerDisconnected()"));
  EXPECT_EQ(2u, m_server->connections().ever);
  EXPECT_EQ("0", status_by_login());
  m_how.login = kav_sim::login_answer::accept;
  m_server->set_behaviour(m_how);
  ASSERT_TRUE(conn_server());
  ASSERT_NE(0, send_login());
  EXPECT_TRUE(m_record.wait_text("OnLoginResult(true, )", 2));
}

// The loss comes while the worker still waits for the list, or right after it: the queue is
// emptied there, and the loss must survive that.
TEST_F(reconnect_test, loss_right_after_the_relogin_is_not_forgotten) {
  log_in_with_two_symbols();
  m_how.loss = kav_sim::loss_kind::close;
  m_how.loss_after_messages = 5;  // answer, three symbols, end mark: lost with the end mark
  m_how.loss_limit = 3;           // this connection has sent more already: it goes first
  m_server->set_behaviour(m_how);
  m_server->push_quote(quote_of("IF2509", 1), '1');
  ASSERT_TRUE(wait_registered(3, {"0", "IF2509"}));
  expect_quotes_flow();
  expect_silent_return();
}

// The worker is about to drop what is queued, the loss of its new connection included, and nothing
// that it wants to send would tell it of that loss.
TEST_F(reconnect_test, loss_that_is_queued_before_the_queue_is_emptied_is_not_forgotten) {
  log_in();
  std::atomic<bool> relogin{true};
  m_record.set_hook([&](const call& c) {
    if (c.what.rfind("OnLog(0, Ckqc_tcp::_th_try", 0) != 0 || !relogin.exchange(false)) return;
    m_server->drop_all();
    EXPECT_TRUE(m_record.wait_text(k_lost_line, 2));
    std::this_thread::sleep_for(milliseconds{50});  // it is queued right after its line
  });
  m_server->drop_all();
  ASSERT_TRUE(wait_session(2));
  EXPECT_FALSE(relogin);
  register_symbol("IF2509");
  expect_quotes_flow();
  expect_silent_return();
}

TEST_F(reconnect_test, loss_right_after_the_login_answer_is_mended_by_the_next_try) {
  log_in_with_two_symbols();
  m_how.loss = kav_sim::loss_kind::reset;
  m_how.loss_after_messages = 1;
  m_how.loss_limit = 2;
  m_server->set_behaviour(m_how);
  m_server->push_quote(quote_of("IF2509", 1), '1');
  ASSERT_TRUE(wait_registered(2, {"0", "IF2509"}));
  expect_quotes_flow();
  expect_silent_return();
}

TEST_F(reconnect_test, server_that_closes_each_new_connection_at_once_is_tried_again) {
  log_in_with_two_symbols();
  m_how.on_accept = kav_sim::accept_answer::close;
  m_server->set_behaviour(m_how);
  m_server->drop_all();
  ASSERT_TRUE(wait_until([this] { return m_server->connections().ever >= 2; }, k_patience));
  m_how.on_accept = kav_sim::accept_answer::serve;
  m_server->set_behaviour(m_how);
  ASSERT_TRUE(wait_until([this] { return m_server->registered("IF2509"); }, k_patience));
  expect_quotes_flow();
  expect_silent_return();
}

TEST_F(reconnect_test, loss_left_over_from_an_earlier_connection_does_not_disturb) {
  log_in_with_two_symbols();
  // The worker is inside a callback when the connection goes, and finds the loss only afterwards,
  // behind a registration that cannot be sent any more.
  std::atomic<bool> blocked{false}, go_on{false};
  m_record.set_hook([&](const call& c) {
    if (c.what.compare(0, 13, "OnSymbolList(") != 0 || blocked.exchange(true)) return;
    wait_until([&] { return go_on.load(); }, k_patience);
  });
  m_api->QuerySymbolList();
  ASSERT_TRUE(wait_until([&] { return blocked.load(); }, k_patience));
  m_server->drop_all();
  ASSERT_TRUE(m_record.wait_text(k_lost_line));
  m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>('2'), "cs1709");
  go_on = true;
  ASSERT_TRUE(wait_registered(1, {"0", "IF2509", "cs1709"}));
  std::this_thread::sleep_for(milliseconds{2500});  // another reconnection would have come by now
  EXPECT_EQ(2u, m_server->connections().ever);
  EXPECT_EQ(1u, m_record.text_count(k_lost_line));
  expect_quotes_flow();
}

TEST_F(reconnect_test, connecting_anew_forgets_the_registrations) {
  log_in_with_two_symbols();
  m_api->DisConnServer();
  ASSERT_TRUE(m_record.wait_text(k_end_line));
  log_in();
  const std::string quiet = "OnLog(0, [QuoteClient] nothing to reg or unreg)";
  const std::size_t before = m_record.text_count(quiet);
  register_symbol("cs1709", '2');
  ASSERT_TRUE(m_record.wait_text(quiet, before + 1));
  EXPECT_EQ((std::vector<std::string>{"cs1709"}), m_server->connection(1).registered);
  EXPECT_EQ(1u, m_server->received_count(1, 'N'));
  EXPECT_TRUE(m_record.has("OnLog(0, [QuoteClient] valid:3,registed:0, need:1)"));
}

TEST_F(reconnect_test, registrations_of_the_time_before_a_loss_without_a_worker_are_forgotten) {
  log_in_with_two_symbols();
  m_api->DisConnServer();
  connect();
  m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>('1'), "IF2509");  // the list is known
  ASSERT_TRUE(wait_until([this] { return m_server->connection(1).open; }, k_patience));
  m_server->drop_all();
  ASSERT_TRUE(m_record.wait_text("OnServerDisconnected()"));
  log_in();
  register_symbol("cs1709", '2');
  EXPECT_EQ((std::vector<std::string>{"cs1709"}), m_server->connection(2).registered);
}

TEST_F(reconnect_test, symbol_known_from_an_earlier_login_may_be_registered_before_the_next) {
  log_in();
  m_api->DisConnServer();
  connect();
  m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>('1'), "IF2509");
  ASSERT_NE(0, send_login());
  EXPECT_TRUE(wait_registered(1, {"IF2509"}));
}

void expect_free_after_each_loss_at_once(session_record& record, kav_sim::quote_server& server,
                                         KAVQuoteApi& api, int rounds) {
  KqsTcpInfo info = endpoint_of(server.port());
  std::size_t told = 0;
  for (int round = 0; round < rounds; ++round) {
    const bool connected = api.ConnServer(info, &record);
    if (!connected) continue;  // a reset may come before connect() has finished
    ASSERT_TRUE(record.wait_text("OnServerDisconnected()", ++told)) << "round " << round;
    EXPECT_EQ(told, record.text_count("OnServerConnected()"));
    EXPECT_FALSE(record.has("OnLog(1, [QuoteClient] cannot connserver")) << "round " << round;
  }
  EXPECT_EQ(told, record.text_count("OnServerDisconnected()"));
}

TEST_F(reconnect_test, server_that_closes_at_once_leaves_the_client_free_each_time) {
  m_how.on_accept = kav_sim::accept_answer::close;
  start_server();
  expect_free_after_each_loss_at_once(m_record, *m_server, *m_api, 100);
  EXPECT_EQ("0", status_by_login());
  m_how.on_accept = kav_sim::accept_answer::serve;
  m_server->set_behaviour(m_how);
  log_in();
}

TEST_F(reconnect_test, server_that_resets_at_once_leaves_the_client_free_each_time) {
  m_how.on_accept = kav_sim::accept_answer::reset;
  start_server();
  expect_free_after_each_loss_at_once(m_record, *m_server, *m_api, 100);
  EXPECT_EQ("0", status_by_login());
  m_how.on_accept = kav_sim::accept_answer::serve;
  m_server->set_behaviour(m_how);
  log_in();
}

TEST_F(reconnect_test, disconnection_is_told_after_the_connection_even_when_that_takes_long) {
  m_how.on_accept = kav_sim::accept_answer::close;
  start_server();
  m_record.set_hook([](const call& c) {
    if (c.what == "OnServerConnected()") std::this_thread::sleep_for(milliseconds{200});
  });
  ASSERT_TRUE(conn_server());
  ASSERT_TRUE(m_record.wait_text("OnServerDisconnected()"));
  EXPECT_GE(m_record.nth("OnServerDisconnected()").at - m_record.nth("OnServerConnected()").at,
            milliseconds{200});
}

// The thread in ConnServer() may have to wait for its next turn for any time between the connection
// and its taking note of it.
TEST_F(reconnect_test, loss_is_not_handled_before_the_client_has_taken_note_of_the_connection) {
  start_server();
  m_server->go_down();
  Ckqc_tcp client;
  KqsTcpInfo info = endpoint_of(m_server->port());
  ASSERT_FALSE(client.ConnServer(info, &m_record));  // the record is known now
  ASSERT_TRUE(m_server->come_back());
  const auto life = std::make_shared<client_life>();
  const auto connection = std::make_shared<kqc_connection>(life, &client, 1);
  ASSERT_TRUE(connection->open(info.m_ServerIp, info.m_ServerPort));
  ASSERT_TRUE(wait_until([this] { return m_server->connections().current == 1; }, k_patience));
  m_server->drop_all();
  ASSERT_TRUE(wait_until([&] { return connection->is_lost(); }, k_patience));
  std::this_thread::sleep_for(milliseconds{1500});  // longer than an announcement is waited for
  EXPECT_FALSE(m_record.has("OnLog(0, [on_cache_callback] EVENT_REMOTE_DISCONNECT"));
  connection->set_phase(kqc_connection::k_announced);
  EXPECT_TRUE(m_record.wait_text("OnLog(0, [on_cache_callback] EVENT_REMOTE_DISCONNECT"));
  connection->tcp().sock_close();
}

// A connection that is destroyed without having been closed stays open; nothing is said here about
// what is left.
TEST(lost_connection_test, connection_that_nobody_has_taken_note_of_can_go) {
  kav_sim::quote_server server{{}};
  ASSERT_TRUE(server.start());
  Ckqc_tcp client;
  auto connection = std::make_shared<kqc_connection>(std::make_shared<client_life>(), &client, 1);
  ASSERT_TRUE(connection->open("127.0.0.1", server.port()));
  ASSERT_TRUE(wait_until([&] { return server.connections().current == 1; }, k_patience));
  server.drop_all();
  ASSERT_TRUE(wait_until([&] { return connection->is_lost(); }, k_patience));
  const clock::time_point start = clock::now();
  connection.reset();
  EXPECT_LE(since(start), k_stop_limit);
  EXPECT_TRUE(wait_until([] { return library_threads().empty(); }, k_patience));
}

// The answer to a registration that is still on its way to the caller when the connection is lost
// says nothing about the next connection.
TEST_F(reconnect_test, answer_read_after_the_loss_does_not_count_for_the_next_connection) {
  log_in();
  register_symbol("IF2509");
  std::atomic<bool> blocked{false};
  m_record.set_hook([&](const call& c) {
    if (c.what != "OnQuote(49)" || blocked.exchange(true)) return;
    m_record.wait_text(k_lost_line);
    std::this_thread::sleep_for(milliseconds{1500});  // the worker has taken note of the loss
  });
  m_server->send_raw(
      kav_sim::quote_message('1', quote_of("IF2509", 1), kav_sim::text_fill::zero) +
      kav_sim::symbol_answer_message('I', '0', '1', "IF2509", kav_sim::text_fill::zero));
  ASSERT_TRUE(wait_until([&] { return blocked.load(); }, k_patience));
  m_server->drop_all();
  ASSERT_TRUE(m_record.wait_text("OnSymbolRegistered(49, IF2509, true)", 2));
  if (m_server->connections().ever != 1) {
    GTEST_SKIP() << "the machine was away for half a second: the answer has been thrown away";
  }
  ASSERT_TRUE(wait_session(1));
  EXPECT_TRUE(wait_registered(1, {"IF2509"}));
}

TEST_F(reconnect_test, answer_on_a_connection_whose_relogin_fails_does_not_count_for_the_next) {
  log_in();
  register_symbol("IF2509");
  m_how.login = kav_sim::login_answer::ignore;
  m_server->set_behaviour(m_how);
  m_server->drop_all();
  ASSERT_TRUE(wait_until([this] { return m_server->received_count(1, 'L') == 1; }, k_patience));
  m_server->send_raw(
      kav_sim::symbol_answer_message('I', '0', '1', "IF2509", kav_sim::text_fill::zero));
  ASSERT_TRUE(m_record.wait_text("OnSymbolRegistered(49, IF2509, true)", 2));
  m_server->set_behaviour({});
  ASSERT_TRUE(wait_session(2));
  EXPECT_TRUE(wait_registered(2, {"IF2509"}));
}

TEST_F(reconnect_test, refused_connection_is_logged_and_returns_false) {
  start_server();
  m_server->go_down();
  EXPECT_FALSE(conn_server());
  EXPECT_TRUE(
      m_record.has("OnLog(3, [QuoteClient] init connect server failed. " + address_text() + ")"));
  EXPECT_EQ(1u, m_record.texts().size());
  ASSERT_TRUE(m_server->come_back());
  log_in();
}

}  // namespace
}  // namespace kav_session
