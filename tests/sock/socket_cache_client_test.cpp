#include "sock/socket_cache_client.h"

#include <gtest/gtest.h>
#include <malloc.h>  // mallinfo2
#include <unistd.h>  // getpid

#include <algorithm>  // std::min
#include <atomic>     // std::atomic
#include <csignal>    // SIGPROF
#include <limits>     // std::numeric_limits
#include <memory>     // std::unique_ptr
#include <random>     // std::mt19937
#include <thread>     // std::thread
#include <utility>    // std::exchange

#include "tests/sock/event_recorder.h"
#include "tests/support/process_view.h"
#include "tests/support/system_calls.h"
#include "tests/support/tcp_peer.h"

namespace {

using namespace VORLAN::SOCK;
using namespace std::chrono_literals;
using kav_test::event_recorder;
using kav_test::gate;
using kav_test::k_host;
using kav_test::k_soon;
using kav_test::recorded_log;
using kav_test::tcp_connection;
using kav_test::tcp_peer;
using kav_test::time_of;
using kav_test::virtual_slot;
using kav_test::wait_library_threads;

using event_list = std::vector<SOCKET_EVENT>;
using line_list = std::vector<std::string>;

constexpr unsigned k_stream_bytes = 8192;

void consume_all(socket_param& param) { param.set_proc_len(param.get_buff_size()); }

class socket_cache_client_test : public testing::Test {
 protected:
  ~socket_cache_client_test() override {
    if (m_client != nullptr) m_client->sock_close();
  }

  bool connect(bool queue_sends) {
    return m_client->sock_init(k_host, m_peer.port(), event_recorder::callback, &m_events,
                               queue_sends);
  }
  void connect_and_accept(bool queue_sends) {
    m_client->sock_set_context(&m_log);
    ASSERT_TRUE(connect(queue_sends));
    m_connection = m_peer.accept();
    ASSERT_TRUE(m_connection.is_open());
    ASSERT_TRUE(m_events.wait_count(EVENT_CONNECT, 1));
  }
  // The data of each offer so far.
  line_list offers() const {
    line_list result;
    for (const auto& event : m_events.events(EVENT_RECEIVE)) result.push_back(event.data);
    return result;
  }
  bool wait_offers(const line_list& expected) const {
    return wait_until([&] { return offers() == expected; }, k_soon);
  }

  tcp_peer m_peer;
  tcp_connection m_connection{-1};
  event_recorder m_events{consume_all};
  recorded_log m_log;
  std::unique_ptr<socket_cache_client> m_client =
      std::make_unique<socket_cache_client>(k_stream_bytes);
};

// ---- Life

TEST_F(socket_cache_client_test, a_new_client_has_no_threads_and_no_connection) {
  EXPECT_TRUE(kav_test::library_threads().empty());
  EXPECT_FALSE(m_client->is_connected());
}

TEST_F(socket_cache_client_test, sock_init_starts_four_named_threads) {
  connect_and_accept(false);
  EXPECT_TRUE(wait_library_threads({"kav-event", "kav-receive", "kav-reconnect", "kav-send"}));
}

TEST_F(socket_cache_client_test, sock_close_stops_all_threads_and_is_reported_once) {
  connect_and_accept(true);
  EXPECT_TRUE(m_client->sock_close());
  EXPECT_FALSE(m_client->is_connected());
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_EQ(kav_test::END_BY_RESET, m_connection.wait_end());
  EXPECT_TRUE(m_client->sock_close());
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_LOCALE_DISCONNECT}), m_events.types());
  EXPECT_EQ(kav_test::name_of_this_thread(), m_events.events().back().thread_name);
}

TEST_F(socket_cache_client_test, closing_a_client_that_was_never_opened_reports_nothing) {
  EXPECT_TRUE(m_client->sock_close());
  EXPECT_TRUE(m_events.events().empty());
}

TEST_F(socket_cache_client_test, after_a_close_sock_init_starts_everything_again) {
  for (int i = 0; i < 20; ++i) {
    connect_and_accept(i % 2 == 0);
    m_connection.write("a");
    ASSERT_TRUE(m_events.wait_count(EVENT_RECEIVE, static_cast<std::size_t>(i + 1)));
    EXPECT_EQ(1, m_client->sock_send("b", 1));
    EXPECT_EQ("b", m_connection.read_exactly(1));
    EXPECT_LT(time_of([&] { m_client->sock_close(); }), 1s);
  }
  EXPECT_EQ(20u, m_events.count(EVENT_LOCALE_DISCONNECT));
  EXPECT_TRUE(wait_library_threads({}));
}

TEST_F(socket_cache_client_test, a_refused_connection_returns_false_and_the_threads_run) {
  const kav_test::refusing_port refusing;
  EXPECT_FALSE(
      m_client->sock_init(k_host, refusing.port(), event_recorder::callback, &m_events, false));
  EXPECT_TRUE(wait_library_threads({"kav-receive", "kav-reconnect", "kav-send"}));
  EXPECT_TRUE(m_events.events().empty());
  EXPECT_EQ(-1, m_client->sock_send("x", 1));
}

TEST_F(socket_cache_client_test, an_address_that_is_no_dotted_text_fails) {
  for (const char* ip : {"", "127.1", "localhost", "1", "127.0.0.1 ", "0127.0.0.1"}) {
    EXPECT_FALSE(
        m_client->sock_init(ip, m_peer.port(), event_recorder::callback, &m_events, false));
  }
  EXPECT_FALSE(m_peer.has_waiting(0ms));
}

TEST_F(socket_cache_client_test, the_second_form_binds_and_logs_a_failure) {
  m_client->sock_set_context(&m_log);
  EXPECT_FALSE(m_client->sock_init(k_host, m_peer.port(), "192.0.2.1", 0, event_recorder::callback,
                                   &m_events, false));
  ASSERT_EQ(1u, m_log.lines().size());
  EXPECT_EQ(0u, m_log.lines()[0].find("*****socket client local_addr error!***** error code:99 "));
  EXPECT_TRUE(m_client->sock_init(k_host, m_peer.port(), "127.0.0.3", 0, event_recorder::callback,
                                  &m_events, false));
  unsigned char ip[4] = {};
  EXPECT_TRUE(m_client->get_local_ip(ip));
  EXPECT_EQ(3, ip[3]);
}

TEST_F(socket_cache_client_test, the_destructor_stops_the_threads_and_leaves_the_connection) {
  connect_and_accept(true);
  const kav_test::owned_fd left(m_events.events().at(0).socket);
  m_client.reset();
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_TRUE(kav_test::is_open_descriptor(left.get()));
  m_connection.write("anybody?");
  EXPECT_EQ((event_list{EVENT_CONNECT}), m_events.types());
}

TEST_F(socket_cache_client_test, without_threads_to_be_had_it_can_still_be_closed_and_opened) {
  {
    const kav_test::failing_thread_creation failing;
    EXPECT_FALSE(connect(true));
    EXPECT_EQ(4, m_client->sock_send("kept", 4));
  }
  EXPECT_LT(time_of([&] { m_client->sock_close(); }), 1s);
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_TRUE(connect(true));
}

TEST_F(socket_cache_client_test, the_threads_leave_signals_to_the_host) {
  connect_and_accept(true);
  ASSERT_TRUE(wait_library_threads({"kav-event", "kav-receive", "kav-reconnect", "kav-send"}));
  std::size_t seen = 0;
  for (const auto& thread : kav_test::threads()) {
    if (thread.name.rfind("kav-", 0) != 0) continue;
    ++seen;
    for (const int signal : {SIGINT, SIGTERM, SIGALRM, SIGCHLD, SIGUSR1, SIGPIPE}) {
      EXPECT_TRUE(thread.blocks(signal)) << thread.name << ' ' << signal;
    }
    EXPECT_FALSE(thread.blocks(SIGPROF)) << thread.name;
    EXPECT_FALSE(thread.blocks(SIGSEGV)) << thread.name;
  }
  EXPECT_EQ(4u, seen);
}

TEST_F(socket_cache_client_test, an_idle_connection_costs_next_to_nothing) {
  connect_and_accept(true);
  m_connection.write("warm");
  ASSERT_TRUE(m_events.wait_count(EVENT_RECEIVE, 1));
  const auto before = kav_test::processor_time();
  std::this_thread::sleep_for(1s);
  EXPECT_LT(kav_test::processor_time() - before, kav_test::k_sanitized ? 250ms : 30ms);
}

TEST(socket_cache_client_slots, only_the_destructors_differ_from_the_base) {
  const socket_client base;
  const socket_cache_client derived(16);
  for (const std::size_t slot : {2u, 3u, 4u, 5u, 6u, 7u, 8u}) {
    EXPECT_EQ(virtual_slot<void (*)()>(&base, slot), virtual_slot<void (*)()>(&derived, slot));
  }
  EXPECT_NE(virtual_slot<void (*)()>(&base, 0), virtual_slot<void (*)()>(&derived, 0));
  EXPECT_NE(virtual_slot<void (*)()>(&base, 1), virtual_slot<void (*)()>(&derived, 1));
}

TEST(socket_cache_client_slots, a_base_pointer_deletes_the_whole_client) {
  tcp_peer peer;
  event_recorder events;
  auto* const client = new socket_cache_client(16);
  ASSERT_TRUE(client->sock_init(k_host, peer.port(), event_recorder::callback, &events, true));
  client->sock_close();
  socket_client* const base = client;
  virtual_slot<void (*)(socket_client*)>(base, 1)(base);
  EXPECT_TRUE(wait_library_threads({}));
}

// ---- Receiving

TEST_F(socket_cache_client_test, received_bytes_are_offered_on_the_receive_thread) {
  connect_and_accept(false);
  m_connection.write("hello");
  ASSERT_TRUE(m_events.wait_count(EVENT_RECEIVE, 1));
  const auto seen = m_events.events(EVENT_RECEIVE).at(0);
  EXPECT_EQ("hello", seen.data);
  EXPECT_EQ(0, seen.id);
  EXPECT_EQ(0, seen.socket);
  EXPECT_EQ("", seen.alias);
  EXPECT_EQ(0u, seen.processed);
  EXPECT_EQ("kav-receive", seen.thread_name);
}

TEST_F(socket_cache_client_test, other_events_reach_the_user_on_the_reporting_thread) {
  connect_and_accept(false);
  const int fd = m_events.events().at(0).socket;
  EXPECT_EQ("kav-event", m_events.events().at(0).thread_name);
  EXPECT_EQ(2, m_client->sock_send("ab", 2));
  EXPECT_EQ(kav_test::name_of_this_thread(), m_events.events().at(1).thread_name);
  EXPECT_EQ("ab", m_events.events().at(1).data);
  EXPECT_EQ(fd, m_events.events().at(1).socket);
  m_connection.close_with_fin();
  ASSERT_TRUE(m_events.wait_count(EVENT_REMOTE_DISCONNECT, 1));
  EXPECT_EQ("kav-event", m_events.events().at(2).thread_name);
  EXPECT_EQ(fd, m_events.events().at(2).socket);
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_SEND, EVENT_REMOTE_DISCONNECT}), m_events.types());
}

TEST_F(socket_cache_client_test, what_is_not_consumed_is_offered_again_with_the_next_bytes) {
  m_events.set_hook([](socket_param&) {});
  connect_and_accept(false);
  m_connection.write("abc");
  ASSERT_TRUE(wait_offers({"abc"}));
  m_connection.write("def");
  EXPECT_TRUE(wait_offers({"abc", "abcdef"}));
}

TEST_F(socket_cache_client_test, what_is_left_of_a_part_consumed_is_offered_at_once) {
  m_events.set_hook([](socket_param& param) { param.set_proc_len(2); });
  connect_and_accept(false);
  m_connection.write("abcdef");
  EXPECT_TRUE(wait_offers({"abcdef", "cdef", "ef"}));
  m_connection.write("gh");
  EXPECT_TRUE(wait_offers({"abcdef", "cdef", "ef", "gh"}));
}

TEST_F(socket_cache_client_test, offers_end_when_nothing_more_is_consumed) {
  // Whole messages of three bytes, as a protocol does.
  m_events.set_hook([](socket_param& param) { param.set_proc_len(param.get_buff_size() / 3 * 3); });
  connect_and_accept(false);
  m_connection.write("aaabb");
  EXPECT_TRUE(wait_offers({"aaabb", "bb"}));
  m_connection.write("bccc");
  EXPECT_TRUE(wait_offers({"aaabb", "bb", "bbbccc"}));
}

TEST_F(socket_cache_client_test, consuming_more_than_there_is_consumes_what_there_is) {
  m_events.set_hook([](socket_param& param) { param.set_proc_len(0xffffffffu); });
  connect_and_accept(false);
  m_connection.write("abc");
  ASSERT_TRUE(wait_offers({"abc"}));
  m_connection.write("def");
  EXPECT_TRUE(wait_offers({"abc", "def"}));
}

TEST_F(socket_cache_client_test, the_stream_grows_for_a_message_longer_than_it) {
  constexpr unsigned k_message = 500'000;
  m_events.set_hook([](socket_param& param) {
    if (param.get_event_type() == EVENT_RECEIVE && param.get_buff_size() >= k_message) {
      param.set_proc_len(k_message);
    }
  });
  connect_and_accept(false);
  const std::string message(k_message, 'm');
  m_connection.write(message);
  ASSERT_TRUE(wait_until(
      [&] {
        const line_list seen = offers();
        return !seen.empty() && seen.back().size() == k_message;
      },
      k_soon));
  m_connection.write("next");
  EXPECT_TRUE(wait_until([&] { return offers().back() == "next"; }, k_soon));
}

TEST_F(socket_cache_client_test, a_stream_of_size_0_works) {
  m_client = std::make_unique<socket_cache_client>(0u);
  connect_and_accept(false);
  m_connection.write("abc");
  EXPECT_TRUE(wait_offers({"abc"}));
}

// Random pieces arrive, the user takes random lengths: no byte is lost, doubled or moved.
TEST_F(socket_cache_client_test, a_stream_in_random_pieces_arrives_intact) {
  constexpr std::size_t k_bytes = 1'000'000;
  std::mt19937 random(11);
  std::mt19937 taking(12);
  std::string sent(k_bytes, '\0');
  for (char& byte : sent) byte = static_cast<char>(random());
  std::string taken;
  std::atomic<std::size_t> taken_bytes{0};
  std::atomic<bool> last{false};
  const auto take = [&](socket_param& param, void*) {
    if (param.get_event_type() != EVENT_RECEIVE) return;
    const unsigned size = param.get_buff_size();
    const bool all = last.load() || taking() % 3 == 0;
    const unsigned length = all ? size : static_cast<unsigned>(taking() % (size + 1));
    taken.append(param.get_buff_addr(), length);
    param.set_proc_len(length);
    taken_bytes.store(taken.size());
  };
  struct context {
    decltype(take)& call;
  } user{take};
  const socket_callback callback = [](socket_param& param, void* self) {
    static_cast<context*>(self)->call(param, nullptr);
    return 0;
  };
  ASSERT_TRUE(m_client->sock_init(k_host, m_peer.port(), callback, &user, false));
  m_connection = m_peer.accept();
  for (std::size_t at = 0; at < k_bytes;) {
    const std::size_t piece = std::min<std::size_t>(k_bytes - at, 1 + random() % 12'000);
    ASSERT_TRUE(m_connection.write(sent.substr(at, piece)));
    at += piece;
  }
  last.store(true);
  m_connection.write("!");
  sent += '!';
  EXPECT_TRUE(wait_until([&] { return taken_bytes.load() == sent.size(); }, k_soon));
  m_client->sock_close();
  EXPECT_TRUE(sent == taken);
}

TEST_F(socket_cache_client_test, a_disconnect_may_overtake_bytes_received_before_it) {
  gate receiving;
  m_events.set_hook([&](socket_param& param) {
    consume_all(param);
    if (param.get_event_type() == EVENT_RECEIVE) receiving.pass();
  });
  connect_and_accept(false);
  m_connection.write("first");
  ASSERT_TRUE(receiving.wait_reached());
  m_connection.write("second");
  m_connection.close_with_fin();
  EXPECT_TRUE(m_events.wait_count(EVENT_REMOTE_DISCONNECT, 1));
  EXPECT_EQ((line_list{"first"}), offers());
  receiving.open();
  EXPECT_TRUE(wait_offers({"first", "second"}));
  m_client->sock_close();  // before what the hook uses goes
}

TEST_F(socket_cache_client_test, a_slow_callback_does_not_keep_the_socket_from_being_read) {
  gate receiving;
  m_events.set_hook([&](socket_param& param) {
    consume_all(param);
    if (param.get_event_type() == EVENT_RECEIVE) receiving.pass();
  });
  connect_and_accept(false);
  m_connection.write("x");
  ASSERT_TRUE(receiving.wait_reached());
  const std::string much(8'000'000, 'm');  // more than the system's buffers hold
  EXPECT_TRUE(m_connection.write(much));
  receiving.open();
  EXPECT_TRUE(wait_until([&] { return m_events.received_bytes() == much.size() + 1; }, k_soon));
  m_client->sock_close();  // before what the hook uses goes
}

TEST_F(socket_cache_client_test, no_callback_runs_after_sock_close_though_the_peer_floods) {
  connect_and_accept(false);
  std::thread flooding([&] { m_connection.flood(20s); });
  ASSERT_TRUE(m_events.wait_count(EVENT_RECEIVE, 20));
  EXPECT_LT(time_of([&] { m_client->sock_close(); }), 2s);
  const std::size_t events = m_events.events().size();
  EXPECT_EQ(EVENT_LOCALE_DISCONNECT, m_events.types().back());
  flooding.join();
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_EQ(events, m_events.events().size());
}

// ---- Sending without a queue

TEST_F(socket_cache_client_test, without_a_queue_a_send_goes_out_on_the_callers_thread) {
  connect_and_accept(false);
  EXPECT_EQ(3, m_client->sock_send("abc", 3));
  EXPECT_EQ(kav_test::name_of_this_thread(), m_events.events(EVENT_SEND).at(0).thread_name);
  EXPECT_EQ("abc", m_connection.read_exactly(3));
}

TEST_F(socket_cache_client_test, without_a_queue_a_full_socket_gives_0_and_keeps_nothing) {
  connect_and_accept(false);
  const std::string bytes(1'000'000, 's');
  std::size_t taken = 0;
  int sent = 1;
  for (int i = 0; i < 1000 && sent > 0; ++i) {
    sent = m_client->sock_send(bytes.data(), static_cast<int>(bytes.size()));
    if (sent > 0) taken += static_cast<std::size_t>(sent);
  }
  EXPECT_EQ(0, sent);
  EXPECT_EQ(taken, m_connection.read_exactly(taken).size());
  EXPECT_EQ("", m_connection.read_until_quiet(50ms));
}

TEST_F(socket_cache_client_test, without_a_queue_nothing_and_negative_lengths_change_nothing) {
  connect_and_accept(false);
  EXPECT_EQ(0, m_client->sock_send("x", 0));
  EXPECT_EQ(-1, m_client->sock_send("x", -1));
  EXPECT_EQ(-1, m_client->sock_send(nullptr, 1));
  EXPECT_EQ(0u, m_events.count(EVENT_SEND));
  EXPECT_EQ(1, m_client->sock_send("y", 1));
  EXPECT_EQ("y", m_connection.read_exactly(1));
}

TEST_F(socket_cache_client_test, without_a_queue_a_send_after_the_peers_close_fails) {
  connect_and_accept(false);
  m_connection.close_with_fin();
  ASSERT_TRUE(m_events.wait_count(EVENT_REMOTE_DISCONNECT, 1));
  ASSERT_TRUE(wait_library_threads({"kav-receive", "kav-reconnect", "kav-send"}));
  EXPECT_EQ(-1, m_client->sock_send("x", 1));
}

// ---- Sending through the queue

TEST_F(socket_cache_client_test, with_a_queue_a_send_goes_out_on_the_send_thread) {
  connect_and_accept(true);
  EXPECT_EQ(3, m_client->sock_send("abc", 3));
  EXPECT_EQ("abc", m_connection.read_exactly(3));
  ASSERT_TRUE(m_events.wait_count(EVENT_SEND, 1));
  EXPECT_EQ("kav-send", m_events.events(EVENT_SEND).at(0).thread_name);
  EXPECT_EQ("abc", m_events.events(EVENT_SEND).at(0).data);
}

TEST_F(socket_cache_client_test, sends_are_queued_also_before_the_first_sock_init) {
  EXPECT_EQ(5, m_client->sock_send("early", 5));
  connect_and_accept(true);
  EXPECT_EQ("early", m_connection.read_exactly(5));
}

TEST_F(socket_cache_client_test, sends_are_queued_also_without_a_connection) {
  const kav_test::refusing_port refusing;
  ASSERT_FALSE(
      m_client->sock_init(k_host, refusing.port(), event_recorder::callback, &m_events, true));
  EXPECT_EQ(4, m_client->sock_send("late", 4));
  ASSERT_TRUE(connect(true));
  m_connection = m_peer.accept();
  EXPECT_EQ("late", m_connection.read_exactly(4));
}

TEST_F(socket_cache_client_test, with_a_queue_nothing_and_negative_lengths_block_nothing) {
  connect_and_accept(true);
  EXPECT_EQ(0, m_client->sock_send("x", 0));
  EXPECT_EQ(0, m_client->sock_send(nullptr, 0));
  EXPECT_EQ(-1, m_client->sock_send("x", -1));
  EXPECT_EQ(-1, m_client->sock_send("x", std::numeric_limits<int>::min()));
  EXPECT_EQ(-1, m_client->sock_send(nullptr, 1));
  EXPECT_EQ(1, m_client->sock_send("y", 1));
  EXPECT_EQ("y", m_connection.read_exactly(1));
  EXPECT_EQ("", m_connection.read_until_quiet(20ms));
}

TEST_F(socket_cache_client_test, queued_sends_of_random_lengths_arrive_in_order) {
  connect_and_accept(true);
  std::mt19937 random(3);
  std::string sent;
  for (int i = 0; i < 500; ++i) {
    std::string piece(1 + random() % 20'000, '\0');
    for (char& byte : piece) byte = static_cast<char>(random());
    const int length = static_cast<int>(piece.size());
    ASSERT_EQ(length, m_client->sock_send(piece.data(), length));
    sent += piece;
  }
  // The peer reads only now: many sends were partial or would have blocked.
  EXPECT_TRUE(sent == m_connection.read_exactly(sent.size()));
  std::string reported;
  ASSERT_TRUE(wait_until(
      [&] {
        reported.clear();
        for (const auto& event : m_events.events(EVENT_SEND)) reported += event.data;
        return reported.size() == sent.size();
      },
      k_soon));
  EXPECT_TRUE(sent == reported);
}

TEST_F(socket_cache_client_test, several_threads_may_queue_at_once) {
  connect_and_accept(true);
  std::vector<std::thread> senders;
  for (const char letter : {'a', 'b', 'c'}) {
    senders.emplace_back([&, letter] {
      const std::string piece(10, letter);
      for (int i = 0; i < 300; ++i) EXPECT_EQ(10, m_client->sock_send(piece.data(), 10));
    });
  }
  for (std::thread& sender : senders) sender.join();
  const std::string bytes = m_connection.read_exactly(9000);
  ASSERT_EQ(9000u, bytes.size());
  for (std::size_t at = 0; at < bytes.size(); at += 10) {
    ASSERT_EQ(std::string(10, bytes[at]), bytes.substr(at, 10));
  }
}

TEST_F(socket_cache_client_test, a_peer_that_does_not_read_costs_little_and_delays_no_close) {
  connect_and_accept(true);
  const std::string bytes(1'000'000, 'q');
  for (int i = 0; i < 20; ++i) m_client->sock_send(bytes.data(), static_cast<int>(bytes.size()));
  std::size_t sends = 0;
  ASSERT_TRUE(wait_until(
      [&] {  // nothing has been taken for a while
        const std::size_t before = std::exchange(sends, m_events.count(EVENT_SEND));
        std::this_thread::sleep_for(100ms);
        return before > 0 && before == m_events.count(EVENT_SEND);
      },
      k_soon));
  const auto before = kav_test::processor_time();
  std::this_thread::sleep_for(500ms);
  EXPECT_LT(kav_test::processor_time() - before, kav_test::k_sanitized ? 200ms : 50ms);
  EXPECT_LT(time_of([&] { m_client->sock_close(); }), 1s);
  EXPECT_TRUE(wait_library_threads({}));
}

TEST_F(socket_cache_client_test, what_was_queued_before_a_close_is_not_sent_afterwards) {
  connect_and_accept(true);
  const std::string old(1'000'000, 'o');
  for (int i = 0; i < 20; ++i) m_client->sock_send(old.data(), static_cast<int>(old.size()));
  m_client->sock_close();
  ASSERT_TRUE(connect(true));
  m_connection = m_peer.accept();
  EXPECT_EQ(3, m_client->sock_send("new", 3));
  EXPECT_EQ("new", m_connection.read_exactly(3));
  EXPECT_EQ("", m_connection.read_until_quiet(20ms));
}

TEST_F(socket_cache_client_test, a_broken_connection_leaves_queued_bytes_to_be_tried_again) {
  connect_and_accept(true);
  m_connection.close_with_fin();
  ASSERT_TRUE(wait_library_threads({"kav-receive", "kav-reconnect", "kav-send"}));
  EXPECT_EQ(5, m_client->sock_send("again", 5));
  const auto before = kav_test::processor_time();
  std::this_thread::sleep_for(300ms);
  EXPECT_LT(kav_test::processor_time() - before, kav_test::k_sanitized ? 200ms : 60ms);
  EXPECT_EQ(0u, m_events.count(EVENT_SEND));
  ASSERT_TRUE(connect(true));
  m_connection = m_peer.accept();
  EXPECT_EQ("again", m_connection.read_exactly(5));
}

// ---- clear_data()

TEST_F(socket_cache_client_test, clear_data_forgets_what_was_queued) {
  EXPECT_EQ(3, m_client->sock_send("old", 3));
  m_client->clear_data();
  EXPECT_EQ(3, m_client->sock_send("new", 3));
  connect_and_accept(true);
  EXPECT_EQ("new", m_connection.read_exactly(3));
  EXPECT_EQ("", m_connection.read_until_quiet(20ms));
}

TEST_F(socket_cache_client_test, clear_data_forgets_what_was_not_consumed) {
  m_events.set_hook([](socket_param&) {});
  connect_and_accept(false);
  m_connection.write("old");
  ASSERT_TRUE(wait_offers({"old"}));
  // The receive thread is back from its callback when it answers a stop.
  m_client->clear_data();
  m_connection.write("new");
  EXPECT_TRUE(wait_offers({"old", "new"}));
}

TEST_F(socket_cache_client_test, clear_data_inside_the_receive_event_forgets_the_stream) {
  std::atomic<int> calls{0};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() != EVENT_RECEIVE) return;
    if (calls.fetch_add(1) == 1) m_client->clear_data();
    param.set_proc_len(1);
  });
  connect_and_accept(false);
  m_connection.write("abc");
  ASSERT_TRUE(wait_offers({"abc", "bc"}));  // "c" went with the clear
  m_connection.write("d");
  EXPECT_TRUE(wait_offers({"abc", "bc", "d"}));
  m_client->sock_close();  // before what the hook uses goes
}

TEST_F(socket_cache_client_test, clear_data_inside_the_send_event_forgets_the_rest) {
  std::atomic<bool> cleared{false};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() != EVENT_SEND || cleared.load()) return;
    m_client->clear_data();
    cleared.store(true);
  });
  m_client->sock_send("one", 3);
  m_client->sock_send("two", 3);
  connect_and_accept(true);
  ASSERT_TRUE(wait_until([&] { return cleared.load(); }, k_soon));
  m_client->sock_send("three", 5);
  EXPECT_EQ("onethree", m_connection.read_exactly(8));
  m_client->sock_close();  // before what the hook uses goes
}

TEST_F(socket_cache_client_test, clear_data_forgets_the_rest_of_what_is_being_sent) {
  constexpr std::size_t k_bytes = 32'000'000;  // more than the system takes without a reader
  connect_and_accept(true);
  const std::string bytes(k_bytes, 'r');
  m_client->sock_send(bytes.data(), int{k_bytes});
  ASSERT_TRUE(m_events.wait_count(EVENT_SEND, 1));  // a part of it has gone
  m_client->clear_data();
  m_client->sock_send("end", 3);
  const std::string received = m_connection.read_until_quiet(1s);
  EXPECT_LT(received.size(), k_bytes);
  EXPECT_EQ("rend", received.substr(received.size() - 4));
}

TEST_F(socket_cache_client_test, clear_data_may_run_on_any_thread_at_any_time) {
  connect_and_accept(true);
  std::atomic<bool> over{false};
  std::thread clearing([&] {
    while (!over.load()) m_client->clear_data();
  });
  std::thread reading([&] { m_connection.read_until_quiet(500ms); });
  const std::string bytes(3000, 'c');
  for (int i = 0; i < 500; ++i) {
    m_client->sock_send(bytes.data(), static_cast<int>(bytes.size()));
    m_connection.write(bytes);
  }
  over.store(true);
  clearing.join();
  m_client->sock_close();
  reading.join();
  EXPECT_EQ(1u, m_events.count(EVENT_LOCALE_DISCONNECT));
}

TEST_F(socket_cache_client_test, more_than_512_buffers_given_back_at_once_are_not_all_kept) {
  if (kav_test::k_sanitized) GTEST_SKIP() << "a sanitizer's allocator keeps no such figures";
  constexpr int k_buffers = 600;
  constexpr std::size_t k_bytes = 100'000;
  const auto in_use = [] {
    const struct mallinfo2 info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
  };
  const std::string bytes(k_bytes, 'b');
  const std::size_t before = in_use();
  for (int i = 0; i < k_buffers; ++i) m_client->sock_send(bytes.data(), int{k_bytes});
  EXPECT_GE(in_use() - before, k_buffers * k_bytes);
  m_client->clear_data();
  const std::size_t kept = in_use() - before;
  EXPECT_GE(kept, 512 * k_bytes);
  EXPECT_LT(kept, 540 * k_bytes);
  // Those that are kept are used again.
  for (int i = 0; i < 512; ++i) m_client->sock_send(bytes.data(), int{k_bytes});
  EXPECT_LT(in_use() - before, 540 * k_bytes);
}

TEST_F(socket_cache_client_test, five_hundred_buffers_given_back_are_all_kept) {
  if (kav_test::k_sanitized) GTEST_SKIP() << "a sanitizer's allocator keeps no such figures";
  const auto in_use = [] {
    const struct mallinfo2 info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
  };
  const std::string bytes(100'000, 'b');
  for (int i = 0; i < 500; ++i) m_client->sock_send(bytes.data(), 100'000);
  const std::size_t full = in_use();
  m_client->clear_data();
  EXPECT_GE(in_use() + 100'000, full);  // nothing but list nodes has gone
}

// ---- Calling back into the client

class cache_close_test : public socket_cache_client_test {
 protected:
  void close_inside(SOCKET_EVENT type) {
    m_events.set_hook([this, type](socket_param& param) {
      consume_all(param);
      if (param.get_event_type() != type || m_closed.load()) return;
      m_client->sock_close();
      m_closed.store(true);
    });
  }
  bool wait_closed_inside() const {
    return wait_until([this] { return m_closed.load(); }, k_soon) && wait_library_threads({});
  }
  std::atomic<bool> m_closed{false};
};

TEST_F(cache_close_test, closing_inside_the_connect_event_is_the_last_event) {
  close_inside(EVENT_CONNECT);
  m_connection = tcp_connection(-1);
  connect(true);
  ASSERT_TRUE(wait_until([this] { return m_closed.load(); }, k_soon));
  m_client->sock_close();  // the reconnect thread may have been started after the first close
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_LOCALE_DISCONNECT}), m_events.types());
}

TEST_F(cache_close_test, closing_inside_the_receive_event_is_the_last_event) {
  close_inside(EVENT_RECEIVE);
  connect_and_accept(true);
  m_connection.write(std::string(50'000, 'x'));
  ASSERT_TRUE(wait_closed_inside());
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_RECEIVE, EVENT_LOCALE_DISCONNECT}), m_events.types());
  EXPECT_TRUE(connect(true));
  EXPECT_TRUE(m_events.wait_count(EVENT_CONNECT, 2));
}

TEST_F(cache_close_test, closing_inside_the_receive_event_offers_no_rest) {
  m_events.set_hook([this](socket_param& param) {
    if (param.get_event_type() != EVENT_RECEIVE) return;
    m_client->sock_close();
    param.set_proc_len(1);
    m_closed.store(true);
  });
  connect_and_accept(true);
  m_connection.write("abc");
  ASSERT_TRUE(wait_closed_inside());
  EXPECT_EQ((line_list{"abc"}), offers());
}

TEST_F(cache_close_test, closing_inside_a_queued_sends_event_works) {
  close_inside(EVENT_SEND);
  connect_and_accept(true);
  m_client->sock_send("bye", 3);
  m_client->sock_send("never", 5);
  ASSERT_TRUE(wait_closed_inside());
  EXPECT_EQ(1u, m_events.count(EVENT_LOCALE_DISCONNECT));
  EXPECT_TRUE(connect(true));
}

TEST_F(cache_close_test, closing_inside_a_direct_sends_event_works) {
  close_inside(EVENT_SEND);
  connect_and_accept(false);
  EXPECT_EQ(3, m_client->sock_send("bye", 3));
  ASSERT_TRUE(wait_closed_inside());
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_SEND, EVENT_LOCALE_DISCONNECT}), m_events.types());
}

TEST_F(cache_close_test, closing_inside_the_disconnect_event_works) {
  close_inside(EVENT_REMOTE_DISCONNECT);
  connect_and_accept(true);
  m_connection.close_with_fin();
  ASSERT_TRUE(wait_closed_inside());
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_REMOTE_DISCONNECT}), m_events.types());
}

TEST_F(cache_close_test, closing_inside_the_local_disconnect_event_reports_it_once) {
  close_inside(EVENT_LOCALE_DISCONNECT);
  connect_and_accept(true);
  m_client->sock_close();
  ASSERT_TRUE(wait_closed_inside());
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_LOCALE_DISCONNECT}), m_events.types());
}

TEST_F(cache_close_test, the_receive_event_may_send) {
  m_events.set_hook([this](socket_param& param) {
    if (param.get_event_type() != EVENT_RECEIVE) return;
    consume_all(param);
    EXPECT_EQ(4, m_client->sock_send("pong", 4));
  });
  connect_and_accept(false);
  m_connection.write("ping");
  EXPECT_EQ("pong", m_connection.read_exactly(4));
}

TEST_F(socket_cache_client_test, sock_init_inside_the_receive_event_fails_with_a_line) {
  std::atomic<int> results{0};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() != EVENT_RECEIVE) return;
    consume_all(param);
    const bool first =
        m_client->sock_init("127.0.0.1", 77, event_recorder::callback, &m_events, true);
    const bool second = m_client->sock_init("127.0.0.1", 77, "127.0.0.9", 88,
                                            event_recorder::callback, &m_events, true);
    results.store(first || second ? 2 : 1);
  });
  connect_and_accept(true);
  m_connection.write("x");
  ASSERT_TRUE(wait_until([&] { return results.load() != 0; }, k_soon));
  EXPECT_EQ(1, results.load());
  EXPECT_EQ((line_list{"start receive thread error, server ip:127.0.0.1, server port:77",
                       "start receive thread error, server ip:127.0.0.1, server port:77, local "
                       "ip:127.0.0.9, local port:88"}),
            m_log.lines());
  EXPECT_TRUE(m_client->is_connected());
  m_client->sock_close();  // before what the hook uses goes
}

TEST_F(socket_cache_client_test, sock_init_inside_a_queued_sends_event_fails_with_a_line) {
  std::atomic<int> results{0};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() != EVENT_SEND) return;
    const bool first =
        m_client->sock_init("127.0.0.1", 77, event_recorder::callback, &m_events, true);
    const bool second = m_client->sock_init("127.0.0.1", 77, "127.0.0.9", 88,
                                            event_recorder::callback, &m_events, true);
    results.store(first || second ? 2 : 1);
  });
  connect_and_accept(true);
  m_client->sock_send("x", 1);
  ASSERT_TRUE(wait_until([&] { return results.load() != 0; }, k_soon));
  EXPECT_EQ(1, results.load());
  EXPECT_EQ((line_list{"start send thread error, server ip:127.0.0.1, server port:77",
                       "start send thread error, server ip:127.0.0.1, server port:77, local "
                       "ip:127.0.0.9, local port:88"}),
            m_log.lines());
  m_client->sock_close();  // before what the hook uses goes
}

TEST_F(socket_cache_client_test, the_client_may_be_deleted_inside_the_disconnect_event) {
  const std::size_t before = kav_test::open_descriptors();
  std::atomic<bool> deleted{false};
  m_events.set_hook([&](socket_param& param) {
    consume_all(param);
    if (param.get_event_type() != EVENT_REMOTE_DISCONNECT) return;
    m_client->sock_close();
    m_client.reset();
    deleted.store(true);
  });
  connect_and_accept(true);
  m_connection.close_with_fin();
  ASSERT_TRUE(wait_until([&] { return deleted.load(); }, k_soon));
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_EQ(before, kav_test::open_descriptors());
}

TEST_F(socket_cache_client_test, a_blocked_connect_event_holds_sock_close_for_about_5_s_only) {
  gate inside;
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() == EVENT_CONNECT) inside.pass();
  });
  ASSERT_TRUE(connect(true));
  ASSERT_TRUE(inside.wait_reached());
  const auto waited = time_of([&] { m_client->sock_close(); });
  EXPECT_GE(waited, 4900ms);
  EXPECT_LT(waited, 30s);
  m_client.reset();
  inside.open();
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_LOCALE_DISCONNECT}), m_events.types());
}

// ---- Reconnecting

TEST_F(socket_cache_client_test, a_lost_connection_stays_lost_unless_told_otherwise) {
  connect_and_accept(false);
  m_connection.close_with_fin();
  ASSERT_TRUE(m_events.wait_count(EVENT_REMOTE_DISCONNECT, 1));
  EXPECT_FALSE(m_peer.has_waiting(300ms));
}

TEST_F(socket_cache_client_test, a_lost_connection_is_renewed_when_told_to) {
  EXPECT_TRUE(m_client->set_auto_reconn_falg(true, 1));
  connect_and_accept(false);
  for (std::size_t round = 1; round <= 2; ++round) {
    m_connection.close_with_fin();
    m_connection = m_peer.accept();
    ASSERT_TRUE(m_events.wait_count(EVENT_CONNECT, round + 1));
    ASSERT_TRUE(m_events.wait_count(EVENT_REMOTE_DISCONNECT, round));
  }
  EXPECT_EQ(0u, m_events.count(EVENT_LOCALE_DISCONNECT));
  m_connection.write("here again");
  EXPECT_TRUE(wait_until([&] { return m_events.received() == "here again"; }, k_soon));
  EXPECT_EQ(2, m_client->sock_send("ok", 2));
  EXPECT_EQ("ok", m_connection.read_exactly(2));
}

TEST_F(socket_cache_client_test, a_first_connection_that_failed_is_tried_again) {
  auto refusing = std::make_unique<kav_test::refusing_port>();
  m_client->set_auto_reconn_falg(true, 0);  // counts as 1 s
  EXPECT_FALSE(
      m_client->sock_init(k_host, refusing->port(), event_recorder::callback, &m_events, false));
  EXPECT_TRUE(m_events.events().empty());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(
      m_client->sock_init(k_host, m_peer.port(), event_recorder::callback, &m_events, false));
  m_connection = m_peer.accept();
  m_connection.close_with_fin();
  m_connection = m_peer.accept();
  EXPECT_TRUE(m_connection.is_open());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
}

TEST_F(socket_cache_client_test, a_renewed_connection_starts_with_an_empty_stream_and_queue) {
  m_events.set_hook([](socket_param&) {});
  m_client->set_auto_reconn_falg(true, 1);
  connect_and_accept(false);
  m_connection.write("old");
  ASSERT_TRUE(wait_offers({"old"}));
  m_connection.close_with_fin();
  m_connection = m_peer.accept();
  m_connection.write("new");
  EXPECT_TRUE(wait_offers({"old", "new"}));
}

TEST_F(socket_cache_client_test, a_connection_from_a_local_address_is_renewed_from_there) {
  const std::string local_ip = "127.77." + std::to_string((::getpid() >> 8) & 255) + "." +
                               std::to_string(1 + (::getpid() & 255) % 254);
  m_client->set_auto_reconn_falg(true, 1);
  ASSERT_TRUE(m_client->sock_init(k_host, m_peer.port(), local_ip, 40321, event_recorder::callback,
                                  &m_events, false));
  m_connection = m_peer.accept();
  m_connection.close_with_reset();  // leaves no time-wait state on the port
  m_connection = m_peer.accept();
  ASSERT_TRUE(m_events.wait_count(EVENT_CONNECT, 2));
  unsigned char ip[4] = {};
  EXPECT_TRUE(m_client->get_local_ip(ip));
  EXPECT_EQ(77, ip[1]);
}

TEST_F(socket_cache_client_test, sock_close_ends_a_reconnection_that_gets_no_answer) {
  tcp_peer silent(0);
  m_client->set_auto_reconn_falg(true, 1);
  ASSERT_TRUE(
      m_client->sock_init(k_host, silent.port(), event_recorder::callback, &m_events, false));
  m_connection = silent.accept();
  ASSERT_TRUE(silent.stop_answering());
  m_connection.close_with_reset();
  ASSERT_TRUE(wait_until([&] { return silent.is_asked(); }, k_soon));
  EXPECT_LT(time_of([&] { m_client->sock_close(); }), 1s);
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_EQ((event_list{EVENT_CONNECT, EVENT_REMOTE_DISCONNECT}), m_events.types());
}

TEST_F(socket_cache_client_test, the_destructor_ends_a_reconnection_that_gets_no_answer) {
  tcp_peer silent(0);
  m_client->set_auto_reconn_falg(true, 1);
  ASSERT_TRUE(
      m_client->sock_init(k_host, silent.port(), event_recorder::callback, &m_events, false));
  m_connection = silent.accept();
  ASSERT_TRUE(silent.stop_answering());
  m_connection.close_with_reset();
  ASSERT_TRUE(wait_until([&] { return silent.is_asked(); }, k_soon));
  EXPECT_LT(time_of([&] { m_client.reset(); }), 1s);
  EXPECT_TRUE(wait_library_threads({}));
}

TEST_F(socket_cache_client_test, sock_close_ends_a_connect_that_gets_no_answer) {
  tcp_peer silent(0);
  ASSERT_TRUE(silent.stop_answering());
  std::thread connecting([&] {
    EXPECT_FALSE(
        m_client->sock_init(k_host, silent.port(), event_recorder::callback, &m_events, false));
  });
  EXPECT_TRUE(wait_until([&] { return silent.is_asked(); }, k_soon));
  EXPECT_LT(time_of([&] {
              m_client->sock_close();
              connecting.join();
            }),
            1s);
  EXPECT_TRUE(m_events.events().empty());
}

TEST_F(socket_cache_client_test, a_new_sock_init_does_not_wait_for_a_reconnection) {
  tcp_peer silent(0);
  m_client->set_auto_reconn_falg(true, 1);
  ASSERT_TRUE(
      m_client->sock_init(k_host, silent.port(), event_recorder::callback, &m_events, false));
  m_connection = silent.accept();
  ASSERT_TRUE(silent.stop_answering());
  m_connection.close_with_reset();
  ASSERT_TRUE(wait_until([&] { return silent.is_asked(); }, k_soon));
  EXPECT_LT(time_of([&] { EXPECT_TRUE(connect(false)); }), 2s);
  EXPECT_TRUE(m_client->is_connected());
}

class cache_interval_test : public socket_cache_client_test {
 protected:
  // A connection that the peer closes at once, again and again.
  void begin_losing(int seconds) {
    m_peer = tcp_peer();  // nobody waits there from the time before
    m_client->set_auto_reconn_falg(true, seconds);
    ASSERT_TRUE(connect(false));
    m_peer.accept().close_with_fin();
  }
  // The reconnect thread's next attempt, which is lost as well.
  bool lose_again(std::chrono::milliseconds limit) {
    if (!m_peer.has_waiting(limit)) return false;
    m_peer.accept().close_with_fin();
    return true;
  }
};

TEST_F(cache_interval_test, one_too_long_to_count_does_not_become_a_short_one) {
  for (const int seconds : {2148, 4295, std::numeric_limits<int>::max()}) {
    begin_losing(seconds);
    lose_again(1000ms);  // its very first look may have come after the loss
    EXPECT_FALSE(lose_again(1000ms)) << seconds;
    m_client->sock_close();
  }
}

TEST_F(cache_interval_test, none_or_a_negative_one_is_a_second) {
  for (const int seconds : {0, -1, std::numeric_limits<int>::min()}) {
    begin_losing(seconds);
    ASSERT_TRUE(lose_again(k_soon)) << seconds;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(lose_again(k_soon)) << seconds;
    EXPECT_GE(std::chrono::steady_clock::now() - start, 700ms) << seconds;
    m_client->sock_close();
  }
}

// ---- Steps of the threads, called directly

TEST(socket_cache_client_steps, a_record_with_bytes_is_queued_and_offered_by_the_receive_step) {
  event_recorder events(consume_all);
  socket_cache_client client(16);
  const kav_test::refusing_port refusing;
  client.sock_init(k_host, refusing.port(), event_recorder::callback, &events, false);
  client.sock_close();  // the callback is known, the threads have ended
  const std::string text = "direct";
  const char* data = text.data();
  socket_param param(EVENT_RECEIVE, 5, &data, 6, 7);
  EXPECT_EQ(0, socket_cache_client::cache_callback(param, &client));
  EXPECT_TRUE(events.events().empty());
  EXPECT_EQ(0, socket_cache_client::cache_callback(param, nullptr));
}

TEST(socket_cache_client_steps, a_record_without_bytes_is_handed_on_as_it_is) {
  event_recorder events;
  socket_cache_client client(16);
  const kav_test::refusing_port refusing;
  client.sock_init(k_host, refusing.port(), event_recorder::callback, &events, false);
  client.sock_close();
  socket_param param(EVENT_ERROR, 5, nullptr, 0, 7);
  EXPECT_EQ(0, client.on_cache_callback(param));
  ASSERT_EQ(1u, events.events().size());
  EXPECT_EQ(EVENT_ERROR, events.events()[0].type);
  EXPECT_EQ(5, events.events()[0].id);
  EXPECT_EQ(7, events.events()[0].socket);
}

TEST(socket_cache_client_steps, idle_steps_return_0) {
  socket_cache_client client(16);
  EXPECT_EQ(0, client.on_thread_receive_proc());
  EXPECT_EQ(0, client.on_thread_send_proc());
  EXPECT_EQ(0, client.on_thread_auto_reconn());
  EXPECT_EQ(0, socket_cache_client::thread_receive_proc(&client));
  EXPECT_EQ(0, socket_cache_client::thread_send_proc(&client));
  EXPECT_EQ(0, socket_cache_client::thread_auto_reconn(&client));
  client.sock_send("x", 1);
  EXPECT_EQ(0, client.on_thread_send_proc());  // no connection: tried again later
}

}  // namespace
