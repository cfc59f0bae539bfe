#include "bindings/python/record_fields.h"

#include <cstdint>      // std::int32_t
#include <type_traits>  // std::is_same_v

#include "api/kav_quote_api.h"

namespace kav_python {
namespace {

template <class T>
constexpr field_kind kind_of() {
  if constexpr (std::is_same_v<T, double>) return field_kind::number;
  if constexpr (std::is_same_v<T, std::int32_t>) return field_kind::count;
  return field_kind::text;
}

#define KAV_FIELD(name, meaning)                                                           \
  record_field {                                                                           \
#name, offsetof(KAVMarketDepthQuoteData, name), sizeof(KAVMarketDepthQuoteData::name), \
        kind_of < decltype(KAVMarketDepthQuoteData::name)>(), meaning                      \
  }
#define KAV_LEVEL(n)                                                                              \
  KAV_FIELD(BidPrice##n, "bid price, level " #n), KAV_FIELD(BidVolume##n, "bid lots, level " #n), \
      KAV_FIELD(AskPrice##n, "ask price, level " #n),                                             \
      KAV_FIELD(AskVolume##n, "ask lots, level " #n)

constexpr record_field k_fields[] = {
    KAV_FIELD(TradingDay, "trading day, YYYYMMDD"),
    KAV_FIELD(InstrumentID, "symbol, as it is registered"),
    KAV_FIELD(ExchangeID, "name of the exchange"),
    KAV_FIELD(ExchangeInstID, "symbol, as the exchange knows it"),
    KAV_FIELD(LastPrice, "price of the last trade"),
    KAV_FIELD(PreSettlementPrice, "settlement price of the day before"),
    KAV_FIELD(PreClosePrice, "close of the day before"),
    KAV_FIELD(PreOpenInterest, "open interest of the day before, lots"),
    KAV_FIELD(OpenPrice, "first price of the day"),
    KAV_FIELD(HighestPrice, "highest price of the day"),
    KAV_FIELD(LowestPrice, "lowest price of the day"),
    KAV_FIELD(Volume, "lots traded since the day's opening"),
    KAV_FIELD(Turnover, "turnover since the day's opening"),
    KAV_FIELD(OpenInterest, "open interest, lots"),
    KAV_FIELD(ClosePrice, "close"),
    KAV_FIELD(SettlementPrice, "settlement price"),
    KAV_FIELD(UpperLimitPrice, "highest price allowed"),
    KAV_FIELD(LowerLimitPrice, "lowest price allowed"),
    KAV_FIELD(PreDelta, "delta of the day before"),
    KAV_FIELD(CurrDelta, "delta"),
    KAV_FIELD(UpdateTime, "time of the update, HH:MM:SS"),
    KAV_FIELD(UpdateMillisec, "milliseconds of UpdateTime"),
    KAV_LEVEL(1),
    KAV_LEVEL(2),
    KAV_LEVEL(3),
    KAV_LEVEL(4),
    KAV_LEVEL(5),
    KAV_FIELD(AveragePrice, "average price of the day"),
};

constexpr bool covers_the_record() {
  std::size_t end = 0;
  for (const record_field& field : k_fields) {
    if (field.offset != end) return false;
    end += field.bytes;
  }
  return end == sizeof(KAVMarketDepthQuoteData);
}
static_assert(covers_the_record(), "every byte of the record belongs to one field");

}  // namespace

std::span<const record_field> record_fields() { return k_fields; }

}  // namespace kav_python
