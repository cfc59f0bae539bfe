// Recorded quotes: comma-separated text, plain or packed with gzip.
//
// The first line names the columns, in any order, by the fields of the quote record. TradingDay,
// InstrumentID, ExchangeID, LastPrice, UpdateTime and UpdateMillisec have to be there; a field
// without a column, and a column's empty value, is zero ("no value"). The column ReceiveTimeNs is
// ignored. No quoting, one quote a line, lines in the order of time.
#pragma once

#include <chrono>   // std::chrono::milliseconds
#include <cstddef>  // std::size_t
#include <string>   // std::string
#include <vector>   // std::vector

#include "apps/sim/tick_source.h"

namespace kav_sim {

// Reads the whole file. False: `error` is one line, "FILE:LINE: what" or "FILE: what", and `ticks`
// is empty. Numbers are read exactly: a price gets the double nearest to its text.
bool read_tick_file(const std::string& path, std::vector<tick>& ticks, std::string& error);

// A longer silence of the recording is replayed as one of this length.
constexpr std::chrono::milliseconds k_longest_gap{3000};
// From the last tick to the first of the next round, when a replay loops.
constexpr std::chrono::milliseconds k_round_gap{500};

// Replays ticks at the pace of their times.
class tick_replay : public tick_source {
 public:
  tick_replay(std::vector<tick> ticks, bool loop);

  bool next(tick& out, std::chrono::microseconds& due) override;
  std::vector<listed_symbol> symbols() const override;
  std::size_t size() const { return m_ticks.size(); }

 private:
  const std::vector<tick> m_ticks;
  const bool m_loop;
  std::size_t m_next = 0;
  std::chrono::milliseconds m_due{0};  // of the tick at m_next
};

}  // namespace kav_sim
