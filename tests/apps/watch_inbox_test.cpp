#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>  // poll

#include <atomic>  // std::atomic
#include <cstdio>  // std::snprintf
#include <string>  // std::string
#include <thread>  // std::thread
#include <vector>  // std::vector

#include "apps/watch/quote_inbox.h"

namespace kav_watch {
namespace {

using testing::ElementsAre;

constexpr auto k_type = static_cast<KavKqsIntrumentType>('1');

KAVMarketDepthQuoteData traded(const std::string& symbol, int volume) {
  KAVMarketDepthQuoteData quote{};
  std::snprintf(quote.InstrumentID, sizeof(quote.InstrumentID), "%s", symbol.c_str());
  quote.Volume = volume;
  return quote;
}

void deliver(quote_inbox& inbox, KAVMarketDepthQuoteData quote) { inbox.OnQuote(k_type, &quote); }

bool is_awake(const quote_inbox& inbox) {
  pollfd fd{inbox.wake_fd(), POLLIN, 0};
  return ::poll(&fd, 1, 0) == 1;
}

TEST(watch_inbox, quotes_come_out_in_their_order_and_once) {
  quote_inbox inbox{keep_quotes::every};
  for (int i = 0; i < 3; ++i) deliver(inbox, traded("A", i));
  EXPECT_TRUE(is_awake(inbox));
  std::vector<KAVMarketDepthQuoteData> quotes;
  inbox.take_quotes(quotes);
  ASSERT_EQ(3u, quotes.size());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(i, int{quotes[static_cast<std::size_t>(i)].Volume});
  inbox.take_quotes(quotes);
  EXPECT_TRUE(quotes.empty());
  EXPECT_EQ(3u, inbox.facts().quotes);
}

TEST(watch_inbox, of_the_latest_quotes_one_stays_for_each_symbol) {
  quote_inbox inbox{keep_quotes::latest};
  deliver(inbox, traded("A", 1));
  deliver(inbox, traded("B", 2));
  deliver(inbox, traded("A", 3));
  std::vector<KAVMarketDepthQuoteData> quotes;
  inbox.take_quotes(quotes);
  ASSERT_EQ(2u, quotes.size());
  EXPECT_EQ(3, int{quotes[0].Volume});
  EXPECT_EQ(2, int{quotes[1].Volume});
  EXPECT_EQ(3u, inbox.facts().quotes);
  deliver(inbox, traded("A", 4));
  inbox.take_quotes(quotes);
  ASSERT_EQ(1u, quotes.size());
}

TEST(watch_inbox, a_full_inbox_makes_the_library_wait_and_loses_nothing) {
  quote_inbox inbox{keep_quotes::every};
  const std::size_t sent = quote_inbox::k_most_waiting * 2 + 7;
  std::thread library{[&] {
    for (std::size_t i = 0; i < sent; ++i) deliver(inbox, traded("A", static_cast<int>(i)));
  }};
  std::size_t next = 0;
  std::vector<KAVMarketDepthQuoteData> quotes;
  while (next < sent) {
    pollfd fd{inbox.wake_fd(), POLLIN, 0};
    ASSERT_EQ(1, ::poll(&fd, 1, 30'000));
    inbox.clear_wake();
    inbox.take_quotes(quotes);
    ASSERT_LE(quotes.size(), quote_inbox::k_most_waiting);
    for (const auto& quote : quotes) ASSERT_EQ(static_cast<int>(next++), int{quote.Volume});
  }
  library.join();
}

TEST(watch_inbox, two_threads_feed_it_and_each_ones_quotes_keep_their_order) {
  quote_inbox inbox{keep_quotes::every};
  constexpr int k_sent = quote_inbox::k_most_waiting;  // of each: together they have to wait
  const auto send = [&inbox](const char* symbol) {
    for (int i = 0; i < k_sent; ++i) deliver(inbox, traded(symbol, i));
  };
  std::thread session{send, "S"};
  std::thread multicast{send, "M"};
  int next_of_session = 0, next_of_multicast = 0;
  std::vector<KAVMarketDepthQuoteData> quotes;
  while (next_of_session < k_sent || next_of_multicast < k_sent) {
    pollfd fd{inbox.wake_fd(), POLLIN, 0};
    if (::poll(&fd, 1, 30'000) != 1) break;
    inbox.clear_wake();
    inbox.take_quotes(quotes);
    for (const auto& quote : quotes) {
      int& next = quote.InstrumentID[0] == 'S' ? next_of_session : next_of_multicast;
      EXPECT_EQ(next++, int{quote.Volume});
    }
  }
  inbox.close();
  session.join();
  multicast.join();
  EXPECT_EQ(k_sent, next_of_session);
  EXPECT_EQ(k_sent, next_of_multicast);
  EXPECT_EQ(2u * k_sent, inbox.facts().quotes);
}

TEST(watch_inbox, of_a_symbol_of_two_threads_the_latest_quote_stays) {
  quote_inbox inbox{keep_quotes::latest};
  std::vector<KAVMarketDepthQuoteData> quotes;
  for (int round = 0; round < 100; ++round) {
    const auto send = [&inbox](int first) {
      for (int i = 0; i < 50; ++i) deliver(inbox, traded("A", first + i));
    };
    std::thread session{send, 0};
    std::thread multicast{send, 1000};
    session.join();
    multicast.join();
    inbox.take_quotes(quotes);
    ASSERT_EQ(1u, quotes.size());
    const int last = quotes[0].Volume;
    EXPECT_TRUE(last == 49 || last == 1049) << last;  // the last of either
  }
  EXPECT_EQ(10'000u, inbox.facts().quotes);
}

TEST(watch_inbox, closing_lets_a_waiting_callback_go) {
  quote_inbox inbox{keep_quotes::every};
  for (std::size_t i = 0; i < quote_inbox::k_most_waiting; ++i) deliver(inbox, traded("A", 1));
  std::thread library{[&] { deliver(inbox, traded("A", 2)); }};
  inbox.close();
  library.join();
  EXPECT_EQ(quote_inbox::k_most_waiting, inbox.facts().quotes);
}

TEST(watch_inbox, the_symbol_list_keeps_its_order_and_its_first_answer) {
  quote_inbox inbox{keep_quotes::every};
  inbox.OnSymbolList(k_type, "B", false);
  inbox.OnSymbolList(k_type, "A", false);
  EXPECT_FALSE(inbox.facts().symbols_complete);
  inbox.OnSymbolList(KavKqsIntrumentTypeNone, "", true);
  inbox.OnSymbolList(k_type, "B", false);
  inbox.OnSymbolList(KavKqsIntrumentTypeNone, "", true);
  EXPECT_TRUE(inbox.facts().symbols_complete);
  ASSERT_EQ(2u, inbox.symbols().size());
  EXPECT_EQ("B", inbox.symbols()[0].name);
  EXPECT_EQ(k_type, inbox.symbols()[0].type);
}

TEST(watch_inbox, a_refused_login_has_the_reason_fit_for_a_terminal) {
  quote_inbox inbox{keep_quotes::every};
  const std::string line = "[QuoteClient] login failed, result: N,  server ip: x, port: 1.";
  inbox.OnLog(LogLevelError, line.c_str(), static_cast<int>(line.size()));
  inbox.OnLoginResult(false, "no\x1B[2J");
  const session_facts facts = inbox.facts();
  ASSERT_TRUE(facts.login);
  EXPECT_FALSE(facts.login->accepted);
  EXPECT_TRUE(facts.login->refused_by_server);
  EXPECT_EQ("no?[2J", facts.login->reason);
}

TEST(watch_inbox, a_missing_symbol_list_is_no_refusal) {
  quote_inbox inbox{keep_quotes::every};
  inbox.OnLoginResult(false, "query symbol error");
  EXPECT_FALSE(inbox.facts().login->refused_by_server);
}

TEST(watch_inbox, each_refused_symbol_is_told_once) {
  quote_inbox inbox{keep_quotes::every};
  inbox.OnSymbolRegistered(k_type, "A", false);
  inbox.OnSymbolRegistered(k_type, "A", false);
  inbox.OnSymbolRegistered(k_type, "B", true);
  EXPECT_THAT(inbox.take_refusals(), ElementsAre("A"));
  inbox.OnSymbolRegistered(k_type, "A", false);
  EXPECT_TRUE(inbox.take_refusals().empty());
}

TEST(watch_inbox, log_lines_are_kept_for_the_screen_and_cannot_move_the_cursor) {
  quote_inbox inbox{keep_quotes::every};
  inbox.OnLog(LogLevelDebug, "one", 3);
  inbox.OnLog(LogLevelDebug, "t\nwo", 4);
  EXPECT_THAT(inbox.take_log(), ElementsAre("one", "t?wo"));
  EXPECT_TRUE(inbox.take_log().empty());
}

TEST(watch_inbox, whatever_happens_wakes_the_main_thread) {
  quote_inbox inbox{keep_quotes::every};
  EXPECT_FALSE(is_awake(inbox));
  inbox.set_connected(true);
  EXPECT_TRUE(is_awake(inbox));
  inbox.clear_wake();
  EXPECT_FALSE(is_awake(inbox));
  inbox.OnServerDisconnected();
  EXPECT_TRUE(is_awake(inbox));
  EXPECT_TRUE(inbox.facts().disconnected_before_login);
}

}  // namespace
}  // namespace kav_watch
