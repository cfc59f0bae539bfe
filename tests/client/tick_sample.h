// A day of recorded ticks, when there is one, read without the simulator's reader.
#pragma once

#include <zlib.h>  // gzgets

#include <cstdlib>  // strtod, getenv
#include <string>   // std::string
#include <vector>   // std::vector

#include "api/kav_quote_api.h"
#include "tools/helpers.h"

namespace kav_session {

using quote_list = std::vector<KAVMarketDepthQuoteData>;

constexpr std::size_t k_sample_rows = 57'075;

inline void put_text(char* field, unsigned width, const std::string& text) {
  VORLAN::TOOLS::strncpy_vl(field, width, text.c_str());
}

inline double number(const std::string& text) { return std::strtod(text.c_str(), nullptr); }

inline std::int32_t whole(const std::string& text) {
  return static_cast<std::int32_t>(std::strtol(text.c_str(), nullptr, 10));
}

inline std::vector<std::string> cells_of(const std::string& line) {
  std::vector<std::string> cells(1);
  for (const char c : line) {
    if (c == '\n' || c == '\r') continue;
    if (c == ',') {
      cells.emplace_back();
    } else {
      cells.back() += c;
    }
  }
  return cells;
}

// Columns: day, symbol, exchange, prices and volumes, time, then four values for each of 5 levels.
inline KAVMarketDepthQuoteData quote_of_row(const std::vector<std::string>& cell) {
  KAVMarketDepthQuoteData q{};
  put_text(q.TradingDay, sizeof(q.TradingDay), cell[0]);
  put_text(q.InstrumentID, sizeof(q.InstrumentID), cell[1]);
  put_text(q.ExchangeID, sizeof(q.ExchangeID), cell[2]);
  put_text(q.ExchangeInstID, sizeof(q.ExchangeInstID), cell[1]);
  q.LastPrice = number(cell[3]);
  q.PreSettlementPrice = number(cell[4]);
  q.PreClosePrice = number(cell[5]);
  q.PreOpenInterest = number(cell[6]);
  q.OpenPrice = number(cell[7]);
  q.HighestPrice = number(cell[8]);
  q.LowestPrice = number(cell[9]);
  q.Volume = whole(cell[10]);
  q.Turnover = number(cell[11]);
  q.OpenInterest = number(cell[12]);
  q.UpperLimitPrice = number(cell[13]);
  q.LowerLimitPrice = number(cell[14]);
  put_text(q.UpdateTime, sizeof(q.UpdateTime), cell[15]);
  q.UpdateMillisec = whole(cell[16]);
  q.BidPrice1 = number(cell[17]);
  q.BidVolume1 = whole(cell[18]);
  q.AskPrice1 = number(cell[19]);
  q.AskVolume1 = whole(cell[20]);
  return q;
}

inline std::string sample_path() {
  if (const char* const path = std::getenv("KAV_TICKS")) return path;
  return KAV_SOURCE_DIR "/../shared/data/ticks-sample.csv.gz";
}

inline quote_list load_sample() {
  quote_list quotes;
  gzFile file = ::gzopen(sample_path().c_str(), "rb");
  if (file == nullptr) return quotes;
  char line[2048];
  bool header = true;
  while (::gzgets(file, line, sizeof(line)) != nullptr) {
    const std::vector<std::string> cells = cells_of(line);
    if (!header && cells.size() == 37) quotes.push_back(quote_of_row(cells));
    header = false;
  }
  ::gzclose(file);
  return quotes;
}

}  // namespace kav_session
