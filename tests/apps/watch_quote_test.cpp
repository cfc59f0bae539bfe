#include <gtest/gtest.h>

#include <cstring>  // std::memset, std::strcpy
#include <limits>   // std::numeric_limits
#include <string>   // std::string

#include "apps/watch/quote_format.h"

namespace kav_watch {
namespace {

constexpr double k_infinity = std::numeric_limits<double>::infinity();

using appender = void (*)(fmt::memory_buffer&, const KAVMarketDepthQuoteData&);

std::string line(appender append, const KAVMarketDepthQuoteData& quote) {
  fmt::memory_buffer out;
  append(out, quote);
  return fmt::to_string(out);
}

KAVMarketDepthQuoteData sample() {
  KAVMarketDepthQuoteData quote{};
  std::strcpy(quote.TradingDay, "20250901");
  std::strcpy(quote.InstrumentID, "IF2509");
  std::strcpy(quote.ExchangeID, "CFFEX");
  std::strcpy(quote.UpdateTime, "10:15:03");
  quote.UpdateMillisec = 5;
  quote.LastPrice = 3500.2;
  quote.PreSettlementPrice = 3488.0;
  quote.BidPrice1 = 3500.0;
  quote.BidVolume1 = 12;
  quote.AskPrice1 = 3500.4;
  quote.AskVolume1 = 7;
  quote.Volume = 12345;
  quote.OpenInterest = 98765;
  return quote;
}

TEST(watch_quote, csv_header_names_the_columns_in_their_fixed_order) {
  fmt::memory_buffer out;
  append_csv_header(out);
  EXPECT_EQ(
      "TradingDay,InstrumentID,ExchangeID,LastPrice,PreSettlementPrice,PreClosePrice,"
      "PreOpenInterest,OpenPrice,HighestPrice,LowestPrice,Volume,Turnover,OpenInterest,"
      "UpperLimitPrice,LowerLimitPrice,UpdateTime,UpdateMillisec,"
      "BidPrice1,BidVolume1,AskPrice1,AskVolume1,BidPrice2,BidVolume2,AskPrice2,AskVolume2,"
      "BidPrice3,BidVolume3,AskPrice3,AskVolume3,BidPrice4,BidVolume4,AskPrice4,AskVolume4,"
      "BidPrice5,BidVolume5,AskPrice5,AskVolume5,"
      "ClosePrice,SettlementPrice,PreDelta,CurrDelta,AveragePrice,ExchangeInstID\n",
      fmt::to_string(out));
}

TEST(watch_quote, csv_line_holds_the_shortest_numbers_that_read_back) {
  KAVMarketDepthQuoteData quote = sample();
  quote.Turnover = 1e22;
  quote.AveragePrice = 0.1;
  quote.PreDelta = -0.0;
  quote.CurrDelta = 5e-324;
  std::strcpy(quote.ExchangeInstID, "a,\"b\"");
  EXPECT_EQ(
      "20250901,IF2509,CFFEX,3500.2,3488,0,0,0,0,0,12345,1e+22,98765,0,0,10:15:03,5,"
      "3500,12,3500.4,7,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,-0,5e-324,0.1,\"a,\"\"b\"\"\"\n",
      line(append_csv, quote));
}

TEST(watch_quote, json_line_is_one_object_with_all_fields) {
  const std::string text = line(append_json, sample());
  EXPECT_TRUE(text.starts_with(R"({"TradingDay":"20250901","InstrumentID":"IF2509",)"));
  EXPECT_NE(std::string::npos, text.find(R"("LastPrice":3500.2,"PreSettlementPrice":3488,)"));
  EXPECT_TRUE(text.ends_with(R"("AveragePrice":0,"ExchangeInstID":""})"
                             "\n"));
}

TEST(watch_quote, json_numbers_that_json_cannot_hold_are_null) {
  KAVMarketDepthQuoteData quote = sample();
  quote.LastPrice = std::numeric_limits<double>::quiet_NaN();
  quote.BidPrice1 = k_infinity;
  quote.AskPrice1 = -k_infinity;
  const std::string text = line(append_json, quote);
  EXPECT_NE(std::string::npos, text.find(R"("LastPrice":null,)"));
  EXPECT_NE(std::string::npos, text.find(R"("BidPrice1":null,)"));
  EXPECT_NE(std::string::npos, text.find(R"("AskPrice1":null,)"));
  EXPECT_EQ(std::string::npos, text.find("inf"));
}

TEST(watch_quote, texts_without_nul_end_with_their_field) {
  KAVMarketDepthQuoteData quote{};
  std::memset(&quote, 'x', sizeof(quote));
  const std::string text = line(append_csv, quote);
  EXPECT_TRUE(text.starts_with("xxxxxxxxx," + std::string(31, 'x') + ",xxxxxxxxx,"));
  EXPECT_TRUE(text.ends_with("," + std::string(31, 'x') + "\n"));
}

TEST(watch_quote, plain_line_is_for_people) {
  EXPECT_EQ(
      "10:15:03.005 IF2509     CFFEX  last    3500.2    +12.2   +0.35%  bid      3500 x 12    "
      "ask    3500.4 x 7     volume    12345 open interest    98765\n",
      line(append_plain, sample()));
}

TEST(watch_quote, plain_line_shows_a_dash_where_there_is_no_value) {
  const std::string text = line(append_plain, KAVMarketDepthQuoteData{});
  EXPECT_TRUE(text.starts_with("-            "));
  EXPECT_NE(std::string::npos, text.find("last         -        -        -  bid         - x 0"));
}

TEST(watch_quote, plain_line_cannot_move_the_cursor) {
  KAVMarketDepthQuoteData quote = sample();
  std::strcpy(quote.InstrumentID, "a\x1B[2J\n");
  const std::string text = line(append_plain, quote);
  EXPECT_EQ(std::string::npos, text.find('\x1B'));
  EXPECT_EQ(text.size() - 1, text.find('\n'));
}

TEST(watch_quote, change_needs_both_prices) {
  KAVMarketDepthQuoteData quote = sample();
  EXPECT_EQ("+12.2", change_text(change_of(quote)));
  EXPECT_EQ("+0.35%", percent_text(change_of(quote)));
  quote.LastPrice = 3400;
  EXPECT_EQ("-88", change_text(change_of(quote)));
  quote.PreSettlementPrice = 0;
  EXPECT_EQ("-", change_text(change_of(quote)));
  EXPECT_EQ("-", percent_text(change_of(quote)));
  quote.PreSettlementPrice = NAN;
  EXPECT_FALSE(change_of(quote).known);
}

TEST(watch_quote, price_text_hides_what_is_no_price) {
  EXPECT_EQ("3500.2", price_text(3500.2));
  EXPECT_EQ("-0.5", price_text(-0.5));
  EXPECT_EQ("-", price_text(0));
  EXPECT_EQ("-", price_text(NAN));
  EXPECT_EQ("-", price_text(INFINITY));
}

TEST(watch_quote, types_are_characters_where_they_can_be) {
  EXPECT_EQ("1", type_text(static_cast<KavKqsIntrumentType>('1')));
  EXPECT_EQ("7", type_text(static_cast<KavKqsIntrumentType>(7)));
  EXPECT_EQ("-3", type_text(static_cast<KavKqsIntrumentType>(-3)));
}

}  // namespace
}  // namespace kav_watch
