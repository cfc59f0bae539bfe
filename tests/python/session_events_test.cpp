#include "bindings/python/session_events.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>  // std::string
#include <thread>  // std::thread
#include <vector>  // std::vector

#include "tests/support/wait_until.h"

namespace kav_python {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using steady = std::chrono::steady_clock;

constexpr std::chrono::seconds k_patience{20};
constexpr auto k_type = static_cast<KavKqsIntrumentType>('1');

void log(session_events& events, const std::string& text) {
  events.OnLog(LogLevelDebug, text.c_str(), static_cast<int>(text.size()));
}

void send_quotes(session_events& events, int count) {
  KAVMarketDepthQuoteData quote{};
  for (int i = 0; i < count; ++i) events.OnQuote(k_type, &quote);
}

std::vector<std::string> texts(const std::vector<log_line>& lines) {
  std::vector<std::string> result;
  result.reserve(lines.size());
  for (const log_line& line : lines) result.push_back(line.text);
  return result;
}

TEST(session_events, every_change_ends_a_wait_for_one) {
  session_events events{4, when_full::drop_oldest};
  const std::uint64_t seen = events.changes();
  EXPECT_FALSE(events.wait_for_change(seen, steady::now() + 10ms));
  std::thread library([&] { events.OnLoginResult(false, "no"); });
  EXPECT_TRUE(events.wait_for_change(seen, steady::now() + k_patience));
  library.join();
  EXPECT_EQ(false, events.facts().login_accepted);
  EXPECT_EQ("no", events.facts().login_reason);
}

TEST(session_events, a_symbol_list_counts_when_it_is_complete) {
  session_events events{4, when_full::drop_oldest};
  events.OnSymbolList(k_type, "A", false);
  EXPECT_THAT(events.symbols(), IsEmpty());
  events.OnSymbolList(KavKqsIntrumentTypeNone, "", true);
  EXPECT_THAT(events.symbols(), ElementsAre(std::pair{std::string{"A"}, k_type}));
  EXPECT_EQ(1u, events.facts().symbol_lists);
  events.OnSymbolList(KavKqsIntrumentTypeNone, "", true);
  EXPECT_THAT(events.symbols(), IsEmpty());
}

TEST(session_events, registrations_are_as_the_server_answered_last) {
  session_events events{4, when_full::drop_oldest};
  EXPECT_EQ(registration::unknown, events.registration_of("A"));
  events.OnSymbolRegistered(k_type, "A", false);
  EXPECT_EQ(registration::refused, events.registration_of("A"));
  events.OnSymbolRegistered(k_type, "A", true);
  EXPECT_EQ(registration::registered, events.registration_of("A"));
  events.OnSymbolUnregistered(k_type, "A", false);
  EXPECT_EQ(registration::registered, events.registration_of("A"));
  events.OnSymbolUnregistered(k_type, "A", true);
  EXPECT_EQ(registration::unknown, events.registration_of("A"));
}

TEST(session_events, the_end_of_a_session_ends_its_quotes) {
  session_events lost{4, when_full::drop_oldest}, given_up{4, when_full::drop_oldest};
  lost.OnServerDisconnected();
  EXPECT_TRUE(lost.quotes().closed());
  log(given_up, "[QuoteClient] relogin failed, server ip: 127.0.0.1, port: 1.");
  EXPECT_FALSE(given_up.quotes().closed());
  log(given_up, "[QuoteClient] _th_kqc_send_and_reconn end");
  EXPECT_TRUE(given_up.quotes().closed());
  EXPECT_TRUE(given_up.facts().relogin_refused);
}

TEST(session_events, drops_are_told_at_most_once_a_second_and_all_in_the_end) {
  session_events events{4, when_full::drop_oldest};
  const auto begin = steady::now();
  send_quotes(events, 7);
  EXPECT_THAT(texts(events.take_log()), ElementsAre(HasSubstr("3 quotes dropped")));
  send_quotes(events, 5);
  log(events, "line");
  std::vector<std::string> later = texts(events.take_log());
  EXPECT_TRUE(later.size() == 1 || steady::now() - begin >= 1s) << later.back();
  EXPECT_EQ("line", later.front());
  events.end_log();
  const std::vector<std::string> rest = texts(events.take_log());
  later.insert(later.end(), rest.begin(), rest.end());
  EXPECT_THAT(later, ElementsAre("line", HasSubstr("8 since the beginning")));
  EXPECT_THAT(events.take_log(), IsEmpty());
}

TEST(session_events, drops_are_told_though_no_other_line_comes) {
  session_events events{4, when_full::drop_oldest};
  send_quotes(events, 7);
  events.take_log();
  send_quotes(events, 5);
  EXPECT_THAT(texts(events.take_log()), ElementsAre(HasSubstr("5 quotes dropped")));
}

TEST(session_events, log_lines_that_nobody_takes_are_counted) {
  session_events events{4, when_full::drop_oldest};
  for (int i = 0; i < 5000; ++i) log(events, std::to_string(i));
  const std::vector<log_line> lines = events.take_log();
  ASSERT_THAT(lines, SizeIs(4097));
  EXPECT_EQ("904", lines.front().text);
  EXPECT_EQ("904 log lines came too fast and are lost", lines.back().text);
  EXPECT_EQ(LogLevelWarning, lines.back().level);
}

}  // namespace
}  // namespace kav_python
