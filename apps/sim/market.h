// A made-up market: random walks of some twenty futures and the five gold contracts.
#pragma once

#include <cstdint>  // std::uint64_t
#include <random>   // std::mt19937_64
#include <string>   // std::string
#include <vector>   // std::vector

#include "apps/sim/tick_source.h"

namespace kav_sim {

// What an exchange fixes for a contract. Prices are counted in steps of tick_num / tick_den.
struct contract_terms {
  const char* symbol;         // as the quote server lists it
  const char* exchange;       // exchange name
  const char* exchange_name;  // the symbol as the exchange knows it
  char type;
  int tick_num, tick_den;
  int multiplier;          // units in one lot
  std::int64_t base_tick;  // previous settlement, about
  int limit_percent;       // of the previous settlement, up and down
};

const std::vector<contract_terms>& market_contracts();

struct market_options {
  std::uint64_t seed = 1;                // the same seed makes the same quotes
  double rate = 2;                       // snapshots of each contract per second
  std::string trading_day = "20261201";  // YYYYMMDD
  std::int64_t start_ms = 9 * 3600'000;  // time of day of the first snapshot
};

// An endless stream of snapshots, all contracts in turn for each point of time. In every quote:
// bids below asks, best first; prices on the tick grid and within the limits (levels beyond them
// are empty); low <= open, last, average <= high; volume and turnover never go back.
class market : public tick_source {
 public:
  explicit market(const market_options& options);

  bool next(tick& out, std::chrono::microseconds& due) override;
  std::vector<listed_symbol> symbols() const override;

 private:
  // One contract's day so far, prices in ticks.
  struct book {
    const contract_terms* terms;
    std::int64_t pre_settlement, pre_close, upper, lower;
    std::int64_t open, high, low, last;
    std::int64_t bid1, ask1;
    std::int32_t volume;
    double turnover;
    std::int64_t pre_open_interest, open_interest;
  };

  book opened(const contract_terms& terms);
  void step(book& b);
  void trade(book& b, std::int32_t lots);
  void quote_around_last(book& b);
  void fill_record(const book& b, KAVMarketDepthQuoteData& record);
  void fill_levels(const book& b, KAVMarketDepthQuoteData& record);
  void fill_time(KAVMarketDepthQuoteData& record, std::int64_t time_ms) const;
  // A whole number from low to high, both included; the same on every machine.
  std::int64_t random(std::int64_t low, std::int64_t high);

  const market_options m_options;
  std::mt19937_64 m_random;
  std::vector<book> m_books;
  std::size_t m_next_book = 0;
  std::int64_t m_snapshot = 0;  // number of the snapshot that is being handed out
};

}  // namespace kav_sim
