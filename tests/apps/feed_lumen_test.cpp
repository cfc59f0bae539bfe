// The lumen datagrams: what a receiver has merged after each tick.
#include <gtest/gtest.h>

#include <map>  // std::map

#include "apps/feed/lumen_encoder.h"
#include "feeds/exchange_id.h"
#include "feeds/multicast_decoder.h"
#include "tests/apps/feed_ticks.h"
#include "tests/support/recording_event.h"

namespace kav_feed_test {

using namespace kav_feed;

// A receiver that merges.
class merged_quote : public kav_test::recording_event {
 public:
  merged_quote() { m_decoder.set_event(this); }
  void OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* quote) override { record = *quote; }
  void take(const std::vector<datagram>& all) {
    for (const datagram& made : all) {
      const auto length = static_cast<unsigned>(made.length);
      ASSERT_NE(multicast_record::ignored, m_decoder.decode(made.bytes, length, 0));
    }
  }
  KAVMarketDepthQuoteData record{};

 private:
  multicast_decoder m_decoder;
};

class feed_lumen_test : public testing::Test {
 protected:
  const std::vector<datagram>& encode(const KAVMarketDepthQuoteData& tick) {
    m_out.clear();
    m_encoder.encode(tick, m_out);
    return m_out;
  }
  // Lengths and flags: "120 108:3".
  std::string shape(const KAVMarketDepthQuoteData& tick) {
    std::string result;
    for (const datagram& made : encode(tick)) {
      result += (result.empty() ? "" : " ") + std::to_string(made.length);
      if (made.length == 108) result += ":" + std::to_string(made.bytes[55]);
    }
    return result;
  }

  lumen_encoder m_encoder;
  std::vector<datagram> m_out;
};

constexpr auto k_receivers_limit = 9999999999999.9;

void merge(double& field, double value) {
  if (value > 0 && value < k_receivers_limit) field = value;
}

// A tick's values over what the receiver had.
KAVMarketDepthQuoteData merged(KAVMarketDepthQuoteData before,
                               const KAVMarketDepthQuoteData& tick) {
  std::memcpy(before.InstrumentID, tick.InstrumentID, sizeof(tick.InstrumentID));
  std::memcpy(before.ExchangeInstID, tick.InstrumentID, sizeof(tick.InstrumentID));
  put(before.ExchangeID, std::string{tick.ExchangeID} == "CFFEX" ? "CFFEX" : "SHFE");
  std::memcpy(before.UpdateTime, tick.UpdateTime, sizeof(tick.UpdateTime));
  before.UpdateMillisec = tick.UpdateMillisec;
  before.Volume = tick.Volume;
  before.BidVolume1 = tick.BidVolume1;
  before.AskVolume1 = tick.AskVolume1;
  constexpr std::size_t k_prices[] = {offsetof(KAVMarketDepthQuoteData, LastPrice),
                                      offsetof(KAVMarketDepthQuoteData, Turnover),
                                      offsetof(KAVMarketDepthQuoteData, OpenInterest),
                                      offsetof(KAVMarketDepthQuoteData, BidPrice1),
                                      offsetof(KAVMarketDepthQuoteData, AskPrice1),
                                      offsetof(KAVMarketDepthQuoteData, OpenPrice),
                                      offsetof(KAVMarketDepthQuoteData, HighestPrice),
                                      offsetof(KAVMarketDepthQuoteData, LowestPrice),
                                      offsetof(KAVMarketDepthQuoteData, ClosePrice),
                                      offsetof(KAVMarketDepthQuoteData, UpperLimitPrice),
                                      offsetof(KAVMarketDepthQuoteData, LowerLimitPrice),
                                      offsetof(KAVMarketDepthQuoteData, SettlementPrice),
                                      offsetof(KAVMarketDepthQuoteData, CurrDelta)};
  for (const std::size_t offset : k_prices) {
    double held = 0, said = 0;
    std::memcpy(&held, reinterpret_cast<const char*>(&before) + offset, sizeof(held));
    std::memcpy(&said, reinterpret_cast<const char*>(&tick) + offset, sizeof(said));
    merge(held, said);
    std::memcpy(reinterpret_cast<char*>(&before) + offset, &held, sizeof(held));
  }
  return before;
}

KAVMarketDepthQuoteData random_tick(random_ticks& random) {
  const char* const exchanges[] = {"SHFE", "INE", "CFFEX"};
  const std::uint64_t symbol = random.below(12);
  KAVMarketDepthQuoteData tick = random.next(exchanges[symbol % 3]);
  put(tick.InstrumentID, "symbol" + std::to_string(symbol));
  tick.LastPrice = random.lumen_value();
  tick.Turnover = random.lumen_value();
  tick.OpenInterest = random.lumen_value();
  tick.BidPrice1 = random.lumen_value();
  tick.AskPrice1 = random.lumen_value();
  if (random.below(3) == 0) tick.Volume = static_cast<std::int32_t>(random.below(3));
  // The values of the summary: mostly those of the day so far.
  const bool fresh = random.below(4) == 0;
  tick.OpenPrice = fresh ? random.lumen_value() : 1;
  tick.HighestPrice = fresh ? random.lumen_value() : 2;
  tick.LowestPrice = fresh ? random.lumen_value() : 3;
  tick.ClosePrice = fresh ? random.lumen_value() : 4;
  tick.UpperLimitPrice = fresh ? random.lumen_value() : 5;
  tick.LowerLimitPrice = fresh ? random.lumen_value() : 6;
  tick.SettlementPrice = fresh ? random.lumen_value() : 7;
  tick.CurrDelta = fresh ? random.lumen_value() : 8;
  return tick;
}

TEST_F(feed_lumen_test, receivers_have_merged_what_the_tick_said_wherever_it_can_be_told) {
  random_ticks random{11};
  merged_quote receiver;
  std::map<std::string, KAVMarketDepthQuoteData> expected;
  for (int i = 0; i < 20000; ++i) {
    const KAVMarketDepthQuoteData tick = random_tick(random);
    KAVMarketDepthQuoteData& held = expected[tick.InstrumentID];
    held = merged(held, tick);
    receiver.take(encode(tick));
    ASSERT_EQ(bytes_of(held), bytes_of(receiver.record)) << i;
  }
}

TEST_F(feed_lumen_test, a_summary_comes_first_and_whenever_one_of_its_values_has_changed) {
  KAVMarketDepthQuoteData tick = tick_of("SHFE", "cu2702");
  tick.LastPrice = 5;
  tick.Volume = 10;
  EXPECT_EQ("120 108:3", shape(tick));
  EXPECT_EQ("108:2", shape(tick));
  const auto expect_summary = [&] {
    EXPECT_EQ("120 108:2", shape(tick));
    EXPECT_EQ("108:2", shape(tick));
  };
  tick.OpenPrice = 1, expect_summary();
  tick.HighestPrice = 1, expect_summary();
  tick.LowestPrice = 1, expect_summary();
  tick.ClosePrice = 1, expect_summary();
  tick.UpperLimitPrice = 1, expect_summary();
  tick.LowerLimitPrice = 1, expect_summary();
  tick.SettlementPrice = 1, expect_summary();
  tick.CurrDelta = 1, expect_summary();
  EXPECT_EQ("120 108:3", [&] {
    KAVMarketDepthQuoteData other = tick;
    put(other.InstrumentID, "ag2702");
    return shape(other);
  }());
}

TEST_F(feed_lumen_test, the_volume_is_that_of_the_trade_and_without_one_only_the_book_is_told) {
  KAVMarketDepthQuoteData tick = tick_of("CFFEX", "IF2612");
  tick.LastPrice = 5;
  tick.Volume = 10;
  EXPECT_EQ(10, at<std::int32_t>(encode(tick).back(), 64));
  tick.Volume = 17;
  EXPECT_EQ("108:3", shape(tick));
  EXPECT_EQ(0, at<std::int32_t>(encode(tick).back(), 64));
  tick.Volume = 2;  // a replay began again
  EXPECT_EQ(-15, at<std::int32_t>(encode(tick).back(), 64));
  tick.LastPrice = 6;
  EXPECT_EQ("108:3", shape(tick)) << "a new price without a volume";
  tick.BidPrice1 = 4;
  EXPECT_EQ("108:2", shape(tick));
  tick.LastPrice = 0;
  EXPECT_EQ("108:2", shape(tick)) << "no price that could be told";
}

TEST_F(feed_lumen_test, every_byte_of_a_tick_and_a_summary_has_its_place) {
  KAVMarketDepthQuoteData tick = tick_of("INE", "sc2702");
  tick.UpdateMillisec = 500;
  tick.LastPrice = 1.5;
  tick.Volume = 2;
  tick.Turnover = 3.5;
  tick.OpenInterest = 4.5;
  tick.BidPrice1 = 5.5;
  tick.BidVolume1 = 6;
  tick.AskPrice1 = 7.5;
  tick.AskVolume1 = 8;
  tick.OpenPrice = 10;
  tick.HighestPrice = 11;
  tick.LowestPrice = 12;
  tick.ClosePrice = 13;
  tick.UpperLimitPrice = 14;
  tick.LowerLimitPrice = 15;
  tick.SettlementPrice = 16;
  tick.CurrDelta = 17;
  const std::vector<datagram>& made = encode(tick);
  ASSERT_EQ(2u, made.size());
  EXPECT_EQ(120u, made[0].length);
  EXPECT_EQ(108u, made[1].length);
  for (const datagram& each : made) {
    EXPECT_EQ(1, each.bytes[4]);
    EXPECT_STREQ("sc2702", each.bytes + 11);
    EXPECT_STREQ("09:30:01", each.bytes + 42);
    EXPECT_EQ(500, at<std::int32_t>(each, 51));
  }
  for (std::size_t i = 0; i < 8; ++i) {
    EXPECT_EQ(10.0 + static_cast<double>(i), at<double>(made[0], 56 + 8 * i));
  }
  EXPECT_EQ(3, made[1].bytes[55]);
  EXPECT_EQ(1.5, at<double>(made[1], 56));
  EXPECT_EQ(2, at<std::int32_t>(made[1], 64));
  EXPECT_EQ(3.5, at<double>(made[1], 68));
  EXPECT_EQ(4.5, at<double>(made[1], 76));
  EXPECT_EQ(5.5, at<double>(made[1], 84));
  EXPECT_EQ(6, at<std::int32_t>(made[1], 92));
  EXPECT_EQ(7.5, at<double>(made[1], 96));
  EXPECT_EQ(8, at<std::int32_t>(made[1], 104));
  EXPECT_EQ(0, encode(tick_of("CFFEX", "IF2612")).front().bytes[4]);
}

}  // namespace kav_feed_test
