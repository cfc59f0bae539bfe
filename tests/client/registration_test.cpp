// Wanted and confirmed symbols, and the requests and answers between them.
#include "tests/client/unit_fixture.h"

namespace kav_test {
namespace {

constexpr unsigned k_nothing_to_do = 100;
constexpr unsigned k_requests_sent = 500;
constexpr unsigned k_send_failed = 0xFFFFFFFF;
const char* const k_quiet_line = "0 [QuoteClient] nothing to reg or unreg";

KavKqsIntrumentType type_of(int value) { return static_cast<KavKqsIntrumentType>(value); }

using lines = std::vector<std::string>;

}  // namespace

// ---- Passes without a connection

class offline_registration_test : public unconnected_client_test {};

TEST_F(offline_registration_test, first_quiet_pass_says_so_and_the_next_ones_do_not) {
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
  EXPECT_EQ(lines{k_quiet_line}, log_lines());
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
  EXPECT_EQ(1u, m_events.count());
}

TEST_F(offline_registration_test, registration_without_a_connection_is_a_failed_send) {
  list("IF2509");
  m_client.RegisterSymbol(k_future, "IF2509");
  EXPECT_EQ(k_send_failed, m_client._th_check_and_register_symbol());
  EXPECT_EQ((lines{"0 [QuoteClient] valid:1,registed:0, need:1",
                   "3 [QuoteClient] tcp client send reg symbol req error."}),
            log_lines());
}

TEST_F(offline_registration_test, unregistration_without_a_connection_is_a_failed_send) {
  list("IF2509");
  EXPECT_EQ(32u, hear(answer('I', '0', "IF2509")));
  m_events.clear();
  EXPECT_EQ(k_send_failed, m_client._th_check_and_register_symbol());
  EXPECT_EQ((lines{"0 [QuoteClient] valid:1,registed:1, need:0",
                   "3 [QuoteClient] tcp client send unreg symbol req error."}),
            log_lines());
}

TEST_F(offline_registration_test, failed_registration_leaves_the_unregistrations_unsent) {
  list("IF2509");
  list("cs1709");
  hear(answer('I', '0', "IF2509"));
  m_client.RegisterSymbol(k_future, "cs1709");
  m_events.clear();
  EXPECT_EQ(k_send_failed, m_client._th_check_and_register_symbol());
  EXPECT_EQ((lines{"0 [QuoteClient] valid:2,registed:1, need:1",
                   "3 [QuoteClient] tcp client send reg symbol req error."}),
            log_lines());
}

TEST_F(offline_registration_test, failed_pass_makes_the_next_quiet_one_talk_again) {
  m_client._th_check_and_register_symbol();
  list("IF2509");
  m_client.RegisterSymbol(k_future, "IF2509");
  m_client._th_check_and_register_symbol();
  m_client.UnregisterSymbol(k_future, "IF2509");
  m_events.clear();
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
  EXPECT_EQ(lines{k_quiet_line}, log_lines());
}

TEST_F(offline_registration_test, unknown_symbol_is_dropped_without_a_word) {
  list("IF2509");
  EXPECT_EQ(0, m_client.RegisterSymbol(k_future, "cs1709"));
  EXPECT_EQ(0, m_client.RegisterSymbol(k_future, ""));
  EXPECT_EQ(0, m_client.RegisterSymbol(k_future, std::string(500, 'x').c_str()));
  EXPECT_EQ(0, m_client.UnregisterSymbol(k_future, "cs1709"));
  EXPECT_EQ(0u, m_events.count());
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
}

TEST_F(offline_registration_test, null_symbol_is_ignored) {
  list("");
  EXPECT_EQ(0, m_client.RegisterSymbol(k_future, nullptr));
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol()) << "no wish for \"\"";
  m_client.RegisterSymbol(k_future, "");
  EXPECT_EQ(0, m_client.UnregisterSymbol(k_future, nullptr));
  EXPECT_EQ(k_send_failed, m_client._th_check_and_register_symbol()) << "the wish is still there";
}

TEST_F(offline_registration_test, registering_before_the_first_list_is_forgotten) {
  m_client.RegisterSymbol(k_future, "IF2509");
  list("IF2509");
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
}

TEST_F(offline_registration_test, unregistering_takes_the_wish_back_whatever_the_type) {
  list("IF2509");
  m_client.RegisterSymbol(k_future, "IF2509");
  EXPECT_EQ(0, m_client.UnregisterSymbol(type_of('9'), "IF2509"));
  EXPECT_EQ(0, m_client.UnregisterSymbol(type_of('9'), "IF2509"));
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
}

TEST_F(offline_registration_test, wish_for_a_confirmed_symbol_needs_no_request) {
  list("IF2509");
  m_client.RegisterSymbol(k_future, "IF2509");
  hear(answer('I', '0', "IF2509"));
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
}

TEST_F(offline_registration_test, confirmed_symbol_outside_the_list_is_never_unregistered) {
  hear(answer('I', '0', "IF2509"));
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
}

// A server that confirms what nobody asked for, without end, is not followed for ever.
TEST_F(offline_registration_test, confirmations_beyond_262144_are_not_kept) {
  constexpr unsigned k_most = 262'144;
  for (unsigned i = 0; i < k_most + 10; ++i) {
    ASSERT_EQ(32u, hear(answer('I', '0', std::to_string(i))));
    if (i % 4096 == 0) m_events.clear();
  }
  list("0");
  m_events.clear();
  m_client._th_check_and_register_symbol();
  EXPECT_TRUE(m_events.has_log(
      LogLevelDebug, "[QuoteClient] valid:1,registed:" + std::to_string(k_most) + ", need:0"));
}

TEST_F(offline_registration_test, reset_forgets_wishes_and_confirmations) {
  list("IF2509");
  list("cs1709");
  m_client.RegisterSymbol(k_future, "IF2509");
  hear(answer('I', '0', "cs1709"));
  m_client.reset_register_symbol();
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
  m_client.RegisterSymbol(k_future, "IF2509");  // the list is still known
  m_events.clear();
  m_client._th_check_and_register_symbol();
  EXPECT_EQ("0 [QuoteClient] valid:2,registed:0, need:1", log_lines().front());
}

TEST_F(offline_registration_test, new_connection_request_forgets_wishes_also_when_it_fails) {
  list("IF2509");
  m_client.RegisterSymbol(k_future, "IF2509");
  KqsTcpInfo nowhere = endpoint_of("nowhere", 7);
  EXPECT_FALSE(m_client.ConnServer(nowhere, &m_events));
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
}

TEST_F(offline_registration_test,
       new_connection_list_forgets_wishes_unless_refused_for_its_params) {
  list("IF2509");
  m_client.RegisterSymbol(k_future, "IF2509");
  std::vector<KqsTcpInfo> none;
  EXPECT_FALSE(m_client.ConnServer(none, &m_events));
  std::vector<KqsTcpInfo> nowhere{endpoint_of("nowhere", 7)};
  EXPECT_FALSE(m_client.ConnServer(nowhere, nullptr));
  EXPECT_EQ(k_send_failed, m_client._th_check_and_register_symbol()) << "still wanted";
  EXPECT_FALSE(m_client.ConnServer(nowhere, &m_events));
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
}

TEST_F(offline_registration_test, null_event_with_one_endpoint_forgets_wishes) {
  list("IF2509");
  m_client.RegisterSymbol(k_future, "IF2509");
  KqsTcpInfo nowhere = endpoint_of("nowhere", 7);
  EXPECT_FALSE(m_client.ConnServer(nowhere, nullptr));
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
}

TEST_F(offline_registration_test, worker_reset_forgets_wishes_and_keeps_the_list) {
  list("IF2509");
  m_client.RegisterSymbol(k_future, "IF2509");
  m_client._th_reset();
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
  m_client.RegisterSymbol(k_future, "IF2509");
  EXPECT_EQ(k_send_failed, m_client._th_check_and_register_symbol());
}

// ---- Answers

TEST_F(offline_registration_test, answers_of_31_bytes_wait_and_of_32_are_taken) {
  for (const char kind : {'I', 'F'}) {
    m_events.clear();
    EXPECT_EQ(0u, hear(answer(kind, '0', "IF2509").substr(0, 31)));
    EXPECT_EQ(0u, m_events.count());
    EXPECT_EQ(32u, hear(answer(kind, '0', "IF2509")));
    EXPECT_EQ(32u, hear(answer(kind, '0', "IF2509") + "more"));
    EXPECT_EQ(2u, m_events.count());
  }
}

TEST_F(offline_registration_test, registration_succeeds_with_zero_and_two_only) {
  for (int value = 0; value < 256; ++value) {
    SCOPED_TRACE(value);
    const char result = static_cast<char>(value);
    const bool expected = result == '0' || result == '2';
    m_events.clear();
    EXPECT_EQ(32u, hear(answer('I', result, "IF2509", '7')));
    const std::vector<recorded_call> answers = m_events.of(callback_kind::symbol_registered);
    ASSERT_EQ(1u, answers.size());
    EXPECT_EQ(expected, answers[0].success);
    EXPECT_EQ(int{'7'}, answers[0].type);
    EXPECT_EQ("IF2509", answers[0].text);
    EXPECT_EQ(expected ? lines{} : lines{"3 [QuoteClient] register symbol:7:IF2509 failed."},
              log_lines());
    EXPECT_EQ(callback_kind::symbol_registered, m_events.calls().back().kind) << "line first";
  }
}

TEST_F(offline_registration_test, unregistration_succeeds_with_zero_only) {
  for (int value = 0; value < 256; ++value) {
    SCOPED_TRACE(value);
    const char result = static_cast<char>(value);
    m_events.clear();
    EXPECT_EQ(32u, hear(answer('F', result, "IF2509", '7')));
    const std::vector<recorded_call> answers = m_events.of(callback_kind::symbol_unregistered);
    ASSERT_EQ(1u, answers.size());
    EXPECT_EQ(result == '0', answers[0].success);
    EXPECT_EQ(int{'7'}, answers[0].type);
    EXPECT_EQ("IF2509", answers[0].text);
    EXPECT_EQ(result == '0' ? lines{} : lines{"3 [QuoteClient] unregister symbol:IF2509 failed."},
              log_lines());
  }
}

TEST_F(offline_registration_test, instrument_type_of_an_answer_is_a_signed_byte) {
  hear(answer('I', '0', "IF2509", '\xF0'));
  hear(answer('F', '0', "IF2509", '\x80'));
  EXPECT_EQ(-16, m_events.of(callback_kind::symbol_registered)[0].type);
  EXPECT_EQ(-128, m_events.of(callback_kind::symbol_unregistered)[0].type);
}

TEST_F(offline_registration_test, gold_code_of_an_answer_is_told_by_its_name) {
  hear(answer('I', '0', "0"));
  hear(answer('I', '1', "3abc"));
  hear(answer('F', '0', "4"));
  hear(answer('F', '1', "2"));
  EXPECT_EQ("Au(T+D)", m_events.of(callback_kind::symbol_registered)[0].text);
  EXPECT_EQ("Au(T+N1)", m_events.of(callback_kind::symbol_registered)[1].text);
  EXPECT_EQ("Au(T+N2)", m_events.of(callback_kind::symbol_unregistered)[0].text);
  EXPECT_EQ("mAu(T+D)", m_events.of(callback_kind::symbol_unregistered)[1].text);
  EXPECT_EQ((lines{"3 [QuoteClient] register symbol:1:3abc failed.",
                   "3 [QuoteClient] unregister symbol:2 failed."}),
            log_lines())
      << "log lines carry the server's text";
}

TEST_F(offline_registration_test, answer_without_nul_ends_where_its_field_ends) {
  const std::string symbol = "abcdefghijklmnopqrstuvwxyzAB";
  ASSERT_EQ(28u, symbol.size());
  hear(std::string("I1\0"
                   "7",
                   4) +
       symbol);
  hear(std::string("F1\0"
                   "7",
                   4) +
       symbol + "what follows");
  EXPECT_EQ(symbol, m_events.of(callback_kind::symbol_registered)[0].text);
  EXPECT_EQ(symbol, m_events.of(callback_kind::symbol_unregistered)[0].text);
  EXPECT_EQ((lines{"3 [QuoteClient] register symbol:7:" + symbol.substr(0, 20) + " failed.",
                   "3 [QuoteClient] unregister symbol:" + symbol + " failed."}),
            log_lines());
}

TEST_F(offline_registration_test, failure_line_of_type_zero_ends_where_the_type_stands) {
  hear(answer('I', '1', "IF2509", '\0'));
  EXPECT_EQ(lines{"3 [QuoteClient] register symbol: failed."}, log_lines());
}

// ---- Requests on the wire. The server does not answer, since nobody has logged in.

class registration_test : public connected_client_test {};

TEST_F(registration_test, wanted_symbol_is_requested_with_the_type_of_the_list) {
  list("IF2509", '1');
  m_client.RegisterSymbol(type_of('8'), "IF2509");
  m_client.RegisterSymbol(type_of('9'), "IF2509");
  EXPECT_EQ(k_requests_sent, m_client._th_check_and_register_symbol());
  EXPECT_EQ((lines{"0 [QuoteClient] valid:1,registed:0, need:1",
                   "0 [QuoteClient] send 1 reg req, 0 unreg req"}),
            log_lines());
  EXPECT_EQ(lines{request('N', '1', "IF2509")}, received(1));
}

TEST_F(registration_test, request_carries_the_low_byte_of_the_type_last_listed) {
  list("IF2509", '1');
  list("IF2509", '\xF0');
  m_client.RegisterSymbol(k_future, "IF2509");
  EXPECT_EQ(k_requests_sent, m_client._th_check_and_register_symbol());
  EXPECT_EQ(lines{request('N', '\xF0', "IF2509")}, received(1));
}

TEST_F(registration_test, request_is_repeated_by_every_pass_until_it_is_answered) {
  list("IF2509");
  m_client.RegisterSymbol(k_future, "IF2509");
  const std::string wanted = request('N', '1', "IF2509");
  EXPECT_EQ(k_requests_sent, m_client._th_check_and_register_symbol());
  EXPECT_EQ(k_requests_sent, m_client._th_check_and_register_symbol());
  EXPECT_EQ((lines{wanted, wanted}), received(2));
  hear(answer('I', '3', "IF2509"));  // refused: nothing changes
  EXPECT_EQ(k_requests_sent, m_client._th_check_and_register_symbol());
  hear(answer('I', '2', "IF2509"));
  m_events.clear();
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
  EXPECT_EQ(lines{k_quiet_line}, log_lines());
  EXPECT_EQ((lines{wanted, wanted, wanted}), received(3));
}

TEST_F(registration_test, confirmed_symbol_that_nobody_wants_is_unregistered_until_answered) {
  list("IF2509", '5');
  hear(answer('I', '0', "IF2509"));
  const std::string leaving = request('R', '5', "IF2509");
  m_events.clear();
  EXPECT_EQ(k_requests_sent, m_client._th_check_and_register_symbol());
  EXPECT_EQ((lines{"0 [QuoteClient] valid:1,registed:1, need:0",
                   "0 [QuoteClient] send 0 reg req, 1 unreg req"}),
            log_lines());
  hear(answer('F', '2', "IF2509"));  // refused
  EXPECT_EQ(k_requests_sent, m_client._th_check_and_register_symbol());
  hear(answer('F', '0', "IF2509"));
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
  EXPECT_EQ((lines{leaving, leaving}), received(2));
}

TEST_F(registration_test, registrations_leave_before_unregistrations) {
  list("a");
  list("b");
  hear(answer('I', '0', "a"));
  m_client.RegisterSymbol(k_future, "b");
  m_events.clear();
  EXPECT_EQ(k_requests_sent, m_client._th_check_and_register_symbol());
  EXPECT_EQ((lines{request('N', '1', "b"), request('R', '1', "a")}), received(2));
  EXPECT_EQ((lines{"0 [QuoteClient] valid:2,registed:1, need:1",
                   "0 [QuoteClient] send 1 reg req, 1 unreg req"}),
            log_lines());
}

TEST_F(registration_test, symbol_of_25_characters_is_registered_under_its_first_19) {
  const std::string symbol = "abcdefghijklmnopqrstuvwxy";
  ASSERT_EQ(25u, symbol.size());
  list(symbol);  // the whole text does not help
  m_client.RegisterSymbol(k_future, symbol.c_str());
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
  list(symbol.substr(0, 19));
  m_client.RegisterSymbol(k_future, symbol.c_str());
  EXPECT_EQ(k_requests_sent, m_client._th_check_and_register_symbol());
  EXPECT_EQ(lines{request('N', '1', symbol.substr(0, 19))}, received(1));
  m_client.UnregisterSymbol(k_future, symbol.c_str());
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
}

TEST_F(registration_test, confirmation_counts_for_the_first_20_characters) {
  const std::string symbol = "abcdefghijklmnopqrst";
  ASSERT_EQ(20u, symbol.size());
  list(symbol);
  hear(answer('I', '0', symbol + "uvw"));
  EXPECT_EQ(k_requests_sent, m_client._th_check_and_register_symbol());
  EXPECT_EQ(lines{request('R', '1', symbol.substr(0, 19))}, received(1));
}

TEST_F(registration_test, gold_name_is_registered_under_the_code) {
  list("0", '2');
  list("4", '2');
  m_client.RegisterSymbol(k_future, "Au(T+D)");
  m_client.RegisterSymbol(k_future, "Au(T+N2)");
  m_client.RegisterSymbol(k_future, "au(T+D)");  // not the name: no such symbol
  EXPECT_EQ(k_requests_sent, m_client._th_check_and_register_symbol());
  EXPECT_EQ((lines{request('N', '2', "0"), request('N', '2', "4")}), received(2));
  m_client.UnregisterSymbol(k_future, "Au(T+D)");
  m_client.UnregisterSymbol(k_future, "4");  // the code itself does as well
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
}

TEST_F(registration_test, requests_come_bucket_by_bucket_and_in_the_order_of_listing) {
  // Hashes of one bucket: 'a' * 33 + 'b' and 'b' * 33 + 'A' both are 3299; '#' goes before them.
  static_assert('a' * 33 + 'b' == 'b' * 33 + 'A');
  static_assert(('a' * 33 + 'b') % 128 > '#' % 128);
  for (const char* symbol : {"bA", "#", "ab"}) list(symbol);
  for (const char* symbol : {"ab", "bA", "#"}) m_client.RegisterSymbol(k_future, symbol);
  EXPECT_EQ(k_requests_sent, m_client._th_check_and_register_symbol());
  EXPECT_EQ((lines{request('N', '1', "#"), request('N', '1', "bA"), request('N', '1', "ab")}),
            received(3));
}

namespace {

// The order of a table that grows from 128 buckets to four times as many beyond 0.7 entries each.
class order_model {
 public:
  void add(const std::string& text) {
    m_buckets[hash(text) % m_buckets.size()].push_back(text);
    if (static_cast<double>(++m_count) > 0.7 * static_cast<double>(m_buckets.size())) grow();
  }
  lines all() const {
    lines texts;
    for (const auto& bucket : m_buckets) texts.insert(texts.end(), bucket.begin(), bucket.end());
    return texts;
  }

 private:
  static std::uint64_t hash(const std::string& text) {
    std::uint64_t h = 0;
    for (const char c : text) h = h * 33 + static_cast<std::uint64_t>(std::int64_t{c});
    return h;
  }
  void grow() {
    const lines before = all();
    m_buckets.assign(m_buckets.size() * 4, {});
    for (const std::string& text : before) m_buckets[hash(text) % m_buckets.size()].push_back(text);
  }

  std::vector<lines> m_buckets{128};
  std::size_t m_count = 0;
};

}  // namespace

TEST_F(registration_test, thousand_requests_leave_in_one_pass_in_the_order_of_the_list) {
  order_model model;
  for (int i = 0; i < 1000; ++i) {
    const std::string symbol = "S" + std::to_string(i * 7919 % 10007);
    list(symbol);
    model.add(symbol);
    m_client.RegisterSymbol(k_future, symbol.c_str());
  }
  EXPECT_EQ(k_requests_sent, m_client._th_check_and_register_symbol());
  lines expected;
  for (const std::string& symbol : model.all()) expected.push_back(request('N', '1', symbol));
  EXPECT_EQ(expected, received(expected.size()));
  EXPECT_TRUE(m_events.has_log(LogLevelDebug, "[QuoteClient] send 1000 reg req, 0 unreg req"));
}

TEST_F(registration_test, stop_request_does_not_spoil_a_pass_that_the_connection_takes) {
  list("IF2509");
  m_client.RegisterSymbol(k_future, "IF2509");
  m_client.DisConnServer();  // no worker: the connection stays
  EXPECT_EQ(k_requests_sent, m_client._th_check_and_register_symbol());
  EXPECT_EQ((lines{"0 [QuoteClient] valid:1,registed:0, need:1",
                   "0 [QuoteClient] send 1 reg req, 0 unreg req"}),
            log_lines());
  EXPECT_EQ(lines{request('N', '1', "IF2509")}, received(1));
}

TEST_F(registration_test, callers_the_server_and_passes_may_work_on_the_tables_at_once) {
  const auto symbol = [](int i) { return "S" + std::to_string(i % 300); };
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    for (int i = 0; i < 600; ++i) list(symbol(i));
  });
  threads.emplace_back([&] {
    for (int i = 0; i < 600; ++i) m_client.RegisterSymbol(k_future, symbol(i).c_str());
  });
  threads.emplace_back([&] {
    for (int i = 0; i < 600; ++i) {
      m_client.UnregisterSymbol(k_future, symbol(i).c_str());
      hear(answer('I', '0', symbol(i)));
      hear(answer('F', '0', symbol(i)));
    }
  });
  for (int i = 0; i < 20; ++i) {
    const unsigned result = m_client._th_check_and_register_symbol();
    EXPECT_TRUE(result == k_nothing_to_do || result == k_requests_sent) << result;
  }
  for (std::thread& thread : threads) thread.join();
  m_client.reset_register_symbol();
  EXPECT_EQ(k_nothing_to_do, m_client._th_check_and_register_symbol());
}

// ---- With a worker

TEST_F(registration_test, logged_in_client_registers_and_unregisters_by_itself) {
  kav_sim::server_options options;
  options.symbols = {{"IF2509", '1'}, {"0", '2'}};
  kav_sim::quote_server server(options);
  ASSERT_TRUE(server.start());
  recording_event events;
  Ckqc_tcp client;
  KqsTcpInfo endpoint = endpoint_of("127.0.0.1", server.port());
  ASSERT_TRUE(client.ConnServer(endpoint, &events));
  KqsLoginParam login = login_of("trader", "abc");
  ASSERT_NE(0, client.LoginToKqs(login));
  ASSERT_TRUE(events.wait_for(callback_kind::login_result));
  client.RegisterSymbol(k_future, "Au(T+D)");
  ASSERT_TRUE(events.wait_for(callback_kind::symbol_registered));
  const recorded_call registered = events.of(callback_kind::symbol_registered)[0];
  EXPECT_EQ("Au(T+D)", registered.text);
  EXPECT_TRUE(registered.success);
  EXPECT_EQ(int{'2'}, registered.type);
  EXPECT_EQ("kav-receive", registered.thread_name);
  EXPECT_TRUE(server.registered("0"));
  client.UnregisterSymbol(k_future, "Au(T+D)");
  ASSERT_TRUE(events.wait_for(callback_kind::symbol_unregistered));
  EXPECT_TRUE(events.of(callback_kind::symbol_unregistered)[0].success);
  EXPECT_EQ("kav-receive", events.of(callback_kind::symbol_unregistered)[0].thread_name);
  EXPECT_TRUE(wait_until([&] { return !server.registered("0"); }, k_patience));
}

}  // namespace kav_test
