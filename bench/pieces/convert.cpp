// The six converters beside a memcpy() of as many bytes as they read and write: those of a source
// record and of a quote.
#include <array>   // std::array
#include <cfloat>  // DBL_MAX
#include <memory>  // std::unique_ptr
#include <random>  // std::mt19937
#include <string>  // std::string
#include <vector>  // std::vector

#include "bench/pieces/piece.h"
#include "bench/pieces/symbols.h"
#include "feeds/feed_convert.h"
#include "tools/helpers.h"

namespace {

using kav_bench::unknown;
using VORLAN::TOOLS::snprintf_vl;
using VORLAN::TOOLS::strncpy_vl;

constexpr std::size_t k_records = 256;  // different ones, so that no branch knows what comes

struct lumen_tick {
  lumen_udp_head head;
  lumen_udp_normal body;
};
struct lumen_summary {
  lumen_udp_head head;
  lumen_udp_summary body;
};

// What a feed says: prices near one another, most of them there.
class market {
 public:
  int below(int limit) { return static_cast<int>(m_dice() % static_cast<unsigned>(limit)); }
  double price() { return 3000.0 + 0.5 * below(2000); }
  double sum() { return 10000.0 * below(1000000); }
  const char* symbol() { return m_symbols[m_at++ % m_symbols.size()].c_str(); }
  template <std::size_t N>
  void put_time(char (&field)[N]) {
    char text[9];
    snprintf_vl(text, sizeof(text), "%02d:%02d:%02d", 9 + below(6), below(60), below(60));
    std::memcpy(field, text, N < sizeof(text) ? N : sizeof(text));
  }

 private:
  std::mt19937 m_dice{7};
  const std::vector<std::string> m_symbols = kav_bench::contract_symbols(1500);
  std::size_t m_at = 0;
};

void fill_levels(ftdc_depth_market_data& record, market& m) {
  double distance = 0.5;
  for (ftdc_depth_level& level : record.Levels) {
    level.BidPrice = record.LastPrice - distance;
    level.AskPrice = record.LastPrice + distance;
    level.BidVolume = 1 + m.below(500);
    level.AskVolume = 1 + m.below(500);
    distance += 0.5;
  }
}

void fill(ftdc_depth_market_data& record, market& m) {
  strncpy_vl(record.TradingDay, sizeof(record.TradingDay), "20250905");
  strncpy_vl(record.InstrumentID, sizeof(record.InstrumentID), m.symbol());
  record.LastPrice = m.price();
  record.PreSettlementPrice = record.PreClosePrice = m.price();
  record.PreOpenInterest = m.sum();
  record.OpenPrice = record.HighestPrice = record.LowestPrice = m.price();
  record.Volume = m.below(1000000);
  record.Turnover = m.sum();
  record.OpenInterest = m.sum();
  record.ClosePrice = record.SettlementPrice = DBL_MAX;  // not known yet
  record.UpperLimitPrice = record.LowerLimitPrice = m.price();
  m.put_time(record.UpdateTime);
  record.UpdateMillisec = 500 * m.below(2);
  fill_levels(record, m);
}

void fill(MarketMatchData& record, market& m) {
  strncpy_vl(record.InstrumentID, sizeof(record.InstrumentID), m.symbol());
  record.PreClosePrice = record.PreSettlementPrice = m.price();
  record.PreOpenInterest = record.OpenInterest = static_cast<std::uint32_t>(m.below(1000000));
  record.OpenPrice = record.HighestPrice = record.LowestPrice = m.price();
  record.LastPrice = record.AveragePrice = m.price();
  record.BidPrice1 = record.AskPrice1 = m.price();
  record.BidVolume1 = record.AskVolume1 = static_cast<std::uint32_t>(m.below(500));
  record.UpperLimitPrice = record.LowerLimitPrice = m.price();
  record.Year = 2025;
  record.Month = static_cast<std::uint8_t>(1 + m.below(12));
  record.Day = static_cast<std::uint8_t>(1 + m.below(28));
  record.UpdateMillisec = static_cast<std::uint32_t>(m.below(1000));
  record.Turnover = record.Volume = static_cast<std::uint32_t>(m.below(1000000));
}

void fill(_fldGfexBestQuot& record, market& m) {
  strncpy_vl(record.TradingDay, sizeof(record.TradingDay), "20250905");
  strncpy_vl(record.InstrumentID, sizeof(record.InstrumentID), m.symbol());
  record.LastPrice = record.AveragePrice = m.price();
  record.HighestPrice = record.LowestPrice = m.price();
  record.Volume = m.below(1000000);
  record.Turnover = m.sum();
  record.PreOpenInterest = record.OpenInterest = static_cast<std::uint32_t>(m.below(1000000));
  record.UpperLimitPrice = record.LowerLimitPrice = m.price();
  record.PreSettlementPrice = record.PreClosePrice = m.price();
  record.BidPrice1 = record.AskPrice1 = m.price();
  record.BidVolume1 = record.AskVolume1 = m.below(500);
  m.put_time(record.UpdateTime);
  record.separator[0] = '.';
  for (char& digit : record.UpdateMillisec) digit = static_cast<char>('0' + m.below(10));
}

void fill(lumen_udp_head& head, market& m) {
  head.Market = static_cast<std::uint8_t>(m.below(2));
  strncpy_vl(head.InstrumentID, sizeof(head.InstrumentID), m.symbol());
  m.put_time(head.UpdateTime);
  head.UpdateMillisec = 500 * m.below(2);
  head.QuoteFlag = static_cast<std::uint8_t>(1 + m.below(3));
}

void fill(lumen_tick& tick, market& m) {
  fill(tick.head, m);
  tick.body.LastPrice = m.price();
  tick.body.TradeVolume = 1 + m.below(20);
  tick.body.Turnover = m.sum();
  tick.body.OpenInterest = m.sum();
  tick.body.BidPrice1 = tick.body.AskPrice1 = m.price();
  tick.body.BidVolume1 = tick.body.AskVolume1 = m.below(500);
}

void fill(lumen_summary& summary, market& m) {
  fill(summary.head, m);
  summary.body.OpenPrice = summary.body.HighestPrice = summary.body.LowestPrice = m.price();
  summary.body.ClosePrice = summary.body.SettlementPrice = DBL_MAX;  // not known yet
  summary.body.UpperLimitPrice = summary.body.LowerLimitPrice = m.price();
}

void convert_tick(lumen_tick* tick, KAVMarketDepthQuoteData* quote) {
  convert_lumen_normal_quote_to_kav_quote(&tick->head, &tick->body, quote);
}

void convert_summary(lumen_summary* summary, KAVMarketDepthQuoteData* quote) {
  convert_lumen_summary_quote_to_kav_quote(&summary->head, &summary->body, quote);
}

// Records one behind the other, with room behind the last to copy a quote more than one.
template <class RECORD>
std::unique_ptr<RECORD[]> make_records() {
  market m;
  auto records = std::make_unique<RECORD[]>(k_records + sizeof(KAVMarketDepthQuoteData));
  for (std::size_t i = 0; i < k_records; ++i) fill(records[i], m);
  return records;
}

// One record after the other into one quote, as a datagram's is converted on the stack.
template <class RECORD, void (*CONVERT)(RECORD*, KAVMarketDepthQuoteData*)>
void convert_kav(benchmark::State& state) {
  const auto records = make_records<RECORD>();
  KAVMarketDepthQuoteData quote{};
  std::size_t i = 0;
  for ([[maybe_unused]] auto _ : state) {
    CONVERT(&records[i], &quote);
    benchmark::ClobberMemory();
    i = (i + 1) % k_records;
  }
  benchmark::DoNotOptimize(quote);
}

// From where the same records lie, the bytes behind each included, to one place.
template <class RECORD>
void convert_memcpy(benchmark::State& state) {
  const auto records = make_records<RECORD>();
  const std::size_t bytes = unknown(sizeof(RECORD) + sizeof(KAVMarketDepthQuoteData));
  std::array<char, sizeof(RECORD) + sizeof(KAVMarketDepthQuoteData)> copy{};
  std::size_t i = 0;
  for ([[maybe_unused]] auto _ : state) {
    std::memcpy(copy.data(), static_cast<const void*>(&records[i]), bytes);
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
    i = (i + 1) % k_records;
  }
}

template <class RECORD, void (*CONVERT)(RECORD*, KAVMarketDepthQuoteData*)>
void add_converter(const std::string& name) {
  kav_bench::add_piece(name + "/kav", convert_kav<RECORD, CONVERT>);
  kav_bench::add_piece(name + "/memcpy", convert_memcpy<RECORD>);
}

const kav_bench::at_start k_converters([] {
  using shfe = KQC_CShfeFtdcDepthMarketDataField;
  using cffex = KQC_CFfexFtdcDepthMarketDataField;
  add_converter<shfe, convert_shfe_quote_to_kav_quote>("convert/shfe");
  add_converter<cffex, convert_ffex_quote_to_kav_quote>("convert/cffex");
  add_converter<MarketMatchData, convert_zce_quote_to_kav_quote>("convert/czce");
  add_converter<_fldGfexBestQuot, convert_gfex_quote_to_kav_quote>("convert/gfex");
  add_converter<lumen_tick, convert_tick>("convert/lumen_tick");
  add_converter<lumen_summary, convert_summary>("convert/lumen_summary");
});

}  // namespace
