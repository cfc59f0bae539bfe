// The normal life of a session and its refusals: bytes, callbacks, threads, log lines.
#include <gmock/gmock.h>

#include <cstring>  // memcpy
#include <ctime>    // time
#include <thread>   // std::thread

#include "apps/sim/wire.h"
#include "tests/client/session_support.h"

namespace kav_session {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using texts = std::vector<std::string>;

class session_test : public session_fixture {
 protected:
  std::string first_received(char type) {
    for (const kav_sim::received_message& m : m_server->received(0)) {
      if (m.type() == type) return m.bytes;
    }
    return "";
  }
  std::string log_line(int level, const std::string& text) {
    return "OnLog(" + std::to_string(level) + ", [QuoteClient] " + text + ")";
  }
  std::string answer_line(int running, char result) {
    return log_line(0, "on_login_resp,thread_is_running:" + std::to_string(running) +
                           ", result: " + result + ",  " + address_text());
  }
  void wait_quiet_pass(std::size_t times = 1) {
    ASSERT_TRUE(m_record.wait_text(log_line(0, "nothing to reg or unreg"), times));
  }
  std::string symbol_request(char kind, char type, const std::string& symbol) {
    std::string bytes = {kind, '0', type};
    bytes += symbol;
    bytes.resize(30, '\0');
    return bytes + "\r\n";
  }
};

TEST_F(session_test, login_request_is_56_bytes_with_the_digest_of_the_password) {
  log_in();
  std::string expected = "L10trader";
  expected.resize(19, '\0');
  expected += "900150983CD24FB0D6963F7D28E17F72";  // MD5 of "abc"
  expected.resize(54, '\0');
  expected += "\r\n";
  EXPECT_EQ(expected, m_server->received(0).front().bytes);
  EXPECT_EQ(1u, m_server->received_count('L'));
}

TEST_F(session_test, login_request_holds_15_characters_of_user_and_digests_32_of_the_password) {
  start_server();
  ASSERT_TRUE(conn_server());
  KqsLoginParam param;
  std::memset(&param, 'p', sizeof(param));  // no NUL anywhere
  ASSERT_NE(0, m_api->LoginToKqs(param));
  ASSERT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
  const std::string message = m_server->received(0).front().bytes;
  EXPECT_EQ(std::string(15, 'p') + '\0', message.substr(3, 16));
  EXPECT_EQ(kav_sim::md5_text(std::string(32, 'p')), message.substr(19, 32));
}

TEST_F(session_test, list_query_is_sent_once_a_login_and_is_8_bytes) {
  log_in();
  EXPECT_EQ(std::string("S0\0\0\0\0\r\n", 8), first_received('S'));
  m_api->QuerySymbolList();
  ASSERT_TRUE(m_record.wait_text("OnSymbolList(48, , true)"));
  EXPECT_EQ(1u, m_server->received_count('S'));
}

TEST_F(session_test, heartbeat_is_13_bytes_with_the_time_of_its_sending) {
  log_in();
  ASSERT_TRUE(wait_until([this] { return m_server->received_count('H') > 0; }, k_patience));
  const std::int64_t now = std::time(nullptr);
  const std::string message = first_received('H');
  ASSERT_EQ(13u, message.size());
  EXPECT_EQ(std::string("H\0\0", 3), message.substr(0, 3));
  EXPECT_EQ("\r\n", message.substr(11));
  std::int64_t sent = 0;
  std::memcpy(&sent, message.data() + 3, sizeof(sent));
  EXPECT_LE(sent, now);
  EXPECT_GE(sent, now - 5);
}

TEST_F(session_test, register_and_unregister_requests_are_32_bytes_with_the_type_of_the_list) {
  log_in();
  register_symbol("cs1709", 77);  // the list says '2'
  EXPECT_EQ(symbol_request('N', '2', "cs1709"), first_received('N'));
  m_api->UnregisterSymbol(static_cast<KavKqsIntrumentType>(77), "cs1709");
  ASSERT_TRUE(m_record.wait_text("OnSymbolUnregistered(50, cs1709, true)"));
  EXPECT_EQ(symbol_request('R', '2', "cs1709"), first_received('R'));
  EXPECT_EQ(0u, m_server->counters().malformed_messages);
  EXPECT_EQ(0u, m_server->counters().out_of_turn_messages);
}

TEST_F(session_test, normal_life_calls_back_in_order_and_each_on_its_thread) {
  log_in();
  wait_quiet_pass();
  m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>('1'), "IF2509");
  wait_quiet_pass(2);
  m_api->UnregisterSymbol(static_cast<KavKqsIntrumentType>('1'), "IF2509");
  wait_quiet_pass(3);
  m_api->QuerySymbolList();
  ASSERT_TRUE(m_record.wait_text("OnSymbolList(48, , true)"));
  m_api->DisConnServer();
  ASSERT_TRUE(m_record.wait_text(log_line(0, "_th_kqc_send_and_reconn end")));
  EXPECT_THAT(m_record.calls_on("caller"), ElementsAre("OnServerConnected()"));
  EXPECT_THAT(m_record.calls_on("kav-event"),
              ElementsAre("OnLog(0, [on_cache_callback] EVENT_CONNECT)"));
  EXPECT_THAT(m_record.calls_on("kav-receive"),
              ElementsAre(answer_line(0, 'Y'), "OnSymbolRegistered(49, IF2509, true)",
                          "OnSymbolUnregistered(49, IF2509, true)"));
  texts worker = m_record.calls_on("kav-worker");
  ASSERT_EQ(17u, worker.size()) << testing::PrintToString(worker);
  EXPECT_EQ(
      (texts{log_line(0, "_th_kqc_send_and_reconn begin"),
             "OnLog(0, Ckqc_tcp::_th_try_query_symbol_list,size:3)", "OnLoginResult(true, )",
             log_line(1, "login success. " + address_text()),
             log_line(0, "nothing to reg or unreg"), log_line(0, "valid:3,registed:0, need:1"),
             log_line(0, "send 1 reg req, 0 unreg req"), log_line(0, "nothing to reg or unreg"),
             log_line(0, "valid:3,registed:1, need:0"), log_line(0, "send 0 reg req, 1 unreg req"),
             log_line(0, "nothing to reg or unreg")}),
      texts(worker.begin(), worker.begin() + 11));
  EXPECT_THAT(
      texts(worker.begin() + 11, worker.begin() + 14),
      UnorderedElementsAre("OnSymbolList(49, IF2509, false)", "OnSymbolList(50, cs1709, false)",
                           "OnSymbolList(51, Au(T+D), false)"));
  EXPECT_EQ(
      (texts{"OnSymbolList(48, , true)", "OnLog(0, [on_cache_callback] EVENT_LOCALE_DISCONNECT)",
             log_line(0, "_th_kqc_send_and_reconn end")}),
      texts(worker.begin() + 14, worker.end()));
}

TEST_F(session_test, worker_begins_after_the_answer_was_traced_and_reports_before_it_logs_success) {
  log_in();
  ASSERT_TRUE(m_record.wait_text(log_line(1, "login success. " + address_text())));
  const texts order{answer_line(0, 'Y'), log_line(0, "_th_kqc_send_and_reconn begin"),
                    "OnLoginResult(true, )", log_line(1, "login success. " + address_text())};
  for (std::size_t i = 1; i < order.size(); ++i) {
    EXPECT_LE(m_record.nth(order[i - 1]).at, m_record.nth(order[i]).at) << order[i];
  }
}

TEST_F(session_test, login_before_connecting_logs_status_0_and_sends_nothing) {
  start_server();
  m_how.on_accept = kav_sim::accept_answer::close;
  m_server->set_behaviour(m_how);
  ASSERT_TRUE(conn_server());
  ASSERT_TRUE(m_record.wait_text("OnServerDisconnected()"));
  EXPECT_EQ(0, send_login());
  EXPECT_TRUE(m_record.has(log_line(3, "login_to_kqs failed. wrong kqc tcp status: 0.")));
  EXPECT_EQ("caller", m_record.nth("OnLog(3, [QuoteClient] login_to_kqs failed.").thread);
  EXPECT_EQ(0u, m_server->received_count('L'));
}

TEST_F(session_test, login_while_logged_in_logs_status_2) {
  log_in();
  EXPECT_EQ("2", status_by_login());
  EXPECT_EQ(1u, m_server->received_count('L'));
}

TEST_F(session_test, second_connect_returns_true_and_changes_nothing) {
  log_in();
  register_symbol("IF2509");
  const std::string line = log_line(1, "cannot connserver while already logon.");
  EXPECT_TRUE(conn_server_at(1));
  EXPECT_EQ(1u, m_record.text_count(line));
  std::vector<KqsTcpInfo> none;
  EXPECT_TRUE(m_api->ConnServer(none, nullptr));
  EXPECT_EQ(2u, m_record.text_count(line));
  EXPECT_EQ("caller", m_record.nth(line).thread);
  m_server->push_quote(quote_of("IF2509", 1), '1');
  EXPECT_TRUE(wait_until([this] { return m_record.quote_count() == 1; }, k_patience));
  EXPECT_EQ(1u, m_server->connections().ever);
}

TEST_F(session_test, only_the_first_endpoint_of_a_list_is_tried) {
  start_server();
  kav_sim::quote_server other{m_options};
  ASSERT_TRUE(other.start());
  std::vector<KqsTcpInfo> servers{endpoint_of(m_server->port()), endpoint_of(other.port())};
  EXPECT_TRUE(m_api->ConnServer(servers, &m_record));
  EXPECT_TRUE(wait_until([this] { return m_server->connections().ever == 1; }, k_patience));
  m_server->go_down();
  ASSERT_TRUE(m_record.wait_text("OnServerDisconnected()"));
  EXPECT_FALSE(m_api->ConnServer(servers, &m_record));
  EXPECT_TRUE(m_record.has(log_line(3, "init connect server failed. " + address_text())));
  EXPECT_EQ(0u, other.connections().ever);
  m_server.reset();
}

TEST_F(session_test, missing_arguments_are_refused_with_a_line_where_somebody_listens) {
  start_server();
  std::vector<KqsTcpInfo> none;
  EXPECT_FALSE(m_api->ConnServer(none, &m_record));
  KqsTcpInfo server = endpoint_of(m_server->port());
  EXPECT_FALSE(m_api->ConnServer(server, nullptr));
  EXPECT_TRUE(m_record.texts().empty());  // nobody was known yet, or not any more
  ASSERT_TRUE(conn_server());
  m_server->drop_all();
  ASSERT_TRUE(wait_until(
      [this] {
        m_server->drop_all();
        return m_record.has("OnServerDisconnected()");
      },
      k_patience));
  EXPECT_FALSE(m_api->ConnServer(none, &m_record));
  EXPECT_EQ(1u, m_record.text_count(log_line(3, "invalid params.")));
}

TEST_F(session_test, refused_login_is_told_in_order_and_leaves_the_client_free) {
  m_how.login = kav_sim::login_answer::refuse;
  m_how.login_refusal_reason = "bad password";
  connect();
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(m_record.wait_text("OnServerDisconnected()"));
  EXPECT_THAT(
      m_record.calls_on("kav-receive"),
      ElementsAre(answer_line(0, 'N'), log_line(3, "login failed, result: N,  " + address_text()),
                  "OnLoginResult(false, bad password)", "OnServerDisconnected()"));
  const auto pause = m_record.nth("OnServerDisconnected()").at - m_record.nth("OnLoginResult(").at;
  EXPECT_GE(pause, milliseconds{5});
  EXPECT_LT(pause, milliseconds{1000});
  EXPECT_EQ("0", status_by_login());
  EXPECT_TRUE(m_record.calls_on("kav-worker").empty());
  m_how.login = kav_sim::login_answer::accept;
  m_server->set_behaviour(m_how);
  EXPECT_TRUE(conn_server());
  EXPECT_NE(0, send_login());
  EXPECT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
  EXPECT_EQ(1u, m_record.text_count("OnServerDisconnected()"));
}

TEST_F(session_test, refusal_reason_of_full_width_arrives_whole_and_terminated) {
  m_how.login = kav_sim::login_answer::refuse;
  m_how.login_refusal_reason = "";
  m_how.full_width_reason = true;
  connect();
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(m_record.wait_text("OnServerDisconnected()"));
  EXPECT_TRUE(m_record.has("OnLoginResult(false, " + std::string(22, 'x') + ")"));
}

TEST_F(session_test, server_that_closes_after_its_refusal_gives_one_disconnection_only) {
  m_how.login = kav_sim::login_answer::refuse;
  m_how.loss = kav_sim::loss_kind::close;
  m_how.loss_after_messages = 1;
  start_server();
  for (std::size_t round = 1; round <= 40; ++round) {
    ASSERT_TRUE(conn_server());
    ASSERT_NE(0, send_login());
    ASSERT_TRUE(wait_until([&] { return m_record.has("OnServerDisconnected()"); }, k_patience));
    ASSERT_EQ("0", status_by_login());
    // The closing thread gives up the connection; with it ends whatever could still report.
    ASSERT_TRUE(wait_until([] { return library_threads().empty(); }, k_patience));
    ASSERT_EQ(1u, m_record.text_count("OnServerDisconnected()")) << "round " << round;
    ASSERT_EQ(1u, m_record.text_count("OnLoginResult(false, refused)")) << "round " << round;
    ASSERT_LE(m_record.nth("OnLoginResult(false, refused)").at,
              m_record.nth("OnServerDisconnected()").at)
        << "round " << round << ": the reason comes first";
    m_record.forget();
  }
}

TEST_F(session_test, refusal_of_a_connection_that_is_gone_does_not_disturb_the_next) {
  m_how.login = kav_sim::login_answer::refuse;
  m_how.loss = kav_sim::loss_kind::close;
  m_how.loss_after_messages = 1;
  m_how.loss_limit = 1;
  start_server();
  std::atomic<bool> reconnected{false};
  m_record.set_hook([&](const call& c) {
    if (c.what == "OnServerDisconnected()" && !reconnected.exchange(true)) {
      EXPECT_TRUE(conn_server());
    }
  });
  ASSERT_TRUE(conn_server());
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(wait_until([&] { return reconnected.load(); }, k_patience));
  ASSERT_TRUE(m_record.wait_text("OnServerConnected()", 2));
  // What the old connection still had to say is over with its threads. The refusal is told if it
  // was read in time.
  ASSERT_TRUE(wait_until([] { return library_threads("kav-event") == 1; }, k_patience));
  m_how.login = kav_sim::login_answer::accept;
  m_how.loss = kav_sim::loss_kind::none;
  m_server->set_behaviour(m_how);
  ASSERT_NE(0, send_login());
  EXPECT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
  EXPECT_EQ(1u, m_record.text_count("OnServerDisconnected()"));
}

TEST_F(session_test, missing_list_is_reported_after_5_seconds_and_resets_the_client) {
  m_how.list = kav_sim::list_answer::no_end_mark;
  connect();
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(m_record.wait_text("OnLoginResult("));
  const auto waited = m_record.nth("OnLoginResult(").at -
                      m_record.nth(log_line(0, "_th_kqc_send_and_reconn begin")).at;
  EXPECT_GE(waited, milliseconds{5000});
  EXPECT_LT(waited, milliseconds{7000});
  ASSERT_TRUE(wait_until([] { return library_threads("kav-worker") == 0; }, k_patience));
  EXPECT_THAT(
      m_record.calls_on("kav-worker"),
      ElementsAre(log_line(0, "_th_kqc_send_and_reconn begin"),
                  "OnLog(0, [on_cache_callback] EVENT_LOCALE_DISCONNECT)",
                  log_line(3, "query symbol error"), "OnLoginResult(false, query symbol error)"));
  EXPECT_FALSE(m_record.has("OnServerDisconnected()"));
  EXPECT_EQ("0", status_by_login());
  m_how.list = kav_sim::list_answer::normal;
  m_server->set_behaviour(m_how);
  EXPECT_TRUE(conn_server());
  EXPECT_NE(0, send_login());
  EXPECT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
}

TEST_F(session_test, ignored_list_query_is_reported_after_5_seconds) {
  m_how.list = kav_sim::list_answer::ignore;
  connect();
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(m_record.wait_text("OnLoginResult("));
  EXPECT_TRUE(m_record.has("OnLoginResult(false, query symbol error)"));
}

TEST_F(session_test, end_mark_after_4_9_seconds_still_lets_the_login_succeed) {
  m_how.end_mark_delay = milliseconds{4850};
  connect();
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(m_record.wait_text("OnLoginResult("));
  EXPECT_TRUE(m_record.has("OnLoginResult(true, )"));
  EXPECT_TRUE(m_record.has("OnLog(0, Ckqc_tcp::_th_try_query_symbol_list,size:3)"));
}

TEST_F(session_test, status_stays_1_until_the_list_is_complete) {
  m_how.end_mark_delay = milliseconds{600};
  connect();
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(m_record.wait_text(log_line(0, "_th_kqc_send_and_reconn begin")));
  EXPECT_EQ(0, send_login());
  EXPECT_TRUE(m_record.has(log_line(3, "login_to_kqs failed. wrong kqc tcp status: 1.")));
  ASSERT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
  EXPECT_EQ("2", status_by_login());
}

TEST_F(session_test, empty_list_is_a_success_and_replays_as_its_end_alone) {
  m_how.list = kav_sim::list_answer::empty;
  log_in();
  m_api->QuerySymbolList();
  ASSERT_TRUE(m_record.wait_text("OnSymbolList(48, , true)"));
  EXPECT_EQ(1u, m_record.text_count("OnSymbolList("));
  EXPECT_EQ("kav-worker", m_record.nth("OnSymbolList(").thread);
}

TEST_F(session_test, ignored_login_changes_nothing_and_may_be_repeated) {
  m_how.login = kav_sim::login_answer::ignore;
  connect();
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(wait_until([this] { return m_server->received_count('L') == 1; }, k_patience));
  EXPECT_FALSE(m_record.has("OnLoginResult("));
  m_how.login = kav_sim::login_answer::accept;
  m_server->set_behaviour(m_how);
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
  EXPECT_EQ(2u, m_server->received_count('L'));
}

TEST_F(session_test, list_query_before_the_login_is_answered_after_it) {
  connect();
  m_api->QuerySymbolList();
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(m_record.wait_text("OnSymbolList(48, , true)"));
  EXPECT_EQ(4u, m_record.text_count("OnSymbolList("));
  EXPECT_LE(m_record.nth("OnLoginResult(true, )").at, m_record.nth("OnSymbolList(").at);
}

TEST_F(session_test, unanswered_registration_is_repeated_every_500_ms) {
  m_how.answer_register = false;
  log_in();
  m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>('1'), "IF2509");
  ASSERT_TRUE(wait_until([this] { return m_server->received_count('N') >= 4; }, k_patience));
  EXPECT_FALSE(m_record.has("OnSymbolRegistered("));
  m_how.answer_register = true;
  m_server->set_behaviour(m_how);
  ASSERT_TRUE(m_record.wait_text("OnSymbolRegistered(49, IF2509, true)"));
  // A pass that was on its way may still have repeated it; then there is silence.
  wait_quiet_pass();
  const std::size_t sent = m_server->received_count('N');
  std::this_thread::sleep_for(milliseconds{700});
  EXPECT_EQ(sent, m_server->received_count('N'));
}

TEST_F(session_test, refused_registration_is_told_and_repeated) {
  m_how.register_result = '5';
  log_in();
  m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>('2'), "cs1709");
  ASSERT_TRUE(m_record.wait_text("OnSymbolRegistered(50, cs1709, false)", 3));
  EXPECT_GE(m_record.text_count(log_line(3, "register symbol:2:cs1709 failed.")), 3u);
  m_how.register_result = '2';  // registered already
  m_server->set_behaviour(m_how);
  ASSERT_TRUE(m_record.wait_text("OnSymbolRegistered(50, cs1709, true)"));
  m_server->push_quote(quote_of("cs1709", 3), '2');
  EXPECT_TRUE(wait_until([this] { return m_record.quote_count() == 1; }, k_patience));
}

TEST_F(session_test, refused_unregistration_is_told_and_repeated) {
  log_in();
  register_symbol("IF2509");
  m_how.unregister_result = '2';
  m_server->set_behaviour(m_how);
  m_api->UnregisterSymbol(static_cast<KavKqsIntrumentType>('1'), "IF2509");
  ASSERT_TRUE(m_record.wait_text("OnSymbolUnregistered(49, IF2509, false)", 2));
  EXPECT_TRUE(m_record.has(log_line(3, "unregister symbol:IF2509 failed.")));
  m_how.unregister_result = '0';
  m_server->set_behaviour(m_how);
  ASSERT_TRUE(m_record.wait_text("OnSymbolUnregistered(49, IF2509, true)"));
  EXPECT_FALSE(m_server->registered("IF2509"));
}

TEST_F(session_test, gold_contract_is_registered_by_its_code_and_quoted_by_its_name) {
  log_in();
  m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>('3'), "Au(T+D)");
  ASSERT_TRUE(m_record.wait_text("OnSymbolRegistered(51, Au(T+D), true)"));
  EXPECT_EQ(symbol_request('N', '3', "0"), first_received('N'));
  m_server->push_quote(quote_of("0", 280.5), '3');
  ASSERT_TRUE(wait_until([this] { return m_record.quote_count() == 1; }, k_patience));
  const kav_test::recorded_call seen = m_record.quotes().front();
  EXPECT_STREQ("Au(T+D)", seen.quote.InstrumentID);
  EXPECT_EQ(51, seen.type);
  EXPECT_EQ("kav-receive", seen.thread_name);
  m_api->UnregisterSymbol(static_cast<KavKqsIntrumentType>('3'), "Au(T+D)");
  EXPECT_TRUE(m_record.wait_text("OnSymbolUnregistered(51, Au(T+D), true)"));
}

TEST_F(session_test, symbol_that_is_not_listed_is_dropped_without_a_word) {
  log_in();
  wait_quiet_pass();
  m_record.forget();
  m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>('1'), "XX9999");
  m_api->UnregisterSymbol(static_cast<KavKqsIntrumentType>('1'), "XX9999");
  m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>('1'), nullptr);
  register_symbol("IF2509");  // passes have been made since
  EXPECT_EQ(1u, m_server->received_count('N'));
  EXPECT_TRUE(m_record.has(log_line(0, "valid:3,registed:0, need:1")));
}

TEST_F(session_test, registrations_before_the_first_login_are_dropped) {
  connect();
  m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>('1'), "IF2509");
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
  wait_quiet_pass();
  register_symbol("cs1709");
  EXPECT_EQ(1u, m_server->received_count('N'));
}

TEST_F(session_test, symbol_of_25_characters_is_registered_by_its_first_19) {
  m_options.symbols = {{"ABCDEFGHIJKLMNOPQRS", '1'}};
  log_in();
  register_symbol("ABCDEFGHIJKLMNOPQRSTUVWXY");
  EXPECT_EQ(symbol_request('N', '1', "ABCDEFGHIJKLMNOPQRS"), first_received('N'));
}

TEST_F(session_test, quotes_come_for_registered_symbols_only) {
  log_in();
  register_symbol("IF2509");
  for (int i = 1; i <= 50; ++i) {
    m_server->push_quote(quote_of("IF2509", i), '1');
    m_server->push_quote(quote_of("cs1709", i), '2');
  }
  ASSERT_TRUE(wait_until([this] { return m_record.quote_count() >= 50; }, k_patience));
  m_api->UnregisterSymbol(static_cast<KavKqsIntrumentType>('1'), "IF2509");
  ASSERT_TRUE(m_record.wait_text("OnSymbolUnregistered("));
  m_server->push_quote(quote_of("IF2509", 51), '1');
  register_symbol("cs1709");  // behind which the quote would have come
  ASSERT_EQ(50u, m_record.quote_count());
  double last = 0;
  for (const kav_test::recorded_call& seen : m_record.quotes()) {
    EXPECT_STREQ("IF2509", seen.quote.InstrumentID);
    EXPECT_EQ("kav-receive", seen.thread_name);
    EXPECT_EQ(49, seen.type);
    EXPECT_EQ(last + 1, double{seen.quote.LastPrice});
    last = seen.quote.LastPrice;
  }
}

TEST_F(session_test, unknown_message_type_throws_away_what_is_buffered_and_the_session_goes_on) {
  log_in();
  register_symbol("IF2509");
  m_server->send_raw("\xC2nonsense");
  ASSERT_TRUE(m_record.wait_text(log_line(3, "receive unknown msg type: -62. length is 9")));
  EXPECT_EQ("kav-receive", m_record.nth("OnLog(3, [QuoteClient] receive unknown").thread);
  m_server->push_quote(quote_of("IF2509", 7), '1');
  EXPECT_TRUE(wait_until([this] { return m_record.quote_count() == 1; }, k_patience));
  EXPECT_EQ("2", status_by_login());
}

TEST_F(session_test, garbage_before_the_login_answer_leaves_the_login_open) {
  m_how.garbage_when = kav_sim::garbage_time::instead_of_login_answer;
  connect();
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(m_record.wait_text(log_line(3, "receive unknown msg type: 127. length is 9")));
  m_how.garbage_when = kav_sim::garbage_time::never;
  m_server->set_behaviour(m_how);
  ASSERT_NE(0, send_login());
  EXPECT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
}

TEST_F(session_test, server_heartbeats_are_skipped) {
  m_options.heartbeat = milliseconds{20};
  log_in();
  register_symbol("IF2509");
  ASSERT_TRUE(wait_until([this] { return m_server->counters().heartbeats_sent > 20; }, k_patience));
  m_server->push_quote(quote_of("IF2509", 7), '1');
  EXPECT_TRUE(wait_until([this] { return m_record.quote_count() == 1; }, k_patience));
  EXPECT_FALSE(m_record.has("OnLog(3"));
}

TEST_F(session_test, acceptance_that_is_repeated_starts_one_worker_only) {
  m_how.login_delay = milliseconds{200};
  connect();
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(wait_until([this] { return m_server->received_count('L') == 1; }, k_patience));
  const std::string answer = kav_sim::login_answer_message('Y', "", kav_sim::text_fill::zero);
  m_server->send_raw(answer + answer + answer + answer);
  ASSERT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
  ASSERT_TRUE(m_record.wait_text(answer_line(1, 'Y'), 4));  // three more at once, one later
  EXPECT_EQ(1u, m_record.text_count(log_line(0, "_th_kqc_send_and_reconn begin")));
  EXPECT_EQ(1u, m_record.text_count("OnLoginResult("));
  EXPECT_EQ(1u, library_threads("kav-worker"));
}

TEST_F(session_test, refusal_out_of_the_blue_does_not_end_a_session_nor_spoil_its_next_relogin) {
  log_in();
  register_symbol("IF2509");
  m_server->send_raw(kav_sim::login_answer_message('N', "why", kav_sim::text_fill::zero));
  ASSERT_TRUE(m_record.wait_text(log_line(0, "relogin failed, " + address_text())));
  EXPECT_EQ("2", status_by_login());
  m_server->drop_all();
  ASSERT_TRUE(m_record.wait_text("OnSymbolRegistered(49, IF2509, true)", 2));
  EXPECT_EQ(1u, m_record.text_count("OnLoginResult("));
}

TEST_F(session_test, two_clients_share_nothing) {
  log_in();
  register_symbol("IF2509");
  session_record other_record;
  KAVQuoteApi* const other = CreateKAVQuoteApi();
  KqsTcpInfo server = endpoint_of(m_server->port());
  KqsLoginParam param = login_of("second", "xyz");
  ASSERT_TRUE(other->ConnServer(server, &other_record));
  ASSERT_NE(0, other->LoginToKqs(param));
  ASSERT_TRUE(other_record.wait_text("OnLoginResult(true, )"));
  other->RegisterSymbol(static_cast<KavKqsIntrumentType>('2'), "cs1709");
  ASSERT_TRUE(other_record.wait_text("OnSymbolRegistered("));
  m_server->push_quote(quote_of("IF2509", 1), '1');
  m_server->push_quote(quote_of("cs1709", 2), '2');
  EXPECT_TRUE(wait_until([&] { return m_record.quote_count() + other_record.quote_count() == 2; },
                         k_patience));
  DestroyKAVQuoteApi(other);
  other_record.forbid();
  EXPECT_EQ(1u, m_record.quote_count());
  EXPECT_EQ(1u, other_record.quote_count());
  m_server->push_quote(quote_of("IF2509", 3), '1');
  EXPECT_TRUE(wait_until([this] { return m_record.quote_count() == 2; }, k_patience));
  EXPECT_EQ(texts{}, other_record.violations());
}

TEST_F(session_test, session_may_be_ended_and_begun_again_many_times) {
  start_server();
  for (int round = 0; round < 5; ++round) {
    m_record.forget();
    log_in();
    register_symbol("IF2509");
    const clock::time_point start = clock::now();
    m_api->DisConnServer();
    EXPECT_LE(since(start), k_stop_limit);
    EXPECT_EQ("0", status_by_login());
  }
  EXPECT_EQ(5u, m_server->connections().ever);
}

TEST_F(session_test,
       disconnecting_without_a_worker_leaves_the_connection_open_until_the_server_ends_it) {
  connect();
  const clock::time_point start = clock::now();
  m_api->DisConnServer();
  EXPECT_LE(since(start), k_stop_limit);
  EXPECT_EQ("0", status_by_login());
  EXPECT_TRUE(wait_until([this] { return m_server->connections().ever == 1; }, k_patience));
  EXPECT_EQ(1u, m_server->connections().current);
  m_server->drop_all();
  EXPECT_TRUE(m_record.wait_text("OnServerDisconnected()"));
  EXPECT_EQ("kav-event", m_record.nth("OnServerDisconnected()").thread);
}

TEST_F(session_test, loss_before_the_login_is_traced_and_told_on_the_event_thread) {
  connect();
  ASSERT_TRUE(wait_until([this] { return m_server->connections().current == 1; }, k_patience));
  m_server->drop_all();
  ASSERT_TRUE(m_record.wait_text("OnServerDisconnected()"));
  EXPECT_THAT(m_record.calls_on("kav-event"),
              ElementsAre("OnLog(0, [on_cache_callback] EVENT_CONNECT)",
                          "OnLog(0, [on_cache_callback] EVENT_REMOTE_DISCONNECT,thd_is_run:0)",
                          "OnServerDisconnected()"));
  EXPECT_EQ("0", status_by_login());
  EXPECT_TRUE(conn_server());
}

}  // namespace
}  // namespace kav_session
