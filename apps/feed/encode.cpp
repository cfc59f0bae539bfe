#include "apps/feed/encode.h"

#include <cmath>    // std::nearbyint
#include <cstdint>  // std::uint32_t
#include <limits>   // std::numeric_limits

#include "apps/feed/field_values.h"

namespace kav_feed {

namespace {

constexpr std::size_t k_level_count = 5;
constexpr std::size_t k_level_bytes = 24;  // price and volume of bid and ask, in a quote record
static_assert(offsetof(KAVMarketDepthQuoteData, BidPrice5) ==
                  offsetof(KAVMarketDepthQuoteData, BidPrice1) +
                      (k_level_count - 1) * k_level_bytes,
              "levels follow one another");

// ---- SHFE, INE and CFFEX.

void fill_levels(const KAVMarketDepthQuoteData& tick, ftdc_depth_market_data& record) {
  std::size_t at = offsetof(KAVMarketDepthQuoteData, BidPrice1);
  for (ftdc_depth_level& level : record.Levels) {
    level.BidPrice = read_le<double>(&tick, at);
    level.BidVolume = read_le<std::int32_t>(&tick, at + 8);
    level.AskPrice = read_le<double>(&tick, at + 12);
    level.AskVolume = read_le<std::int32_t>(&tick, at + 20);
    at += k_level_bytes;
  }
}

void fill_ftdc(const KAVMarketDepthQuoteData& tick, ftdc_depth_market_data& record) {
  put_text(record.TradingDay, tick.TradingDay);
  put_text(record.InstrumentID, tick.InstrumentID);
  put_text(record.UpdateTime, tick.UpdateTime);
  record.LastPrice = tick.LastPrice;
  record.PreSettlementPrice = tick.PreSettlementPrice;
  record.PreClosePrice = tick.PreClosePrice;
  record.PreOpenInterest = tick.PreOpenInterest;
  record.OpenPrice = tick.OpenPrice;
  record.HighestPrice = tick.HighestPrice;
  record.LowestPrice = tick.LowestPrice;
  record.Volume = tick.Volume;
  record.Turnover = tick.Turnover;
  record.OpenInterest = tick.OpenInterest;
  record.ClosePrice = tick.ClosePrice;
  record.SettlementPrice = tick.SettlementPrice;
  record.UpperLimitPrice = tick.UpperLimitPrice;
  record.LowerLimitPrice = tick.LowerLimitPrice;
  record.PreDelta = tick.PreDelta;
  record.CurrDelta = tick.CurrDelta;
  record.UpdateMillisec = tick.UpdateMillisec;
  fill_levels(tick, record);
}

// ---- CZCE and GFEX.

// The nearest whole number that 32 bits hold; 0 for NaN.
std::uint32_t whole(double value) {
  constexpr double k_most = std::numeric_limits<std::uint32_t>::max();
  if (!(value > 0)) return 0;
  return value >= k_most ? std::numeric_limits<std::uint32_t>::max()
                         : static_cast<std::uint32_t>(std::nearbyint(value));
}

// `count` digits from `at`; 0 when one of them is none.
unsigned digits(const char (&text)[9], std::size_t at, std::size_t count) {
  unsigned value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return 0;
    value = value * 10 + static_cast<unsigned>(text[i] - '0');
  }
  return value;
}

void fill_date(const KAVMarketDepthQuoteData& tick, MarketMatchData& record) {
  record.Year = static_cast<std::uint16_t>(digits(tick.TradingDay, 0, 4));
  record.Month = static_cast<std::uint8_t>(digits(tick.TradingDay, 4, 2));
  record.Day = static_cast<std::uint8_t>(digits(tick.TradingDay, 6, 2));
  record.UpdateMillisec = static_cast<std::uint32_t>(tick.UpdateMillisec);
}

// What the two records have in common, each at its own place.
template <class RECORD>
void fill_prices(const KAVMarketDepthQuoteData& tick, RECORD& record) {
  record.LastPrice = tick.LastPrice;
  record.PreSettlementPrice = tick.PreSettlementPrice;
  record.PreClosePrice = tick.PreClosePrice;
  record.HighestPrice = tick.HighestPrice;
  record.LowestPrice = tick.LowestPrice;
  record.SettlementPrice = tick.SettlementPrice;
  record.UpperLimitPrice = tick.UpperLimitPrice;
  record.LowerLimitPrice = tick.LowerLimitPrice;
  record.AveragePrice = tick.AveragePrice;
  record.BidPrice1 = tick.BidPrice1;
  record.AskPrice1 = tick.AskPrice1;
  record.PreOpenInterest = whole(tick.PreOpenInterest);
  record.OpenInterest = whole(tick.OpenInterest);
}

}  // namespace

datagram encode_shfe(const KAVMarketDepthQuoteData& tick) {
  KQC_CShfeFtdcDepthMarketDataField record{};
  fill_ftdc(tick, record);
  datagram result;
  result.append(record);
  return result;
}

datagram encode_cffex(const KAVMarketDepthQuoteData& tick) {
  KQC_CFfexFtdcDepthMarketDataField record{};
  fill_ftdc(tick, record);
  datagram result;
  result.append(record);
  return result;
}

datagram encode_czce(const KAVMarketDepthQuoteData& tick) {
  MarketMatchData record{};
  put_text(record.InstrumentID, tick.InstrumentID);
  fill_date(tick, record);
  fill_prices(tick, record);
  record.OpenPrice = tick.OpenPrice;
  record.ClosePrice = tick.ClosePrice;
  record.Turnover = whole(tick.Turnover);
  record.Volume = static_cast<std::uint32_t>(tick.Volume);
  record.BidVolume1 = static_cast<std::uint32_t>(tick.BidVolume1);
  record.AskVolume1 = static_cast<std::uint32_t>(tick.AskVolume1);
  datagram result;
  result.append(record);
  return result;
}

datagram encode_gfex(const KAVMarketDepthQuoteData& tick) {
  _fldGfexBestQuot record{};
  put_text(record.TradingDay, tick.TradingDay);
  put_text(record.InstrumentID, tick.InstrumentID);
  fill_prices(tick, record);
  record.Turnover = tick.Turnover;
  record.Volume = tick.Volume;
  record.BidVolume1 = tick.BidVolume1;
  record.AskVolume1 = tick.AskVolume1;
  std::memcpy(record.UpdateTime, tick.UpdateTime, sizeof(record.UpdateTime));
  datagram result;
  result.append(record, k_gfex_bytes);
  return result;
}

}  // namespace kav_feed
