// Where quotes come from: a recorded file or a made-up market, one after the other with its time.
#pragma once

#include <chrono>   // std::chrono::microseconds
#include <cstdint>  // std::int64_t
#include <string>   // std::string
#include <vector>   // std::vector

#include "api/kav_quote_api.h"

namespace kav_sim {

// Instrument type bytes that the simulator lists; to the client they are any two characters.
constexpr char k_type_futures = '1';
constexpr char k_type_gold = '2';

// One entry of the symbol list. A gold-exchange contract is listed under its code "0".."4".
struct listed_symbol {
  std::string name;            // at most 19 characters can be registered, 28 can be listed
  char type = k_type_futures;  // instrument type byte
};

// One quote and when its source made it.
struct tick {
  KAVMarketDepthQuoteData record;
  char type = k_type_futures;
  // Milliseconds since midnight of the day on which the source begins; never goes back, and goes
  // on behind 24 h when the source runs past midnight.
  std::int64_t source_ms = 0;
};

// A stream of ticks. Not safe against calls from two threads at once.
class tick_source {
 public:
  virtual ~tick_source() = default;

  // The next tick, due so long after the source's start at its own pace; `due` never goes back.
  // False: there is none any more.
  virtual bool next(tick& out, std::chrono::microseconds& due) = 0;
  // Every symbol that can come, each once.
  virtual std::vector<listed_symbol> symbols() const = 0;
};

}  // namespace kav_sim
