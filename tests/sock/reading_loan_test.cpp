// Who reads a connection: the receive thread while it waits, the event thread while it is busy.
#include "sock/reading_loan.h"

#include <gtest/gtest.h>
#include <sys/socket.h>  // socket

#include <atomic>   // std::atomic
#include <cstring>  // memcpy
#include <memory>   // std::unique_ptr
#include <random>   // std::mt19937
#include <thread>   // std::thread

#include "sock/event_run.h"
#include "sock/socket_cache_client.h"
#include "tests/sock/event_recorder.h"
#include "tests/support/process_view.h"
#include "tests/support/tcp_peer.h"

namespace {

using namespace VORLAN::SOCK;
using namespace std::chrono_literals;
using kav_test::event_recorder;
using kav_test::gate;
using kav_test::k_soon;
using kav_test::tcp_connection;
using kav_test::tcp_peer;

constexpr unsigned k_buffer_bytes = 8192;

// Shows who has the turn to read.
class watched_client : public socket_cache_client {
 public:
  watched_client() : socket_cache_client(k_buffer_bytes) {}
  bool is_lent() {
    const std::shared_ptr<event_run> run = current_run();
    return run != nullptr && run->turn.is_lent();
  }
  bool wait_lent(std::chrono::milliseconds limit = k_soon) {
    return wait_until([this] { return is_lent(); }, limit);
  }
};

class reading_loan_test : public testing::Test {
 protected:
  ~reading_loan_test() override { m_client->sock_close(); }

  void connect() {
    ASSERT_TRUE(m_client->sock_init("127.0.0.1", m_peer.port(), event_recorder::callback, &m_events,
                                    false));
    m_connection = m_peer.accept();
    ASSERT_TRUE(m_connection.is_open());
    ASSERT_TRUE(m_events.wait_count(EVENT_CONNECT, 1));
  }
  // The receive thread has been woken for the first bytes, and waits for the next itself.
  void connect_and_lend() {
    connect();
    m_connection.write("first");
    ASSERT_TRUE(m_events.wait_count(EVENT_RECEIVE, 1));
    ASSERT_TRUE(m_client->wait_lent());
  }
  // Keeps the callback for `word` until the gate opens.
  void stay_in_callback_for(const std::string& word, gate& door) {
    m_events.set_hook([word, &door](socket_param& param) {
      if (param.get_event_type() != EVENT_RECEIVE) return;
      param.set_proc_len(param.get_buff_size());
      if (std::string(param.get_buff_addr(), param.get_buff_size()) == word) door.pass();
    });
  }

  tcp_peer m_peer;
  tcp_connection m_connection{-1};
  event_recorder m_events{[](socket_param& param) { param.set_proc_len(param.get_buff_size()); }};
  std::unique_ptr<watched_client> m_client = std::make_unique<watched_client>();
};

TEST_F(reading_loan_test, a_receive_thread_with_nothing_to_do_takes_the_bytes_itself) {
  connect_and_lend();
  for (int i = 2; i <= 50; ++i) {
    m_connection.write("x");
    ASSERT_TRUE(m_events.wait_count(EVENT_RECEIVE, static_cast<std::size_t>(i)));
    EXPECT_TRUE(m_client->is_lent());
  }
  for (const auto& event : m_events.events(EVENT_RECEIVE)) {
    EXPECT_EQ("kav-receive", event.thread_name);
  }
}

TEST_F(reading_loan_test, nothing_is_read_before_the_user_has_been_told_of_the_connection) {
  gate door;
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() == EVENT_CONNECT) door.pass();
    param.set_proc_len(param.get_buff_size());
  });
  ASSERT_TRUE(
      m_client->sock_init("127.0.0.1", m_peer.port(), event_recorder::callback, &m_events, false));
  m_connection = m_peer.accept();
  m_connection.write("early");
  ASSERT_TRUE(door.wait_reached());
  EXPECT_FALSE(wait_until([&] { return m_events.count(EVENT_RECEIVE) != 0; }, 100ms));
  EXPECT_FALSE(m_client->is_lent());
  door.open();
  EXPECT_TRUE(m_events.wait_count(EVENT_RECEIVE, 1));
}

TEST_F(reading_loan_test, a_peer_is_read_from_while_the_callback_takes_long) {
  gate door;
  stay_in_callback_for("stay", door);
  connect_and_lend();
  m_connection.write("stay");
  ASSERT_TRUE(door.wait_reached());
  const std::string megabytes(40 << 20, 'x');  // more than any socket buffer takes
  EXPECT_TRUE(m_connection.write(megabytes));
  EXPECT_FALSE(m_client->is_lent());
  door.open();
  EXPECT_TRUE(
      wait_until([&] { return m_events.received_bytes() == megabytes.size() + 9; }, k_soon));
  EXPECT_TRUE(m_client->wait_lent());
}

TEST_F(reading_loan_test, the_end_of_a_connection_is_reported_while_the_callback_takes_long) {
  gate door;
  stay_in_callback_for("stay", door);
  connect_and_lend();
  m_connection.write("stay");
  ASSERT_TRUE(door.wait_reached());
  m_connection.write("last words");
  m_connection.close_with_fin();
  EXPECT_TRUE(m_events.wait_count(EVENT_REMOTE_DISCONNECT, 1));
  door.open();
  EXPECT_TRUE(wait_until([&] { return m_events.received() == "firststaylast words"; }, k_soon));
}

TEST_F(reading_loan_test, bytes_and_the_end_right_behind_them_are_both_reported) {
  for (int i = 0; i < 30; ++i) {
    connect_and_lend();
    m_connection.write("last words");
    m_connection.close_with_fin();
    ASSERT_TRUE(m_events.wait_count(EVENT_REMOTE_DISCONNECT, 1));
    ASSERT_TRUE(wait_until([&] { return m_events.received().ends_with("last words"); }, k_soon));
    m_client->sock_close();
    m_events.clear();
  }
}

TEST_F(reading_loan_test, a_closed_descriptor_is_not_kept_open_by_the_one_who_waits) {
  connect_and_lend();
  m_client->event_client_close();
  EXPECT_EQ(kav_test::END_BY_RESET, m_connection.wait_end());
}

TEST(reading_loan, who_finds_the_event_thread_reading_is_back_soon_to_ask_again) {
  wake_event wake;
  reading_loan loan(wake);
  const auto run = std::make_shared<event_run>();  // the event thread begins with the turn
  run->ended = false;
  EXPECT_FALSE(loan.borrow(run));
  loan.wait(wake.ticket());  // nobody notifies
  EXPECT_FALSE(loan.is_held());
}

TEST(reading_loan, a_connection_without_an_event_thread_costs_no_descriptors) {
  wake_event wake;
  reading_loan loan(wake);
  const std::size_t before = kav_test::open_descriptors();
  EXPECT_FALSE(loan.borrow(std::make_shared<event_run>()));
  EXPECT_EQ(before, kav_test::open_descriptors());
}

// Whoever borrows may be the last one to hold the connection; the address sanitizer looks on.
TEST(reading_loan, a_connection_that_is_over_is_not_touched_after_it_was_let_go) {
  kav_test::owned_fd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  wake_event wake;
  reading_loan loan(wake);
  std::shared_ptr<event_run> run(new event_run);  // its memory goes with it, whoever watches
  run->socket.open(socket.get());
  run->ended = false;
  run->turn.end_event_read();
  run->stop = true;
  const std::weak_ptr<event_run> watched = run;
  EXPECT_FALSE(loan.borrow(std::move(run)));
  EXPECT_TRUE(watched.expired());
}

TEST_F(reading_loan_test, closing_while_the_receive_thread_waits_takes_no_longer_than_ever) {
  for (int i = 0; i < 20; ++i) {
    connect_and_lend();
    EXPECT_LT(kav_test::time_of([&] { m_client->sock_close(); }), 1s);
    m_events.clear();
  }
  EXPECT_TRUE(kav_test::wait_library_threads({}));
}

TEST_F(reading_loan_test, a_close_by_the_base_class_ends_the_wait_for_bytes) {
  connect_and_lend();
  static_cast<socket_client&>(*m_client).sock_close();
  EXPECT_EQ(kav_test::END_BY_RESET, m_connection.wait_end());
  m_events.clear();
  connect_and_lend();  // the same receive thread goes on with the next connection
}

TEST_F(reading_loan_test, what_was_read_at_once_is_offered_in_chunks_of_8_kib) {
  connect_and_lend();
  std::string sent = "first";
  for (int i = 0; i < 20; ++i) {
    const std::string bytes(65'536, static_cast<char>('a' + i));
    ASSERT_TRUE(m_connection.write(bytes));
    sent += bytes;
  }
  ASSERT_TRUE(wait_until([&] { return m_events.received_bytes() == sent.size(); }, k_soon));
  EXPECT_EQ(sent, m_events.received());
  for (const auto& event : m_events.events(EVENT_RECEIVE)) EXPECT_LE(event.data.size(), 8192u);
}

TEST_F(reading_loan_test, who_claims_more_than_he_was_offered_takes_no_byte_of_the_next_chunk) {
  m_events.set_hook([](socket_param& param) { param.set_proc_len(param.get_buff_size() + 7); });
  connect_and_lend();
  std::string sent = "first";
  for (int i = 0; i < 20; ++i) {
    const std::string bytes(65'536, static_cast<char>('a' + i));
    ASSERT_TRUE(m_connection.write(bytes));
    sent += bytes;
  }
  ASSERT_TRUE(wait_until([&] { return m_events.received_bytes() >= sent.size(); }, k_soon));
  EXPECT_TRUE(sent == m_events.received());
}

TEST_F(reading_loan_test, bytes_that_wait_for_their_offer_are_forgotten_by_clear_data) {
  m_events.set_hook([this](socket_param& param) {
    if (param.get_event_type() != EVENT_RECEIVE) return;
    const bool big = param.get_buff_size() > 100;
    if (big) m_client->clear_data();
    param.set_proc_len(param.get_buff_size());
  });
  connect_and_lend();
  ASSERT_TRUE(m_connection.write(std::string(65'536, 'x')));
  ASSERT_TRUE(wait_until([this] { return m_events.received_bytes() > 5; }, k_soon));
  // However the system has cut them: sooner or later everything has been taken and forgotten.
  ASSERT_TRUE(wait_until(
      [this] {
        m_connection.write("y");
        return m_events.events(EVENT_RECEIVE).back().data.find_first_not_of('y') ==
               std::string::npos;
      },
      k_soon));
}

TEST_F(reading_loan_test, an_incomplete_message_is_offered_again_with_the_next_chunk) {
  m_events.set_hook([](socket_param& param) {
    if (param.get_event_type() != EVENT_RECEIVE) return;
    const unsigned size = param.get_buff_addr()[0] == 'm' ? 20'000 : 5;  // of a message; "first"
    if (param.get_buff_size() >= size) param.set_proc_len(size);
  });
  connect_and_lend();
  ASSERT_TRUE(m_connection.write(std::string(20'000 * 10, 'm')));
  ASSERT_TRUE(wait_until(
      [this] {
        std::size_t whole = 0;
        for (const auto& event : m_events.events(EVENT_RECEIVE)) {
          if (event.data.size() >= 20'000) ++whole;
        }
        return whole >= 10;
      },
      k_soon));
  for (const auto& event : m_events.events(EVENT_RECEIVE)) {
    EXPECT_LT(event.data.size(), 20'000u + 8192u);
  }
}

// Numbers in sequence over many changes of turn: the callback is quick, slow or very slow.
TEST_F(reading_loan_test, no_byte_is_lost_doubled_or_moved_when_the_turn_changes) {
  constexpr std::uint32_t k_numbers = 2'000'000;
  std::atomic<std::uint32_t> next{0};
  std::atomic<bool> in_order{true};
  std::mt19937 pauses(7);
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() != EVENT_RECEIVE) return;
    unsigned at = 0;
    for (; param.get_buff_size() - at >= sizeof(std::uint32_t); at += sizeof(std::uint32_t)) {
      std::uint32_t number = 0;
      std::memcpy(&number, param.get_buff_addr() + at, sizeof(number));
      if (number != next.fetch_add(1)) in_order.store(false);
    }
    param.set_proc_len(at);
    const unsigned kind = static_cast<unsigned>(pauses() % 100);
    if (kind == 0) std::this_thread::sleep_for(60ms);
    if (kind > 90) std::this_thread::sleep_for(100us);
  });
  connect();
  std::mt19937 sizes(11);
  std::uint32_t number = 0;
  while (number < k_numbers) {
    std::string bytes;
    for (unsigned left = 1 + static_cast<unsigned>(sizes() % 3000); left > 0 && number < k_numbers;
         --left, ++number) {
      bytes.append(reinterpret_cast<const char*>(&number), sizeof(number));
    }
    const std::size_t cut = sizes() % bytes.size();
    ASSERT_TRUE(m_connection.write(bytes.substr(0, cut)));
    if (sizes() % 4 == 0) std::this_thread::sleep_for(300us);
    ASSERT_TRUE(m_connection.write(bytes.substr(cut)));
  }
  EXPECT_TRUE(wait_until([&] { return next.load() == k_numbers; }, k_soon));
  EXPECT_TRUE(in_order.load());
}

TEST_F(reading_loan_test, many_connections_can_be_opened_and_lost_in_every_state) {
  std::mt19937 choice(3);
  for (int i = 0; i < 60; ++i) {
    connect();
    if (choice() % 2 == 0) m_connection.write("bytes");
    if (choice() % 2 == 0) m_client->wait_lent(std::chrono::milliseconds(choice() % 5));
    if (choice() % 3 == 0) m_connection.close_with_reset();
    if (choice() % 3 == 0) m_connection.write("more");
    if (choice() % 2 == 0) m_client->sock_close();
    m_events.clear();
  }
}

}  // namespace
