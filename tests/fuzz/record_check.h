// Quote records under test.
#pragma once

#include <cstring>  // std::memchr, std::memcmp, std::strlen

#include "api/kav_quote_api.h"
#include "tests/fuzz/check.h"

namespace kav_fuzz {

// Calls f(field, width) for each text of a record.
template <class F>
void for_each_text(KAVMarketDepthQuoteData& quote, F f) {
  f(quote.TradingDay, sizeof(quote.TradingDay));
  f(quote.InstrumentID, sizeof(quote.InstrumentID));
  f(quote.ExchangeID, sizeof(quote.ExchangeID));
  f(quote.ExchangeInstID, sizeof(quote.ExchangeInstID));
  f(quote.UpdateTime, sizeof(quote.UpdateTime));
}

inline void check_texts_end(KAVMarketDepthQuoteData quote) {
  for_each_text(quote, [](const char* field, std::size_t width) {
    KAV_CHECK(std::memchr(field, '\0', width) != nullptr);
  });
}

// Byte by byte, but for what lies behind the end of a text.
inline bool is_same_quote(KAVMarketDepthQuoteData a, KAVMarketDepthQuoteData b) {
  const auto clear_behind = [](char* field, std::size_t width) {
    const std::size_t used = ::strnlen(field, width);
    std::memset(field + used, 0, width - used);
  };
  for_each_text(a, clear_behind);
  for_each_text(b, clear_behind);
  return std::memcmp(&a, &b, sizeof(a)) == 0;
}

}  // namespace kav_fuzz
