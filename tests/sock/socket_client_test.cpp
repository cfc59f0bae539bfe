#include "sock/socket_client.h"

#include <arpa/inet.h>  // inet_addr
#include <fcntl.h>      // fcntl
#include <gtest/gtest.h>
#include <netinet/in.h>    // IPPROTO_TCP
#include <netinet/tcp.h>   // TCP_NODELAY
#include <poll.h>          // poll
#include <sys/epoll.h>     // EPOLLIN
#include <sys/resource.h>  // setrlimit
#include <sys/socket.h>    // getsockopt
#include <unistd.h>        // pipe2

#include <algorithm>  // std::count
#include <atomic>     // std::atomic
#include <cerrno>     // EINTR
#include <csignal>    // SIGPIPE
#include <cstring>    // strerror
#include <limits>     // std::numeric_limits
#include <memory>     // std::unique_ptr
#include <new>        // std::bad_alloc
#include <random>     // std::mt19937
#include <thread>     // std::thread

#include "sock/local_address.h"
#include "tests/sock/event_recorder.h"
#include "tests/support/process_view.h"
#include "tests/support/signal_rain.h"
#include "tests/support/system_calls.h"
#include "tests/support/tcp_peer.h"

namespace {

using namespace VORLAN::SOCK;
using namespace std::chrono_literals;
using kav_test::event_recorder;
using kav_test::gate;
using kav_test::is_open_descriptor;
using kav_test::k_host;
using kav_test::k_soon;
using kav_test::owned_fd;
using kav_test::recorded_log;
using kav_test::tcp_connection;
using kav_test::tcp_peer;
using kav_test::time_of;
using kav_test::virtual_slot;
using kav_test::wait_library_threads;

using event_list = std::vector<SOCKET_EVENT>;
using line_list = std::vector<std::string>;

constexpr const char* k_close_line = "event_client_error, will close this socket\n";

class socket_client_test : public testing::Test {
 protected:
  ~socket_client_test() override {
    if (m_client != nullptr) m_client->sock_close();
  }

  bool connect() {
    return m_client->sock_init(k_host, m_peer.port(), event_recorder::callback, &m_events);
  }
  // Connected, and the event thread is waiting for more.
  void connect_and_accept() {
    m_client->sock_set_context(&m_log);
    ASSERT_TRUE(connect());
    m_connection = m_peer.accept();
    ASSERT_TRUE(m_connection.is_open());
    ASSERT_TRUE(m_events.wait_count(EVENT_CONNECT, 1));
  }
  int descriptor() const { return m_events.events(EVENT_CONNECT).at(0).socket; }
  static bool wait_closed(int fd) {
    return wait_until([&] { return !is_open_descriptor(fd); }, k_soon);
  }

  tcp_peer m_peer;
  tcp_connection m_connection{-1};
  event_recorder m_events;
  recorded_log m_log;
  std::unique_ptr<socket_client> m_client = std::make_unique<socket_client>();
};

// ---- Before a connection

TEST_F(socket_client_test, a_new_client_is_not_connected_and_has_no_socket) {
  EXPECT_FALSE(m_client->is_connected());
  EXPECT_EQ(-1, m_client->sock_send("x", 1));
  EXPECT_EQ(-1, m_client->sock_send("", 0));
  EXPECT_EQ(-1, m_client->sock_send("x", -1));
  unsigned char ip[4];
  EXPECT_FALSE(m_client->get_local_ip(ip));
}

TEST_F(socket_client_test, closing_an_unconnected_client_reports_nothing) {
  EXPECT_TRUE(m_client->sock_close());
  EXPECT_TRUE(m_client->sock_close());
  EXPECT_TRUE(m_events.events().empty());
}

TEST_F(socket_client_test, a_null_callback_returns_false_and_opens_no_socket) {
  const std::size_t before = kav_test::open_descriptors();
  EXPECT_FALSE(m_client->sock_init(k_host, m_peer.port(), nullptr, &m_events));
  EXPECT_FALSE(m_client->sock_init(k_host, m_peer.port(), k_host, 0, nullptr, &m_events));
  EXPECT_EQ(before, kav_test::open_descriptors());
  EXPECT_FALSE(m_peer.has_waiting(0ms));
  EXPECT_EQ(-1, m_client->sock_send("x", 1));
}

TEST_F(socket_client_test, a_null_callback_still_ends_a_previous_connection) {
  connect_and_accept();
  EXPECT_FALSE(m_client->sock_init(k_host, m_peer.port(), nullptr, nullptr));
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_LOCALE_DISCONNECT}), m_events.types());
  EXPECT_EQ(kav_test::END_BY_RESET, m_connection.wait_end());
}

TEST_F(socket_client_test, a_refused_connection_returns_false_and_reports_nothing) {
  const kav_test::refusing_port refusing;
  const std::size_t before = kav_test::open_descriptors();
  testing::internal::CaptureStdout();
  EXPECT_FALSE(m_client->sock_init(k_host, refusing.port(), event_recorder::callback, &m_events));
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_FALSE(m_client->is_connected());
  EXPECT_EQ(before, kav_test::open_descriptors());
  EXPECT_EQ(-1, m_client->sock_send("x", 1));
  EXPECT_TRUE(m_client->sock_close());
  EXPECT_TRUE(m_events.events().empty());
  EXPECT_TRUE(kav_test::library_threads().empty());
}

TEST_F(socket_client_test, an_address_that_is_no_dotted_text_fails_and_connects_nowhere) {
  for (const std::string& ip :
       {std::string(""), std::string("127.1"), std::string("localhost"), std::string("1"),
        std::string("127.0.0.1 "), std::string(" 127.0.0.1"), std::string("0127.0.0.1"),
        std::string("0x7f.0.0.1"), std::string("127.0.0.1.1"), std::string("127.0.0.256"),
        std::string("::1"), std::string("2130706433"), std::string("127.0.0.1\n"),
        std::string("127.0.0.1\0x", 11)}) {
    EXPECT_FALSE(m_client->sock_init(ip, m_peer.port(), event_recorder::callback, &m_events))
        << '"' << ip << '"';
    EXPECT_FALSE(m_client->is_connected());
  }
  EXPECT_FALSE(m_peer.has_waiting(0ms));
  EXPECT_TRUE(m_events.events().empty());
}

// ---- Connecting

TEST_F(socket_client_test, a_connection_is_reported_once_on_the_event_thread) {
  connect_and_accept();
  EXPECT_TRUE(m_client->is_connected());
  const auto seen = m_events.events();
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ(EVENT_CONNECT, seen[0].type);
  EXPECT_EQ(0, seen[0].id);
  EXPECT_EQ("", seen[0].alias);
  EXPECT_FALSE(seen[0].has_data);
  EXPECT_TRUE(is_open_descriptor(seen[0].socket));
  EXPECT_EQ("kav-event", seen[0].thread_name);
}

TEST_F(socket_client_test, is_connected_is_true_as_soon_as_sock_init_has_returned) {
  gate connecting;
  m_events.set_hook([&](socket_param&) { connecting.pass(); });
  ASSERT_TRUE(connect());
  EXPECT_TRUE(m_client->is_connected());
  connecting.open();
  m_client->sock_close();  // before the gate goes
}

int int_option(int fd, int level, int name) {
  int value = -1;
  socklen_t size = sizeof(value);
  EXPECT_EQ(0, ::getsockopt(fd, level, name, &value, &size));
  return value;
}

TEST_F(socket_client_test, the_socket_has_no_delay_no_linger_and_does_not_block) {
  connect_and_accept();
  const int fd = descriptor();
  EXPECT_NE(0, int_option(fd, IPPROTO_TCP, TCP_NODELAY));
  linger lingering{};
  socklen_t size = sizeof(lingering);
  EXPECT_EQ(0, ::getsockopt(fd, SOL_SOCKET, SO_LINGER, &lingering, &size));
  EXPECT_EQ(1, lingering.l_onoff);
  EXPECT_EQ(0, lingering.l_linger);
  EXPECT_NE(0, ::fcntl(fd, F_GETFL) & O_NONBLOCK);
  EXPECT_NE(0, ::fcntl(fd, F_GETFD) & FD_CLOEXEC);  // a program that the host starts has no part
}

TEST_F(socket_client_test, set_sock_options_fails_for_what_is_no_socket) {
  EXPECT_FALSE(m_client->set_sock_options(-1));
  const owned_fd udp(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  EXPECT_FALSE(m_client->set_sock_options(udp.get()));
  const owned_fd tcp(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_TRUE(m_client->set_sock_options(tcp.get()));
}

sockaddr_in address_of(int fd, int (*ask)(int, sockaddr*, socklen_t*)) {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  EXPECT_EQ(0, ask(fd, reinterpret_cast<sockaddr*>(&address), &size));
  return address;
}

// An address of this host that no other test uses at the same time.
std::string own_local_ip() {
  const unsigned pid = static_cast<unsigned>(::getpid());
  return "127." + std::to_string(1 + (pid >> 16) % 200) + "." + std::to_string((pid >> 8) & 255) +
         "." + std::to_string(1 + (pid & 255) % 254);
}

TEST_F(socket_client_test, the_second_form_connects_from_the_given_address_and_port) {
  const std::string local_ip = own_local_ip();
  constexpr unsigned short k_local_port = 40123;
  ASSERT_TRUE(m_client->sock_init(k_host, m_peer.port(), local_ip, k_local_port,
                                  event_recorder::callback, &m_events));
  m_connection = m_peer.accept();
  const sockaddr_in from = address_of(m_connection.fd(), ::getpeername);
  EXPECT_EQ(::inet_addr(local_ip.c_str()), from.sin_addr.s_addr);
  EXPECT_EQ(k_local_port, ntohs(from.sin_port));
  unsigned char ip[4] = {};
  EXPECT_TRUE(m_client->get_local_ip(ip));
  EXPECT_EQ(0, std::memcmp(ip, &from.sin_addr, sizeof(ip)));
}

TEST_F(socket_client_test, get_local_mac_is_that_of_the_card_with_the_local_address) {
  unsigned char mac[6] = {};
  EXPECT_FALSE(m_client->get_local_mac(mac)) << "not connected";
  ASSERT_TRUE(connect());
  EXPECT_FALSE(m_client->get_local_mac(nullptr));
  unsigned char ip[4] = {};
  ASSERT_TRUE(m_client->get_local_ip(ip));
  std::vector<VORLAN::SOCK::ip_and_mac> cards(VORLAN::SOCK::k_ip_and_mac_entries);
  const int count = VORLAN::SOCK::load_ip_and_mac(cards.data(), VORLAN::SOCK::k_ip_and_mac_entries);
  cards.resize(static_cast<std::size_t>(count));
  const auto card = std::find_if(cards.begin(), cards.end(), [&](const auto& entry) {
    return std::memcmp(entry.ip, ip, sizeof(ip)) == 0;
  });
  ASSERT_EQ(card != cards.end(), m_client->get_local_mac(mac));
  if (card != cards.end()) {
    EXPECT_EQ(0, std::memcmp(card->mac, mac, sizeof(mac)));
  }
}

TEST_F(socket_client_test, a_bind_failure_is_logged_in_one_line) {
  owned_fd taken(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const std::string local_ip = own_local_ip();
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::inet_addr(local_ip.c_str());
  ASSERT_EQ(0, ::bind(taken.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)));
  const sockaddr_in bound = address_of(taken.get(), ::getsockname);
  const std::size_t before = kav_test::open_descriptors();
  m_client->sock_set_context(&m_log);
  EXPECT_FALSE(m_client->sock_init(k_host, m_peer.port(), local_ip, ntohs(bound.sin_port),
                                   event_recorder::callback, &m_events));
  const std::string line =
      "*****socket client local_addr error!***** error code:" + std::to_string(EADDRINUSE) +
      " error message:(" + std::strerror(EADDRINUSE) + ") 127.0.0.1  " +
      std::to_string(m_peer.port()) + "  " +
      std::to_string(static_cast<int>(bound.sin_addr.s_addr)) + " " +
      std::to_string(bound.sin_port) + " \n ";
  EXPECT_EQ((line_list{line}), m_log.lines());
  EXPECT_EQ(before, kav_test::open_descriptors());
  EXPECT_FALSE(m_client->is_connected());
  EXPECT_TRUE(m_events.events().empty());
}

TEST_F(socket_client_test, a_bind_failure_goes_to_standard_output_without_a_context) {
  testing::internal::CaptureStdout();
  EXPECT_FALSE(m_client->sock_init(k_host, 9, "192.0.2.1", 0, event_recorder::callback, nullptr));
  const std::string expected =
      "*****socket client local_addr error!***** error code:99 error message:(" +
      std::string(std::strerror(EADDRNOTAVAIL)) + ") 127.0.0.1  9  " +
      std::to_string(static_cast<int>(::inet_addr("192.0.2.1"))) + " 0 \n ";
  EXPECT_EQ(expected, testing::internal::GetCapturedStdout());
}

TEST_F(socket_client_test, a_local_address_that_is_no_dotted_text_fails) {
  m_client->sock_set_context(&m_log);
  for (const char* local_ip : {"", "127.1", "localhost", "127.0.0.1 "}) {
    EXPECT_FALSE(m_client->sock_init(k_host, m_peer.port(), local_ip, 0, event_recorder::callback,
                                     &m_events));
  }
  EXPECT_FALSE(m_peer.has_waiting(0ms));
  EXPECT_EQ(4u, m_log.lines().size());
}

TEST_F(socket_client_test,
       a_failure_after_the_connect_leaves_connected_true_and_the_socket_closed) {
  if (kav_test::k_sanitized) GTEST_SKIP() << "sanitizers need descriptors of their own";
  const owned_fd probe(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  rlimit before{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
  // Room for the socket, none for the epoll instance.
  const rlimit tight{static_cast<rlim_t>(probe.get()) + 2, before.rlim_max};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &tight));
  const bool connected = connect();
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before));
  EXPECT_FALSE(connected);
  EXPECT_TRUE(m_client->is_connected());
  EXPECT_FALSE(is_open_descriptor(probe.get() + 1));
  EXPECT_EQ(-1, m_client->sock_send("x", 1));
  EXPECT_TRUE(m_events.events().empty());
  EXPECT_TRUE(m_client->sock_close());
  EXPECT_EQ((event_list{EVENT_LOCALE_DISCONNECT}), m_events.types());
}

TEST_F(socket_client_test, without_a_socket_to_be_had_sock_init_returns_false) {
  if (kav_test::k_sanitized) GTEST_SKIP() << "sanitizers need descriptors of their own";
  testing::internal::CaptureStdout();
  const owned_fd probe(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  rlimit before{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
  const rlimit tight{static_cast<rlim_t>(probe.get()) + 1, before.rlim_max};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &tight));
  const bool connected = connect();
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before));
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_FALSE(connected);
  EXPECT_FALSE(m_client->is_connected());
  EXPECT_EQ(-1, m_client->sock_send("x", 1));
}

TEST_F(socket_client_test, without_an_event_thread_sock_init_returns_false) {
  const std::size_t before = kav_test::open_descriptors();
  {
    const kav_test::failing_thread_creation failing;
    EXPECT_FALSE(connect());
  }
  EXPECT_EQ(before, kav_test::open_descriptors());
  EXPECT_TRUE(m_events.events().empty());
  EXPECT_EQ(-1, m_client->sock_send("x", 1));
  EXPECT_LT(time_of([&] { m_client->sock_close(); }), 1s);
  EXPECT_TRUE(connect());
}

// ---- Receiving

TEST_F(socket_client_test, received_bytes_are_reported_with_the_socket) {
  connect_and_accept();
  m_connection.write("hello");
  ASSERT_TRUE(wait_until([&] { return m_events.received_bytes() == 5; }, k_soon));
  const auto seen = m_events.events(EVENT_RECEIVE).at(0);
  EXPECT_EQ("hello", m_events.received());
  EXPECT_EQ(0, seen.id);
  EXPECT_EQ(descriptor(), seen.socket);
  EXPECT_EQ("", seen.alias);
  EXPECT_EQ(0u, seen.processed);
  EXPECT_EQ("kav-event", seen.thread_name);
}

TEST_F(socket_client_test, one_report_carries_8192_bytes_at_most) {
  gate connecting;
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() == EVENT_CONNECT) connecting.pass();
  });
  connect_and_accept();
  const std::string sent(20'000, 'a');
  m_connection.write(sent);
  ASSERT_TRUE(wait_until(
      [&] {
        char buffer[20'000];
        return ::recv(descriptor(), buffer, sizeof(buffer), MSG_PEEK | MSG_DONTWAIT) == 20'000;
      },
      k_soon));
  connecting.open();
  ASSERT_TRUE(wait_until([&] { return m_events.received_bytes() == sent.size(); }, k_soon));
  const auto seen = m_events.events(EVENT_RECEIVE);
  ASSERT_EQ(3u, seen.size());
  EXPECT_EQ(8192u, seen[0].data.size());
  EXPECT_EQ(8192u, seen[1].data.size());
  EXPECT_EQ(20'000u - 2 * 8192u, seen[2].data.size());
  m_client->sock_close();  // before what the hook uses goes
}

TEST_F(socket_client_test, what_the_user_says_it_has_processed_is_not_looked_at) {
  m_events.set_hook([](socket_param& param) { param.set_proc_len(1); });
  connect_and_accept();
  m_connection.write("abc");
  ASSERT_TRUE(wait_until([&] { return m_events.received() == "abc"; }, k_soon));
  m_connection.write("def");
  EXPECT_TRUE(wait_until([&] { return m_events.received() == "abcdef"; }, k_soon));
}

std::string random_bytes(std::mt19937& random, std::size_t length) {
  std::string bytes(length, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

TEST_F(socket_client_test, a_stream_in_random_pieces_arrives_intact) {
  connect_and_accept();
  std::mt19937 random(7);
  const std::string sent = random_bytes(random, 300'000);
  for (std::size_t at = 0; at < sent.size();) {
    const std::size_t piece = std::min<std::size_t>(sent.size() - at, 1 + random() % 9000);
    ASSERT_TRUE(m_connection.write(sent.substr(at, piece)));
    at += piece;
  }
  ASSERT_TRUE(wait_until([&] { return m_events.received_bytes() >= sent.size(); }, k_soon));
  EXPECT_TRUE(sent == m_events.received());
}

// ---- Sending

TEST_F(socket_client_test, a_send_is_reported_on_the_sending_thread_with_its_bytes) {
  connect_and_accept();
  EXPECT_EQ(5, m_client->sock_send("quote", 5));
  const auto seen = m_events.events(EVENT_SEND);
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ("quote", seen[0].data);
  EXPECT_EQ(0, seen[0].id);
  EXPECT_EQ(descriptor(), seen[0].socket);
  EXPECT_EQ(kav_test::name_of_this_thread(), seen[0].thread_name);
  EXPECT_EQ("quote", m_connection.read_exactly(5));
}

TEST_F(socket_client_test, sending_nothing_gives_0_and_no_event) {
  connect_and_accept();
  EXPECT_EQ(0, m_client->sock_send("x", 0));
  EXPECT_EQ(0, m_client->sock_send(nullptr, 0));
  EXPECT_EQ(0u, m_events.count(EVENT_SEND));
}

TEST_F(socket_client_test, a_negative_length_and_null_data_are_refused) {
  connect_and_accept();
  EXPECT_EQ(-1, m_client->sock_send("x", -1));
  EXPECT_EQ(-1, m_client->sock_send("x", std::numeric_limits<int>::min()));
  EXPECT_EQ(-1, m_client->sock_send(nullptr, 4));
  EXPECT_EQ(0u, m_events.count(EVENT_SEND));
  EXPECT_TRUE(m_client->is_connected());
}

TEST_F(socket_client_test, a_full_socket_gives_partial_sends_and_then_0) {
  connect_and_accept();
  const std::string bytes(1'000'000, 's');
  std::size_t taken = 0;
  int sent = 1;
  for (int i = 0; i < 1000 && sent > 0; ++i) {
    sent = m_client->sock_send(bytes.data(), static_cast<int>(bytes.size()));
    if (sent > 0) taken += static_cast<std::size_t>(sent);
  }
  EXPECT_EQ(0, sent);
  EXPECT_EQ(0, m_client->sock_send("x", 1));
  EXPECT_TRUE(m_client->is_connected());
  std::size_t reported = 0;
  for (const auto& event : m_events.events(EVENT_SEND)) reported += event.data.size();
  EXPECT_EQ(taken, reported);
  EXPECT_EQ(taken, m_connection.read_exactly(taken).size());
  EXPECT_EQ("", m_connection.read_until_quiet(50ms));  // nothing had been kept
  m_client->wait_sendable(std::chrono::milliseconds(10'000));
  EXPECT_EQ(1, m_client->sock_send("x", 1));
}

TEST_F(socket_client_test, sending_over_a_broken_connection_gives_minus_1_and_no_signal) {
  ASSERT_NE(SIG_ERR, ::signal(SIGPIPE, SIG_DFL));
  gate connecting;
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() == EVENT_CONNECT) connecting.pass();
  });
  connect_and_accept();
  m_connection.close_with_reset();
  // The event thread is held, so that nobody but the sends notices.
  ASSERT_TRUE(wait_until([&] { return m_client->sock_send("x", 1) == -1; }, k_soon));
  for (int i = 0; i < 10; ++i) EXPECT_EQ(-1, m_client->sock_send("x", 1));
  connecting.open();
  m_client->sock_close();  // before the gate goes
}

TEST_F(socket_client_test, several_threads_may_send_at_once) {
  connect_and_accept();
  std::vector<std::thread> senders;
  for (const char letter : {'a', 'b', 'c'}) {
    senders.emplace_back([&, letter] {
      for (int i = 0; i < 500; ++i) EXPECT_EQ(1, m_client->sock_send(&letter, 1));
    });
  }
  for (std::thread& sender : senders) sender.join();
  const std::string bytes = m_connection.read_exactly(1500);
  for (const char letter : {'a', 'b', 'c'}) {
    EXPECT_EQ(500, std::count(bytes.begin(), bytes.end(), letter));
  }
  EXPECT_EQ(1500u, m_events.count(EVENT_SEND));
}

// ---- The end of a connection

TEST_F(socket_client_test, a_close_by_the_peer_is_reported_once_and_ends_the_thread) {
  connect_and_accept();
  const int fd = descriptor();
  m_connection.close_with_fin();
  ASSERT_TRUE(m_events.wait_count(EVENT_REMOTE_DISCONNECT, 1));
  EXPECT_FALSE(m_client->is_connected());
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_FALSE(is_open_descriptor(fd));
  const auto seen = m_events.events(EVENT_REMOTE_DISCONNECT);
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ(fd, seen[0].socket);
  EXPECT_FALSE(seen[0].has_data);
  EXPECT_EQ("kav-event", seen[0].thread_name);
  EXPECT_TRUE(m_log.lines().empty());
  m_client->sock_close();
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_REMOTE_DISCONNECT}), m_events.types());
}

TEST_F(socket_client_test, a_reset_by_the_peer_is_logged_and_reported_once) {
  connect_and_accept();
  m_connection.close_with_reset();
  ASSERT_TRUE(m_events.wait_count(EVENT_REMOTE_DISCONNECT, 1));
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_REMOTE_DISCONNECT}), m_events.types());
  const std::string line = "client readline error(n_recved=-1 errno=" + std::to_string(ECONNRESET) +
                           " error message=" + std::strerror(ECONNRESET) + " )\n";
  EXPECT_EQ((line_list{line, k_close_line}), m_log.lines());
}

TEST_F(socket_client_test, bytes_sent_before_the_close_arrive_before_its_report) {
  connect_and_accept();
  m_connection.write("last words");
  m_connection.close_with_fin();
  ASSERT_TRUE(m_events.wait_count(EVENT_REMOTE_DISCONNECT, 1));
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_RECEIVE, EVENT_REMOTE_DISCONNECT}), m_events.types());
  EXPECT_EQ("last words", m_events.received());
}

TEST_F(socket_client_test, sock_close_resets_the_connection_and_is_reported_once) {
  connect_and_accept();
  const int fd = descriptor();
  EXPECT_TRUE(m_client->sock_close());
  EXPECT_FALSE(m_client->is_connected());
  EXPECT_FALSE(is_open_descriptor(fd));
  EXPECT_EQ(kav_test::END_BY_RESET, m_connection.wait_end());
  EXPECT_TRUE(m_client->sock_close());
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_LOCALE_DISCONNECT}), m_events.types());
  const auto seen = m_events.events(EVENT_LOCALE_DISCONNECT);
  EXPECT_EQ(fd, seen.at(0).socket);
  EXPECT_EQ(kav_test::name_of_this_thread(), seen.at(0).thread_name);
  EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(socket_client_test, sock_close_returns_within_a_moment) {
  connect_and_accept();
  EXPECT_LT(time_of([&] { m_client->sock_close(); }), 1s);
}

TEST_F(socket_client_test, nothing_is_left_of_many_connections) {
  const std::size_t before = kav_test::open_descriptors();
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(connect());
    m_connection = m_peer.accept();
    m_client->sock_close();
  }
  m_connection = tcp_connection(-1);
  EXPECT_EQ(before, kav_test::open_descriptors());
  EXPECT_EQ(20u, m_events.count(EVENT_LOCALE_DISCONNECT));
  EXPECT_TRUE(wait_library_threads({}));
}

TEST_F(socket_client_test, a_close_right_after_the_open_is_a_barrier) {
  for (int i = 0; i < 50; ++i) {
    ASSERT_TRUE(connect());
    m_client->sock_close();
    const std::size_t events = m_events.events().size();
    EXPECT_EQ(EVENT_LOCALE_DISCONNECT, m_events.types().back());
    m_connection = m_peer.accept();
    m_connection.write("too late");
    EXPECT_EQ(events, m_events.events().size());
  }
}

TEST_F(socket_client_test, a_new_sock_init_ends_the_connection_before) {
  connect_and_accept();
  ASSERT_TRUE(connect());
  EXPECT_EQ(kav_test::END_BY_RESET, m_connection.wait_end());
  ASSERT_TRUE(m_events.wait_count(EVENT_CONNECT, 2));
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_LOCALE_DISCONNECT, EVENT_CONNECT}), m_events.types());
  m_connection = m_peer.accept();
  EXPECT_EQ(3, m_client->sock_send("new", 3));
  EXPECT_EQ("new", m_connection.read_exactly(3));
}

TEST_F(socket_client_test, a_peer_that_sends_without_end_does_not_delay_the_close) {
  connect_and_accept();
  std::thread flooding([&] { m_connection.flood(20s); });
  ASSERT_TRUE(m_events.wait_count(EVENT_RECEIVE, 50));
  EXPECT_LT(time_of([&] { m_client->sock_close(); }), 1s);
  const std::size_t events = m_events.events().size();
  flooding.join();
  EXPECT_EQ(events, m_events.events().size());
}

TEST_F(socket_client_test, sock_close_ends_a_connect_that_gets_no_answer) {
  tcp_peer silent(0);
  ASSERT_TRUE(silent.stop_answering());
  std::atomic<bool> connected{true};
  std::thread connecting([&] {
    connected.store(
        m_client->sock_init(k_host, silent.port(), event_recorder::callback, &m_events));
  });
  ASSERT_TRUE(wait_until([&] { return silent.is_asked(); }, k_soon));
  EXPECT_LT(time_of([&] {
              m_client->sock_close();
              connecting.join();
            }),
            1s);
  EXPECT_FALSE(connected.load());
  EXPECT_TRUE(m_events.events().empty());
  EXPECT_TRUE(connect());  // the close was for that attempt only
}

TEST_F(socket_client_test, cancel_connect_ends_a_connect_and_each_later_one) {
  tcp_peer silent(0);
  ASSERT_TRUE(silent.stop_answering());
  std::thread connecting([&] {
    EXPECT_FALSE(m_client->sock_init(k_host, silent.port(), event_recorder::callback, &m_events));
  });
  ASSERT_TRUE(wait_until([&] { return silent.is_asked(); }, k_soon));
  EXPECT_LT(time_of([&] {
              m_client->cancel_connect();
              connecting.join();
            }),
            1s);
  EXPECT_LT(time_of([&] {
              EXPECT_FALSE(
                  m_client->sock_init(k_host, silent.port(), event_recorder::callback, &m_events));
            }),
            1s);
}

// ---- A descriptor once closed is never used again

// Gives number `fd` to one end of a pair of sockets; the other end is returned.
owned_fd take_descriptor(int fd) {
  int ends[2] = {-1, -1};
  EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends));
  if (ends[0] == fd) return owned_fd(ends[1]);
  if (ends[1] == fd) return owned_fd(ends[0]);
  EXPECT_EQ(fd, ::dup2(ends[1], fd));
  ::close(ends[1]);
  return owned_fd(ends[0]);
}

bool has_got_nothing(const owned_fd& end) {
  char byte;
  return ::read(end.get(), &byte, 1) == -1 && errno == EAGAIN;
}

TEST_F(socket_client_test, a_send_after_the_end_does_not_touch_a_file_with_the_same_number) {
  connect_and_accept();
  const int fd = descriptor();
  m_connection.close_with_fin();
  ASSERT_TRUE(wait_closed(fd));
  const owned_fd reading = take_descriptor(fd);
  const owned_fd writing(fd);
  EXPECT_EQ(-1, m_client->sock_send("secret", 6));
  EXPECT_EQ(-1, m_client->sock_send("", 0));
  m_client->sock_close();
  EXPECT_EQ(-1, m_client->sock_send("secret", 6));
  EXPECT_TRUE(has_got_nothing(reading));
  EXPECT_TRUE(is_open_descriptor(fd));
  unsigned char ip[4] = {1, 2, 3, 4};
  m_client->get_local_ip(ip);
  ASSERT_TRUE(connect());
  m_client->sock_close();
  EXPECT_TRUE(is_open_descriptor(fd));
  EXPECT_TRUE(has_got_nothing(reading));
}

TEST_F(socket_client_test, a_send_after_a_failed_connect_does_not_touch_a_file_either) {
  const kav_test::refusing_port refusing;
  const owned_fd probe(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const int fd = probe.get() + 1;  // what the socket is going to get
  ASSERT_FALSE(m_client->sock_init(k_host, refusing.port(), event_recorder::callback, &m_events));
  ASSERT_FALSE(is_open_descriptor(fd));
  const owned_fd reading = take_descriptor(fd);
  const owned_fd writing(fd);
  EXPECT_EQ(-1, m_client->sock_send("secret", 6));
  m_client->sock_close();
  EXPECT_TRUE(is_open_descriptor(fd));
  EXPECT_TRUE(has_got_nothing(reading));
}

TEST_F(socket_client_test, a_thread_that_keeps_sending_never_writes_into_another_file) {
  std::atomic<bool> over{false};
  std::thread sender([&] {
    while (!over.load()) m_client->sock_send("secret", 6);
  });
  for (int i = 0; i < 30; ++i) {
    EXPECT_TRUE(connect());
    m_connection = m_peer.accept();
    const auto ends_before = m_events.count(EVENT_REMOTE_DISCONNECT);
    m_connection.close_with_reset();
    m_events.wait_count(EVENT_REMOTE_DISCONNECT, ends_before + 1);
    EXPECT_TRUE(wait_library_threads({}));
    std::vector<owned_fd> ends;
    for (int pair = 0; pair < 8; ++pair) {
      int both[2] = {-1, -1};
      EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, both));
      ends.emplace_back(both[0]);
      ends.emplace_back(both[1]);
    }
    for (int n = 0; n < 200; ++n) std::this_thread::yield();
    for (const owned_fd& end : ends) EXPECT_TRUE(has_got_nothing(end));
  }
  over.store(true);
  sender.join();
}

// ---- Calling back into the client

TEST_F(socket_client_test, a_callback_may_send) {
  m_events.set_hook([&](socket_param& param) {
    const SOCKET_EVENT type = param.get_event_type();
    if (type != EVENT_CONNECT && type != EVENT_RECEIVE) return;
    EXPECT_EQ(4, m_client->sock_send(type == EVENT_CONNECT ? "on c" : "on r", 4));
  });
  connect_and_accept();
  EXPECT_EQ("on c", m_connection.read_exactly(4));
  m_connection.write("x");
  EXPECT_EQ("on r", m_connection.read_exactly(4));
}

class close_in_callback_test : public socket_client_test {
 protected:
  void close_inside(SOCKET_EVENT type) {
    m_events.set_hook([this, type](socket_param& param) {
      if (param.get_event_type() != type) return;
      m_client->sock_close();
      m_closed.store(true);
    });
  }
  bool wait_closed_inside() const {
    return wait_until([this] { return m_closed.load(); }, k_soon);
  }
  std::atomic<bool> m_closed{false};
};

TEST_F(close_in_callback_test, closing_inside_the_connect_event_is_the_last_event) {
  close_inside(EVENT_CONNECT);
  ASSERT_TRUE(connect());
  m_connection = m_peer.accept();
  m_connection.write("nobody wants this");
  ASSERT_TRUE(wait_closed_inside());
  EXPECT_NE(kav_test::END_NOT_SEEN, m_connection.wait_end());
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_LOCALE_DISCONNECT}), m_events.types());
}

TEST_F(close_in_callback_test, closing_inside_the_connect_event_hides_bytes_that_wait) {
  // The bytes are there before the close.
  m_events.set_hook([this](socket_param& param) {
    if (param.get_event_type() != EVENT_CONNECT) return;
    char byte;
    EXPECT_TRUE(wait_until(
        [&] { return ::recv(param.get_socket(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1; },
        k_soon));
    m_client->sock_close();
    m_closed.store(true);
  });
  ASSERT_TRUE(connect());
  m_connection = m_peer.accept();
  m_connection.write("nobody wants this");
  ASSERT_TRUE(wait_closed_inside());
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_LOCALE_DISCONNECT}), m_events.types());
}

TEST_F(close_in_callback_test, closing_inside_the_receive_event_is_the_last_event) {
  close_inside(EVENT_RECEIVE);
  connect_and_accept();
  m_connection.write(std::string(50'000, 'x'));
  ASSERT_TRUE(wait_closed_inside());
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_RECEIVE, EVENT_LOCALE_DISCONNECT}), m_events.types());
}

TEST_F(close_in_callback_test, closing_inside_the_disconnect_event_reports_nothing_more) {
  close_inside(EVENT_REMOTE_DISCONNECT);
  connect_and_accept();
  m_connection.close_with_fin();
  ASSERT_TRUE(wait_closed_inside());
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_REMOTE_DISCONNECT}), m_events.types());
}

TEST_F(close_in_callback_test, closing_inside_the_send_event_works) {
  close_inside(EVENT_SEND);
  connect_and_accept();
  EXPECT_EQ(3, m_client->sock_send("bye", 3));
  EXPECT_TRUE(m_closed.load());
  EXPECT_EQ(-1, m_client->sock_send("bye", 3));
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_SEND, EVENT_LOCALE_DISCONNECT}), m_events.types());
}

TEST_F(close_in_callback_test, closing_inside_the_local_disconnect_event_reports_it_once) {
  close_inside(EVENT_LOCALE_DISCONNECT);
  connect_and_accept();
  m_client->sock_close();
  EXPECT_TRUE(m_closed.load());
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_LOCALE_DISCONNECT}), m_events.types());
}

TEST_F(socket_client_test, the_disconnect_event_may_connect_again) {
  std::atomic<bool> again{false};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() == EVENT_REMOTE_DISCONNECT && !again.exchange(true)) {
      EXPECT_TRUE(connect());
    }
  });
  connect_and_accept();
  m_connection.close_with_fin();
  m_connection = m_peer.accept();
  ASSERT_TRUE(m_events.wait_count(EVENT_CONNECT, 2));
  EXPECT_TRUE(wait_library_threads({"kav-event"}));  // the first thread has left
  EXPECT_TRUE(m_client->is_connected());
  m_connection.write("second life");
  EXPECT_TRUE(wait_until([&] { return m_events.received() == "second life"; }, k_soon));
  EXPECT_EQ(2, m_client->sock_send("ok", 2));
  EXPECT_EQ("ok", m_connection.read_exactly(2));
  m_client->sock_close();  // before what the hook uses goes
}

TEST_F(socket_client_test, sock_close_waits_also_for_a_thread_whose_callback_connected_again) {
  gate inside;
  std::atomic<bool> left{false};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() != EVENT_REMOTE_DISCONNECT) return;
    EXPECT_TRUE(connect());
    inside.pass();
    left.store(true);
  });
  connect_and_accept();
  m_connection.close_with_fin();
  ASSERT_TRUE(inside.wait_reached());
  std::thread opener([&] {
    std::this_thread::sleep_for(50ms);
    inside.open();
  });
  m_client->sock_close();
  EXPECT_TRUE(left.load());
  m_client.reset();
  opener.join();
  EXPECT_TRUE(wait_library_threads({}));
}

TEST_F(socket_client_test, signals_do_not_shorten_the_wait_for_a_callback) {
  gate inside;
  std::atomic<bool> left{false};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() != EVENT_REMOTE_DISCONNECT) return;
    inside.pass();
    left.store(true);
  });
  connect_and_accept();
  m_connection.close_with_fin();
  ASSERT_TRUE(inside.wait_reached());
  std::thread opener([&] {
    std::this_thread::sleep_for(2s);
    inside.open();
  });
  {
    const kav_test::signal_rain rain;
    m_client->sock_close();
  }
  EXPECT_TRUE(left.load());
  opener.join();
  EXPECT_TRUE(wait_library_threads({}));
}

TEST_F(socket_client_test, a_callback_that_connected_again_may_delete_the_client) {
  std::atomic<bool> deleted{false};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() != EVENT_REMOTE_DISCONNECT) return;
    EXPECT_TRUE(connect());
    m_client->sock_close();
    m_client.reset();
    deleted.store(true);
  });
  connect_and_accept();
  m_connection.close_with_fin();
  ASSERT_TRUE(wait_until([&] { return deleted.load(); }, k_soon));
  EXPECT_TRUE(wait_library_threads({}));
}

class delete_in_callback_test : public socket_client_test,
                                public testing::WithParamInterface<SOCKET_EVENT> {};

TEST_P(delete_in_callback_test, the_client_may_be_closed_and_deleted_inside_its_event) {
  const std::size_t before = kav_test::open_descriptors();
  std::atomic<bool> deleted{false};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() != GetParam()) return;
    m_client->sock_close();
    m_client.reset();
    deleted.store(true);
  });
  ASSERT_TRUE(connect());
  m_connection = m_peer.accept();
  m_connection.write("x");
  if (GetParam() == EVENT_REMOTE_DISCONNECT) m_connection.close_with_fin();
  ASSERT_TRUE(wait_until([&] { return deleted.load(); }, k_soon));
  EXPECT_TRUE(wait_library_threads({}));
  m_connection = tcp_connection(-1);
  EXPECT_EQ(before, kav_test::open_descriptors());
}

TEST_P(delete_in_callback_test, a_client_deleted_unclosed_inside_its_event_leaves_the_connection) {
  std::atomic<int> fd{-1};
  std::atomic<bool> deleted{false};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() != GetParam()) return;
    fd.store(param.get_socket());
    m_client.reset();
    deleted.store(true);
  });
  ASSERT_TRUE(connect());
  m_connection = m_peer.accept();
  m_connection.write("x");
  if (GetParam() == EVENT_REMOTE_DISCONNECT) m_connection.close_with_fin();
  ASSERT_TRUE(wait_until([&] { return deleted.load(); }, k_soon));
  EXPECT_TRUE(wait_library_threads({}));
  const owned_fd left(fd.load());
  EXPECT_TRUE(is_open_descriptor(left.get()));
}

INSTANTIATE_TEST_SUITE_P(events, delete_in_callback_test,
                         testing::Values(EVENT_CONNECT, EVENT_RECEIVE, EVENT_REMOTE_DISCONNECT));

TEST_F(socket_client_test, a_client_deleted_unclosed_leaves_the_connection_with_nobody_to_call) {
  connect_and_accept();
  const owned_fd left(descriptor());
  m_client.reset();
  EXPECT_TRUE(wait_library_threads({}));
  m_connection.write("anybody there?");
  EXPECT_EQ(1, ::send(left.get(), "y", 1, MSG_NOSIGNAL));
  EXPECT_EQ("y", m_connection.read_exactly(1));
  EXPECT_EQ((event_list{EVENT_CONNECT}), m_events.types());
}

TEST_P(delete_in_callback_test, a_callback_may_throw_bad_alloc_when_it_has_deleted_its_client) {
  std::atomic<bool> deleted{false};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() != GetParam()) return;
    m_client->sock_close();
    m_client.reset();
    deleted.store(true);
    throw std::bad_alloc{};
  });
  ASSERT_TRUE(connect());
  m_connection = m_peer.accept();
  m_connection.write("x");
  if (GetParam() == EVENT_REMOTE_DISCONNECT) m_connection.close_with_fin();
  ASSERT_TRUE(wait_until([&] { return deleted.load(); }, k_soon));
  EXPECT_TRUE(wait_library_threads({}));
}

// ---- A callback that does not return

TEST_F(socket_client_test, a_callback_that_throws_bad_alloc_after_its_client_has_gone_ends_alone) {
  gate inside;
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() != EVENT_RECEIVE) return;
    inside.pass();
    throw std::bad_alloc{};
  });
  connect_and_accept();
  m_connection.write("block");
  ASSERT_TRUE(inside.wait_reached());
  m_client->sock_close();
  m_client.reset();
  inside.open();
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_RECEIVE, EVENT_LOCALE_DISCONNECT}), m_events.types());
}

TEST_F(socket_client_test, a_callback_that_blocks_holds_sock_close_for_about_5_s_only) {
  gate inside;
  std::atomic<bool> returned{false};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() != EVENT_RECEIVE) return;
    inside.pass();
    returned.store(true);
  });
  connect_and_accept();
  const int fd = descriptor();
  m_connection.write("block");
  ASSERT_TRUE(inside.wait_reached());
  const auto waited = time_of([&] { m_client->sock_close(); });
  EXPECT_GE(waited, 4900ms);
  EXPECT_LT(waited, 30s);
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_RECEIVE, EVENT_LOCALE_DISCONNECT}), m_events.types());
  EXPECT_FALSE(is_open_descriptor(fd));
  EXPECT_EQ(-1, m_client->sock_send("x", 1));
  m_client.reset();
  m_connection = tcp_connection(-1);
  const owned_fd reading = take_descriptor(fd);
  const owned_fd writing(fd);
  inside.open();
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_TRUE(returned.load());
  EXPECT_TRUE(is_open_descriptor(fd));  // the late thread has closed nothing of ours
  EXPECT_EQ(3u, m_events.events().size());
}

TEST_F(socket_client_test, after_a_callback_that_blocked_the_client_connects_again) {
  gate inside;
  std::atomic<bool> first{true};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() == EVENT_CONNECT && first.exchange(false)) inside.pass();
  });
  ASSERT_TRUE(connect());
  m_connection = m_peer.accept();
  ASSERT_TRUE(inside.wait_reached());
  ASSERT_TRUE(connect());  // closes first
  m_connection = m_peer.accept();
  ASSERT_TRUE(m_events.wait_count(EVENT_CONNECT, 2));
  inside.open();
  EXPECT_TRUE(wait_library_threads({"kav-event"}));
  EXPECT_TRUE(m_client->is_connected());
  m_connection.write("go on");
  EXPECT_TRUE(wait_until([&] { return m_events.received() == "go on"; }, k_soon));
  EXPECT_EQ(0u, m_events.count(EVENT_REMOTE_DISCONNECT));
  m_client->sock_close();  // before what the hook uses goes
}

// ---- The thread

TEST_F(socket_client_test, the_event_thread_leaves_signals_to_the_host) {
  connect_and_accept();
  const auto threads = kav_test::threads_named("kav-event");
  ASSERT_EQ(1u, threads.size());
  for (const int signal : {SIGINT, SIGTERM, SIGALRM, SIGCHLD, SIGUSR1, SIGPIPE}) {
    EXPECT_TRUE(threads[0].blocks(signal)) << signal;
  }
  EXPECT_FALSE(threads[0].blocks(SIGPROF));
  EXPECT_FALSE(threads[0].blocks(SIGSEGV));
}

TEST_F(socket_client_test, an_idle_connection_costs_next_to_nothing) {
  connect_and_accept();
  const auto before = kav_test::processor_time();
  std::this_thread::sleep_for(1s);
  EXPECT_LT(kav_test::processor_time() - before, kav_test::k_sanitized ? 200ms : 30ms);
}

TEST_F(socket_client_test, the_static_entry_ignores_null) {
  EXPECT_EQ(nullptr, socket_client::event_client_thread(nullptr));
}

// ---- Steps of the event thread, called directly

TEST_F(socket_client_test, report_user_without_a_callback_returns_false) {
  EXPECT_FALSE(m_client->report_user(EVENT_RECEIVE, 1, "x", 1, 2));
}

TEST_F(socket_client_test, report_user_hands_over_what_it_gets) {
  connect_and_accept();
  EXPECT_TRUE(m_client->report_user(EVENT_ERROR, 4, "abc", 2, 9));
  const auto seen = m_events.events(EVENT_ERROR).at(0);
  EXPECT_EQ(4, seen.id);
  EXPECT_EQ("ab", seen.data);
  EXPECT_EQ(9, seen.socket);
}

epoll_event event_of(int fd, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  return event;
}

TEST_F(socket_client_test, events_of_other_descriptors_are_ignored) {
  connect_and_accept();
  epoll_event event = event_of(descriptor() + 1, EPOLLERR | EPOLLHUP);
  EXPECT_TRUE(m_client->proc_event(&event, 1));
  EXPECT_TRUE(m_client->is_connected());
  EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(socket_client_test, an_error_event_alone_ends_the_connection) {
  connect_and_accept();
  for (const std::uint32_t events : {std::uint32_t{EPOLLERR}, std::uint32_t{EPOLLHUP}}) {
    epoll_event event = event_of(descriptor(), events);
    EXPECT_FALSE(m_client->proc_event(&event, 1));
    EXPECT_FALSE(m_client->is_connected());
  }
  EXPECT_EQ(2u, m_events.count(EVENT_REMOTE_DISCONNECT));
  EXPECT_EQ((line_list{k_close_line, k_close_line}), m_log.lines());
}

TEST_F(socket_client_test, room_to_send_is_reported_without_data) {
  connect_and_accept();
  epoll_event event = event_of(descriptor(), EPOLLOUT);
  EXPECT_TRUE(m_client->proc_event(&event, 1));
  const auto seen = m_events.events(EVENT_SEND);
  ASSERT_EQ(1u, seen.size());
  EXPECT_FALSE(seen[0].has_data);
  EXPECT_EQ(descriptor(), seen[0].socket);
}

TEST_F(socket_client_test, the_last_event_decides_whether_the_thread_goes_on) {
  connect_and_accept();
  epoll_event events[2] = {event_of(descriptor(), EPOLLERR), event_of(-5, EPOLLERR)};
  EXPECT_TRUE(m_client->proc_event(events, 2));
  std::swap(events[0], events[1]);
  EXPECT_FALSE(m_client->proc_event(events, 2));
}

TEST_F(socket_client_test, a_read_with_nothing_there_is_a_broken_connection) {
  connect_and_accept();
  epoll_event event = event_of(descriptor(), EPOLLIN | EPOLLHUP);
  EXPECT_FALSE(m_client->proc_event(&event, 1));
  const std::string line = "client readline error(n_recved=-1 errno=" + std::to_string(EAGAIN) +
                           " error message=" + std::strerror(EAGAIN) + " )\n";
  EXPECT_EQ((line_list{line, k_close_line}), m_log.lines());
  EXPECT_EQ(1u, m_events.count(EVENT_REMOTE_DISCONNECT));
}

// ---- The log

struct error_line {
  int error;
  const char* text;
};

std::ostream& operator<<(std::ostream& out, const error_line& line) {
  return out << "errno_" << line.error;  // part of the test's name
}

class thread_error_test : public testing::TestWithParam<error_line> {};

TEST_P(thread_error_test, the_first_failure_of_its_kind_is_logged_and_no_other) {
  recorded_log log;
  socket_client client;
  client.sock_set_context(&log);
  for (int i = 0; i < 3; ++i) client.proc_thread_error(GetParam().error);
  EXPECT_EQ((line_list{GetParam().text}), log.lines());
}

INSTANTIATE_TEST_SUITE_P(
    kinds, thread_error_test,
    testing::Values(
        error_line{EINTR,
                   "epoll_waite error! the call was interrupted by a signal handler before any of "
                   "the requested events occurred or timeout expired. error times(0)\n"},
        error_line{EBADF,
                   "epoll_waite error! epoll_handle:-1  is not a valid file descriptor. error "
                   "times(0)\n"},
        error_line{EFAULT,
                   "epoll_waite error! epoll_event is not accessible with write. error times(0)"},
        error_line{EINVAL,
                   "epoll_waite error! m_epoll_handle is not an epoll file descriptor, or "
                   "maxevents is less than or equal to zero. error times(0)\n"},
        error_line{ENOMEM, "epoll_waite error! undefine wait error. error times(0)\n"}));

TEST(socket_client_log, kinds_are_counted_apart_and_other_errors_together) {
  recorded_log log;
  socket_client client;
  client.sock_set_context(&log);
  for (const int error : {EINTR, EBADF, EINTR, ENOMEM, EPERM}) client.proc_thread_error(error);
  EXPECT_EQ(3u, log.lines().size());
}

TEST_F(socket_client_test, the_loop_goes_on_after_an_error_and_counts_are_never_reset) {
  for (int i = 0; i < 2; ++i) {
    m_client->sock_set_context(&m_log);
    ASSERT_TRUE(connect());
    ASSERT_TRUE(m_events.wait_count(EVENT_CONNECT, static_cast<std::size_t>(i + 1)));
    m_client->event_client_close();  // under the thread's feet
    ASSERT_TRUE(wait_until([&] { return m_log.lines().size() == 1; }, k_soon));
    EXPECT_EQ(1u, kav_test::threads_named("kav-event").size());
    const auto before = kav_test::processor_time();
    std::this_thread::sleep_for(200ms);
    EXPECT_LT(kav_test::processor_time() - before, kav_test::k_sanitized ? 150ms : 50ms);
    EXPECT_LT(time_of([&] { m_client->sock_close(); }), 1s);
  }
  EXPECT_EQ(1u, m_log.lines().size());
  EXPECT_EQ(0u, m_log.lines()[0].find("epoll_waite error! epoll_handle:"));
}

TEST(socket_client_log, a_context_gets_text_and_length_and_standard_output_nothing) {
  recorded_log log;
  socket_client client;
  client.sock_set_context(&log);
  testing::internal::CaptureStdout();
  client.log_msg("a line with %d in it\n");
  client.event_client_error();
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_EQ((line_list{"a line with %d in it\n", k_close_line}), log.lines());
}

TEST(socket_client_log, without_a_context_lines_go_to_standard_output_as_they_are) {
  recorded_log log;
  socket_client client;
  client.sock_set_context(&log);
  client.sock_set_context(nullptr);
  testing::internal::CaptureStdout();
  client.log_msg("a line with %d in it\n");
  client.log_msg(nullptr);
  client.event_client_error();
  EXPECT_EQ(std::string("a line with %d in it\n") + k_close_line,
            testing::internal::GetCapturedStdout());
  EXPECT_TRUE(log.lines().empty());
}

TEST(epoll_error, has_five_counters_that_start_at_0) {
  static_assert(sizeof(epoll_error) == 20, "five 32-bit counters");
  const epoll_error errors;
  EXPECT_EQ(0u, errors.bad_descriptor);
  EXPECT_EQ(0u, errors.bad_address);
  EXPECT_EQ(0u, errors.interrupted);
  EXPECT_EQ(0u, errors.invalid_argument);
  EXPECT_EQ(0u, errors.other);
}

// ---- Virtual operations, called as code compiled elsewhere does

class slot_probe : public socket_client {
 public:
  explicit slot_probe(std::vector<int>& calls) : m_calls(calls) {}
  ~slot_probe() override { m_calls.push_back(1); }
  bool is_connected() override { return note(2); }
  bool event_client_close() override { return note(3); }
  bool event_client_error() override { return note(4); }
  bool event_client_connect() override { return note(5); }
  bool event_client_disconnect(bool local) override { return note(local ? 60 : 61); }
  bool event_client_receive() override { return note(7); }
  bool event_client_send() override { return note(8); }

 private:
  bool note(int call) {
    m_calls.push_back(call);
    return true;
  }
  std::vector<int>& m_calls;
};

TEST(socket_client_slots, virtual_operations_have_their_places) {
  using plain = bool (*)(socket_client*);
  using with_bool = bool (*)(socket_client*, bool);
  std::vector<int> calls;
  socket_client* const client = new slot_probe(calls);
  for (const std::size_t slot : {2u, 3u, 4u, 5u, 7u, 8u}) {
    EXPECT_TRUE(virtual_slot<plain>(client, slot)(client));
  }
  virtual_slot<with_bool>(client, 6)(client, true);
  virtual_slot<with_bool>(client, 6)(client, false);
  virtual_slot<void (*)(socket_client*)>(client, 1)(client);  // deletes
  EXPECT_EQ((std::vector<int>{2, 3, 4, 5, 7, 8, 60, 61, 1}), calls);
}

TEST(socket_client_slots, the_first_slot_destroys_without_freeing) {
  std::vector<int> calls;
  alignas(slot_probe) unsigned char memory[sizeof(slot_probe)];
  socket_client* const client = new (memory) slot_probe(calls);
  virtual_slot<void (*)(socket_client*)>(client, 0)(client);
  EXPECT_EQ((std::vector<int>{1}), calls);
}

TEST_F(socket_client_test, the_slots_drive_a_real_connection) {
  using plain = bool (*)(socket_client*);
  EXPECT_FALSE(virtual_slot<plain>(m_client.get(), 2)(m_client.get()));
  connect_and_accept();
  EXPECT_TRUE(virtual_slot<plain>(m_client.get(), 2)(m_client.get()));
  virtual_slot<bool (*)(socket_client*, bool)>(m_client.get(), 6)(m_client.get(), true);
  EXPECT_FALSE(virtual_slot<plain>(m_client.get(), 2)(m_client.get()));
  EXPECT_EQ(1u, m_events.count(EVENT_LOCALE_DISCONNECT));
}

TEST(socket_context_slots, log_text_follows_the_destructors) {
  using log_text = void (*)(socket_context*, const char*, int);
  auto* const log = new recorded_log;
  virtual_slot<log_text>(log, 2)(log, "text and more", 4);
  EXPECT_EQ((line_list{"text"}), log->lines());
  virtual_slot<void (*)(socket_context*)>(log, 1)(log);
}

}  // namespace
