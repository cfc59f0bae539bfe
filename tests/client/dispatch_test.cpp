// What the server sends: how messages are cut from the stream and what each of them causes.
#include <algorithm>  // std::max
#include <random>     // std::mt19937

#include "feeds/sge_symbol.h"
#include "tests/client/unit_fixture.h"
#include "tests/support/guarded_bytes.h"

namespace kav_test {
namespace {

constexpr unsigned k_quote_bytes = 367;
const std::string k_heartbeat(13, 'H');

std::string quote_bytes(char type, const KAVMarketDepthQuoteData& quote) {
  std::string bytes(22, '\x5A');  // 2..21 are nobody's business
  bytes[0] = 'Q';
  bytes[1] = type;
  return bytes + std::string(reinterpret_cast<const char*>(&quote), sizeof(quote));
}

std::string quote_of(const std::string& symbol, char type = '1') {
  KAVMarketDepthQuoteData quote{};
  std::memcpy(quote.InstrumentID, symbol.data(), symbol.size());
  quote.LastPrice = 4321.5;
  return quote_bytes(type, quote);
}

std::string record_bytes(const KAVMarketDepthQuoteData& quote) {
  return std::string(reinterpret_cast<const char*>(&quote), sizeof(quote));
}

KAVMarketDepthQuoteData random_record(std::mt19937& random) {
  KAVMarketDepthQuoteData record;
  auto* const bytes = reinterpret_cast<unsigned char*>(&record);
  for (std::size_t i = 0; i < sizeof(record); ++i) {
    bytes[i] = static_cast<unsigned char>(random());
  }
  return record;
}

class dispatch_test : public unconnected_client_test {};

}  // namespace

// ---- Cutting

TEST_F(dispatch_test, heartbeat_of_five_bytes_counts_as_thirteen) {
  EXPECT_EQ(13u, cut("H1234"));
  EXPECT_EQ(13u, hear("H"));
  EXPECT_EQ(0u, m_events.count());
}

TEST_F(dispatch_test, two_heartbeats_and_half_a_quote_take_26_bytes) {
  EXPECT_EQ(26u, cut(k_heartbeat + k_heartbeat + quote_of("IF2509").substr(0, 180)));
  EXPECT_EQ(0u, m_events.count());
}

TEST_F(dispatch_test, messages_of_every_kind_are_taken_from_one_buffer_in_order) {
  const std::string stream = k_heartbeat + list_entry("IF2509") + answer('I', '0', "IF2509") +
                             quote_of("IF2509") + k_heartbeat + answer('F', '0', "IF2509") +
                             quote_of("cs1709");
  EXPECT_EQ(stream.size(), cut(stream));
  const std::vector<recorded_call> calls = m_events.calls();
  ASSERT_EQ(4u, calls.size());
  EXPECT_EQ(callback_kind::symbol_registered, calls[0].kind);
  EXPECT_EQ(callback_kind::quote, calls[1].kind);
  EXPECT_EQ(callback_kind::symbol_unregistered, calls[2].kind);
  EXPECT_EQ(callback_kind::quote, calls[3].kind);
  EXPECT_STREQ("cs1709", calls[3].quote.InstrumentID);
}

TEST_F(dispatch_test, message_that_begins_with_b_is_thrown_away_whole_with_one_line) {
  EXPECT_EQ(7u, cut("B234567"));
  EXPECT_EQ(std::vector<std::string>{"3 [QuoteClient] receive unknown msg type: 66. length is 7"},
            log_lines());
  EXPECT_EQ(1u, m_events.count());
}

TEST_F(dispatch_test, unknown_type_takes_everything_behind_it_but_nothing_before_it) {
  const std::string stream = quote_of("IF2509") + "?" + quote_of("cs1709");
  EXPECT_EQ(stream.size(), cut(stream));
  EXPECT_EQ(1u, m_events.count(callback_kind::quote));
  EXPECT_EQ(std::vector<std::string>{"3 [QuoteClient] receive unknown msg type: 63. length is 368"},
            log_lines());
}

TEST_F(dispatch_test, each_first_byte_has_its_one_meaning) {
  const std::string waiting = "AFIMQ";
  for (int value = 0; value < 256; ++value) {
    SCOPED_TRACE(value);
    const char first = static_cast<char>(value);
    const std::string bytes = std::string(1, first) + "2345";
    m_events.clear();
    if (first == 'H') {
      EXPECT_EQ(13u, hear(bytes));
      EXPECT_EQ(13u, cut(bytes));
      EXPECT_EQ(0u, m_events.count());
    } else if (waiting.find(first) != std::string::npos) {
      EXPECT_EQ(0u, hear(bytes));
      EXPECT_EQ(0u, cut(bytes));
      EXPECT_EQ(0u, m_events.count());
    } else {
      const std::string line = "3 [QuoteClient] receive unknown msg type: " +
                               std::to_string(int{static_cast<signed char>(first)}) +
                               ". length is 5";
      EXPECT_EQ(5u, hear(bytes));
      EXPECT_EQ(5u, cut(bytes));
      EXPECT_EQ((std::vector<std::string>{line, line}), log_lines());
    }
  }
}

TEST_F(dispatch_test, messages_short_of_one_byte_wait_and_cause_nothing) {
  const std::vector<std::string> messages = {login_answer('N', "no"), quote_of("IF2509"),
                                             list_entry("IF2509"), answer('I', '1', "IF2509"),
                                             answer('F', '1', "IF2509")};
  for (const std::string& message : messages) {
    SCOPED_TRACE(message[0]);
    for (std::size_t size = 1; size < message.size(); ++size) {
      ASSERT_EQ(0u, cut(message.substr(0, size))) << size;
    }
    EXPECT_EQ(0u, m_events.count());
  }
}

// Texts without a NUL in every field, cut off anywhere, with other bytes behind or with none.
TEST_F(dispatch_test, no_byte_behind_those_received_is_read) {
  const std::map<char, std::size_t> lengths = {{'A', 24}, {'F', 32}, {'H', 13},
                                               {'I', 32}, {'M', 32}, {'Q', 367}};
  std::size_t longest = 0;
  for (const auto& [first, length] : lengths) {
    SCOPED_TRACE(first);
    for (std::size_t size = 1; size <= length + 40; ++size) {
      guarded_bytes bytes(std::string(1, first) + std::string(size - 1, 'x'));
      const bool waits = size < length && first != 'H';
      EXPECT_EQ(waits, cut(bytes.data(), bytes.size()) == 0) << size;
    }
    for (const recorded_call& call : m_events.calls()) {
      if (call.kind != callback_kind::log) longest = std::max(longest, call.text.size());
    }
    m_events.clear();
  }
  EXPECT_EQ(28u, longest) << "the longest field of a text that is told";
}

TEST_F(dispatch_test, nothing_received_is_nothing_consumed) {
  EXPECT_EQ(0u, m_client.on_tcp_client_data_recv("", 0));
  EXPECT_EQ(0u, m_client.on_tcp_client_data_recv(nullptr, 367));
  EXPECT_EQ(0u, cut(std::string()));
  VORLAN::SOCK::socket_param no_data(VORLAN::SOCK::EVENT_RECEIVE, 0, nullptr, 100, 0);
  EXPECT_EQ(0, Ckqc_tcp::cache_callback(no_data, &m_client));
  EXPECT_EQ(0u, no_data.get_proc_len());
  EXPECT_EQ(0u, m_events.count());
}

TEST_F(dispatch_test, handlers_refuse_a_null_message) {
  EXPECT_EQ(0u, m_client.on_login_resp(nullptr, 24));
  EXPECT_EQ(0u, m_client.on_quote_snapshot(nullptr, 367));
  EXPECT_EQ(0u, m_client.on_reg_symbol_resp(nullptr, 32));
  EXPECT_EQ(0u, m_client.on_unreg_symbol_resp(nullptr, 32));
  EXPECT_EQ(0u, m_client.on_symbol_list_resp(nullptr, 32));
  EXPECT_EQ(0u, m_events.count());
}

TEST_F(dispatch_test, event_for_no_client_is_ignored) {
  const char* data = "Bad";
  VORLAN::SOCK::socket_param param(VORLAN::SOCK::EVENT_RECEIVE, 0, &data, 3, 0);
  EXPECT_EQ(0, Ckqc_tcp::cache_callback(param, nullptr));
  EXPECT_EQ(0u, param.get_proc_len());
}

// A message that takes all of 0xFFFFFFFF bytes looks like the mark of a broken stream.
TEST_F(dispatch_test, broken_stream_is_consumed_whole_and_ends_the_session) {
  char byte = 'B';
  EXPECT_EQ(0xFFFFFFFFu, cut(&byte, 0xFFFFFFFFu));
  const std::vector<recorded_call> calls = m_events.calls();
  ASSERT_EQ(3u, calls.size());
  EXPECT_EQ("[QuoteClient] receive unknown msg type: 66. length is -1", calls[0].text);
  EXPECT_EQ("[QuoteClient] reveive error length msg.", calls[1].text);
  EXPECT_EQ(LogLevelError, calls[1].level);
  EXPECT_EQ(callback_kind::server_disconnected, calls[2].kind);
}

// ---- Quotes

TEST_F(dispatch_test, quote_comes_with_its_367th_byte) {
  const std::string bytes = quote_of("IF2509");
  ASSERT_EQ(k_quote_bytes, bytes.size());
  EXPECT_EQ(0u, cut(bytes.substr(0, 366)));
  EXPECT_EQ(0u, m_events.count());
  EXPECT_EQ(367u, cut(bytes));
  EXPECT_EQ(1u, m_events.count(callback_kind::quote));
}

TEST_F(dispatch_test, quote_is_handed_over_where_it_lies_in_the_buffer) {
  heap_bytes bytes(quote_of("IF2509"));
  EXPECT_EQ(367u, m_client.on_quote_snapshot(bytes.data(), bytes.size()));
  EXPECT_EQ(bytes.data() + 22, m_events.of(callback_kind::quote).front().quote_address);
  heap_bytes two(quote_of("IF2509") + quote_of("cs1709"));
  EXPECT_EQ(734u, cut(two.data(), two.size()));
  EXPECT_EQ(two.data() + 22, m_events.of(callback_kind::quote)[1].quote_address);
  EXPECT_EQ(two.data() + 367 + 22, m_events.of(callback_kind::quote)[2].quote_address);
}

TEST_F(dispatch_test, quote_records_pass_unchanged_whatever_their_bytes) {
  std::mt19937 random(20250911);
  for (int round = 0; round < 500; ++round) {
    KAVMarketDepthQuoteData record = random_record(random);
    if (record.InstrumentID[0] >= '0' && record.InstrumentID[0] <= '4')
      record.InstrumentID[0] = 'x';
    const char type = static_cast<char>(random());
    m_events.clear();
    EXPECT_EQ(367u, cut(quote_bytes(type, record)));
    const std::vector<recorded_call> quotes = m_events.of(callback_kind::quote);
    ASSERT_EQ(1u, quotes.size());
    EXPECT_EQ(int{static_cast<signed char>(type)}, quotes[0].type);
    ASSERT_EQ(record_bytes(record), record_bytes(quotes[0].quote)) << round;
  }
}

TEST_F(dispatch_test, gold_code_is_replaced_by_the_name_and_zeros_behind_it) {
  const char* const names[] = {"Au(T+D)", "Ag(T+D)", "mAu(T+D)", "Au(T+N1)", "Au(T+N2)"};
  std::mt19937 random(7);
  for (char code = '0'; code <= '4'; ++code) {
    KAVMarketDepthQuoteData record = random_record(random);  // no NUL behind the code, most likely
    record.InstrumentID[0] = code;
    KAVMarketDepthQuoteData expected = record;
    std::memset(expected.InstrumentID, 0, sizeof(expected.InstrumentID));
    std::snprintf(expected.InstrumentID, sizeof(expected.InstrumentID), "%s", names[code - '0']);
    heap_bytes bytes(quote_bytes('2', record));
    m_events.clear();
    EXPECT_EQ(367u, cut(bytes.data(), bytes.size()));
    ASSERT_EQ(1u, m_events.count(callback_kind::quote));
    EXPECT_EQ(record_bytes(expected), record_bytes(m_events.of(callback_kind::quote)[0].quote));
    EXPECT_EQ(record_bytes(expected), bytes.text().substr(22)) << "replaced in place";
  }
}

TEST_F(dispatch_test, symbol_without_nul_stays_as_it_is) {
  const std::string symbol(31, 'x');
  EXPECT_EQ(367u, cut(quote_of(symbol)));
  const KAVMarketDepthQuoteData quote = m_events.of(callback_kind::quote).front().quote;
  EXPECT_EQ(symbol, std::string(quote.InstrumentID, sizeof(quote.InstrumentID)));
  EXPECT_EQ('\0', quote.ExchangeID[0]);
}

TEST_F(dispatch_test, empty_symbol_stays_empty) {
  EXPECT_EQ(367u, cut(quote_of("")));
  EXPECT_STREQ("", m_events.of(callback_kind::quote).front().quote.InstrumentID);
}

// ---- Login answers

TEST_F(dispatch_test, refused_login_is_traced_logged_told_and_ended_in_this_order) {
  EXPECT_EQ(24u, cut(login_answer('N', "unknown user")));
  const std::vector<recorded_call> calls = m_events.calls();
  ASSERT_EQ(4u, calls.size());
  EXPECT_EQ(LogLevelDebug, calls[0].level);
  EXPECT_EQ(
      "[QuoteClient] on_login_resp,thread_is_running:0, result: N,  server ip: nowhere, port: 7.",
      calls[0].text);
  EXPECT_EQ(LogLevelError, calls[1].level);
  EXPECT_EQ("[QuoteClient] login failed, result: N,  server ip: nowhere, port: 7.", calls[1].text);
  EXPECT_EQ(callback_kind::login_result, calls[2].kind);
  EXPECT_FALSE(calls[2].success);
  EXPECT_EQ("unknown user", calls[2].text);
  EXPECT_EQ(callback_kind::server_disconnected, calls[3].kind);
  EXPECT_GE(calls[3].at - calls[2].at, std::chrono::milliseconds{5});
  for (const recorded_call& call : calls) EXPECT_EQ(std::this_thread::get_id(), call.thread);
}

TEST_F(dispatch_test, only_a_capital_y_accepts_a_login) {
  for (const char result : {'y', 'N', '0', '1', '\x01', '\xD9'}) {
    m_events.clear();
    EXPECT_EQ(24u, hear(login_answer(result, "")));
    ASSERT_EQ(1u, m_events.count(callback_kind::login_result));
    EXPECT_FALSE(m_events.of(callback_kind::login_result)[0].success);
    EXPECT_TRUE(m_events.has_log_with(std::string("login failed, result: ") + result + ","));
  }
}

TEST_F(dispatch_test, refusal_reason_of_full_width_ends_where_its_field_ends) {
  const std::string reason = "0123456789012345678901";
  ASSERT_EQ(22u, reason.size());
  EXPECT_EQ(24u, hear("AN" + reason));
  EXPECT_EQ(reason, m_events.of(callback_kind::login_result).front().text);
  m_events.clear();
  EXPECT_EQ(24u, hear("AN" + reason + "what follows"));
  EXPECT_EQ(reason, m_events.of(callback_kind::login_result).front().text);
}

TEST_F(dispatch_test, accepted_login_without_a_connection_fails_at_the_symbol_list) {
  EXPECT_EQ(24u, cut(login_answer('Y', "")));
  ASSERT_TRUE(m_events.wait_for(callback_kind::login_result));
  m_client.DisConnServer();
  const std::vector<recorded_call> results = m_events.of(callback_kind::login_result);
  ASSERT_EQ(1u, results.size());
  EXPECT_FALSE(results[0].success);
  EXPECT_EQ("query symbol error", results[0].text);
  EXPECT_EQ("kav-worker", results[0].thread_name);
  EXPECT_TRUE(m_events.has_log(LogLevelDebug, "[QuoteClient] _th_kqc_send_and_reconn begin"));
  EXPECT_TRUE(m_events.has_log(LogLevelError, "[QuoteClient] query symbol error"));
  EXPECT_EQ(0u, m_events.count(callback_kind::server_disconnected));
}

// ---- Socket events

TEST_F(dispatch_test, connecting_and_closing_are_traced_only) {
  report(VORLAN::SOCK::EVENT_CONNECT);
  report(VORLAN::SOCK::EVENT_LOCALE_DISCONNECT);
  EXPECT_EQ((std::vector<std::string>{"0 [on_cache_callback] EVENT_CONNECT",
                                      "0 [on_cache_callback] EVENT_LOCALE_DISCONNECT"}),
            log_lines());
  EXPECT_EQ(2u, m_events.count());
}

TEST_F(dispatch_test, loss_and_error_end_a_session_that_was_not_logged_in) {
  for (const auto event : {VORLAN::SOCK::EVENT_REMOTE_DISCONNECT, VORLAN::SOCK::EVENT_ERROR}) {
    m_events.clear();
    report(event);
    const std::vector<recorded_call> calls = m_events.calls();
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ("[on_cache_callback] EVENT_REMOTE_DISCONNECT,thd_is_run:0", calls[0].text);
    EXPECT_EQ(LogLevelDebug, calls[0].level);
    EXPECT_EQ(callback_kind::server_disconnected, calls[1].kind);
  }
}

TEST_F(dispatch_test, other_events_are_ignored) {
  for (const int event : {5, 6, 7, 8, 99, -1})
    report(static_cast<VORLAN::SOCK::SOCKET_EVENT>(event));
  EXPECT_EQ(0u, m_events.count());
}

// ---- With a connection

class connected_dispatch_test : public connected_client_test {
 protected:
  unsigned break_stream() {
    char byte = 'B';
    const char* address = &byte;
    VORLAN::SOCK::socket_param param(VORLAN::SOCK::EVENT_RECEIVE, 0, &address, 0xFFFFFFFFu, 0);
    EXPECT_EQ(0, Ckqc_tcp::cache_callback(param, &m_client));
    return param.get_proc_len();
  }
};

TEST_F(connected_dispatch_test, broken_stream_before_the_login_closes_the_connection) {
  EXPECT_EQ(0xFFFFFFFFu, break_stream());
  EXPECT_EQ(1u, m_events.count(callback_kind::server_disconnected));
  EXPECT_TRUE(wait_until([&] { return m_server.connections().current == 0; }, k_patience));
  KqsLoginParam login = login_of("trader", "abc");
  EXPECT_EQ(0, m_client.LoginToKqs(login));
  EXPECT_TRUE(m_events.has_log(LogLevelError,
                               "[QuoteClient] login_to_kqs failed. wrong kqc tcp status: 0."));
}

TEST_F(connected_dispatch_test, broken_stream_after_the_login_is_mended_by_reconnecting) {
  log_in();
  EXPECT_EQ(0xFFFFFFFFu, break_stream());
  EXPECT_TRUE(wait_until([&] { return m_server.connections().ever == 2; }, k_patience));
  EXPECT_TRUE(wait_until([&] { return m_server.counters().lists_sent == 2; }, k_patience));
  EXPECT_EQ(0u, m_events.count(callback_kind::server_disconnected));
  EXPECT_EQ(1u, m_events.count(callback_kind::login_result));
}

}  // namespace kav_test
