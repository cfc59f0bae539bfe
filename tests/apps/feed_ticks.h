// Ticks for tests of the publisher.
#pragma once

#include <algorithm>    // std::min
#include <cstdint>      // std::uint64_t
#include <cstring>      // memcpy
#include <limits>       // std::numeric_limits
#include <random>       // std::mt19937_64
#include <string>       // std::string
#include <string_view>  // std::string_view

#include "api/kav_quote_api.h"
#include "apps/feed/datagram.h"

namespace kav_feed_test {

template <std::size_t N>
void put(char (&field)[N], const std::string& text) {
  std::memset(field, 0, N);
  std::memcpy(field, text.data(), std::min(text.size(), N - 1));
}

inline std::string_view bytes_of(const KAVMarketDepthQuoteData& record) {
  return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

inline std::string_view bytes_of(const kav_feed::datagram& made) {
  return {made.bytes, made.length};
}

// A value of the datagram's bytes, wherever they lie.
template <class T>
T at(const kav_feed::datagram& made, std::size_t offset) {
  T value;
  std::memcpy(&value, made.bytes + offset, sizeof(value));
  return value;
}

inline KAVMarketDepthQuoteData tick_of(const std::string& exchange, const std::string& symbol) {
  KAVMarketDepthQuoteData tick{};
  put(tick.TradingDay, "20261201");
  put(tick.InstrumentID, symbol);
  put(tick.ExchangeID, exchange);
  put(tick.ExchangeInstID, symbol);
  put(tick.UpdateTime, "09:30:01");
  return tick;
}

// The same ticks in every run: any bits in the prices, any volumes.
class random_ticks {
 public:
  explicit random_ticks(std::uint64_t seed) : m_random(seed) {}

  std::uint64_t below(std::uint64_t limit) { return m_random() % limit; }

  KAVMarketDepthQuoteData next(const std::string& exchange) {
    KAVMarketDepthQuoteData tick{};
    constexpr std::size_t k_numbers = offsetof(KAVMarketDepthQuoteData, LastPrice);
    for (std::size_t i = k_numbers; i < sizeof(tick); ++i) {
      reinterpret_cast<char*>(&tick)[i] = static_cast<char>(m_random());
    }
    const std::string symbol = text(1 + below(19));
    put(tick.TradingDay, digits(8));
    put(tick.InstrumentID, symbol);
    put(tick.ExchangeID, exchange);
    put(tick.ExchangeInstID, "other");
    put(tick.UpdateTime, digits(2) + ":" + digits(2) + ":" + digits(2));
    return tick;
  }

  // What a record of whole numbers can tell.
  double whole() { return static_cast<double>(static_cast<std::uint32_t>(m_random())); }

  // Prices as the lumen feed may see them, also those that it cannot tell.
  double lumen_value() {
    switch (below(8)) {
      case 0:
        return 0.0;
      case 1:
        return 9999999999999.9;
      case 2:
        return 9999999999999.8;
      case 3:
        return -1.5;
      case 4:
        return std::numeric_limits<double>::quiet_NaN();
      default:
        return static_cast<double>(1 + below(50)) / 4;
    }
  }

 private:
  std::string digits(std::size_t count) {
    std::string result;
    while (result.size() < count) result += static_cast<char>('0' + below(10));
    return result;
  }
  std::string text(std::size_t count) {
    std::string result;
    while (result.size() < count) result += static_cast<char>('!' + below(94));
    return result;
  }

  std::mt19937_64 m_random;
};

}  // namespace kav_feed_test
