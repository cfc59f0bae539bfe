// The server's normal life, seen from a raw socket.
#include <gtest/gtest.h>

#include "apps/sim/quote_server.h"
#include "apps/sim/wire.h"
#include "tests/apps/sim_server_fixture.h"
#include "tests/support/wait_until.h"

namespace kav_sim_test {

TEST_F(sim_server_test, login_is_answered_by_24_bytes_that_begin_with_a_y) {
  raw_client client{start()};
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.send(login_bytes("trader", k_abc_digest)));
  EXPECT_EQ("AY" + std::string(22, '\0'), client.read_exactly(24));
  EXPECT_EQ("trader", m_server->connection(0).user);
  EXPECT_TRUE(m_server->connection(0).logged_in);
  EXPECT_EQ(1u, m_server->counters().logins_accepted);
}

TEST_F(sim_server_test, user_and_password_are_checked_when_given) {
  m_options.user = "trader";
  m_options.password = "abc";
  raw_client client{start()};
  ASSERT_TRUE(client.send(login_bytes("other", k_abc_digest)));
  EXPECT_EQ(padded("ANunknown user", 24), client.read_exactly(24));
  ASSERT_TRUE(client.send(login_bytes("trader", "D41D8CD98F00B204E9800998ECF8427E")));
  EXPECT_EQ(padded("ANwrong password", 24), client.read_exactly(24));
  ASSERT_TRUE(client.send(login_bytes("trader", k_abc_digest)));
  EXPECT_EQ('Y', client.read_exactly(24)[1]);
  EXPECT_EQ(2u, m_server->counters().logins_refused);
}

TEST_F(sim_server_test, list_comes_symbol_by_symbol_and_ends_with_the_mark) {
  raw_client client{start()};
  log_in(client);
  ASSERT_TRUE(client.send(list_query_bytes()));
  EXPECT_EQ(
      padded("M001IF2509", 32) + padded("M001cs1709", 32) + padded("M0020", 32) + padded("M01", 32),
      client.read_exactly(4 * 32));
  EXPECT_EQ(1u, m_server->counters().lists_sent);
}

TEST_F(sim_server_test, registration_is_answered_and_listed_symbols_only_are_accepted) {
  raw_client client{start()};
  log_in(client);
  ASSERT_TRUE(client.send(symbol_request_bytes('N', '1', "IF2509") +
                          symbol_request_bytes('N', '1', "nobody") +
                          symbol_request_bytes('N', '1', "0")));
  EXPECT_EQ(padded(std::string("I0\0"
                               "1IF2509",
                               10),
                   32),
            client.read_exactly(32));
  EXPECT_EQ('1', client.read_exactly(32)[1]);  // not in the list
  EXPECT_EQ('1', client.read_exactly(32)[1]);  // listed with another type
  EXPECT_EQ(std::vector<std::string>{"IF2509"}, m_server->connection(0).registered);
  ASSERT_TRUE(client.send(symbol_request_bytes('R', '1', "IF2509")));
  EXPECT_EQ("F0", client.read_exactly(32).substr(0, 2));
  EXPECT_TRUE(m_server->connection(0).registered.empty());
}

TEST_F(sim_server_test, each_client_gets_what_it_registered_and_nothing_else) {
  raw_client first{start()}, second{m_server->port()};
  log_in(first);
  log_in(second);
  register_symbol(first, '1', "IF2509");
  register_symbol(second, '1', "cs1709");
  EXPECT_EQ(1u, m_server->push_quote(quote_of("cs1709", 1986), '1').queued);
  EXPECT_EQ(1u, m_server->push_quote(quote_of("IF2509", 3999.8), '1').queued);
  EXPECT_EQ(0u, m_server->push_quote(quote_of("0", 777), '2').queued);
  EXPECT_EQ(kav_sim::quote_message('1', quote_of("IF2509", 3999.8), kav_sim::text_fill::zero),
            first.read_exactly(367));
  EXPECT_EQ(kav_sim::quote_message('1', quote_of("cs1709", 1986), kav_sim::text_fill::zero),
            second.read_exactly(367));
  EXPECT_EQ(2u, m_server->counters().quotes_sent);
  EXPECT_EQ(0u, m_server->counters().quotes_dropped);
}

TEST_F(sim_server_test, a_request_cut_into_single_bytes_is_put_together) {
  raw_client client{start()};
  for (const char byte : login_bytes("trader", k_abc_digest)) {
    ASSERT_TRUE(client.send(std::string(1, byte)));
  }
  EXPECT_EQ('Y', client.read_exactly(24)[1]);
}

TEST_F(sim_server_test, everything_received_is_kept_with_its_time) {
  raw_client client{start()};
  const auto before = std::chrono::steady_clock::now();
  log_in(client);
  ASSERT_TRUE(client.send(heartbeat_bytes()));
  ASSERT_TRUE(wait_until([&] { return m_server->received_count(0, 'H') == 1; }, k_patience));
  const auto messages = m_server->received(0);
  ASSERT_EQ(2u, messages.size());
  EXPECT_EQ(login_bytes("trader", k_abc_digest), messages[0].bytes);
  EXPECT_EQ(heartbeat_bytes(), messages[1].bytes);
  EXPECT_LE(before, messages[0].at);
  EXPECT_LE(messages[0].at, messages[1].at);
  EXPECT_LE(messages[1].at, std::chrono::steady_clock::now());
  EXPECT_EQ(1u, m_server->counters().heartbeats_received);
}

TEST_F(sim_server_test, malformed_messages_are_counted_and_told_and_not_answered) {
  raw_client client{start()};
  std::string no_line_end = login_bytes("trader", k_abc_digest);
  no_line_end[55] = 0;
  ASSERT_TRUE(client.send(no_line_end));
  ASSERT_TRUE(wait_until([&] { return m_server->counters().malformed_messages == 1; }, k_patience));
  ASSERT_TRUE(client.send("Xgarbage"));
  ASSERT_TRUE(wait_until([&] { return m_server->counters().malformed_messages == 2; }, k_patience));
  log_in(client);  // the session goes on
  const auto messages = m_server->received(0);
  ASSERT_EQ(3u, messages.size());
  EXPECT_TRUE(messages[0].malformed);
  EXPECT_TRUE(messages[1].malformed);
  EXPECT_EQ("Xgarbage", messages[1].bytes);
  EXPECT_FALSE(messages[2].malformed);
  EXPECT_TRUE(
      wait_until([&] { return told("no CR LF") && told("unknown message type 88"); }, k_patience));
}

TEST_F(sim_server_test, requests_before_the_login_are_counted_and_not_answered) {
  raw_client client{start()};
  ASSERT_TRUE(client.send(list_query_bytes() + symbol_request_bytes('N', '1', "IF2509")));
  ASSERT_TRUE(
      wait_until([&] { return m_server->counters().out_of_turn_messages == 2; }, k_patience));
  log_in(client);  // its answer is the first that comes
  EXPECT_TRUE(m_server->connection(0).registered.empty());
}

TEST_F(sim_server_test, connections_are_counted_now_and_ever) {
  const unsigned short port = start();
  {
    raw_client first{port};
    raw_client second{port};
    ASSERT_TRUE(wait_until([&] { return m_server->connections().current == 2; }, k_patience));
  }
  ASSERT_TRUE(wait_until([&] { return m_server->connections().current == 0; }, k_patience));
  EXPECT_EQ(2u, m_server->connections().ever);
}

TEST_F(sim_server_test, heartbeats_come_at_their_pace_when_asked_for) {
  m_options.heartbeat = 20ms;
  raw_client client{start()};
  log_in(client);
  for (int i = 0; i < 3; ++i) {
    const std::string beat = client.read_exactly(13);
    ASSERT_EQ(13u, beat.size());
    EXPECT_EQ('H', beat[0]);
    EXPECT_EQ("\r\n", beat.substr(11));
  }
}

TEST_F(sim_server_test, heartbeats_keep_out_of_the_way_of_quotes) {
  m_options.heartbeat = 300ms;
  raw_client client{start()};
  log_in(client);
  register_symbol(client, '1', "IF2509");
  auto last = std::chrono::steady_clock::now();
  for (int i = 0; i < 90; ++i) {
    std::this_thread::sleep_for(10ms);
    const auto now = std::chrono::steady_clock::now();
    if (now - last > 200ms) GTEST_SKIP() << "this machine is too busy to keep a line alive";
    last = now;
    m_server->push_quote(quote_of("IF2509", i), '1');
    ASSERT_EQ('Q', client.read_exactly(367).front()) << i;
  }
  EXPECT_EQ('H', client.read_exactly(13).front()) << "the line is idle now";
}

TEST_F(sim_server_test, a_full_queue_drops_live_quotes_counts_and_tells_them) {
  m_options.queue_limit_bytes = 10 * 367;
  m_options.send_buffer_bytes = 4096;
  raw_client client{start(), 4096};
  log_in(client);
  register_symbol(client, '1', "IF2509");
  std::size_t queued = 0, dropped = 0;
  for (int i = 0; i < 5000; ++i) {
    const kav_sim::push_result result = m_server->push_quote(quote_of("IF2509", i), '1');
    queued += result.queued;
    dropped += result.dropped;
  }
  ASSERT_GT(dropped, 0u);
  EXPECT_EQ(5000u, queued + dropped);
  EXPECT_EQ(dropped, m_server->counters().quotes_dropped);
  EXPECT_LE(m_server->connection(0).queued_bytes, 10u * 367);
  EXPECT_TRUE(wait_until([&] { return told("reads too slowly"); }, k_patience));
  for (std::size_t i = 0; i < queued; ++i) ASSERT_EQ(367u, client.read_exactly(367).size()) << i;
  EXPECT_TRUE(wait_until([&] { return m_server->all_written(); }, k_patience));
  EXPECT_EQ(queued, m_server->counters().quotes_sent);
}

TEST_F(sim_server_test, waiting_pushes_lose_nothing_for_a_slow_reader) {
  m_options.queue_limit_bytes = 10 * 367;
  m_options.send_buffer_bytes = 4096;
  raw_client client{start(), 4096};
  log_in(client);
  register_symbol(client, '1', "IF2509");
  constexpr int k_quotes = 3000;
  std::thread pusher{[&] {
    for (int i = 0; i < k_quotes; ++i) {
      while (!m_server->push_quote_waiting(quote_of("IF2509", i), '1', 100ms)) {
      }
    }
  }};
  bool in_order = true;
  for (int i = 0; i < k_quotes; ++i) {
    const std::string expected =
        kav_sim::quote_message('1', quote_of("IF2509", i), kav_sim::text_fill::zero);
    in_order = in_order && client.read_exactly(367) == expected;
  }
  pusher.join();
  EXPECT_TRUE(in_order);
  EXPECT_EQ(0u, m_server->counters().quotes_dropped);
}

TEST_F(sim_server_test, a_waiting_push_gives_up_after_its_limit_and_then_nobody_has_the_quote) {
  m_options.queue_limit_bytes = 0;
  raw_client client{start()};
  log_in(client);
  register_symbol(client, '1', "IF2509");
  EXPECT_FALSE(m_server->push_quote_waiting(quote_of("IF2509", 1), '1', 20ms));
  EXPECT_EQ(0u, m_server->counters().quotes_sent);
}

TEST_F(sim_server_test, a_taken_port_is_told) {
  const unsigned short port = start();
  kav_sim::server_options options;
  options.port = port;
  kav_sim::quote_server second{options};
  EXPECT_FALSE(second.start());
  EXPECT_EQ("cannot listen on 127.0.0.1:" + std::to_string(port) + ": Address already in use",
            second.start_error());
}

TEST_F(sim_server_test, an_address_that_is_none_is_told) {
  m_options.bind_address = "localhost";
  kav_sim::quote_server server{m_options};
  EXPECT_FALSE(server.start());
  EXPECT_EQ("cannot listen on localhost:0: not a dotted IPv4 address", server.start_error());
}

TEST_F(sim_server_test, stop_ends_connections_and_what_was_received_stays_readable) {
  raw_client client{start()};
  log_in(client);
  m_server->stop();
  EXPECT_NE(end_kind::none, client.wait_for_end());
  EXPECT_EQ(1u, m_server->received(0).size());
}

TEST_F(sim_server_test, operations_from_many_threads_at_once_are_safe) {
  m_options.heartbeat = 1ms;
  const unsigned short port = start();
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    while (!stop) m_server->push_quote(quote_of("IF2509", 1), '1');
  });
  threads.emplace_back([&] {
    while (!stop) {
      (void)m_server->received(0);
      (void)m_server->counters();
      (void)m_server->connections();
      m_server->change_behaviour([](kav_sim::behaviour& b) { b.register_result = '2'; });
      std::this_thread::sleep_for(1ms);
    }
  });
  for (int round = 0; round < 20; ++round) {
    raw_client client{port};
    log_in(client);
    ASSERT_TRUE(client.send(symbol_request_bytes('N', '1', "IF2509")));
    ASSERT_EQ(2000u, client.read_exactly(2000).size());
    if (round % 3 == 0) m_server->drop_all();
    if (round % 3 == 1) m_server->reset_all();
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(20u, m_server->connections().ever);
}

}  // namespace kav_sim_test
