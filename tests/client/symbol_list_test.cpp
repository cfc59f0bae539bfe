// The server's list of symbols: received, kept, replayed.
#include <algorithm>  // std::any_of
#include <atomic>     // std::atomic
#include <thread>     // std::thread

#include "tests/client/unit_fixture.h"

namespace kav_test {
namespace {

using clock = std::chrono::steady_clock;

const std::string k_end_mark = std::string("M01", 3) + std::string(29, '\0');

// A list message whose text runs on behind the message.
std::string running_on(std::size_t characters) {
  std::string bytes = "M001" + std::string(characters, '\0');
  for (std::size_t i = 0; i < characters; ++i) bytes[4 + i] = static_cast<char>('a' + i % 26);
  return bytes;
}

}  // namespace

// A logged-in client of a server without symbols: the table holds what the test puts there.
class symbol_list_test : public connected_client_test {
 protected:
  void SetUp() override {
    connected_client_test::SetUp();
    log_in();
    ASSERT_TRUE(m_events.wait_for_log("[QuoteClient] nothing to reg or unreg"));  // once a client
    m_events.clear();
  }

  std::vector<recorded_call> replay() {
    m_events.clear();
    EXPECT_EQ(0, m_client.QuerySymbolList());
    EXPECT_TRUE(wait_until([this] { return m_events.is_list_complete(); }, k_patience));
    return m_events.of(callback_kind::symbol_list);
  }

  // The names of a replay without its end.
  std::vector<std::string> replayed_names() {
    std::vector<std::string> names;
    for (const recorded_call& call : replay()) {
      if (!call.last) names.push_back(call.text);
    }
    return names;
  }
};

TEST_F(symbol_list_test, empty_table_is_replayed_as_its_end_alone) {
  const std::vector<recorded_call> calls = replay();
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ(int{'0'}, calls[0].type);
  EXPECT_EQ("", calls[0].text);
  EXPECT_TRUE(calls[0].last);
  EXPECT_EQ("kav-worker", calls[0].thread_name);
  EXPECT_EQ(1u, m_server.received_count('S')) << "only the login asked the server";
}

TEST_F(symbol_list_test, each_query_is_answered_once) {
  for (int i = 0; i < 3; ++i) m_client.QuerySymbolList();
  EXPECT_TRUE(m_events.wait_for(callback_kind::symbol_list, 3));
  const std::vector<recorded_call> calls = replay();
  EXPECT_EQ(1u, calls.size());
}

TEST_F(symbol_list_test, message_of_31_bytes_waits_and_of_32_is_taken) {
  EXPECT_EQ(0u, hear(list_entry("IF2509").substr(0, 31)));
  EXPECT_EQ(std::vector<std::string>{}, replayed_names());
  EXPECT_EQ(32u, hear(list_entry("IF2509")));
  EXPECT_EQ(std::vector<std::string>{"IF2509"}, replayed_names());
}

TEST_F(symbol_list_test, end_mark_adds_nothing_whatever_else_it_carries) {
  EXPECT_EQ(32u, hear("M01" + std::string(29, 'x')));
  EXPECT_EQ(32u, hear("M?1" + list_entry("IF2509").substr(3)));
  EXPECT_EQ(std::vector<std::string>{}, replayed_names());
  EXPECT_EQ(32u, hear("M1?" + list_entry("IF2509").substr(3)));  // no end mark
  EXPECT_EQ(std::vector<std::string>{"IF2509"}, replayed_names());
}

TEST_F(symbol_list_test, same_symbol_twice_is_one_entry_of_the_last_type) {
  list("IF2509", 1);
  list("IF2509", 2);
  const std::vector<recorded_call> calls = replay();
  ASSERT_EQ(2u, calls.size());
  EXPECT_EQ(2, calls[0].type);
  EXPECT_FALSE(calls[0].last);
}

TEST_F(symbol_list_test, type_is_a_signed_byte) {
  list("IF2509", '\xF0');
  EXPECT_EQ(-16, replay()[0].type);
}

TEST_F(symbol_list_test, gold_codes_are_replayed_by_their_names) {
  list("0", '2');
  list("4xyz", '2');  // only the first character counts
  list("5", '2');
  EXPECT_EQ((std::vector<std::string>{"Au(T+D)", "5", "Au(T+N2)"}), replayed_names());
}

TEST_F(symbol_list_test, text_of_28_characters_ends_with_the_bytes_available) {
  const std::string bytes = running_on(28);
  ASSERT_EQ(32u, bytes.size());
  EXPECT_EQ(32u, hear(bytes));
  EXPECT_EQ(std::vector<std::string>{bytes.substr(4)}, replayed_names());
}

TEST_F(symbol_list_test, text_without_nul_runs_on_into_the_following_bytes) {
  EXPECT_EQ(32u, hear(running_on(28) + list_entry("IF2509")));
  EXPECT_EQ(
      std::vector<std::string>{running_on(28).substr(4) + "M00" /* and the type */ + "1IF2509"},
      replayed_names());
}

TEST_F(symbol_list_test, text_of_128_characters_is_kept) {
  EXPECT_EQ(32u, hear(running_on(128) + std::string(1, '\0')));
  EXPECT_EQ(std::vector<std::string>{running_on(128).substr(4)}, replayed_names());
}

TEST_F(symbol_list_test, text_of_128_characters_up_to_the_last_byte_is_kept) {
  EXPECT_EQ(32u, hear(running_on(128)));
  EXPECT_EQ(std::vector<std::string>{running_on(128).substr(4)}, replayed_names());
}

TEST_F(symbol_list_test, text_of_129_characters_is_ignored_and_consumed) {
  EXPECT_EQ(32u, hear(running_on(129) + std::string(1, '\0')));
  EXPECT_EQ(32u, hear(running_on(129)));
  EXPECT_EQ(32u, hear(running_on(5000)));
  EXPECT_EQ(std::vector<std::string>{}, replayed_names());
}

TEST_F(symbol_list_test, replay_tells_the_list_as_it_was_when_it_began) {
  list("IF2509");
  list("cs1709");
  std::atomic<bool> begun{false}, listed{false};
  std::thread server;  // as the receive thread would
  m_events.on(callback_kind::symbol_list, [&](const recorded_call&) {
    if (begun.exchange(true)) return;
    server = std::thread([&] {
      for (int i = 0; i < 1000; ++i) list("new" + std::to_string(i));
      listed = true;
    });
    EXPECT_TRUE(wait_until([&] { return listed.load(); }, k_patience)) << "kept waiting";
  });
  EXPECT_EQ(2u, replayed_names().size());
  server.join();
  EXPECT_EQ(1002u, replayed_names().size());
}

// A server that lists symbols without end is not followed for ever; those known live on.
TEST_F(symbol_list_test, symbols_beyond_262144_are_dropped_with_a_line) {
  constexpr unsigned k_most = 262'144;
  for (unsigned i = 0; i < k_most; ++i) list("s" + std::to_string(i));
  EXPECT_EQ(0u, m_events.count(callback_kind::log));
  list("one too many");
  EXPECT_TRUE(m_events.has_log(LogLevelError,
                               "[QuoteClient] symbol list full, symbol:one too many dropped."));
  list("s7", '\x09');
  EXPECT_EQ(1u, m_events.count(callback_kind::log));
  const std::vector<recorded_call> calls = replay();
  EXPECT_EQ(k_most + 1, calls.size());
  EXPECT_TRUE(std::any_of(calls.begin(), calls.end(), [](const recorded_call& call) {
    return call.text == "s7" && call.type == 9;
  }));
}

TEST_F(symbol_list_test, table_outlives_the_session) {
  list("IF2509");
  m_client.DisConnServer();
  KqsTcpInfo server = endpoint_of("127.0.0.1", m_server.port());
  ASSERT_TRUE(m_client.ConnServer(server, &m_events));
  m_events.clear();
  log_in();
  EXPECT_EQ(std::vector<std::string>{"IF2509"}, replayed_names());
}

TEST_F(symbol_list_test, query_while_nobody_is_logged_in_is_answered_after_the_login) {
  m_client.DisConnServer();
  list("IF2509");
  EXPECT_EQ(0, m_client.QuerySymbolList());
  KqsTcpInfo server = endpoint_of("127.0.0.1", m_server.port());
  ASSERT_TRUE(m_client.ConnServer(server, &m_events));
  m_events.clear();
  log_in();
  ASSERT_TRUE(m_events.wait_for(callback_kind::symbol_list, 2));
  EXPECT_EQ("IF2509", m_events.of(callback_kind::symbol_list)[0].text);
  EXPECT_TRUE(m_events.of(callback_kind::symbol_list)[1].last);
}

// ---- The query itself. Nobody has logged in, so the server does not answer.

class symbol_query_test : public connected_client_test {};

TEST_F(symbol_query_test, query_waits_for_the_end_mark_and_tells_the_size_of_the_table) {
  list("IF2509");
  list("cs1709");
  std::thread server([this] {
    received(1);  // the query
    std::this_thread::sleep_for(std::chrono::milliseconds{150});
    hear(list_entry("IC2509"));
    hear(k_end_mark);
  });
  EXPECT_TRUE(m_client._th_try_query_symbol_list());
  server.join();
  const std::string query("S0\0\0\0\0\r\n", 8);
  EXPECT_EQ(std::vector<std::string>{query}, received(1));
  EXPECT_EQ(std::vector<std::string>{"0 Ckqc_tcp::_th_try_query_symbol_list,size:3"}, log_lines());
}

TEST_F(symbol_query_test, end_mark_from_before_the_query_does_not_count_and_five_seconds_end_it) {
  hear(k_end_mark);
  const clock::time_point begin = clock::now();
  EXPECT_FALSE(m_client._th_try_query_symbol_list());
  const clock::duration waited = clock::now() - begin;
  EXPECT_GE(waited, std::chrono::milliseconds{4950});
  EXPECT_LT(waited, std::chrono::seconds{15});
  EXPECT_EQ(0u, m_events.count());
}

TEST_F(unconnected_client_test, symbol_query_without_a_connection_fails_at_once) {
  const clock::time_point begin = clock::now();
  EXPECT_FALSE(m_client._th_try_query_symbol_list());
  EXPECT_LT(clock::now() - begin, std::chrono::seconds{3});
  EXPECT_EQ(0u, m_events.count());
}

TEST_F(unconnected_client_test, symbol_queries_that_no_worker_took_are_freed_with_the_client) {
  for (int i = 0; i < 100; ++i) EXPECT_EQ(0, m_client.QuerySymbolList());
  m_client._th_clear_deque();
  for (int i = 0; i < 100; ++i) EXPECT_EQ(0, m_client.QuerySymbolList());
  EXPECT_EQ(0u, m_events.count());
}

}  // namespace kav_test
