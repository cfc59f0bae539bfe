// kav-watch with multicast groups, alone and together with the simulator's server.
#include "watch_multicast.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>  // SIGINT

#include <array>   // std::array
#include <chrono>  // std::chrono_literals
#include <map>     // std::map
#include <string>  // std::string
#include <vector>  // std::vector

#include "watch_server.h"

namespace kav_watch_test {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

using fields = std::map<std::string, std::string>;

std::vector<std::string> split_cells(const std::string& line) {
  std::vector<std::string> cells{""};
  for (const char c : line) {
    if (c == ',') {
      cells.emplace_back();
    } else {
      cells.back() += c;
    }
  }
  return cells;
}

// The fields of the quote at `index` that are not "no value".
fields quote_fields(const child_process& child, std::size_t index) {
  const std::vector<std::string> lines = split_lines(child.output());
  if (lines.size() < index + 2) return {{"no such line", child.output()}};
  const std::vector<std::string> names = split_cells(lines[0]);
  const std::vector<std::string> cells = split_cells(lines[index + 1]);
  if (names.size() != cells.size()) return {{"not as many cells as names", lines[index + 1]}};
  fields found;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (!cells[i].empty() && cells[i] != "0") found[names[i]] = cells[i];
  }
  return found;
}

bool wait_lines(const child_process& child, std::size_t count) {
  return wait_until([&] { return split_lines(child.output()).size() >= count; });
}

bool wait_told(const child_process& child, const std::string& text) {
  return wait_until([&] { return child.errors().find(text) != std::string::npos; });
}

// No password, no server: nothing but groups.
child_options multicast_options(std::vector<std::string> arguments) {
  child_options options;
  options.arguments = std::move(arguments);
  options.environment_password.reset();
  return options;
}

// ---- Groups alone

TEST(watch_multicast_test, an_exchanges_record_becomes_a_line_with_all_its_fields) {
  const multicast_sender feed;
  child_process child{
      multicast_options({"--multicast", feed.argument("SHFE"), "--format", "csv", "--count", "1"})};
  ASSERT_TRUE(feed.wait_joined());
  KQC_CShfeFtdcDepthMarketDataField record = shfe_record("rb2510", 4711);
  record.PreClosePrice = 3101.25;
  record.PreOpenInterest = 900001;
  record.OpenPrice = 3102;
  record.HighestPrice = 3130;
  record.LowestPrice = 3090.5;
  record.Turnover = 1234567890.125;
  record.OpenInterest = 900002;
  record.ClosePrice = 3119;
  record.SettlementPrice = 3118.5;
  record.UpperLimitPrice = 3410;
  record.LowerLimitPrice = 2790;
  record.PreDelta = -0.25;
  record.CurrDelta = 0.75;
  for (int i = 0; i < 5; ++i) {
    record.Levels[i].BidPrice = 3120 - i;
    record.Levels[i].BidVolume = 10 + i;
    record.Levels[i].AskPrice = 3121 + i;
    record.Levels[i].AskVolume = 20 + i;
  }
  ASSERT_TRUE(feed.send(record));
  expect_end(child, 0);
  fields expected{
      {"TradingDay", "20250901"},     {"InstrumentID", "rb2510"},    {"ExchangeID", "CFFEX"},
      {"ExchangeInstID", "rb2510"},   {"LastPrice", "3120.5"},       {"PreSettlementPrice", "3100"},
      {"PreClosePrice", "3101.25"},   {"PreOpenInterest", "900001"}, {"OpenPrice", "3102"},
      {"HighestPrice", "3130"},       {"LowestPrice", "3090.5"},     {"Volume", "4711"},
      {"Turnover", "1234567890.125"}, {"OpenInterest", "900002"},    {"ClosePrice", "3119"},
      {"SettlementPrice", "3118.5"},  {"UpperLimitPrice", "3410"},   {"LowerLimitPrice", "2790"},
      {"PreDelta", "-0.25"},          {"CurrDelta", "0.75"},         {"UpdateTime", "21:00:01"},
      {"UpdateMillisec", "500"}};
  for (int i = 0; i < 5; ++i) {
    expected[fmt::format("BidPrice{}", i + 1)] = fmt::format("{}", 3120 - i);
    expected[fmt::format("BidVolume{}", i + 1)] = fmt::format("{}", 10 + i);
    expected[fmt::format("AskPrice{}", i + 1)] = fmt::format("{}", 3121 + i);
    expected[fmt::format("AskVolume{}", i + 1)] = fmt::format("{}", 20 + i);
  }
  EXPECT_EQ(expected, quote_fields(child, 0));
}

TEST(watch_multicast_test, lumen_records_add_up_to_the_quote_of_their_symbol) {
  const multicast_sender feed;
  child_process child{multicast_options(
      {"--multicast", feed.argument("lumen"), "--format", "csv", "--count", "3"})};
  ASSERT_TRUE(feed.wait_joined());
  ASSERT_TRUE(feed.send(day_of("au2512", 780.5)));
  ASSERT_TRUE(feed.send(tick_of("au2512", 781.25, 3)));
  ASSERT_TRUE(feed.send(tick_of("au2512", 782.25, 4)));
  expect_end(child, 0);
  fields expected{{"InstrumentID", "au2512"},   {"ExchangeID", "SHFE"},
                  {"ExchangeInstID", "au2512"}, {"OpenPrice", "780.5"},
                  {"UpdateTime", "09:30:01"},   {"UpdateMillisec", "250"}};
  EXPECT_EQ(expected, quote_fields(child, 0));
  expected.insert(
      {{"LastPrice", "781.25"}, {"Volume", "3"}, {"BidPrice1", "780.25"}, {"BidVolume1", "5"}});
  EXPECT_EQ(expected, quote_fields(child, 1));
  expected["LastPrice"] = "782.25";
  expected["BidPrice1"] = "781.25";
  expected["Volume"] = "7";
  EXPECT_EQ(expected, quote_fields(child, 2));
}

TEST(watch_multicast_test, named_symbols_are_picked_out) {
  const multicast_sender feed;
  child_process child{multicast_options({"--multicast", feed.argument("SHFE"), "rb2510", "au2512",
                                         "--format", "json", "--count", "2"})};
  ASSERT_TRUE(feed.wait_joined());
  for (const char* symbol : {"cu2510", "au2512", "rb251", "rb2510"}) {
    ASSERT_TRUE(feed.send(shfe_record(symbol, 1)));
  }
  expect_end(child, 0);
  const std::vector<std::string> lines = split_lines(child.output());
  ASSERT_EQ(2u, lines.size());
  EXPECT_THAT(lines[0], HasSubstr(R"("InstrumentID":"au2512")"));
  EXPECT_THAT(lines[1], HasSubstr(R"("InstrumentID":"rb2510")"));
}

TEST(watch_multicast_test, groups_on_one_port_are_told_apart_and_counted) {
  const multicast_sender shfe, lumen;
  child_process child{multicast_options({"--multicast", shfe.argument("SHFE"), "--multicast",
                                         lumen.argument("LUMEN"), "--format", "csv"})};
  ASSERT_TRUE(shfe.wait_joined() && lumen.wait_joined());
  ASSERT_TRUE(shfe.send(std::array<char, 7>{}));
  ASSERT_TRUE(lumen.send(shfe_record("cu2510", 1)));  // no lumen record
  lumen_tick nameless = tick_of("", 1, 1);
  for (char& c : nameless.head.InstrumentID) c = 'x';  // and no end
  ASSERT_TRUE(lumen.send(nameless));
  ASSERT_TRUE(lumen.send(tick_of("au2512", 780, 1)));
  ASSERT_TRUE(shfe.send(shfe_record("rb2510", 1)));
  ASSERT_TRUE(wait_lines(child, 3));
  child.send_signal(SIGINT);
  EXPECT_EQ(0, child.wait());
  EXPECT_THAT(
      split_lines(child.errors()),
      testing::ElementsAre(
          fmt::format("kav-watch: {}: 2 datagrams, 1 quotes, 1 ignored, 0 refused, 0 dropped",
                      shfe.argument("SHFE")),
          fmt::format("kav-watch: {}: 3 datagrams, 1 quotes, 1 ignored, 1 refused, 0 dropped",
                      lumen.argument("LUMEN"))));
}

TEST(watch_multicast_test, the_counts_of_a_clean_feed_are_told_on_request_only) {
  const multicast_sender feed;
  child_process child{
      multicast_options({"--multicast", feed.argument("SHFE"), "--count", "1", "-v"})};
  ASSERT_TRUE(feed.wait_joined());
  ASSERT_TRUE(feed.send(shfe_record("rb2510", 1)));
  EXPECT_EQ(0, child.wait());
  EXPECT_THAT(child.output(), StartsWith("21:00:01.500 rb2510 "));
  EXPECT_THAT(child.errors(), HasSubstr(": 1 datagrams, 1 quotes, 0 ignored"));
}

TEST(watch_multicast_test, seconds_and_signals_end_it_also_without_quotes) {
  const multicast_sender feed;
  child_process timed{
      multicast_options({"--multicast", feed.argument("SHFE"), "--seconds", "0.3"})};
  expect_end(timed, 0);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    child_process child{multicast_options({"--multicast", feed.argument("SHFE")})};
    ASSERT_TRUE(feed.wait_joined());
    child.send_signal(number);
    expect_end(child, 0);
  }
}

// Until pipe and inbox are full and nobody takes datagrams any more.
void send_until_nobody_takes(const multicast_sender& feed) {
  const auto taken = [&feed] { return feed.waiting_bytes() == 0; };
  for (int i = 0; i < 4'000 && ::wait_until(taken, 1s); ++i) {
    for (int k = 0; k < 100; ++k) ASSERT_TRUE(feed.send(shfe_record("rb2510", i)));
  }
  ASSERT_GT(feed.waiting_bytes(), 0u);
}

TEST(watch_multicast_test, its_time_ends_it_while_nobody_reads_its_output) {
  const multicast_sender feed;
  child_options options = multicast_options(
      {"--multicast", feed.argument("SHFE"), "--format", "csv", "--seconds", "6"});
  options.read_output = false;
  child_process child{options};
  ASSERT_TRUE(feed.wait_joined());
  for (int k = 0; k < 1000; ++k) ASSERT_TRUE(feed.send(shfe_record("rb2510", k)));
  EXPECT_TRUE(wait_until([&] { return !child.is_running(); }));
  child.close_output();
  EXPECT_EQ(0, child.wait());
}

TEST(watch_multicast_test, a_signal_ends_it_while_nobody_reads_its_output) {
  const multicast_sender feed;
  child_options options =
      multicast_options({"--multicast", feed.argument("SHFE"), "--format", "csv"});
  options.read_output = false;
  child_process child{options};
  ASSERT_TRUE(feed.wait_joined());
  ASSERT_NO_FATAL_FAILURE(send_until_nobody_takes(feed));
  child.send_signal(SIGINT);
  EXPECT_TRUE(wait_until([&] { return !child.is_running(); }));
  child.close_output();
  EXPECT_EQ(0, child.wait());
}

TEST(watch_multicast_test, silence_is_told_and_quotes_are_shown_when_they_come_at_last) {
  const multicast_sender feed;
  child_process child{
      multicast_options({"--multicast", feed.argument("SHFE"), "--format", "csv", "--count", "1"})};
  ASSERT_TRUE(wait_told(child, "no datagram yet on " + feed.argument("SHFE")));
  ASSERT_TRUE(feed.send(shfe_record("rb2510", 5)));
  EXPECT_EQ(0, child.wait());
  EXPECT_EQ("5", quote_fields(child, 0)["Volume"]);
  EXPECT_EQ(1u, split_lines(child.errors()).size()) << child.errors();
}

TEST(watch_multicast_test, what_the_system_drops_is_told_at_once_and_counted_at_the_end) {
  const multicast_sender feed;
  child_process child{multicast_options({"--multicast", feed.argument("SHFE"), "--format", "csv"})};
  ASSERT_TRUE(feed.wait_joined());
  child.send_signal(SIGSTOP);
  std::size_t sent = 0;
  for (; feed.system_drops() == 0 && sent < 4'000'000; ++sent) {
    ASSERT_TRUE(feed.send(shfe_record("rb2510", 1)));
  }
  const unsigned long drops = feed.system_drops();
  ASSERT_GT(drops, 0u);
  child.send_signal(SIGCONT);
  ASSERT_TRUE(wait_lines(child, 1 + sent - drops));
  EXPECT_TRUE(wait_told(
      child, fmt::format("{}: the system dropped {} datagrams", feed.argument("SHFE"), drops)));
  child.send_signal(SIGINT);
  EXPECT_EQ(0, child.wait());
  EXPECT_THAT(split_lines(child.errors()).back(),
              HasSubstr(fmt::format("{0} datagrams, {0} quotes, 0 ignored, 0 refused, {1} dropped",
                                    sent - drops, drops)));
  EXPECT_EQ(sent - drops + 1, split_lines(child.output()).size());
}

// ---- What fails

TEST(watch_multicast_test, bad_options_have_their_status) {
  const std::vector<std::vector<std::string>> cases{
      {},
      {"--multicast", "239.255.10.1:SHFE"},
      {"--multicast", "239.255.10.1:30001:SHFE", "--list"},
      {"--multicast", "239.255.10.1:30001:SHFE", "--user", "me"}};
  for (const std::vector<std::string>& arguments : cases) {
    child_process child{multicast_options(arguments)};
    EXPECT_EQ(2, child.wait());
    EXPECT_EQ(1u, split_lines(child.errors()).size()) << child.errors();
    EXPECT_THAT(child.errors(), StartsWith("kav-watch: "));
  }
}

TEST(watch_multicast_test, a_port_that_another_program_has_to_itself_has_its_status) {
  const multicast_sender feed;
  const taken_port taken{feed.port()};
  child_process child{multicast_options({"--multicast", feed.argument("SHFE")})};
  EXPECT_EQ(10, child.wait());
  EXPECT_EQ(1u, split_lines(child.errors()).size()) << child.errors();
  EXPECT_THAT(child.errors(),
              AllOf(StartsWith("kav-watch: cannot receive " + feed.argument("SHFE")),
                    HasSubstr(fmt::format("end the program that has UDP port {}", feed.port()))));
  EXPECT_EQ("", child.output());
}

TEST(watch_multicast_test, of_many_groups_those_that_cannot_be_received_are_told) {
  const multicast_sender feed;
  const std::string bad = fmt::format("239.1.2.3:{}:CZCE@203.0.113.9", feed.port());
  child_process child{
      multicast_options({"--multicast", feed.argument("SHFE"), "--multicast", bad})};
  EXPECT_EQ(10, child.wait());
  EXPECT_EQ(1u, split_lines(child.errors()).size()) << child.errors();
  EXPECT_THAT(child.errors(), AllOf(StartsWith("kav-watch: cannot receive " + bad),
                                    HasSubstr("this host has 127.0.0.1")));
}

// ---- Together with a session

class watch_both_test : public watch_server_test {
 protected:
  child_options both_options(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"--multicast", m_feed.argument("SHFE")});
    return options_for(std::move(arguments));
  }

  const multicast_sender m_feed;
};

TEST_F(watch_both_test, quotes_of_both_are_lines) {
  child_process child{both_options({"--format", "csv", "--count", "3", "IF2509"})};
  ASSERT_TRUE(wait_registered("IF2509") && m_feed.wait_joined());
  ASSERT_TRUE(push("IF2509", 1));
  ASSERT_TRUE(wait_lines(child, 2));
  ASSERT_TRUE(m_feed.send(shfe_record("rb2510", 2)));  // not named
  ASSERT_TRUE(m_feed.send(shfe_record("IF2509", 3)));
  ASSERT_TRUE(wait_lines(child, 3));
  ASSERT_TRUE(push("IF2509", 4));
  expect_end(child, 0);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ("IF2509", quote_fields(child, i)["InstrumentID"]);
    EXPECT_EQ((std::array{"1", "3", "4"}[i]), quote_fields(child, i)["Volume"]);
  }
}

TEST_F(watch_both_test, bursts_of_both_at_once_lose_nothing) {
  constexpr int k_quotes = 5000;
  child_process child{both_options(
      {"--format", "csv", "--count", std::to_string(2 * k_quotes), "IF2509", "rb2510"})};
  ASSERT_TRUE(wait_registered("IF2509") && m_feed.wait_joined());
  std::size_t lines = 1;
  for (int i = 0; i < k_quotes; ++i) {
    ASSERT_TRUE(push("IF2509", i));
    ASSERT_TRUE(m_feed.send(shfe_record("rb2510", i)));
    lines += 2;
    if (i % 100 == 99) {  // or the system would drop some
      ASSERT_TRUE(wait_lines(child, lines));
    }
  }
  expect_end(child, 0);
  std::map<std::string, int> next;
  for (const std::string& line : split_lines(child.output())) {
    const std::vector<std::string> cells = split_cells(line);
    ASSERT_GT(cells.size(), 10u);
    if (cells[10] != "Volume") {
      ASSERT_EQ(std::to_string(next[cells[1]]++), cells[10]);
    }
  }
  EXPECT_EQ((std::map<std::string, int>{{"IF2509", k_quotes}, {"rb2510", k_quotes}}), next);
}

TEST_F(watch_both_test, a_symbol_that_the_server_does_not_know_may_come_from_a_group) {
  child_process child{both_options({"--format", "csv", "--count", "1", "IF2509", "zz9999"})};
  ASSERT_TRUE(wait_registered("IF2509") && m_feed.wait_joined());
  ASSERT_TRUE(m_feed.send(shfe_record("zz9999", 3)));
  EXPECT_EQ(0, child.wait());
  EXPECT_EQ("zz9999", quote_fields(child, 0)["InstrumentID"]);
  EXPECT_THAT(child.errors(), HasSubstr("the server does not know zz9999"));
}

TEST_F(watch_both_test, the_groups_outlive_a_session_that_ended_for_good) {
  child_process child{both_options({"--format", "csv", "IF2509"})};
  ASSERT_TRUE(wait_registered("IF2509") && m_feed.wait_joined());
  m_server.change_behaviour([](auto& b) { b.login = kav_sim::login_answer::refuse; });
  m_server.drop_all();
  ASSERT_TRUE(wait_told(child, "ended for good"));
  ASSERT_TRUE(m_feed.send(shfe_record("IF2509", 3)));
  ASSERT_TRUE(wait_lines(child, 2));
  child.send_signal(SIGINT);
  EXPECT_EQ(0, child.wait());
  EXPECT_EQ("3", quote_fields(child, 0)["Volume"]);
  EXPECT_EQ(2u, split_lines(child.errors()).size()) << child.errors();
  EXPECT_THAT(child.errors(), HasSubstr("; multicast goes on\n"));
}

TEST_F(watch_both_test, a_group_that_cannot_be_received_ends_it_after_the_login) {
  const taken_port taken{m_feed.port()};
  child_process child{both_options({"IF2509"})};
  EXPECT_EQ(10, child.wait());
  EXPECT_EQ(1u, split_lines(child.errors()).size()) << child.errors();
  ASSERT_TRUE(wait_until([&] { return m_server.connections().current == 0; }));
}

TEST_F(watch_both_test, a_refused_connection_keeps_its_status) {
  m_server.go_down();
  child_process child{both_options({})};
  EXPECT_EQ(3, child.wait());
  EXPECT_THAT(child.errors(), HasSubstr("cannot connect to"));
}

// ---- The table

class watch_multicast_table_test : public watch_both_test {
 protected:
  static child_options on_terminal(child_options options) {
    options.standard_output = child_stdout::terminal;
    return options;
  }
  // With Ctrl-L, since otherwise only what differs is written.
  static bool wait_redrawn(const child_process& child, const std::string& text) {
    return wait_until([&] {
      child.press("\x0C");
      return child.output().find(text) != std::string::npos;
    });
  }
  static bool wait_shown(const child_process& child, const std::string& text) {
    return wait_until([&] { return child.output().find(text) != std::string::npos; });
  }
};

TEST_F(watch_multicast_table_test, rows_appear_as_symbols_arrive_and_the_counts_are_shown) {
  child_process child{on_terminal(multicast_options({"--multicast", m_feed.argument("SHFE")}))};
  EXPECT_TRUE(wait_shown(child, "rows 0-0 of 0"));
  EXPECT_TRUE(wait_shown(child, "multicast 1 group | 0 datagrams | 0 quotes | 0 ignored"));
  ASSERT_TRUE(m_feed.wait_joined());
  ASSERT_TRUE(m_feed.send(shfe_record("rb2510", 1)));
  EXPECT_TRUE(wait_shown(child, "3120.5"));
  ASSERT_TRUE(m_feed.send(shfe_record("au2512", 1)));
  ASSERT_TRUE(m_feed.send(std::array<char, 7>{}));
  EXPECT_TRUE(wait_shown(child, "au2512"));
  EXPECT_TRUE(wait_redrawn(child, "1 group | 3 datagrams | 2 quotes | 1 ignored | 0 refused"));
  EXPECT_THAT(child.output(), HasSubstr("rows 1-2 of 2"));
  child.press("q");
  EXPECT_EQ(0, child.wait());
  EXPECT_THAT(child.errors(), HasSubstr("3 datagrams, 2 quotes, 1 ignored"));
}

TEST_F(watch_multicast_table_test, a_symbol_of_both_sources_has_one_row_with_the_latest_quote) {
  child_process child{on_terminal(both_options({"IF2509"}))};
  ASSERT_TRUE(wait_registered("IF2509") && m_feed.wait_joined());
  ASSERT_TRUE(push("IF2509", 11));
  EXPECT_TRUE(wait_shown(child, "3511.2"));
  ASSERT_TRUE(m_feed.send(shfe_record("IF2509", 12)));
  EXPECT_TRUE(wait_redrawn(child, "3120.5"));
  ASSERT_TRUE(push("IF2509", 13));
  EXPECT_TRUE(wait_redrawn(child, "3513.2"));
  EXPECT_TRUE(wait_shown(child, "rows 1-1 of 1"));
  child.press("q");
  expect_end(child, 0);
}

TEST_F(watch_multicast_table_test, the_end_of_the_session_is_shown_and_the_table_goes_on) {
  child_process child{on_terminal(both_options({"IF2509"}))};
  ASSERT_TRUE(wait_registered("IF2509") && m_feed.wait_joined());
  m_server.change_behaviour([](auto& b) { b.login = kav_sim::login_answer::refuse; });
  m_server.drop_all();
  EXPECT_TRUE(wait_shown(child, "ended for good"));
  ASSERT_TRUE(m_feed.send(shfe_record("IF2509", 12)));
  EXPECT_TRUE(wait_shown(child, "3120.5"));
  child.press("q");
  expect_end(child, 0);
}

}  // namespace
}  // namespace kav_watch_test
