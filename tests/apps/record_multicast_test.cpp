// kav-record with multicast groups, alone and together with the simulator's server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>     // std::map
#include <string>  // std::string
#include <vector>  // std::vector

#include "apps/sim/tick_file.h"
#include "apps/watch/quote_format.h"
#include "record_files.h"
#include "watch_multicast.h"
#include "watch_server.h"

namespace kav_record_test {
namespace {

using kav_watch_test::child_options;
using kav_watch_test::child_process;
using kav_watch_test::multicast_sender;
using kav_watch_test::shfe_record;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class record_multicast_test : public kav_watch_test::watch_server_test {
 protected:
  // No password, no server: nothing but the group.
  child_options group_alone(const std::string& exchange, std::vector<std::string> arguments) const {
    child_options options;
    options.arguments = std::move(arguments);
    options.environment_password.reset();
    options.arguments.insert(options.arguments.end(), {"--multicast", m_feed.argument(exchange),
                                                       "--output", m_folder.path()});
    return options;
  }

  // What a replay of the file would send.
  std::vector<kav_sim::tick> replayed(const std::string& name) const {
    std::vector<kav_sim::tick> ticks;
    std::string error;
    EXPECT_TRUE(kav_sim::read_tick_file(m_folder / name, ticks, error)) << error;
    return ticks;
  }

  const multicast_sender m_feed;
  test_folder m_folder;
};

TEST_F(record_multicast_test, quotes_of_a_group_are_recorded_without_a_session) {
  constexpr int k_quotes = 50;
  child_process child{group_alone("SHFE", {"--count", std::to_string(k_quotes), "rb2510"})};
  ASSERT_TRUE(m_feed.wait_joined());
  for (int i = 0; i < k_quotes; ++i) {
    ASSERT_TRUE(m_feed.send(shfe_record("au2512", i)));  // not named
    ASSERT_TRUE(m_feed.send(shfe_record("rb2510", i)));
  }
  EXPECT_EQ(0, child.wait()) << child.errors();
  EXPECT_THAT(m_folder.names(), ElementsAre("quotes-20250901.csv.gz"));
  const std::vector<kav_sim::tick> ticks = replayed("quotes-20250901.csv.gz");
  ASSERT_EQ(static_cast<std::size_t>(k_quotes), ticks.size());
  for (int i = 0; i < k_quotes; ++i) {
    const KAVMarketDepthQuoteData& quote = ticks[static_cast<std::size_t>(i)].record;
    EXPECT_EQ("rb2510", kav_watch::field_text(quote.InstrumentID));
    EXPECT_EQ("21:00:01", kav_watch::field_text(quote.UpdateTime));
    EXPECT_EQ(3120.5, quote.LastPrice);
    EXPECT_EQ(i, quote.Volume);
  }
  EXPECT_EQ(0u, m_server.connections().ever);
}

TEST_F(record_multicast_test, quotes_that_name_no_trading_day_lie_apart) {
  child_process child{group_alone("LUMEN", {"--count", "2"})};
  ASSERT_TRUE(m_feed.wait_joined());
  ASSERT_TRUE(m_feed.send(kav_watch_test::tick_of("au2512", 781.25, 3)));
  ASSERT_TRUE(m_feed.send(kav_watch_test::tick_of("au2512", 782.25, 4)));
  EXPECT_EQ(0, child.wait()) << child.errors();
  ASSERT_THAT(m_folder.names(), ElementsAre(testing::ContainsRegex(
                                    "^quotes-20[0-9][0-9][01][0-9][0-3][0-9]-odd\\.csv\\.gz$")));
  const std::string text = unpacked(m_folder / m_folder.names().front());
  EXPECT_THAT(kav_watch_test::split_lines(text),
              ElementsAre(StartsWith("TradingDay,InstrumentID,"),
                          AllOf(StartsWith(",au2512,"), HasSubstr(",781.25,")),
                          AllOf(StartsWith(",au2512,"), HasSubstr(",782.25,"))));
}

TEST_F(record_multicast_test, quotes_of_a_server_and_of_a_group_lie_in_one_file) {
  child_process child{options_for({"--multicast", m_feed.argument("SHFE"), "--output",
                                   m_folder.path(), "--count", "40", "rb2510", "IF2509"})};
  ASSERT_TRUE(wait_registered("IF2509") && m_feed.wait_joined());
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(push("IF2509", i));
    ASSERT_TRUE(m_feed.send(shfe_record("rb2510", i)));
  }
  EXPECT_EQ(0, child.wait()) << child.errors();
  std::map<std::string, int> next;
  for (const kav_sim::tick& tick : replayed("quotes-20250901.csv.gz")) {
    EXPECT_EQ(next[std::string{kav_watch::field_text(tick.record.InstrumentID)}]++,
              tick.record.Volume);
  }
  EXPECT_EQ((std::map<std::string, int>{{"IF2509", 20}, {"rb2510", 20}}), next);
}

TEST_F(record_multicast_test, a_group_that_cannot_be_received_ends_it_with_10) {
  const kav_watch_test::taken_port taken{m_feed.port()};
  child_process child{group_alone("SHFE", {})};
  EXPECT_EQ(10, child.wait()) << child.errors();
  EXPECT_THAT(child.errors(), StartsWith("kav-record: "));
  EXPECT_EQ(1u, kav_watch_test::split_lines(child.errors()).size()) << child.errors();
  EXPECT_THAT(m_folder.names(), testing::IsEmpty());
}

}  // namespace
}  // namespace kav_record_test
