// What the sender writes into each quote record and the receivers read back: when it was sent,
// which of the stream it is, and what it means for the measurement.
#pragma once

#include <cstdint>  // std::int64_t
#include <string>   // std::string

#include "api/kav_quote_api.h"

namespace kav_bench {

enum class quote_mark : std::int32_t {
  warm_up,        // not measured: caches, buffers and pools are filled
  counted,        // measured
  last_of_burst,  // measured, and the last one of what was sent at once
  end,            // not measured; nothing follows
};

// Travels in fields that every receiver hands through as they are: LastPrice, Turnover, Volume.
struct quote_stamp {
  std::int64_t sent_ns = 0;   // CLOCK_MONOTONIC, right before send()
  std::int64_t sequence = 0;  // 0, 1, 2, ... on each connection
  quote_mark mark = quote_mark::warm_up;
};

std::int64_t monotonic_ns();

// A whole quote message for one symbol.
std::string quote_message_for(const std::string& symbol);
// Write into the record of a whole quote message.
void write_stamp(char* message, const quote_stamp& stamp);
void write_sent_time(char* message, std::int64_t sent_ns);
quote_stamp read_stamp(const KAVMarketDepthQuoteData& quote);

// The symbols that servers list and clients register, all of one type: "Q00000", "Q00001", ...
constexpr char k_symbol_type = '1';
std::string symbol_name(std::size_t number);

}  // namespace kav_bench
