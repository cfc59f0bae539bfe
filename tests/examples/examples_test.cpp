// Each example prints what it says it prints, from quotes that a server really sent.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>  // std::count
#include <cstdio>     // std::snprintf
#include <fstream>    // std::ifstream
#include <iterator>   // std::istreambuf_iterator

#include "apps/sim/quote_server.h"
#include "tests/client/multicast_support.h"
#include "tests/examples/example_run.h"
#include "tests/support/wait_until.h"

namespace kav_examples {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr std::chrono::seconds k_patience{30};

KAVMarketDepthQuoteData quote_of(const char* symbol, const char* time, double last) {
  KAVMarketDepthQuoteData quote{};
  std::snprintf(quote.TradingDay, sizeof(quote.TradingDay), "20250901");
  std::snprintf(quote.InstrumentID, sizeof(quote.InstrumentID), "%s", symbol);
  std::snprintf(quote.UpdateTime, sizeof(quote.UpdateTime), "%s", time);
  quote.LastPrice = last;
  return quote;
}

class examples_test : public testing::Test {
 protected:
  void SetUp() override {
    for (kav_sim::quote_server* server : {&m_server, &m_other}) {
      ASSERT_TRUE(server->start()) << server->start_error();
    }
  }

  static kav_sim::server_options options() {
    kav_sim::server_options how;
    how.symbols = {{"IF2509", '1'}, {"IF2512", '1'}, {"rb2510", '1'}};
    return how;
  }
  // "ADDRESS PORT ..."
  std::string with_server(const std::string& arguments) const {
    return "127.0.0.1 " + std::to_string(m_server.port()) + " " + arguments;
  }
  static std::string address(const kav_sim::quote_server& server) {
    return "127.0.0.1:" + std::to_string(server.port());
  }
  static void push(kav_sim::quote_server& server, const KAVMarketDepthQuoteData& quote) {
    ASSERT_TRUE(wait_until([&] { return server.registered(quote.InstrumentID); }, k_patience));
    ASSERT_TRUE(server.push_quote_waiting(quote, '1', k_patience));
  }
  void push(const char* symbol, const char* time, double last) {
    push(m_server, quote_of(symbol, time, last));
  }
  static void expect_end(example_run& example, const std::string& output) {
    EXPECT_EQ(0, example.wait());
    EXPECT_EQ(output, example.output());
    EXPECT_EQ("", example.errors());
  }

  void refuse_logins() {
    m_server.change_behaviour([](kav_sim::behaviour& how) {
      how.login = kav_sim::login_answer::refuse;
      how.login_refusal_reason = "account closed";
    });
  }
  static void expect_failure(example_run& example, const std::string& cause) {
    EXPECT_EQ(1, example.wait());
    EXPECT_EQ("", example.output());
    EXPECT_THAT(example.errors(), HasSubstr(cause));
  }

  kav_sim::quote_server m_server{options()}, m_other{options()};
};

void expect_promised(const example_run& example, const std::string& source) {
  EXPECT_EQ(shapes_of(promised_lines(source)), shapes_of(example.output())) << source;
}

TEST_F(examples_test, shortest_client_prints_quotes_until_enter_is_pressed) {
  example_run example("shortest_client", with_server("IF2509"));
  push("IF2509", "09:00:00", 3500.2);
  ASSERT_TRUE(wait_until([&] { return !example.output().empty(); }, k_patience));
  example.press_enter();
  expect_end(example, "09:00:00 IF2509 3500.2\n");
  expect_promised(example, "shortest_client.cpp");
}

TEST_F(examples_test, shortest_client_has_less_than_40_lines) {
  std::ifstream source(KAV_EXAMPLE_SOURCES "/shortest_client.cpp");
  const std::string text{std::istreambuf_iterator<char>(source), std::istreambuf_iterator<char>()};
  ASSERT_NE("", text);
  EXPECT_LT(std::count(text.begin(), text.end(), '\n'), 40);
}

TEST_F(examples_test, queue_hand_over_passes_every_quote_to_main_in_order) {
  example_run example("queue_hand_over", with_server("3 IF2509 rb2510"));
  push("IF2509", "09:00:00", 3500.2);
  push("rb2510", "09:00:00", 3100);
  push("IF2509", "09:00:01", 3500.4);
  expect_end(example,
             "09:00:00 IF2509 3500.2\n09:00:00 rb2510 3100\n09:00:01 IF2509 3500.4\n"
             "3 quotes, 0 dropped because the queue was full\n");
  expect_promised(example, "queue_hand_over.cpp");
}

TEST_F(examples_test, several_servers_have_a_client_each) {
  const std::string first = address(m_server), second = address(m_other);
  example_run example("several_servers", "2 IF2509 " + first + " " + second);
  push(m_server, quote_of("IF2509", "09:00:00", 3500.2));
  ASSERT_TRUE(wait_until([&] { return !example.output().empty(); }, k_patience));
  push(m_other, quote_of("IF2509", "09:00:01", 3500.4));
  expect_end(example, first + " 09:00:00 IF2509 3500.2\n" + second + " 09:00:01 IF2509 3500.4\n");
  expect_promised(example, "several_servers.cpp");
}

TEST_F(examples_test, several_servers_go_on_without_one_that_is_away) {
  const std::string first = address(m_server), second = address(m_other);
  m_server.stop();
  example_run example("several_servers", "1 IF2509 " + first + " " + second);
  push(m_other, quote_of("IF2509", "09:00:01", 3500.4));
  EXPECT_EQ(0, example.wait());
  EXPECT_EQ(second + " 09:00:01 IF2509 3500.4\n", example.output());
  EXPECT_THAT(example.errors(), HasSubstr(first + ": goes without\n"));
}

class minute_bars_test : public examples_test {
 protected:
  void tick(const char* day, const char* time, double last, int volume) {
    KAVMarketDepthQuoteData quote = quote_of("IF2509", time, last);
    std::snprintf(quote.TradingDay, sizeof(quote.TradingDay), "%s", day);
    quote.Volume = volume;
    push(m_server, quote);
  }
};

TEST_F(minute_bars_test, each_minute_has_its_prices_and_the_lots_traded_in_it) {
  example_run example("minute_bars", with_server("2 IF2509"));
  tick("20250901", "09:00:00", 0, 0);  // no trade yet
  tick("20250901", "09:00:01", 3500, 10);
  tick("20250901", "09:00:30", 3510.2, 15);
  tick("20250901", "09:00:59", 3490, 20);
  tick("20250901", "09:01:00", 3495, 22);
  tick("20250901", "09:03:00", 3496, 30);
  expect_end(example,
             "09:00 IF2509 open 3500 high 3510.2 low 3490 close 3490 lots 10\n"
             "09:01 IF2509 open 3495 high 3495 low 3495 close 3495 lots 2\n");
  expect_promised(example, "minute_bars.cpp");
}

TEST_F(minute_bars_test, behind_a_change_of_the_trading_day_all_lots_are_new) {
  example_run example("minute_bars", with_server("2 IF2509"));
  tick("20250901", "15:00:00", 3500, 100'000);
  tick("20250902", "09:30:00", 3510, 7);
  tick("20250902", "09:31:00", 3511, 9);
  expect_end(example,
             "15:00 IF2509 open 3500 high 3500 low 3500 close 3500 lots 0\n"
             "09:30 IF2509 open 3510 high 3510 low 3510 close 3510 lots 7\n");
}

class spread_alarm_test : public examples_test {
 protected:
  void book(const char* symbol, const char* time, double bid, double ask) {
    KAVMarketDepthQuoteData quote = quote_of(symbol, time, bid);
    quote.BidPrice1 = bid;
    quote.AskPrice1 = ask;
    push(m_server, quote);
  }
};

TEST_F(spread_alarm_test, alarms_once_and_again_after_the_spread_was_back) {
  example_run example("spread_alarm", with_server("2 20 IF2509 IF2512"));
  book("IF2509", "10:15:00", 3500, 3500.4);
  book("IF2512", "10:15:01", 3510, 3510.4);
  book("IF2512", "10:15:02", 0, 3540);  // no bid: no middle
  book("IF2512", "10:15:03", 3525.4, 3525.8);
  book("IF2512", "10:15:04", 3530, 3530.4);
  book("IF2512", "10:15:05", 3515, 3515.4);  // not yet back below half of the limit
  book("IF2512", "10:15:06", 3530, 3530.4);
  book("IF2512", "10:15:07", 3509, 3509.4);
  book("IF2509", "10:15:08", 3480, 3480.4);
  expect_end(example,
             "10:15:03 ALARM IF2512 - IF2509 = 25.4\n10:15:08 ALARM IF2512 - IF2509 = 29\n");
  expect_promised(example, "spread_alarm.cpp");
}

TEST_F(examples_test, latency_counts_from_the_quickest_quote) {
  example_run example("latency", with_server("3 IF2509"));
  push("IF2509", "", 3500);  // no time
  push("IF2509", "10:00:01", 3500);
  push("IF2509", "10:00:00", 3500);  // a second later than the first, or a little more
  push("IF2509", "10:00:01", 3500);
  EXPECT_EQ(0, example.wait());
  expect_promised(example, "latency.cpp");
  double median = 0, most = 0, late = 0;
  ASSERT_EQ(3, std::sscanf(example.output().c_str(),
                           "3 quotes, later than the quickest: median %lf ms, 99 %% %lf ms, "
                           "most %lf ms",
                           &median, &late, &most));
  EXPECT_GE(median, 0);
  EXPECT_LE(median, late);
  EXPECT_EQ(median, late);  // of three, the 99th percentile is the one in the middle
  EXPECT_GE(most, 1000 - 100);
  EXPECT_LE(most, 1000 + 30'000);
}

TEST_F(examples_test, latency_does_not_mind_midnight) {
  example_run example("latency", with_server("2 IF2509"));
  push("IF2509", "23:59:59", 3500);
  push("IF2509", "00:00:00", 3500);
  EXPECT_EQ(0, example.wait());
  double most = 0;
  ASSERT_EQ(1, std::sscanf(example.output().c_str(),
                           "2 quotes, later than the quickest: median %*f ms, 99 %% %*f ms, "
                           "most %lf ms",
                           &most));
  EXPECT_LE(most, 31'000);
}

// The undefined behaviour sanitizer looks for a C++ class behind each object with virtual
// functions.
class plain_c_test : public examples_test {
 protected:
  void SetUp() override {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer does not take callbacks of an object made in C";
#endif
    examples_test::SetUp();
  }
};

TEST_F(plain_c_test, prints_quotes_through_dlopen) {
  example_run example("plain_c", KAV_LIBRARY " " + with_server("2 IF2509"));
  push("IF2509", "09:00:00", 3500.2);
  push("IF2509", "09:00:01", 3500.4);
  expect_end(example, "09:00:00 IF2509 3500.2\n09:00:01 IF2509 3500.4\n");
  expect_promised(example, "plain_c.c");
}

// A datagram sent before the example has joined the group is gone: the same is sent again.
TEST(multicast_quotes_test, prints_quotes_of_a_group_until_enter_is_pressed) {
  const kav_test::shared_port port;
  if (!port.obstacle().empty()) GTEST_SKIP() << port.obstacle();
  const std::string group = kav_test::group(1);
  kav_session::group_sender sender(group, port.number());
  example_run example("multicast_quotes",
                      group + " " + std::to_string(port.number()) + " CFFEX 127.0.0.1");
  ASSERT_TRUE(wait_until(
      [&] {
        return sender.send(kav_session::cffex_datagram("IF2509", 3500.2)) &&
               !example.output().empty();
      },
      k_patience));
  example.press_enter();
  EXPECT_EQ(0, example.wait());
  EXPECT_THAT(example.output(), MatchesRegex("( IF2509 3500.2\n)+"));
  EXPECT_EQ("", example.errors());
}

TEST_F(examples_test, a_refused_login_is_told_and_ends_the_program) {
  refuse_logins();
  example_run example("queue_hand_over", with_server("1 IF2509"));
  expect_failure(example, "login failed: account closed\n");
}

TEST_F(plain_c_test, a_refused_login_is_told_and_ends_the_program) {
  refuse_logins();
  example_run example("plain_c", KAV_LIBRARY " " + with_server("1 IF2509"));
  expect_failure(example, "login failed: account closed\n");
}

TEST_F(examples_test, a_server_that_is_away_is_told_and_ends_the_program) {
  m_server.stop();
  example_run example("latency", with_server("1 IF2509"));
  expect_failure(example, "init connect server failed.");
}

TEST_F(plain_c_test, a_server_that_is_away_is_told_and_ends_the_program) {
  m_server.stop();
  example_run example("plain_c", KAV_LIBRARY " " + with_server("1 IF2509"));
  expect_failure(example, "init connect server failed.");
}

TEST_F(examples_test, without_arguments_they_tell_how_to_call_them) {
  for (const std::string name : {"multicast_quotes", "queue_hand_over", "several_servers",
                                 "minute_bars", "spread_alarm", "latency", "plain_c"}) {
    example_run example(name, "");
    EXPECT_EQ(2, example.wait());
    EXPECT_THAT(example.errors(), StartsWith("usage: " + name + " "));
  }
}

}  // namespace
}  // namespace kav_examples
