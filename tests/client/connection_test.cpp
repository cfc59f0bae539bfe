// Connecting, logging in, closing, logging.
#include <arpa/inet.h>   // htonl
#include <netinet/in.h>  // sockaddr_in
#include <sys/socket.h>  // socket
#include <unistd.h>      // close

#include "tests/client/unit_fixture.h"

namespace kav_test {
namespace {

const char* const k_invalid_params = "[QuoteClient] invalid params.";
const char* const k_already = "[QuoteClient] cannot connserver while already logon.";

// A port of 127.0.0.1 that refuses connections: bound, and nobody listens.
class refusing_port {
 public:
  refusing_port() : m_socket(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (::bind(m_socket, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
        ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
      m_port = ::ntohs(address.sin_port);
    }
  }
  ~refusing_port() { ::close(m_socket); }
  refusing_port(const refusing_port&) = delete;
  refusing_port& operator=(const refusing_port&) = delete;
  unsigned short get() const { return m_port; }

 private:
  const int m_socket;
  unsigned short m_port = 0;
};

std::vector<std::string> lines_of(const recording_event& events) {
  std::vector<std::string> lines;
  for (const recorded_call& call : events.of(callback_kind::log)) {
    EXPECT_EQ(static_cast<int>(call.text.size()), call.length);
    lines.push_back(std::to_string(call.level) + " " + call.text);
  }
  return lines;
}

}  // namespace

// ---- A fresh client

class fresh_client_test : public testing::Test {
 protected:
  recording_event m_events;
  Ckqc_tcp m_client;
};

TEST_F(fresh_client_test, operations_without_an_event_object_are_silent_and_harmless) {
  KqsLoginParam login = login_of("trader", "abc");
  EXPECT_EQ(0, m_client.LoginToKqs(login));
  EXPECT_EQ(0, m_client.RegisterSymbol(k_future, "IF2509"));
  EXPECT_EQ(0, m_client.UnregisterSymbol(k_future, "IF2509"));
  EXPECT_EQ(0, m_client.QuerySymbolList());
  EXPECT_EQ(0, m_client.write_log(LogLevelError, "nobody %s", "listens"));
  EXPECT_FALSE(m_client.init_tcp_client());
  EXPECT_FALSE(m_client.send_logon_req());
  EXPECT_GT(0, m_client.send_heartbeat());
  m_client.async_close_tcp_client();
  m_client.reset_register_symbol();
  m_client.DisConnServer();
  m_client._th_clear_deque();
  m_client._th_reset();
}

TEST_F(fresh_client_test, messages_without_an_event_object_are_taken_in_silence) {
  heap_bytes refusal(login_answer('N', "no"));
  EXPECT_EQ(24u, m_client.on_tcp_client_data_recv(refusal.data(), refusal.size()));
  heap_bytes registered(answer('I', '0', "IF2509"));
  EXPECT_EQ(32u, m_client.on_tcp_client_data_recv(registered.data(), registered.size()));
  heap_bytes unregistered(answer('F', '1', "IF2509"));
  EXPECT_EQ(32u, m_client.on_tcp_client_data_recv(unregistered.data(), unregistered.size()));
  heap_bytes quote("Q1" + std::string(365, '\0'));
  EXPECT_EQ(367u, m_client.on_tcp_client_data_recv(quote.data(), quote.size()));
  heap_bytes unknown("Bad");
  EXPECT_EQ(3u, m_client.on_tcp_client_data_recv(unknown.data(), unknown.size()));
}

TEST_F(fresh_client_test, stop_of_a_client_without_a_worker_returns_at_once) {
  const auto begin = std::chrono::steady_clock::now();
  m_client.DisConnServer();
  m_client.DisConnServer();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds{2});
}

TEST_F(fresh_client_test, multicast_is_not_armed) {
  std::vector<KqsMulticastInfo> none;
  std::vector<KqsMulticastInfo> two(2);
  EXPECT_EQ(0, m_client.InitMulticast(none, nullptr));
  EXPECT_EQ(0, m_client.InitMulticast(two, &m_events));
  KqsLoginParam login = login_of("trader", "abc");
  m_client.LoginToKqs(login);
  EXPECT_EQ(0u, m_events.count()) << "the event object was not kept";
}

TEST_F(fresh_client_test, one_endpoint_with_a_null_event_is_refused_in_silence) {
  KqsTcpInfo nowhere = endpoint_of("nowhere", 7);
  EXPECT_FALSE(m_client.ConnServer(nowhere, nullptr));
}

TEST_F(fresh_client_test, login_before_connecting_is_refused_with_its_status) {
  std::vector<KqsTcpInfo> nowhere{endpoint_of("nowhere", 7)};
  EXPECT_FALSE(m_client.ConnServer(nowhere, &m_events));
  m_events.clear();
  KqsLoginParam login = login_of("trader", "abc");
  EXPECT_EQ(0, m_client.LoginToKqs(login));
  EXPECT_EQ(
      std::vector<std::string>{"3 [QuoteClient] login_to_kqs failed. wrong kqc tcp status: 0."},
      lines_of(m_events));
}

// ---- Arguments of a client that knows its caller

TEST_F(unconnected_client_test, invalid_params_of_the_list_form_are_told_to_the_object_before) {
  std::vector<KqsTcpInfo> none;
  std::vector<KqsTcpInfo> nowhere{endpoint_of("elsewhere", 8)};
  recording_event other;
  EXPECT_FALSE(m_client.ConnServer(none, &other));
  EXPECT_FALSE(m_client.ConnServer(nowhere, nullptr));
  EXPECT_FALSE(m_client.ConnServer(none, nullptr));
  const std::string line = std::string("3 ") + k_invalid_params;
  EXPECT_EQ((std::vector<std::string>{line, line, line}), lines_of(m_events));
  EXPECT_EQ(0u, other.count()) << "not stored";
  m_events.clear();
  EXPECT_FALSE(m_client.init_tcp_client());
  EXPECT_EQ(
      std::vector<std::string>{
          "3 [QuoteClient] init connect server failed. server ip: nowhere, port: 7."},
      lines_of(m_events))
      << "the endpoint is still the one before";
}

TEST_F(unconnected_client_test, null_event_of_the_single_form_replaces_endpoint_and_object) {
  KqsTcpInfo elsewhere = endpoint_of("elsewhere", 8);
  EXPECT_FALSE(m_client.ConnServer(elsewhere, nullptr));
  EXPECT_EQ(0u, m_events.count()) << "the line reaches nobody";
  KqsLoginParam login = login_of("trader", "abc");
  EXPECT_EQ(0, m_client.LoginToKqs(login));
  EXPECT_EQ(0u, m_events.count());
}

TEST_F(unconnected_client_test, list_form_stores_object_and_first_endpoint) {
  std::vector<KqsTcpInfo> servers{endpoint_of("first", 1), endpoint_of("second", 2)};
  recording_event other;
  EXPECT_FALSE(m_client.ConnServer(servers, &other));
  EXPECT_EQ(
      std::vector<std::string>{
          "3 [QuoteClient] init connect server failed. server ip: first, port: 1."},
      lines_of(other));
  EXPECT_EQ(1u, other.count());
  EXPECT_EQ(0u, m_events.count());
}

TEST_F(unconnected_client_test, worker_reset_forgets_the_endpoint_and_keeps_the_object) {
  m_client._th_reset();
  EXPECT_FALSE(m_client.init_tcp_client());
  EXPECT_EQ(
      std::vector<std::string>{"3 [QuoteClient] init connect server failed. server ip: , port: 0."},
      lines_of(m_events));
}

TEST_F(unconnected_client_test, address_that_is_no_dotted_ipv4_never_connects) {
  kav_sim::quote_server server{kav_sim::server_options{}};
  ASSERT_TRUE(server.start());
  const char* const texts[] = {"",           "localhost",   "127.1",       "127.0.0.1 ",
                               " 127.0.0.1", "127.0.0.1.",  "127.0.0",     "2130706433",
                               "0x7f.0.0.1", "127.0.0.256", "127.0.0.1\n", "::1",
                               "*",          "127,0,0,1",   "-127.0.0.1",  "127.0.0.1:80"};
  for (const char* const text : texts) {
    SCOPED_TRACE(text);
    m_events.clear();
    KqsTcpInfo info = endpoint_of(text, server.port());
    EXPECT_FALSE(m_client.ConnServer(info, &m_events));
    EXPECT_EQ(
        std::vector<std::string>{
            std::string("3 [QuoteClient] init connect server failed. server ip: ") + text +
            ", port: " + std::to_string(server.port()) + "."},
        lines_of(m_events));
    EXPECT_EQ(1u, m_events.count());
  }
  EXPECT_EQ(0u, server.connections().ever);
}

TEST_F(unconnected_client_test, address_of_16_characters_is_read_as_15) {
  KqsTcpInfo info{};
  std::memset(info.m_Label, 'l', sizeof(info.m_Label));
  std::memset(info.m_ServerIp, '9', sizeof(info.m_ServerIp));
  info.m_ServerPort = 0xFFFF;  // all bits set behind the text as well
  EXPECT_FALSE(m_client.ConnServer(info, &m_events));
  EXPECT_EQ(std::vector<std::string>{"3 [QuoteClient] init connect server failed. server ip: " +
                                     std::string(15, '9') + ", port: 65535."},
            lines_of(m_events));
}

TEST_F(unconnected_client_test, refused_connection_is_one_error_line_and_false) {
  const refusing_port port;
  ASSERT_NE(0, port.get());
  std::vector<KqsTcpInfo> servers{endpoint_of("127.0.0.1", port.get())};
  EXPECT_FALSE(m_client.ConnServer(servers, &m_events));
  EXPECT_FALSE(m_client.ConnServer(servers.front(), &m_events));
  const std::string line =
      "3 [QuoteClient] init connect server failed. server ip: 127.0.0.1, port: " +
      std::to_string(port.get()) + ".";
  EXPECT_EQ((std::vector<std::string>{line, line}), lines_of(m_events));
  EXPECT_EQ(2u, m_events.count()) << "and no other callback";
}

TEST_F(unconnected_client_test, client_connects_after_a_refused_connection) {
  kav_sim::quote_server server{kav_sim::server_options{}};
  ASSERT_TRUE(server.start());
  KqsTcpInfo info = endpoint_of("127.0.0.1", server.port());
  EXPECT_TRUE(m_client.ConnServer(info, &m_events));
  EXPECT_EQ(1u, m_events.count(callback_kind::server_connected));
}

TEST_F(unconnected_client_test, login_request_without_a_connection_fails_with_a_line) {
  EXPECT_FALSE(m_client.send_logon_req());
  EXPECT_EQ(std::vector<std::string>{"3 [QuoteClient] send login msg failed."}, lines_of(m_events));
  EXPECT_GT(0, m_client.send_heartbeat());
  EXPECT_EQ(1u, m_events.count());
}

TEST_F(unconnected_client_test, closing_without_a_connection_does_nothing) {
  m_client.async_close_tcp_client();
  m_client.async_close_tcp_client();
  EXPECT_EQ(0u, m_events.count());
}

// ---- The log

TEST_F(unconnected_client_test, log_line_keeps_level_text_and_length) {
  EXPECT_EQ(0, m_client.write_log(LogLevelWarning, "%s is %d", "answer", 42));
  m_client.write_log(LogLevelDebug, "%s", "");
  const std::vector<recorded_call> calls = m_events.calls();
  ASSERT_EQ(2u, calls.size());
  EXPECT_EQ(LogLevelWarning, calls[0].level);
  EXPECT_EQ("answer is 42", calls[0].text);
  EXPECT_EQ(12, calls[0].length);
  EXPECT_EQ("", calls[1].text);
  EXPECT_EQ(0, calls[1].length);
}

TEST_F(unconnected_client_test, log_line_is_cut_to_1023_characters) {
  for (const std::size_t size : {1022u, 1023u, 1024u, 5000u}) {
    m_events.clear();
    m_client.write_log(LogLevelInfo, "%s", std::string(size, 'x').c_str());
    const recorded_call call = m_events.calls().front();
    EXPECT_EQ(std::string(std::min<std::size_t>(size, 1023), 'x'), call.text);
    EXPECT_EQ(static_cast<int>(call.text.size()), call.length);
  }
}

TEST_F(unconnected_client_test, log_line_ends_at_a_nul_that_was_printed) {
  m_client.write_log(LogLevelInfo, "a%cb", '\0');
  EXPECT_EQ("a", m_events.calls().front().text);
  EXPECT_EQ(1, m_events.calls().front().length);
}

TEST_F(unconnected_client_test, log_line_without_a_format_is_dropped) {
  const char* volatile no_format = nullptr;
  EXPECT_EQ(0, m_client.write_log(LogLevelInfo, no_format, 1));
  EXPECT_EQ(0u, m_events.count());
}

// ---- The closing thread's body

TEST(lazy_recycle, fresh_buffered_client_is_closed_and_deleted_after_ten_milliseconds) {
  auto* const tcp = new VORLAN::SOCK::socket_cache_client(8192);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(nullptr, Ckqc_tcp::lazy_recycle_tcp_cleint(tcp));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds{10});
}

TEST(lazy_recycle, connected_buffered_client_is_disconnected) {
  kav_sim::quote_server server{kav_sim::server_options{}};
  ASSERT_TRUE(server.start());
  auto* const tcp = new VORLAN::SOCK::socket_cache_client(8192);
  ASSERT_TRUE(tcp->sock_init("127.0.0.1", server.port(), nullptr, nullptr, false));
  ASSERT_TRUE(wait_until([&] { return server.connections().current == 1; }, k_patience));
  EXPECT_EQ(nullptr, Ckqc_tcp::lazy_recycle_tcp_cleint(tcp));
  EXPECT_TRUE(wait_until([&] { return server.connections().current == 0; }, k_patience));
}

TEST(lazy_recycle, nothing_to_close_is_nothing_done) {
  EXPECT_EQ(nullptr, Ckqc_tcp::lazy_recycle_tcp_cleint(nullptr));
}

// ---- Connected

class connection_test : public connected_client_test {};

TEST_F(connection_test, connected_is_told_once_on_the_callers_thread_before_the_result) {
  recording_event events;
  Ckqc_tcp client;
  std::vector<KqsTcpInfo> servers{endpoint_of("127.0.0.1", m_server.port())};
  EXPECT_TRUE(client.ConnServer(servers, &events));
  const std::vector<recorded_call> connected = events.of(callback_kind::server_connected);
  ASSERT_EQ(1u, connected.size());
  EXPECT_EQ(std::this_thread::get_id(), connected[0].thread);
}

TEST_F(connection_test, connect_is_traced_on_the_event_thread) {
  recording_event events;
  Ckqc_tcp client;
  KqsTcpInfo server = endpoint_of("127.0.0.1", m_server.port());
  EXPECT_TRUE(client.ConnServer(server, &events));
  ASSERT_TRUE(events.wait_for_log("[on_cache_callback] EVENT_CONNECT"));
  EXPECT_TRUE(events.has_log(LogLevelDebug, "[on_cache_callback] EVENT_CONNECT"));
}

TEST_F(connection_test, only_the_first_of_three_endpoints_is_tried) {
  kav_sim::quote_server second{kav_sim::server_options{}}, third{kav_sim::server_options{}};
  ASSERT_TRUE(second.start());
  ASSERT_TRUE(third.start());
  const refusing_port refusing;
  recording_event events;
  Ckqc_tcp client;
  std::vector<KqsTcpInfo> servers{endpoint_of("127.0.0.1", refusing.get()),
                                  endpoint_of("127.0.0.1", second.port()),
                                  endpoint_of("127.0.0.1", third.port())};
  EXPECT_FALSE(client.ConnServer(servers, &events));
  servers[0] = endpoint_of("127.0.0.1", m_server.port());
  EXPECT_TRUE(client.ConnServer(servers, &events));
  EXPECT_TRUE(wait_until([&] { return m_server.connections().current == 2; }, k_patience));
  EXPECT_EQ(0u, second.connections().ever);
  EXPECT_EQ(0u, third.connections().ever);
}

TEST_F(connection_test, second_connect_is_refused_with_true_and_changes_nothing) {
  list("IF2509");
  m_client.RegisterSymbol(k_future, "IF2509");
  recording_event other;
  std::vector<KqsTcpInfo> none;
  KqsTcpInfo nowhere = endpoint_of("nowhere", 7);
  EXPECT_TRUE(m_client.ConnServer(nowhere, &other));
  EXPECT_TRUE(m_client.ConnServer(nowhere, nullptr));
  EXPECT_TRUE(m_client.ConnServer(none, nullptr)) << "the state is looked at first";
  const std::string line = std::string("1 ") + k_already;
  EXPECT_EQ((std::vector<std::string>{line, line, line}), lines_of(m_events));
  EXPECT_EQ(0u, other.count());
  EXPECT_EQ(1u, m_server.connections().ever);
  EXPECT_EQ(500u, m_client._th_check_and_register_symbol()) << "still wanted";
}

TEST_F(connection_test, connect_is_refused_while_logged_in) {
  log_in();
  m_events.clear();
  KqsTcpInfo nowhere = endpoint_of("nowhere", 7);
  EXPECT_TRUE(m_client.ConnServer(nowhere, nullptr));
  EXPECT_TRUE(m_events.has_log(LogLevelInfo, k_already));
}

TEST_F(connection_test, login_goes_out_as_56_bytes_with_the_digest_of_the_password) {
  KqsLoginParam login = login_of("trader", "abc");
  EXPECT_NE(0, m_client.LoginToKqs(login));
  std::string expected(56, '\0');
  expected.replace(0, 9, "L10trader");
  expected.replace(19, 32, "900150983CD24FB0D6963F7D28E17F72");
  expected.replace(54, 2, "\r\n");
  EXPECT_EQ(expected, received(1)[0]);
}

TEST_F(connection_test, login_fields_without_nul_are_read_as_15_and_32_characters) {
  m_server.change_behaviour([](kav_sim::behaviour& b) { b.login = kav_sim::login_answer::ignore; });
  KqsLoginParam login;
  std::memset(&login, 'x', sizeof(login));
  EXPECT_NE(0, m_client.LoginToKqs(login));
  std::string expected(56, '\0');
  expected.replace(0, 3, "L10");
  expected.replace(3, 15, std::string(15, 'x'));
  expected.replace(19, 32, kav_sim::md5_text(std::string(32, 'x')));
  expected.replace(54, 2, "\r\n");
  EXPECT_EQ(expected, received(1)[0]);
}

TEST_F(connection_test, login_may_be_repeated_until_it_is_answered) {
  m_server.change_behaviour([](kav_sim::behaviour& b) { b.login = kav_sim::login_answer::ignore; });
  KqsLoginParam login = login_of("", "");
  EXPECT_NE(0, m_client.LoginToKqs(login));
  EXPECT_NE(0, m_client.LoginToKqs(login));
  EXPECT_EQ(2u, received(2).size());
  EXPECT_EQ("D41D8CD98F00B204E9800998ECF8427E", received(2)[1].substr(19, 32));
}

TEST_F(connection_test, login_while_logged_in_is_refused_with_its_status) {
  log_in();
  KqsLoginParam login = login_of("trader", "abc");
  EXPECT_EQ(0, m_client.LoginToKqs(login));
  EXPECT_TRUE(m_events.has_log(LogLevelError,
                               "[QuoteClient] login_to_kqs failed. wrong kqc tcp status: 2."));
  EXPECT_EQ(1u, m_server.received_count('L'));
}

TEST_F(connection_test, accepted_login_is_traced_told_and_logged_in_this_order) {
  log_in();
  const std::string where = "server ip: 127.0.0.1, port: " + std::to_string(m_server.port()) + ".";
  ASSERT_TRUE(m_events.wait_for_log("[QuoteClient] login success. " + where));
  std::vector<std::string> story;
  for (const recorded_call& call : m_events.calls()) {
    if (call.text == "[QuoteClient] nothing to reg or unreg") break;
    story.push_back(call.thread_name + ": " +
                    (call.kind == callback_kind::log ? std::to_string(call.level) + " " + call.text
                                                     : name_of(call.kind)));
  }
  EXPECT_EQ(
      (std::vector<std::string>{
          "kav-receive: 0 [QuoteClient] on_login_resp,thread_is_running:0, result: Y,  " + where,
          "kav-worker: 0 [QuoteClient] _th_kqc_send_and_reconn begin",
          "kav-worker: 0 Ckqc_tcp::_th_try_query_symbol_list,size:0", "kav-worker: OnLoginResult",
          "kav-worker: 1 [QuoteClient] login success. " + where}),
      story);
}

TEST_F(connection_test, refused_login_leaves_a_client_that_connects_again) {
  m_server.change_behaviour([](kav_sim::behaviour& b) {
    b.login = kav_sim::login_answer::refuse;
    b.login_refusal_reason = "no such user";
  });
  KqsLoginParam login = login_of("trader", "abc");
  EXPECT_NE(0, m_client.LoginToKqs(login));
  ASSERT_TRUE(m_events.wait_for(callback_kind::server_disconnected));
  const recorded_call result = m_events.of(callback_kind::login_result).at(0);
  EXPECT_FALSE(result.success);
  EXPECT_EQ("no such user", result.text);
  EXPECT_EQ("kav-receive", result.thread_name);
  EXPECT_EQ("kav-receive", m_events.of(callback_kind::server_disconnected)[0].thread_name);
  EXPECT_TRUE(wait_until([&] { return m_server.connections().current == 0; }, k_patience));
  EXPECT_EQ(0, m_client.LoginToKqs(login));
  EXPECT_TRUE(m_events.has_log(LogLevelError,
                               "[QuoteClient] login_to_kqs failed. wrong kqc tcp status: 0."));
  KqsTcpInfo server = endpoint_of("127.0.0.1", m_server.port());
  EXPECT_TRUE(m_client.ConnServer(server, &m_events));
  EXPECT_EQ(1u, m_events.count(callback_kind::server_connected));
  EXPECT_EQ(1u, m_events.count(callback_kind::server_disconnected));
}

TEST_F(connection_test, loss_before_the_login_is_told_once_on_the_event_thread) {
  m_server.drop_all();
  ASSERT_TRUE(m_events.wait_for(callback_kind::server_disconnected));
  EXPECT_EQ("kav-event", m_events.of(callback_kind::server_disconnected)[0].thread_name);
  EXPECT_TRUE(
      m_events.has_log(LogLevelDebug, "[on_cache_callback] EVENT_REMOTE_DISCONNECT,thd_is_run:0"));
  KqsTcpInfo server = endpoint_of("127.0.0.1", m_server.port());
  EXPECT_TRUE(m_client.ConnServer(server, &m_events));
  KqsLoginParam login = login_of("trader", "abc");
  EXPECT_NE(0, m_client.LoginToKqs(login));
  ASSERT_TRUE(m_events.wait_for(callback_kind::login_result));
  EXPECT_TRUE(m_events.of(callback_kind::login_result)[0].success);
  EXPECT_EQ(1u, m_events.count(callback_kind::server_disconnected));
}

TEST_F(connection_test, stop_without_a_worker_leaves_the_connection_open_and_frees_the_client) {
  m_client.DisConnServer();
  KqsLoginParam login = login_of("trader", "abc");
  EXPECT_EQ(0, m_client.LoginToKqs(login));
  EXPECT_TRUE(m_events.has_log(LogLevelError,
                               "[QuoteClient] login_to_kqs failed. wrong kqc tcp status: 0."));
  EXPECT_EQ(1u, m_server.connections().current);
  KqsTcpInfo server = endpoint_of("127.0.0.1", m_server.port());
  EXPECT_TRUE(m_client.ConnServer(server, &m_events));
  EXPECT_TRUE(wait_until(
      [&] { return m_server.connections().ever == 2 && m_server.connections().current == 1; },
      k_patience))
      << "connecting again closes the connection before";
  EXPECT_EQ(0u, m_events.count(callback_kind::server_disconnected));
}

TEST_F(connection_test, async_close_ends_the_connection_and_the_status) {
  m_client.async_close_tcp_client();
  KqsLoginParam login = login_of("trader", "abc");
  EXPECT_EQ(0, m_client.LoginToKqs(login));
  EXPECT_FALSE(m_client.send_logon_req());
  EXPECT_TRUE(wait_until([&] { return m_server.connections().current == 0; }, k_patience));
  EXPECT_TRUE(m_events.wait_for_log("[on_cache_callback] EVENT_LOCALE_DISCONNECT"));
  EXPECT_EQ(0u, m_events.count(callback_kind::server_disconnected));
}

TEST_F(connection_test, connecting_again_from_inside_the_loss_callback_works) {
  KqsTcpInfo server = endpoint_of("127.0.0.1", m_server.port());
  std::atomic<bool> connected{false};
  m_events.on(callback_kind::server_disconnected,
              [&](const recorded_call&) { connected = m_client.ConnServer(server, &m_events); });
  m_server.drop_all();
  EXPECT_TRUE(wait_until([&] { return connected.load(); }, k_patience));
  EXPECT_TRUE(wait_until([&] { return m_server.connections().current == 1; }, k_patience));
}

TEST_F(connection_test, heartbeat_is_13_bytes_with_the_time_of_now) {
  const std::int64_t before = std::time(nullptr);
  EXPECT_EQ(13, m_client.send_heartbeat());
  const std::int64_t after = std::time(nullptr);
  const std::string bytes = received(1)[0];
  ASSERT_EQ(13u, bytes.size());
  EXPECT_EQ(std::string("H\0\0", 3), bytes.substr(0, 3));
  EXPECT_EQ("\r\n", bytes.substr(11));
  EXPECT_LE(before, kav_sim::heartbeat_seconds(bytes));
  EXPECT_GE(after, kav_sim::heartbeat_seconds(bytes));
}

// ---- Bytes left over from a connection before

class left_over_test : public connected_client_test {
 protected:
  // As if the connection had been closed and made anew since `bytes` arrived.
  unsigned hear_late(const std::string& bytes) {
    const auto before = std::make_shared<kqc_connection>(std::make_shared<client_life>(), &m_client,
                                                         k_earlier_serial);
    heap_bytes copy(bytes);
    const char* address = copy.data();
    VORLAN::SOCK::socket_param param(VORLAN::SOCK::EVENT_RECEIVE, 0, &address, copy.size(), 0);
    EXPECT_EQ(0, m_client.on_connection_event(param, *before));
    return param.get_proc_len();
  }

  static constexpr std::uint32_t k_earlier_serial = 4711;
};

TEST_F(left_over_test, refusal_of_an_earlier_login_leaves_the_connection_alone) {
  EXPECT_EQ(24u, hear_late(login_answer('N', "too late")));
  EXPECT_EQ(0u, m_events.count());
  KqsLoginParam login = login_of("trader", "abc");
  EXPECT_NE(0, m_client.LoginToKqs(login));
  ASSERT_TRUE(m_events.wait_for(callback_kind::login_result));
  EXPECT_TRUE(m_events.of(callback_kind::login_result)[0].success);
}

TEST_F(left_over_test, acceptance_of_an_earlier_login_starts_no_worker) {
  EXPECT_EQ(24u, hear_late(login_answer('Y', "")));
  KqsLoginParam login = login_of("trader", "abc");
  EXPECT_NE(0, m_client.LoginToKqs(login)) << "a worker would refuse it";
}

TEST_F(left_over_test, half_a_message_of_an_earlier_connection_is_thrown_away) {
  EXPECT_EQ(10u, hear_late(login_answer('N', "").substr(0, 10)));
  EXPECT_EQ(0u, m_events.count());
}

TEST_F(left_over_test, loss_of_an_earlier_connection_is_traced_only) {
  const auto before = std::make_shared<kqc_connection>(std::make_shared<client_life>(), &m_client,
                                                       k_earlier_serial);
  VORLAN::SOCK::socket_param param(VORLAN::SOCK::EVENT_REMOTE_DISCONNECT, 0, nullptr, 0, 0);
  EXPECT_EQ(0, m_client.on_connection_event(param, *before));
  EXPECT_EQ(0u, m_events.count(callback_kind::server_disconnected));
  KqsLoginParam login = login_of("trader", "abc");
  EXPECT_NE(0, m_client.LoginToKqs(login));
}

TEST_F(left_over_test, loss_of_an_earlier_connection_does_not_end_a_session) {
  log_in();
  const auto before = std::make_shared<kqc_connection>(std::make_shared<client_life>(), &m_client,
                                                       k_earlier_serial);
  VORLAN::SOCK::socket_param param(VORLAN::SOCK::EVENT_REMOTE_DISCONNECT, 0, nullptr, 0, 0);
  EXPECT_EQ(0, m_client.on_connection_event(param, *before));
  m_client.QuerySymbolList();  // work behind it, which a real loss would drop
  EXPECT_TRUE(m_events.wait_for(callback_kind::symbol_list, 1, std::chrono::seconds{5}));
  EXPECT_EQ(1u, m_server.connections().current);
  EXPECT_EQ(1u, m_server.connections().ever);
}

TEST_F(left_over_test, refusal_that_is_overtaken_by_the_close_is_still_told) {
  m_server.change_behaviour([](kav_sim::behaviour& b) { b.login = kav_sim::login_answer::ignore; });
  KqsLoginParam login = login_of("trader", "abc");
  EXPECT_NE(0, m_client.LoginToKqs(login));
  received(1);
  m_server.send_raw(login_answer('N', "no such user"));
  m_server.drop_all();
  EXPECT_TRUE(m_events.wait_for(callback_kind::login_result));
  EXPECT_TRUE(m_events.wait_for(callback_kind::server_disconnected));
  EXPECT_EQ("no such user", m_events.of(callback_kind::login_result).at(0).text);
}

// ---- Several threads

TEST_F(connection_test, sends_of_other_threads_survive_closing_and_connecting) {
  KqsTcpInfo server = endpoint_of("127.0.0.1", m_server.port());
  std::atomic<bool> stop{false};
  std::vector<std::thread> senders;
  senders.reserve(2);
  for (int i = 0; i < 2; ++i) {
    senders.emplace_back([&] {
      while (!stop) {
        m_client.send_heartbeat();
        std::this_thread::yield();
      }
    });
  }
  for (int round = 0; round < 20; ++round) {
    m_client.async_close_tcp_client();
    EXPECT_TRUE(m_client.ConnServer(server, &m_events));
  }
  stop = true;
  for (std::thread& sender : senders) sender.join();
  EXPECT_TRUE(wait_until([&] { return m_server.connections().ever == 21; }, k_patience));
  EXPECT_TRUE(wait_until([&] { return m_server.connections().current == 1; }, k_patience));
}

// ---- Credentials after the end of a session

TEST_F(connection_test, worker_reset_forgets_the_credentials) {
  m_server.change_behaviour([](kav_sim::behaviour& b) { b.login = kav_sim::login_answer::ignore; });
  KqsLoginParam login = login_of("trader", "abc");
  m_client.set_logon_info(login);
  EXPECT_TRUE(m_client.send_logon_req());
  m_client._th_reset();
  KqsTcpInfo server = endpoint_of("127.0.0.1", m_server.port());
  ASSERT_TRUE(m_client.ConnServer(server, &m_events));
  EXPECT_TRUE(m_client.send_logon_req());
  std::string empty(56, '\0');
  empty.replace(0, 3, "L10");
  empty.replace(54, 2, "\r\n");
  EXPECT_EQ(empty, received(1, 1).at(0));
}

TEST(destroy, null_client_is_ignored) { DestroyKAVQuoteApi(nullptr); }

TEST(destroy, fresh_client_goes_at_once) {
  KAVQuoteApi* const api = CreateKAVQuoteApi();
  ASSERT_NE(nullptr, api);
  EXPECT_NE(nullptr, dynamic_cast<Ckqc_tcp*>(api));
  DestroyKAVQuoteApi(api);
}

}  // namespace kav_test
