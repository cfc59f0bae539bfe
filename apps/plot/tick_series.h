// The quotes of chosen symbols out of a tick file, which may be larger than memory.
#pragma once

#include <cstdint>  // std::int64_t
#include <map>      // std::map
#include <string>   // std::string
#include <vector>   // std::vector

namespace kav_plot {

struct quote_point {
  std::int64_t ms;        // since midnight of the first quote's calendar day, never falling
  double last, bid, ask;  // 0: no value
  double open_interest;   // lots
  std::int64_t volume;    // lots since the day's opening
};

struct tick_series {
  std::string symbol, exchange, trading_day;  // the latter two of the first quote
  std::vector<quote_point> points;
};

struct tick_contents {
  std::vector<tick_series> series;            // of the wanted symbols, in their order
  std::map<std::string, std::size_t> counts;  // quotes of every symbol
  bool cut_off = false;                       // the packed file ends too early
};

// Comma-separated text, plain or packed with gzip, whose first line names the columns. False:
// `error` is one line, "FILE:LINE: what" or "FILE: what".
bool read_series(const std::string& path, const std::vector<std::string>& symbols,
                 tick_contents& contents, std::string& error);

}  // namespace kav_plot
