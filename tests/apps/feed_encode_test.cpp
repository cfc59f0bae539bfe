// The exchanges' datagrams: what a receiver reads out of them, and where each byte lies.
#include <gtest/gtest.h>

#include "apps/feed/encode.h"
#include "apps/feed/feed_list.h"
#include "feeds/exchange_id.h"
#include "feeds/multicast_decoder.h"
#include "tests/apps/feed_ticks.h"
#include "tests/support/recording_event.h"

namespace kav_feed_test {

using namespace kav_feed;

constexpr int k_rounds = 2000;

class last_quote : public kav_test::recording_event {
 public:
  void OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* quote) override { record = *quote; }
  KAVMarketDepthQuoteData record{};
};

// What a receiver's OnQuote() is given.
KAVMarketDepthQuoteData received(const datagram& made, const char* exchange) {
  last_quote event;
  multicast_decoder decoder;
  decoder.set_event(&event);
  const multicast_record kind =
      decoder.decode(made.bytes, static_cast<unsigned>(made.length), get_int_exchange_id(exchange));
  EXPECT_NE(multicast_record::ignored, kind);
  return event.record;
}

void clear_levels_2_to_5(KAVMarketDepthQuoteData& record) {
  constexpr std::size_t k_from = offsetof(KAVMarketDepthQuoteData, BidPrice2);
  constexpr std::size_t k_to = offsetof(KAVMarketDepthQuoteData, AveragePrice);
  std::memset(reinterpret_cast<char*>(&record) + k_from, 0, k_to - k_from);
}

void test_depth_feed(const char* exchange, datagram (*encode)(const KAVMarketDepthQuoteData&)) {
  random_ticks ticks{7};
  for (int i = 0; i < k_rounds; ++i) {
    const KAVMarketDepthQuoteData tick = ticks.next(exchange);
    KAVMarketDepthQuoteData expected = tick;
    put(expected.ExchangeID, "CFFEX");
    put(expected.ExchangeInstID, tick.InstrumentID);
    expected.AveragePrice = 0;
    ASSERT_EQ(bytes_of(expected), bytes_of(received(encode(tick), exchange)));
  }
}

TEST(feed_encode, shfe_and_ine_receivers_read_what_the_tick_said) {
  test_depth_feed("SHFE", encode_shfe);
  test_depth_feed("INE", encode_shfe);
}

TEST(feed_encode, cffex_receivers_read_what_the_tick_said) {
  test_depth_feed("CFFEX", encode_cffex);
}

TEST(feed_encode, czce_receivers_read_what_the_tick_said_but_the_time_of_day) {
  random_ticks ticks{8};
  for (int i = 0; i < k_rounds; ++i) {
    KAVMarketDepthQuoteData tick = ticks.next("CZCE");
    const bool sane_date = i % 2 == 0;
    if (sane_date) put(tick.TradingDay, "20240305");
    tick.TradingDay[4] = '0';  // the record's month and day are bytes
    tick.PreOpenInterest = ticks.whole();
    tick.OpenInterest = ticks.whole();
    tick.Turnover = ticks.whole();
    KAVMarketDepthQuoteData expected = tick;
    put(expected.ExchangeInstID, tick.InstrumentID);
    put(expected.UpdateTime, tick.TradingDay);
    expected.PreDelta = expected.CurrDelta = 0;
    clear_levels_2_to_5(expected);
    ASSERT_EQ(bytes_of(expected), bytes_of(received(encode_czce(tick), "CZCE")));
  }
}

TEST(feed_encode, gfex_receivers_read_what_the_tick_said_but_what_lies_behind_239_bytes) {
  random_ticks ticks{9};
  for (int i = 0; i < k_rounds; ++i) {
    KAVMarketDepthQuoteData tick = ticks.next("GFEX");
    tick.PreOpenInterest = ticks.whole();
    tick.OpenInterest = ticks.whole();
    KAVMarketDepthQuoteData expected = tick;
    put(expected.ExchangeInstID, tick.InstrumentID);
    expected.UpdateTime[7] = '\0';  // the last digit is byte 239
    expected.UpdateMillisec = 0;
    expected.OpenPrice = expected.ClosePrice = 0;
    expected.PreDelta = expected.CurrDelta = 0;
    clear_levels_2_to_5(expected);
    ASSERT_EQ(bytes_of(expected), bytes_of(received(encode_gfex(tick), "GFEX")));
  }
}

TEST(feed_encode, whole_numbers_are_rounded_and_held_at_what_32_bits_tell) {
  KAVMarketDepthQuoteData tick = tick_of("CZCE", "SR705");
  tick.Turnover = 1e12;
  tick.OpenInterest = -3;
  tick.PreOpenInterest = 7.6;
  const KAVMarketDepthQuoteData czce = received(encode_czce(tick), "CZCE");
  EXPECT_EQ(4294967295.0, double{czce.Turnover});
  EXPECT_EQ(0.0, double{czce.OpenInterest});
  EXPECT_EQ(8.0, double{czce.PreOpenInterest});
  tick.OpenInterest = std::numeric_limits<double>::quiet_NaN();
  tick.PreOpenInterest = std::numeric_limits<double>::infinity();
  const KAVMarketDepthQuoteData gfex = received(encode_gfex(tick), "GFEX");
  EXPECT_EQ(0.0, double{gfex.OpenInterest});
  EXPECT_EQ(4294967295.0, double{gfex.PreOpenInterest});
}

TEST(feed_encode, texts_that_are_too_long_or_never_end_are_cut) {
  KAVMarketDepthQuoteData tick{};
  std::memset(&tick, 'x', offsetof(KAVMarketDepthQuoteData, LastPrice));
  std::memset(tick.UpdateTime, '1', sizeof(tick.UpdateTime));
  EXPECT_EQ(std::string(30, 'x'), received(encode_shfe(tick), "SHFE").InstrumentID);
  EXPECT_EQ(std::string(8, '1'), received(encode_shfe(tick), "SHFE").UpdateTime);
  EXPECT_EQ(std::string(22, 'x'), received(encode_czce(tick), "CZCE").InstrumentID);
  EXPECT_STREQ("00000000", received(encode_czce(tick), "CZCE").TradingDay);
  EXPECT_EQ(std::string(30, 'x'), received(encode_gfex(tick), "GFEX").InstrumentID);
}

KAVMarketDepthQuoteData written_by_hand() {
  KAVMarketDepthQuoteData tick = tick_of("SHFE", "cu2702");
  tick.LastPrice = 1.5;
  tick.PreSettlementPrice = 2.5;
  tick.PreClosePrice = 3.5;
  tick.PreOpenInterest = 4;
  tick.OpenPrice = 5.5;
  tick.HighestPrice = 6.5;
  tick.LowestPrice = 7.5;
  tick.Volume = 8;
  tick.Turnover = 9;
  tick.OpenInterest = 10;
  tick.ClosePrice = 11.5;
  tick.SettlementPrice = 12.5;
  tick.UpperLimitPrice = 13.5;
  tick.LowerLimitPrice = 14.5;
  tick.PreDelta = 15.5;
  tick.CurrDelta = 16.5;
  tick.UpdateMillisec = 250;
  tick.BidPrice1 = 17.5;
  tick.BidVolume1 = 18;
  tick.AskPrice1 = 19.5;
  tick.AskVolume1 = 20;
  tick.BidPrice5 = 21.5;
  tick.AskVolume5 = 22;
  tick.AveragePrice = 23.5;
  return tick;
}

void expect_depth_bytes(const datagram& made) {
  EXPECT_STREQ("20261201", made.bytes);
  for (std::size_t i = 0; i < 4; ++i) {  // last price, previous settlement, close, open interest
    EXPECT_EQ(i == 3 ? 4.0 : 1.5 + static_cast<double>(i), at<double>(made, 24 + 8 * i));
  }
  EXPECT_EQ(5.5, at<double>(made, 56));
  EXPECT_EQ(6.5, at<double>(made, 64));
  EXPECT_EQ(7.5, at<double>(made, 72));
  EXPECT_EQ(8, at<std::int32_t>(made, 80));
  EXPECT_EQ(9.0, at<double>(made, 88));
  EXPECT_EQ(10.0, at<double>(made, 96));
  EXPECT_EQ(11.5, at<double>(made, 104));
  EXPECT_EQ(12.5, at<double>(made, 112));
  EXPECT_EQ(13.5, at<double>(made, 120));
  EXPECT_EQ(14.5, at<double>(made, 128));
  EXPECT_EQ(15.5, at<double>(made, 136));
  EXPECT_EQ(16.5, at<double>(made, 144));
  EXPECT_STREQ("09:30:01", made.bytes + 152);
  EXPECT_EQ(250, at<std::int32_t>(made, 164));
  EXPECT_STREQ("cu2702", made.bytes + 168);
  EXPECT_EQ(17.5, at<double>(made, 200));
  EXPECT_EQ(18, at<std::int32_t>(made, 208));
  EXPECT_EQ(19.5, at<double>(made, 216));
  EXPECT_EQ(20, at<std::int32_t>(made, 224));
  EXPECT_EQ(21.5, at<double>(made, 328));
  EXPECT_EQ(22, at<std::int32_t>(made, 352));
}

TEST(feed_encode, every_byte_of_an_shfe_and_a_cffex_datagram_has_its_place) {
  const datagram shfe = encode_shfe(written_by_hand());
  EXPECT_EQ(368u, shfe.length);
  expect_depth_bytes(shfe);
  EXPECT_EQ(std::string(12, '\0'), bytes_of(shfe).substr(356));
  const datagram cffex = encode_cffex(written_by_hand());
  EXPECT_EQ(360u, cffex.length);
  expect_depth_bytes(cffex);
}

TEST(feed_encode, every_byte_of_a_czce_datagram_has_its_place) {
  const datagram made = encode_czce(written_by_hand());
  EXPECT_EQ(239u, made.length);
  EXPECT_STREQ("cu2702", made.bytes);
  EXPECT_EQ(3.5, at<double>(made, 23));
  EXPECT_EQ(2.5, at<double>(made, 31));
  EXPECT_EQ(4u, at<std::uint32_t>(made, 39));
  EXPECT_EQ(5.5, at<double>(made, 43));
  EXPECT_EQ(17.5, at<double>(made, 51));
  EXPECT_EQ(18u, at<std::uint32_t>(made, 59));
  EXPECT_EQ(19.5, at<double>(made, 63));
  EXPECT_EQ(20u, at<std::uint32_t>(made, 71));
  EXPECT_EQ(1.5, at<double>(made, 75));
  EXPECT_EQ(9u, at<std::uint32_t>(made, 91));
  EXPECT_EQ(10u, at<std::uint32_t>(made, 95));
  EXPECT_EQ(6.5, at<double>(made, 99));
  EXPECT_EQ(7.5, at<double>(made, 107));
  EXPECT_EQ(11.5, at<double>(made, 115));
  EXPECT_EQ(12.5, at<double>(made, 131));
  EXPECT_EQ(23.5, at<double>(made, 139));
  EXPECT_EQ(13.5, at<double>(made, 163));
  EXPECT_EQ(14.5, at<double>(made, 171));
  EXPECT_EQ(2026, at<std::uint16_t>(made, 183));
  EXPECT_EQ(12, at<std::uint8_t>(made, 185));
  EXPECT_EQ(1, at<std::uint8_t>(made, 186));
  EXPECT_EQ(250u, at<std::uint32_t>(made, 190));
  EXPECT_EQ(8u, at<std::uint32_t>(made, 204));
}

TEST(feed_encode, every_byte_of_a_gfex_datagram_has_its_place) {
  const datagram made = encode_gfex(written_by_hand());
  EXPECT_EQ(239u, made.length);
  EXPECT_STREQ("20261201", made.bytes);
  EXPECT_STREQ("cu2702", made.bytes + 9);
  EXPECT_EQ(1.5, at<double>(made, 80));
  EXPECT_EQ(6.5, at<double>(made, 88));
  EXPECT_EQ(7.5, at<double>(made, 96));
  EXPECT_EQ(8, at<std::int32_t>(made, 108));
  EXPECT_EQ(9.0, at<double>(made, 112));
  EXPECT_EQ(4u, at<std::uint32_t>(made, 120));
  EXPECT_EQ(10u, at<std::uint32_t>(made, 124));
  EXPECT_EQ(12.5, at<double>(made, 136));
  EXPECT_EQ(13.5, at<double>(made, 160));
  EXPECT_EQ(14.5, at<double>(made, 168));
  EXPECT_EQ(2.5, at<double>(made, 176));
  EXPECT_EQ(3.5, at<double>(made, 184));
  EXPECT_EQ(17.5, at<double>(made, 192));
  EXPECT_EQ(18, at<std::int32_t>(made, 200));
  EXPECT_EQ(19.5, at<double>(made, 208));
  EXPECT_EQ(20, at<std::int32_t>(made, 216));
  EXPECT_EQ(23.5, at<double>(made, 224));
  EXPECT_EQ("09:30:0", bytes_of(made).substr(232));
}

TEST(feed_list, an_exchange_has_its_own_feed_and_some_are_in_lumen_too) {
  const auto feed_of = [](const char* exchange) { return exchange_feed(tick_of(exchange, "x")); };
  EXPECT_EQ(feed::shfe, feed_of("SHFE"));
  EXPECT_EQ(feed::ine, feed_of("INE"));
  EXPECT_EQ(feed::cffex, feed_of("CFFEX"));
  EXPECT_EQ(feed::czce, feed_of("CZCE"));
  EXPECT_EQ(feed::gfex, feed_of("GFEX"));
  for (const char* none : {"DCE", "SGE", "SHZ", "LUMEN", "shfe", ""}) {
    EXPECT_EQ(std::nullopt, feed_of(none)) << none;
  }
  std::string in;
  for (const feed which : k_all_feeds) in += in_lumen(which) ? name_of(which) : "-";
  EXPECT_EQ("SHFECFFEX---INE", in);
}

TEST(feed_list, groups_are_read_and_bad_ones_are_told) {
  std::string error, all;
  for (const feed_group& group : default_groups()) all += text_of(group) + "\n";
  EXPECT_EQ(
      "SHFE 239.255.10.1:30001\nCFFEX 239.255.10.2:30002\nCZCE 239.255.10.3:30003\n"
      "GFEX 239.255.10.4:30004\nLUMEN 239.255.10.5:30005\nINE 239.255.10.6:30006\n",
      all);
  const auto group = parse_group("LUMEN=224.0.0.1:65535", error);
  ASSERT_TRUE(group);
  EXPECT_EQ("LUMEN 224.0.0.1:65535", text_of(*group));
  for (const char* bad :
       {"", "SHFE", "SHFE=", "SHFE=239.1.1.1", "SHFE=239.1.1.1:", "SHFE=239.1.1.1:0",
        "SHFE=239.1.1.1:65536", "SHFE=239.1.1.1:1x", "SHFE=239.1.1.1:-1", "SHFE=240.1.1.1:1",
        "SHFE=223.1.1.1:1", "SHFE=239.1.1:1", "SHFE=here:1", "DCE=239.1.1.1:1", "=239.1.1.1:1",
        "a:1=b"}) {
    error.clear();
    EXPECT_FALSE(parse_group(bad, error)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }
}

}  // namespace kav_feed_test
