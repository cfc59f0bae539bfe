// Quotes on their way to standard output, one line each.
#pragma once

#include <fmt/format.h>  // fmt::memory_buffer

#include <cstdint>   // std::uint64_t
#include <optional>  // std::optional
#include <set>       // std::set
#include <string>    // std::string

#include "api/kav_quote_api.h"
#include "apps/decode/capture_file.h"
#include "apps/decode/options.h"

namespace kav_decode {

// Appends the wanted quotes to a buffer that somebody else empties. One thread at a time; options
// and buffer outlive it.
class quote_writer : public KAVQuoteEvent {
 public:
  quote_writer(const decode_options& options, fmt::memory_buffer& lines);

  void begin();  // the line before the first quote, where the format has one
  void set_time(const capture_time& time) { m_time = time; }  // of the quotes that follow
  void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override;
  std::uint64_t quotes() const { return m_quotes; }  // those that were wanted
  bool is_done() const { return m_options.count && m_quotes >= *m_options.count; }

  void OnServerConnected() override {}
  void OnServerDisconnected() override {}
  void OnLoginResult(bool, const char*) override {}
  void OnLog(KavKqsLogLevel, const char*, int) override {}
  void OnSymbolRegistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolUnregistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolList(KavKqsIntrumentType, const char*, bool) override {}

 private:
  bool is_wanted(const KAVMarketDepthQuoteData& quote) const;
  void append_line(const KAVMarketDepthQuoteData& quote);
  void append_time();

  const decode_options& m_options;
  fmt::memory_buffer& m_lines;
  capture_time m_time;
  std::uint64_t m_quotes = 0;
};

}  // namespace kav_decode
