// The six converters of feed records, against tables of where each value lies.
#include <array>    // std::array
#include <cstdio>   // std::snprintf
#include <cstdlib>  // std::strtol

#include "feeds/feed_convert.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/record_check.h"

namespace {

using kav_fuzz::fuzz_input;
using kav_fuzz::heap_bytes;
using quote_data = KAVMarketDepthQuoteData;

#define KAV_TO(field) offsetof(KAVMarketDepthQuoteData, field)

// ---- The model: bytes at an offset, copied to an offset.

struct move {
  std::size_t from, to;
};

template <class T>
T load(const std::string& bytes, std::size_t at) {
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof(value));
  return value;
}

template <class T>
void store(quote_data& quote, std::size_t at, T value) {
  std::memcpy(reinterpret_cast<char*>(&quote) + at, &value, sizeof(value));
}

template <class T, std::size_t N>
void move_all(const std::string& source, quote_data& quote, const std::array<move, N>& moves) {
  for (const move& m : moves) store(quote, m.to, load<T>(source, m.from));
}

// Counts that become doubles.
template <std::size_t N>
void move_counts(const std::string& source, quote_data& quote, const std::array<move, N>& moves) {
  for (const move& m : moves) {
    store(quote, m.to, static_cast<double>(load<std::uint32_t>(source, m.from)));
  }
}

template <std::size_t N>
void merge_values(const std::string& source, quote_data& quote, const std::array<move, N>& moves) {
  for (const move& m : moves) {
    const auto value = load<double>(source, m.from);
    if (value > 0.0 && value < 9999999999999.9) store(quote, m.to, value);
  }
}

template <std::size_t N>
void put_text(char (&field)[N], const std::string& text) {
  std::memset(field, 0, N);
  std::memcpy(field, text.c_str(), ::strnlen(text.c_str(), N - 1));
}

void put_symbol(quote_data& quote, const std::string& symbol, const char* exchange) {
  put_text(quote.InstrumentID, symbol);
  put_text(quote.ExchangeInstID, symbol);
  put_text(quote.ExchangeID, exchange);
}

constexpr std::array<move, 1> k_ftdc_volume{{{80, KAV_TO(Volume)}}};
constexpr std::array<move, 15> k_ftdc_prices{{{24, KAV_TO(LastPrice)},
                                              {32, KAV_TO(PreSettlementPrice)},
                                              {40, KAV_TO(PreClosePrice)},
                                              {48, KAV_TO(PreOpenInterest)},
                                              {56, KAV_TO(OpenPrice)},
                                              {64, KAV_TO(HighestPrice)},
                                              {72, KAV_TO(LowestPrice)},
                                              {88, KAV_TO(Turnover)},
                                              {96, KAV_TO(OpenInterest)},
                                              {104, KAV_TO(ClosePrice)},
                                              {112, KAV_TO(SettlementPrice)},
                                              {120, KAV_TO(UpperLimitPrice)},
                                              {128, KAV_TO(LowerLimitPrice)},
                                              {136, KAV_TO(PreDelta)},
                                              {144, KAV_TO(CurrDelta)}}};

quote_data ftdc_quote(const std::string& source) {
  quote_data quote{};
  put_symbol(quote, source.substr(168, 31), "CFFEX");
  put_text(quote.TradingDay, source.substr(0, 9));
  put_text(quote.UpdateTime, source.substr(152, 9));
  move_all<double>(source, quote, k_ftdc_prices);
  move_all<std::int32_t>(source, quote, k_ftdc_volume);
  store(quote, KAV_TO(UpdateMillisec), load<std::int32_t>(source, 164));
  for (std::size_t level = 0; level < 5; ++level) {
    const std::size_t from = 200 + 32 * level, to = KAV_TO(BidPrice1) + 24 * level;
    move_all<double>(source, quote, std::array<move, 2>{{{from, to}, {from + 16, to + 12}}});
    move_all<std::int32_t>(source, quote,
                           std::array<move, 2>{{{from + 8, to + 8}, {from + 24, to + 20}}});
  }
  return quote;
}

constexpr std::array<move, 13> k_czce_prices{{{23, KAV_TO(PreClosePrice)},
                                              {31, KAV_TO(PreSettlementPrice)},
                                              {43, KAV_TO(OpenPrice)},
                                              {51, KAV_TO(BidPrice1)},
                                              {63, KAV_TO(AskPrice1)},
                                              {75, KAV_TO(LastPrice)},
                                              {99, KAV_TO(HighestPrice)},
                                              {107, KAV_TO(LowestPrice)},
                                              {115, KAV_TO(ClosePrice)},
                                              {131, KAV_TO(SettlementPrice)},
                                              {139, KAV_TO(AveragePrice)},
                                              {163, KAV_TO(UpperLimitPrice)},
                                              {171, KAV_TO(LowerLimitPrice)}}};
constexpr std::array<move, 3> k_czce_counts{
    {{39, KAV_TO(PreOpenInterest)}, {91, KAV_TO(Turnover)}, {95, KAV_TO(OpenInterest)}}};
constexpr std::array<move, 4> k_czce_volumes{{{59, KAV_TO(BidVolume1)},
                                              {71, KAV_TO(AskVolume1)},
                                              {190, KAV_TO(UpdateMillisec)},
                                              {204, KAV_TO(Volume)}}};

quote_data czce_quote(const std::string& source) {
  quote_data quote{};
  char date[16];
  std::snprintf(date, sizeof(date), "%04d%02d%02d", int{load<std::uint16_t>(source, 183)},
                int{load<std::uint8_t>(source, 185)}, int{load<std::uint8_t>(source, 186)});
  put_symbol(quote, source.substr(0, 23), "CZCE");
  put_text(quote.TradingDay, date);
  put_text(quote.UpdateTime, date);
  move_all<double>(source, quote, k_czce_prices);
  move_counts(source, quote, k_czce_counts);
  move_all<std::uint32_t>(source, quote, k_czce_volumes);
  return quote;
}

constexpr std::array<move, 13> k_gfex_prices{{{80, KAV_TO(LastPrice)},
                                              {88, KAV_TO(HighestPrice)},
                                              {96, KAV_TO(LowestPrice)},
                                              {112, KAV_TO(Turnover)},
                                              {136, KAV_TO(SettlementPrice)},
                                              {160, KAV_TO(UpperLimitPrice)},
                                              {168, KAV_TO(LowerLimitPrice)},
                                              {176, KAV_TO(PreSettlementPrice)},
                                              {184, KAV_TO(PreClosePrice)},
                                              {192, KAV_TO(BidPrice1)},
                                              {208, KAV_TO(AskPrice1)},
                                              {224, KAV_TO(AveragePrice)},
                                              {248, KAV_TO(OpenPrice)}}};
constexpr std::array<move, 1> k_gfex_close{{{256, KAV_TO(ClosePrice)}}};
constexpr std::array<move, 2> k_gfex_counts{
    {{120, KAV_TO(PreOpenInterest)}, {124, KAV_TO(OpenInterest)}}};
constexpr std::array<move, 3> k_gfex_volumes{
    {{108, KAV_TO(Volume)}, {200, KAV_TO(BidVolume1)}, {216, KAV_TO(AskVolume1)}}};

quote_data gfex_quote(const std::string& source) {
  quote_data quote{};
  put_symbol(quote, source.substr(9, 71), "GFEX");
  put_text(quote.TradingDay, source.substr(0, 9));
  put_text(quote.UpdateTime, source.substr(232, 8));
  const std::string millisec = source.substr(241, 3);
  store(quote, KAV_TO(UpdateMillisec),
        static_cast<std::int32_t>(std::strtol(millisec.c_str(), nullptr, 10)));
  move_all<double>(source, quote, k_gfex_prices);
  move_all<double>(source, quote, k_gfex_close);
  move_counts(source, quote, k_gfex_counts);
  move_all<std::int32_t>(source, quote, k_gfex_volumes);
  return quote;
}

void put_lumen_head(const std::string& head, quote_data& quote) {
  put_symbol(quote, head.substr(11, 31), head[4] != 0 ? "SHFE" : "CFFEX");
  put_text(quote.UpdateTime, head.substr(42, 9));
  store(quote, KAV_TO(UpdateMillisec), load<std::int32_t>(head, 51));
}

quote_data lumen_tick_quote(const std::string& head, const std::string& body, quote_data quote) {
  put_lumen_head(head, quote);
  merge_values(body, quote,
               std::array<move, 2>{{{20, KAV_TO(OpenInterest)}, {12, KAV_TO(Turnover)}}});
  const char flag = head[55];
  if (flag == 1 || flag == 3) {
    merge_values(body, quote, std::array<move, 1>{{{0, KAV_TO(LastPrice)}}});
    store(quote, KAV_TO(Volume),
          static_cast<std::uint32_t>(quote.Volume) + load<std::uint32_t>(body, 8));
  }
  if (flag == 2 || flag == 3) {
    merge_values(body, quote,
                 std::array<move, 2>{{{28, KAV_TO(BidPrice1)}, {40, KAV_TO(AskPrice1)}}});
    move_all<std::int32_t>(
        body, quote, std::array<move, 2>{{{36, KAV_TO(BidVolume1)}, {48, KAV_TO(AskVolume1)}}});
  }
  return quote;
}

constexpr std::array<move, 8> k_summary_values{{{0, KAV_TO(OpenPrice)},
                                                {8, KAV_TO(HighestPrice)},
                                                {16, KAV_TO(LowestPrice)},
                                                {24, KAV_TO(ClosePrice)},
                                                {32, KAV_TO(UpperLimitPrice)},
                                                {40, KAV_TO(LowerLimitPrice)},
                                                {48, KAV_TO(SettlementPrice)},
                                                {56, KAV_TO(CurrDelta)}}};

quote_data lumen_summary_quote(const std::string& head, const std::string& body, quote_data quote) {
  put_lumen_head(head, quote);
  merge_values(body, quote, k_summary_values);
  return quote;
}

// ---- The converters. Each gets no more bytes than those of its fields.

template <class RECORD>
void check_exchange(fuzz_input& input, void (*convert)(RECORD*, quote_data*),
                    quote_data (*model)(const std::string&), std::size_t bytes_read) {
  const std::size_t shift = input.take_byte() % 8;
  const std::string source = input.take_padded(bytes_read);
  heap_bytes copy(source, shift);
  quote_data quote{};  // as the converters want it
  convert(copy.as<RECORD>(), &quote);
  kav_fuzz::check_texts_end(quote);
  KAV_CHECK(kav_fuzz::is_same_quote(quote, model(source)));
}

// What earlier records may have left: anything, in texts that end.
quote_data take_cached_quote(fuzz_input& input) {
  const std::string bytes = input.take_padded(sizeof(quote_data));
  quote_data quote;
  std::memcpy(&quote, bytes.data(), sizeof(quote));
  kav_fuzz::for_each_text(quote, [](char* field, std::size_t width) { field[width - 1] = '\0'; });
  return quote;
}

template <class BODY>
void check_lumen(fuzz_input& input, void (*convert)(lumen_udp_head*, BODY*, quote_data*),
                 quote_data (*model)(const std::string&, const std::string&, quote_data)) {
  const std::size_t shift = input.take_byte() % 8;
  const std::string head = input.take_padded(sizeof(lumen_udp_head));
  const std::string body = input.take_padded(sizeof(BODY));
  const quote_data before = take_cached_quote(input);
  heap_bytes head_copy(head, shift), body_copy(body, shift);
  quote_data quote = before;
  convert(head_copy.as<lumen_udp_head>(), body_copy.as<BODY>(), &quote);
  kav_fuzz::check_texts_end(quote);
  KAV_CHECK(kav_fuzz::is_same_quote(quote, model(head, body, before)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  switch (input.take_byte() % 6) {
    case 0:
      check_exchange(input, convert_shfe_quote_to_kav_quote, ftdc_quote, 356);
      break;
    case 1:
      check_exchange(input, convert_ffex_quote_to_kav_quote, ftdc_quote, 356);
      break;
    case 2:
      check_exchange(input, convert_zce_quote_to_kav_quote, czce_quote, 208);
      break;
    case 3:
      check_exchange(input, convert_gfex_quote_to_kav_quote, gfex_quote, 264);
      break;
    case 4:
      check_lumen(input, convert_lumen_normal_quote_to_kav_quote, lumen_tick_quote);
      break;
    default:
      check_lumen(input, convert_lumen_summary_quote_to_kav_quote, lumen_summary_quote);
      break;
  }
  return 0;
}
