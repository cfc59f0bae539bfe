#include "bench/side_by_side/stamped_quote.h"

#include <fmt/format.h>

#include <cstddef>  // offsetof
#include <cstring>  // memcpy
#include <ctime>    // clock_gettime

#include "apps/sim/wire.h"

namespace kav_bench {

namespace {

constexpr std::size_t k_sent_offset = offsetof(KAVMarketDepthQuoteData, LastPrice);
constexpr std::size_t k_sequence_offset = offsetof(KAVMarketDepthQuoteData, Turnover);
constexpr std::size_t k_mark_offset = offsetof(KAVMarketDepthQuoteData, Volume);

}  // namespace

std::int64_t monotonic_ns() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

std::string quote_message_for(const std::string& symbol) {
  KAVMarketDepthQuoteData quote{};
  symbol.copy(quote.InstrumentID, sizeof quote.InstrumentID - 1);
  quote.BidPrice1 = 3910.2;
  quote.AskPrice1 = 3910.4;
  return kav_sim::quote_message(k_symbol_type, quote, kav_sim::text_fill::zero);
}

void write_sent_time(char* message, std::int64_t sent_ns) {
  std::memcpy(message + kav_sim::k_quote_record_offset + k_sent_offset, &sent_ns, sizeof sent_ns);
}

void write_stamp(char* message, const quote_stamp& stamp) {
  char* const record = message + kav_sim::k_quote_record_offset;
  write_sent_time(message, stamp.sent_ns);
  std::memcpy(record + k_sequence_offset, &stamp.sequence, sizeof stamp.sequence);
  std::memcpy(record + k_mark_offset, &stamp.mark, sizeof stamp.mark);
}

quote_stamp read_stamp(const KAVMarketDepthQuoteData& quote) {
  const char* const record = reinterpret_cast<const char*>(&quote);
  quote_stamp stamp;
  std::memcpy(&stamp.sent_ns, record + k_sent_offset, sizeof stamp.sent_ns);
  std::memcpy(&stamp.sequence, record + k_sequence_offset, sizeof stamp.sequence);
  std::memcpy(&stamp.mark, record + k_mark_offset, sizeof stamp.mark);
  return stamp;
}

std::string symbol_name(std::size_t number) { return fmt::format("Q{:05}", number); }

}  // namespace kav_bench
