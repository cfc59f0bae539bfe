// What kav-watch tells about multicast groups, and what it lets through.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>   // std::chrono_literals
#include <cstdio>   // std::snprintf
#include <string>   // std::string
#include <variant>  // std::get
#include <vector>   // std::vector

#include "apps/watch/multicast_feed.h"
#include "apps/watch/quote_format.h"
#include "apps/watch/reception_report.h"

namespace kav_watch {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const reception_watch::time_point k_joined{1000s};

watched_group group_of(const std::string& text) {
  return std::get<watched_group>(parse_group(text));
}

const watched_group k_first = group_of("239.255.10.1:30001:SHFE");
const watched_group k_second = group_of("239.255.10.2:30002:LUMEN@127.0.0.1");

KAVMulticastStatistics received(std::uint64_t quotes) { return {quotes, quotes, 0, 0, 0}; }
KAVMulticastStatistics dropped(std::uint64_t count) { return {1, 1, 0, 0, count}; }

// ---- Refused groups

TEST(watch_reception, a_missing_interface_names_those_that_there_are) {
  const std::string by_route = refusal_text(k_first, KAVMulticastNoInterface, {});
  EXPECT_THAT(by_route, testing::StartsWith("cannot receive 239.255.10.1:30001:SHFE: "));
  EXPECT_THAT(by_route, HasSubstr(KAVMulticastResultText(KAVMulticastNoInterface)));
  EXPECT_THAT(by_route, HasSubstr("append @LOCALIP"));
  EXPECT_THAT(by_route, HasSubstr("127.0.0.1"));
  const std::string by_address =
      refusal_text(group_of("239.0.0.1:1:SHFE@203.0.113.9"), KAVMulticastNoInterface, {});
  EXPECT_THAT(by_address, HasSubstr("this host has 127.0.0.1"));
}

TEST(watch_reception, a_taken_port_names_the_port_and_how_to_find_its_program) {
  const std::string text = refusal_text(k_first, KAVMulticastPortInUse, {});
  EXPECT_THAT(text, HasSubstr(KAVMulticastResultText(KAVMulticastPortInUse)));
  EXPECT_THAT(text, HasSubstr("port 30001"));
}

TEST(watch_reception, the_systems_reason_is_the_log_line_about_the_group) {
  const std::vector<std::string> log{"group 239.255.10.1: no buffers", "group 239.255.10.2: other"};
  EXPECT_THAT(refusal_text(k_first, KAVMulticastSystemError, log), HasSubstr("no buffers"));
  EXPECT_THAT(refusal_text(group_of("239.9.9.9:1:SHFE"), KAVMulticastSystemError, log),
              HasSubstr("other"));
  EXPECT_THAT(refusal_text(k_first, KAVMulticastSystemError, {}), HasSubstr("none given"));
}

// ---- Counts

TEST(watch_reception, the_status_sums_all_groups_and_tells_drops_only_when_there_are_any) {
  EXPECT_EQ("1 group | 0 datagrams | 0 quotes | 0 ignored | 0 refused",
            reception_text({received(0)}));
  EXPECT_EQ("2 groups | 7 dropped | 13 datagrams | 6 quotes | 4 ignored | 3 refused",
            reception_text({{10, 5, 3, 2, 3}, {3, 1, 1, 1, 4}}));
}

TEST(watch_reception, the_counts_of_a_group_are_one_line) {
  EXPECT_EQ(
      "239.255.10.2:30002:LUMEN@127.0.0.1: 10 datagrams, 5 quotes, 3 ignored, 2 refused, 1 dropped",
      counts_text(k_second, {10, 5, 3, 2, 1}));
}

TEST(watch_reception, what_became_no_quote_is_a_loss) {
  EXPECT_FALSE(has_losses(received(5)));
  EXPECT_TRUE(has_losses({1, 0, 1, 0, 0}));
  EXPECT_TRUE(has_losses({1, 0, 0, 1, 0}));
  EXPECT_TRUE(has_losses(dropped(1)));
}

// ---- When something is due

TEST(watch_reception, silence_is_told_once_after_its_time) {
  reception_watch watch{{k_first, k_second}, true, k_joined};
  const std::vector<KAVMulticastStatistics> nothing{received(0), received(0)};
  EXPECT_THAT(watch.due(nothing, k_joined + 4999ms), IsEmpty());
  EXPECT_THAT(watch.due(nothing, k_joined + 5s),
              ElementsAre(testing::AllOf(
                  HasSubstr("no datagram yet on 239.255.10.1:30001:SHFE, 239.255.10.2:30002:LUMEN"),
                  HasSubstr("docs/multicast.md"))));
  EXPECT_THAT(watch.due(nothing, k_joined + 60s), IsEmpty());
}

TEST(watch_reception, silence_names_a_few_groups_only) {
  reception_watch watch{{k_first, k_first, k_first, k_first, k_first}, true, k_joined};
  EXPECT_THAT(watch.due(std::vector<KAVMulticastStatistics>(5), k_joined + 5s),
              ElementsAre(HasSubstr("SHFE and 2 more; ")));
}

TEST(watch_reception, one_datagram_of_any_group_is_no_silence) {
  reception_watch watch{{k_first, k_second}, true, k_joined};
  EXPECT_THAT(watch.due({received(0), {1, 0, 1, 0, 0}}, k_joined + 5s), IsEmpty());
}

TEST(watch_reception, silence_beside_a_session_is_not_told) {
  reception_watch watch{{k_first}, false, k_joined};
  EXPECT_THAT(watch.due({received(0)}, k_joined + 60s), IsEmpty());
}

TEST(watch_reception, drops_are_told_as_they_grow_with_a_pause_between) {
  reception_watch watch{{k_first, k_second}, true, k_joined};
  EXPECT_THAT(watch.due({dropped(0), dropped(0)}, k_joined), IsEmpty());
  EXPECT_THAT(watch.due({dropped(3), dropped(0)}, k_joined + 1s),
              ElementsAre(HasSubstr("239.255.10.1:30001:SHFE: the system dropped 3 datagrams")));
  EXPECT_THAT(watch.due({dropped(9), dropped(2)}, k_joined + 5999ms), IsEmpty());
  EXPECT_THAT(watch.due({dropped(10), dropped(2)}, k_joined + 6s),
              ElementsAre(HasSubstr("dropped 7 datagrams (10 in all)"),
                          HasSubstr("LUMEN@127.0.0.1: the system dropped 2 datagrams")));
  EXPECT_THAT(watch.due({dropped(10), dropped(2)}, k_joined + 60s), IsEmpty());
}

// ---- What is let through

void deliver(multicast_filter& filter, const char* symbol) {
  KAVMarketDepthQuoteData quote{};
  std::snprintf(quote.InstrumentID, sizeof(quote.InstrumentID), "%s", symbol);
  filter.OnQuote(KavKqsIntrumentTypeMulticast, &quote);
}

std::vector<std::string> taken(quote_inbox& inbox) {
  std::vector<KAVMarketDepthQuoteData> quotes;
  inbox.take_quotes(quotes);
  std::vector<std::string> symbols;
  symbols.reserve(quotes.size());
  for (const auto& quote : quotes) symbols.emplace_back(field_text(quote.InstrumentID));
  return symbols;
}

TEST(watch_filter, named_symbols_pass_and_no_others) {
  quote_inbox inbox{keep_quotes::every};
  multicast_filter filter{inbox, {"rb2510", "au2512C500-of-a-long-name"}};
  for (const char* symbol : {"rb2510", "rb251", "RB2510", "", "au2512C500-of-a-long-name"}) {
    deliver(filter, symbol);
  }
  EXPECT_THAT(taken(inbox), ElementsAre("rb2510", "au2512C500-of-a-long-name"));
  EXPECT_EQ(2u, inbox.facts().quotes);
}

TEST(watch_filter, everything_passes_when_no_symbol_is_named) {
  quote_inbox inbox{keep_quotes::every};
  multicast_filter filter{inbox, {}};
  for (const char* symbol : {"rb2510", "", "IF2509"}) deliver(filter, symbol);
  EXPECT_THAT(taken(inbox), ElementsAre("rb2510", "", "IF2509"));
}

TEST(watch_filter, log_lines_reach_the_screen_but_tell_nothing_about_the_session) {
  quote_inbox inbox{keep_quotes::every};
  multicast_filter filter{inbox, {}};
  filter.OnLog(LogLevelDebug, "[QuoteClient] _th_kqc_send_and_reconn end\n", 42);
  EXPECT_EQ(link_state::connecting, inbox.facts().state);
  EXPECT_THAT(inbox.take_log(), ElementsAre("[QuoteClient] _th_kqc_send_and_reconn end?"));
  EXPECT_THAT(filter.take_log(), ElementsAre("[QuoteClient] _th_kqc_send_and_reconn end?"));
  EXPECT_THAT(filter.take_log(), IsEmpty());
}

}  // namespace
}  // namespace kav_watch
