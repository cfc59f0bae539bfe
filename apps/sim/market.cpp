#include "apps/sim/market.h"

#include <algorithm>  // std::clamp
#include <cstdio>     // snprintf
#include <cstring>    // memcpy

namespace kav_sim {

namespace {

constexpr std::int64_t k_day_ms = 24 * 3600'000;
constexpr std::int32_t k_full_volume = 2'000'000'000;  // trading rests before the field overflows
constexpr int k_levels = 5;
constexpr std::size_t k_level_bytes = 24;  // price and volume of bid and ask

// Whole numbers divided once give the double nearest to the decimal price.
double price_of(const contract_terms& terms, std::int64_t ticks) {
  return static_cast<double>(ticks * terms.tick_num) / terms.tick_den;
}

template <std::size_t N>
void put_text(char (&field)[N], const char* text) {
  std::memcpy(field, text, std::min(std::strlen(text), N - 1));
}

}  // namespace

const std::vector<contract_terms>& market_contracts() {
  static const std::vector<contract_terms> contracts = {
      {"cu2702", "SHFE", "cu2702", k_type_futures, 10, 1, 5, 8020, 8},
      {"au2702", "SHFE", "au2702", k_type_futures, 2, 100, 1000, 39000, 10},
      {"ag2702", "SHFE", "ag2702", k_type_futures, 1, 1, 15, 9100, 10},
      {"rb2705", "SHFE", "rb2705", k_type_futures, 1, 1, 10, 3150, 6},
      {"IF2612", "CFFEX", "IF2612", k_type_futures, 2, 10, 300, 20100, 10},
      {"IH2612", "CFFEX", "IH2612", k_type_futures, 2, 10, 300, 13900, 10},
      {"IC2612", "CFFEX", "IC2612", k_type_futures, 2, 10, 200, 29800, 10},
      {"T2703", "CFFEX", "T2703", k_type_futures, 5, 1000, 10000, 21700, 2},
      {"SR705", "CZCE", "SR705", k_type_futures, 1, 1, 10, 5700, 6},
      {"TA705", "CZCE", "TA705", k_type_futures, 2, 1, 5, 2350, 7},
      {"MA705", "CZCE", "MA705", k_type_futures, 1, 1, 10, 2400, 7},
      {"CF705", "CZCE", "CF705", k_type_futures, 5, 1, 5, 2760, 6},
      {"si2703", "GFEX", "si2703", k_type_futures, 5, 1, 5, 1750, 9},
      {"lc2703", "GFEX", "lc2703", k_type_futures, 20, 1, 1, 3700, 9},
      {"sc2702", "INE", "sc2702", k_type_futures, 1, 10, 1000, 4800, 9},
      {"lu2703", "INE", "lu2703", k_type_futures, 1, 1, 10, 3500, 9},
      {"m2705", "DCE", "m2705", k_type_futures, 1, 1, 10, 2900, 6},
      {"i2705", "DCE", "i2705", k_type_futures, 5, 10, 100, 1540, 9},
      {"p2705", "DCE", "p2705", k_type_futures, 2, 1, 10, 4400, 7},
      {"jm2705", "DCE", "jm2705", k_type_futures, 5, 10, 60, 2300, 8},
      {"0", "SGE", "Au(T+D)", k_type_gold, 1, 100, 1000, 77800, 10},
      {"1", "SGE", "Ag(T+D)", k_type_gold, 1, 1, 1, 9080, 11},
      {"2", "SGE", "mAu(T+D)", k_type_gold, 1, 100, 100, 77850, 10},
      {"3", "SGE", "Au(T+N1)", k_type_gold, 5, 100, 100, 15600, 10},
      {"4", "SGE", "Au(T+N2)", k_type_gold, 5, 100, 100, 15640, 10},
  };
  return contracts;
}

market::market(const market_options& options) : m_options(options), m_random(options.seed) {
  for (const contract_terms& terms : market_contracts()) m_books.push_back(opened(terms));
}

std::int64_t market::random(std::int64_t low, std::int64_t high) {
  return low + static_cast<std::int64_t>(m_random() % static_cast<std::uint64_t>(high - low + 1));
}

// The opening auction: some lots at one price, not far from the previous settlement.
market::book market::opened(const contract_terms& terms) {
  book b{};
  b.terms = &terms;
  b.pre_settlement = terms.base_tick + random(-20, 20);
  b.pre_close = b.pre_settlement + random(-5, 5);
  const std::int64_t reach = b.pre_settlement * terms.limit_percent / 100;
  b.upper = b.pre_settlement + reach;
  b.lower = b.pre_settlement - reach;
  b.last = b.pre_close + random(-8, 8);
  b.open = b.high = b.low = b.last;
  b.pre_open_interest = random(20'000, 400'000);
  b.open_interest = b.pre_open_interest;
  trade(b, static_cast<std::int32_t>(random(10, 500)));
  quote_around_last(b);
  return b;
}

void market::trade(book& b, std::int32_t lots) {
  b.high = std::max(b.high, b.last);
  b.low = std::min(b.low, b.last);
  b.volume += lots;
  b.turnover += price_of(*b.terms, b.last) * b.terms->multiplier * lots;
  b.open_interest = std::max<std::int64_t>(0, b.open_interest + random(-lots, lots));
}

void market::quote_around_last(book& b) {
  const std::int64_t wider = random(0, 9) == 0 ? 1 : 0;  // most spreads are one tick
  if (random(0, 1) == 0) {                               // the last trade was at the bid
    b.bid1 = b.last;
    b.ask1 = b.last + 1 + wider;
  } else {
    b.ask1 = b.last;
    b.bid1 = b.last - 1 - wider;
  }
}

void market::step(book& b) {
  if (random(0, 3) == 0 || b.volume > k_full_volume) return quote_around_last(b);
  const std::int64_t way = random(0, 9);
  const std::int64_t move = way < 5 ? 0 : way < 7 ? 1 : way < 9 ? -1 : random(0, 1) * 4 - 2;
  b.last = std::clamp(b.last + move, b.lower, b.upper);
  trade(b, static_cast<std::int32_t>(random(1, 20)));
  quote_around_last(b);
}

void market::fill_levels(const book& b, KAVMarketDepthQuoteData& record) {
  char* at = reinterpret_cast<char*>(&record) + offsetof(KAVMarketDepthQuoteData, BidPrice1);
  for (int level = 0; level < k_levels; ++level, at += k_level_bytes) {
    const std::int64_t bid = b.bid1 - level, ask = b.ask1 + level;
    const double bid_price = bid >= b.lower ? price_of(*b.terms, bid) : 0;
    const double ask_price = ask <= b.upper ? price_of(*b.terms, ask) : 0;
    const std::int32_t bid_lots = static_cast<std::int32_t>(bid >= b.lower ? random(1, 300) : 0);
    const std::int32_t ask_lots = static_cast<std::int32_t>(ask <= b.upper ? random(1, 300) : 0);
    std::memcpy(at, &bid_price, sizeof bid_price);
    std::memcpy(at + 8, &bid_lots, sizeof bid_lots);
    std::memcpy(at + 12, &ask_price, sizeof ask_price);
    std::memcpy(at + 20, &ask_lots, sizeof ask_lots);
  }
}

void market::fill_time(KAVMarketDepthQuoteData& record, std::int64_t time_ms) const {
  const std::int64_t ms = time_ms % k_day_ms;
  const int seconds = static_cast<int>(ms / 1000);
  char text[16];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d", seconds / 3600, seconds / 60 % 60,
                seconds % 60);
  put_text(record.UpdateTime, text);
  record.UpdateMillisec = static_cast<std::int32_t>(ms % 1000);
}

void market::fill_record(const book& b, KAVMarketDepthQuoteData& record) {
  const contract_terms& terms = *b.terms;
  put_text(record.TradingDay, m_options.trading_day.c_str());
  put_text(record.InstrumentID, terms.symbol);
  put_text(record.ExchangeID, terms.exchange);
  put_text(record.ExchangeInstID, terms.exchange_name);
  record.LastPrice = price_of(terms, b.last);
  record.PreSettlementPrice = price_of(terms, b.pre_settlement);
  record.PreClosePrice = price_of(terms, b.pre_close);
  record.PreOpenInterest = static_cast<double>(b.pre_open_interest);
  record.OpenPrice = price_of(terms, b.open);
  record.HighestPrice = price_of(terms, b.high);
  record.LowestPrice = price_of(terms, b.low);
  record.Volume = b.volume;
  record.Turnover = b.turnover;
  record.OpenInterest = static_cast<double>(b.open_interest);
  record.UpperLimitPrice = price_of(terms, b.upper);
  record.LowerLimitPrice = price_of(terms, b.lower);
  record.AveragePrice = b.turnover / b.volume / terms.multiplier;
  fill_levels(b, record);
}

bool market::next(tick& out, std::chrono::microseconds& due) {
  book& b = m_books[m_next_book];
  if (m_snapshot > 0) step(b);
  due = std::chrono::microseconds{
      static_cast<std::int64_t>(static_cast<double>(m_snapshot) * 1e6 / m_options.rate)};
  out = {};
  out.type = b.terms->type;
  out.source_ms = m_options.start_ms + due.count() / 1000;
  fill_record(b, out.record);
  fill_time(out.record, out.source_ms);
  if (++m_next_book == m_books.size()) {
    m_next_book = 0;
    ++m_snapshot;
  }
  return true;
}

std::vector<listed_symbol> market::symbols() const {
  std::vector<listed_symbol> result;
  for (const contract_terms& terms : market_contracts())
    result.push_back({terms.symbol, terms.type});
  return result;
}

}  // namespace kav_sim
