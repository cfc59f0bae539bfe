// The server that the viewer is tested against, and what the tests send through it.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>   // std::snprintf
#include <string>   // std::string
#include <utility>  // std::move
#include <vector>   // std::vector

#include "apps/sim/quote_server.h"
#include "watch_process.h"

namespace kav_watch_test {

inline KAVMarketDepthQuoteData quote_of(const std::string& symbol, int volume) {
  KAVMarketDepthQuoteData quote{};
  std::snprintf(quote.TradingDay, sizeof(quote.TradingDay), "20250901");
  std::snprintf(quote.InstrumentID, sizeof(quote.InstrumentID), "%s", symbol.c_str());
  std::snprintf(quote.ExchangeID, sizeof(quote.ExchangeID), "CFFEX");
  std::snprintf(quote.UpdateTime, sizeof(quote.UpdateTime), "10:15:03");
  quote.LastPrice = 3500.2 + volume;
  quote.PreSettlementPrice = 3488;
  quote.BidPrice1 = 0.1;
  quote.BidVolume1 = 4;
  quote.AskPrice5 = 1.0 / 3;
  quote.Volume = volume;
  return quote;
}

// A server with three symbols, one of them of the gold exchange ("0" is "Au(T+D)"), that accepts
// user "me" with password "secret".
class watch_server_test : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_server.start()) << m_server.start_error(); }

  static kav_sim::server_options server_options() {
    kav_sim::server_options options;
    options.user = "me";
    options.password = "secret";
    options.symbols = {{"IF2509", '1'}, {"0", '2'}, {"rb2510", '1'}};
    return options;
  }
  // Server and user are put in front of the arguments.
  child_options options_for(std::vector<std::string> arguments) const {
    child_options options;
    options.arguments = {"--server", "127.0.0.1:" + std::to_string(m_server.port()), "--user",
                         "me"};
    options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
    return options;
  }
  bool wait_registered(const std::string& symbol) const {
    return wait_until([&] { return m_server.registered(symbol); });
  }
  // To everyone who registered it; false when there was no room for a long time.
  bool push(const std::string& symbol, int volume) {
    return m_server.push_quote_waiting(quote_of(symbol, volume), '1', k_limit);
  }

  kav_sim::quote_server m_server{server_options()};
};

}  // namespace kav_watch_test
