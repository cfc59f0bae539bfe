#include "feeds/feed_convert.h"

#include <cstdlib>      // strtol
#include <type_traits>  // std::remove_pointer_t

#include "feeds/exchange_id.h"

// A field of *source by its name.
#define KAV_READ(field) \
  read_le<decltype(source->field)>(source, offsetof(std::remove_pointer_t<decltype(source)>, field))
// Where a text field of *source starts.
#define KAV_TEXT(field)                     \
  text_field<sizeof(source->field)>(source, \
                                    offsetof(std::remove_pointer_t<decltype(source)>, field))

namespace {

// ---- Texts.

// A text in a source record: ends at its NUL, or after `WIDTH` bytes.
template <std::size_t WIDTH>
struct source_text {
  const char* start;
};

template <std::size_t WIDTH>
source_text<WIDTH> text_field(const void* record, std::size_t offset) {
  return {static_cast<const char*>(record) + offset};
}

constexpr std::uint64_t k_word_ones = 0x0101010101010101;
constexpr std::uint64_t k_word_highs = 0x8080808080808080;

// The lowest bit set marks the first NUL of eight characters; 0 when there is none.
std::uint64_t mark_nul(std::uint64_t word) { return (word - k_word_ones) & ~word & k_word_highs; }

// Stores the characters of `word` up to the marked NUL; what lies behind it in dst stays.
void store_up_to_nul(char* dst, std::uint64_t word, std::uint64_t nul) {
  const std::uint64_t taken = nul ^ (nul - 1);
  const std::uint64_t merged = (word & taken) | (read_le<std::uint64_t>(dst, 0) & ~taken);
  std::memcpy(dst, &merged, sizeof(merged));
}

// A bounded copy like strncpy_vl(), eight characters a step: texts are most of a conversion's work.
template <std::size_t DST, std::size_t SRC>
void copy_text(char (&dst)[DST], source_text<SRC> src) {
  constexpr std::size_t k_longest = SRC < DST ? SRC : DST - 1;
  std::size_t at = 0;
  for (; at + sizeof(std::uint64_t) <= k_longest; at += sizeof(std::uint64_t)) {
    const auto word = read_le<std::uint64_t>(src.start, at);
    if (const std::uint64_t nul = mark_nul(word)) return store_up_to_nul(dst + at, word, nul);
    std::memcpy(dst + at, &word, sizeof(word));
  }
  for (; at < k_longest; ++at) {
    dst[at] = src.start[at];
    if (dst[at] == '\0') return;
  }
  dst[k_longest] = '\0';
}

// Two digits in the order in which they are printed, less the '0' of each; of more, none.
std::uint64_t two_digits(unsigned value) { return value / 10 | value % 10 << 8; }

template <std::size_t DST, std::size_t SIZE>
void copy_name(char (&dst)[DST], const char (&name)[SIZE]) {
  static_assert(SIZE <= DST, "an exchange name fits its field");
  std::memcpy(dst, name, SIZE);
}

// At least `digits` digits; returns the position behind them.
char* print_padded(char* at, unsigned value, int digits) {
  unsigned divisor = 1;
  for (int i = 1; i < digits; ++i) divisor *= 10;
  while (value / divisor >= 10) divisor *= 10;
  for (; divisor > 0; divisor /= 10) *at++ = static_cast<char>('0' + value / divisor % 10);
  return at;
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Three characters without a NUL, read as strtol() does.
std::int32_t parse_millisec(const char* text) {
  if (is_digit(text[0]) && is_digit(text[1]) && is_digit(text[2])) {
    return (text[0] - '0') * 100 + (text[1] - '0') * 10 + (text[2] - '0');
  }
  const char terminated[4] = {text[0], text[1], text[2], '\0'};
  return static_cast<std::int32_t>(std::strtol(terminated, nullptr, 10));
}

// ---- Depth levels.

#pragma pack(push, 1)
// A price and, right behind it, its volume: so in both kinds of record, on either side of a level.
struct level_side {
  double price;
  std::int32_t volume;
};
#pragma pack(pop)
constexpr std::size_t k_level_bytes = 2 * sizeof(level_side);  // in a quote record
constexpr std::size_t k_level_count = 5;
constexpr std::size_t k_level_1 = offsetof(KAVMarketDepthQuoteData, BidPrice1);
constexpr std::size_t k_level_2 = offsetof(KAVMarketDepthQuoteData, BidPrice2);
static_assert(k_level_2 == k_level_1 + k_level_bytes, "levels follow one another");
static_assert(offsetof(KAVMarketDepthQuoteData, AveragePrice) ==
                  k_level_1 + k_level_count * k_level_bytes,
              "five levels");
static_assert(offsetof(ftdc_depth_level, BidVolume) == offsetof(level_side, volume) &&
                  offsetof(ftdc_depth_level, AskVolume) ==
                      offsetof(ftdc_depth_level, AskPrice) + offsetof(level_side, volume),
              "sides of a source level");

void copy_levels(const ftdc_depth_market_data* source, KAVMarketDepthQuoteData* quote) {
  std::size_t from = offsetof(ftdc_depth_market_data, Levels);
  char* to = reinterpret_cast<char*>(quote) + k_level_1;
  for (std::size_t i = 0; i < k_level_count; ++i) {
    const auto bid = read_le<level_side>(source, from + offsetof(ftdc_depth_level, BidPrice));
    const auto ask = read_le<level_side>(source, from + offsetof(ftdc_depth_level, AskPrice));
    std::memcpy(to, &bid, sizeof(bid));
    std::memcpy(to + sizeof(bid), &ask, sizeof(ask));
    from += sizeof(ftdc_depth_level);
    to += k_level_bytes;
  }
}

// Level by level: cleared as one block, they would cost a `rep stos` and its slow start.
void clear_levels_2_to_5(KAVMarketDepthQuoteData* quote) {
  char* const levels = reinterpret_cast<char*>(quote) + k_level_2;
  for (std::size_t i = 0; i + 1 < k_level_count; ++i) {
    std::memset(levels + i * k_level_bytes, 0, k_level_bytes);
  }
}

// ---- SHFE, INE and CFFEX.

void convert_ftdc(const ftdc_depth_market_data* source, KAVMarketDepthQuoteData* quote) {
  copy_text(quote->TradingDay, KAV_TEXT(TradingDay));
  copy_text(quote->InstrumentID, KAV_TEXT(InstrumentID));
  copy_name(quote->ExchangeID, k_exchange_cffex);
  copy_text(quote->ExchangeInstID, KAV_TEXT(InstrumentID));
  quote->LastPrice = KAV_READ(LastPrice);
  quote->PreSettlementPrice = KAV_READ(PreSettlementPrice);
  quote->PreClosePrice = KAV_READ(PreClosePrice);
  quote->PreOpenInterest = KAV_READ(PreOpenInterest);
  quote->OpenPrice = KAV_READ(OpenPrice);
  quote->HighestPrice = KAV_READ(HighestPrice);
  quote->LowestPrice = KAV_READ(LowestPrice);
  quote->Volume = KAV_READ(Volume);
  quote->Turnover = KAV_READ(Turnover);
  quote->OpenInterest = KAV_READ(OpenInterest);
  quote->ClosePrice = KAV_READ(ClosePrice);
  quote->SettlementPrice = KAV_READ(SettlementPrice);
  quote->UpperLimitPrice = KAV_READ(UpperLimitPrice);
  quote->LowerLimitPrice = KAV_READ(LowerLimitPrice);
  quote->PreDelta = KAV_READ(PreDelta);
  quote->CurrDelta = KAV_READ(CurrDelta);
  copy_text(quote->UpdateTime, KAV_TEXT(UpdateTime));
  quote->UpdateMillisec = KAV_READ(UpdateMillisec);
  copy_levels(source, quote);
}

// ---- CZCE.

// The first eight digits of numbers that are no date.
std::uint64_t odd_date_text(unsigned year, unsigned month, unsigned day) {
  char text[11];  // 65535, 255 and 255 at most
  print_padded(print_padded(print_padded(text, year, 4), month, 2), day, 2);
  return read_le<std::uint64_t>(text, 0);
}

// YYYYMMDD as the eight characters lie in memory.
std::uint64_t date_text(unsigned year, unsigned month, unsigned day) {
  if (year > 9999 || month > 99 || day > 99) return odd_date_text(year, month, day);
  return (two_digits(year / 100) | two_digits(year % 100) << 16 | two_digits(month) << 32 |
          two_digits(day) << 48) +
         k_word_ones * '0';
}

// The date in both.
void print_date(const MarketMatchData* source, KAVMarketDepthQuoteData* quote) {
  const std::uint64_t text = date_text(KAV_READ(Year), KAV_READ(Month), KAV_READ(Day));
  for (char* field : {quote->TradingDay, quote->UpdateTime}) {
    std::memcpy(field, &text, sizeof(text));
    field[sizeof(text)] = '\0';
  }
}

void convert_zce_prices(const MarketMatchData* source, KAVMarketDepthQuoteData* quote) {
  quote->LastPrice = KAV_READ(LastPrice);
  quote->PreSettlementPrice = KAV_READ(PreSettlementPrice);
  quote->PreClosePrice = KAV_READ(PreClosePrice);
  quote->OpenPrice = KAV_READ(OpenPrice);
  quote->HighestPrice = KAV_READ(HighestPrice);
  quote->LowestPrice = KAV_READ(LowestPrice);
  quote->ClosePrice = KAV_READ(ClosePrice);
  quote->SettlementPrice = KAV_READ(SettlementPrice);
  quote->UpperLimitPrice = KAV_READ(UpperLimitPrice);
  quote->LowerLimitPrice = KAV_READ(LowerLimitPrice);
  quote->AveragePrice = KAV_READ(AveragePrice);
  quote->PreDelta = 0.0;
  quote->CurrDelta = 0.0;
}

void convert_zce_volumes(const MarketMatchData* source, KAVMarketDepthQuoteData* quote) {
  quote->PreOpenInterest = KAV_READ(PreOpenInterest);
  quote->Volume = static_cast<std::int32_t>(KAV_READ(Volume));
  quote->Turnover = KAV_READ(Turnover);
  quote->OpenInterest = KAV_READ(OpenInterest);
  quote->UpdateMillisec = static_cast<std::int32_t>(KAV_READ(UpdateMillisec));
}

void convert_zce_levels(const MarketMatchData* source, KAVMarketDepthQuoteData* quote) {
  quote->BidPrice1 = KAV_READ(BidPrice1);
  quote->BidVolume1 = static_cast<std::int32_t>(KAV_READ(BidVolume1));
  quote->AskPrice1 = KAV_READ(AskPrice1);
  quote->AskVolume1 = static_cast<std::int32_t>(KAV_READ(AskVolume1));
  clear_levels_2_to_5(quote);
}

// ---- GFEX.

void convert_gfex_texts(const _fldGfexBestQuot* source, KAVMarketDepthQuoteData* quote) {
  copy_text(quote->TradingDay, KAV_TEXT(TradingDay));
  copy_text(quote->InstrumentID, KAV_TEXT(InstrumentID));
  copy_name(quote->ExchangeID, k_exchange_gfex);
  copy_text(quote->ExchangeInstID, KAV_TEXT(InstrumentID));
  std::memcpy(quote->UpdateTime, KAV_TEXT(UpdateTime).start, sizeof(source->UpdateTime));
  quote->UpdateTime[sizeof(source->UpdateTime)] = '\0';
  quote->UpdateMillisec = parse_millisec(KAV_TEXT(UpdateMillisec).start);
}

void convert_gfex_prices(const _fldGfexBestQuot* source, KAVMarketDepthQuoteData* quote) {
  quote->LastPrice = KAV_READ(LastPrice);
  quote->PreSettlementPrice = KAV_READ(PreSettlementPrice);
  quote->PreClosePrice = KAV_READ(PreClosePrice);
  quote->OpenPrice = KAV_READ(OpenPrice);
  quote->HighestPrice = KAV_READ(HighestPrice);
  quote->LowestPrice = KAV_READ(LowestPrice);
  quote->ClosePrice = KAV_READ(ClosePrice);
  quote->SettlementPrice = KAV_READ(SettlementPrice);
  quote->UpperLimitPrice = KAV_READ(UpperLimitPrice);
  quote->LowerLimitPrice = KAV_READ(LowerLimitPrice);
  quote->AveragePrice = KAV_READ(AveragePrice);
  quote->PreDelta = 0.0;
  quote->CurrDelta = 0.0;
}

void convert_gfex_volumes(const _fldGfexBestQuot* source, KAVMarketDepthQuoteData* quote) {
  quote->Volume = KAV_READ(Volume);
  quote->Turnover = KAV_READ(Turnover);
  quote->PreOpenInterest = KAV_READ(PreOpenInterest);
  quote->OpenInterest = KAV_READ(OpenInterest);
}

void convert_gfex_levels(const _fldGfexBestQuot* source, KAVMarketDepthQuoteData* quote) {
  quote->BidPrice1 = KAV_READ(BidPrice1);
  quote->BidVolume1 = KAV_READ(BidVolume1);
  quote->AskPrice1 = KAV_READ(AskPrice1);
  quote->AskVolume1 = KAV_READ(AskVolume1);
  clear_levels_2_to_5(quote);
}

// ---- Lumen.

constexpr double k_lumen_limit = 9999999999999.9;  // from here on, a value means "none"

// False for NaN as well.
bool is_lumen_value(double value) { return value > 0.0 && value < k_lumen_limit; }

// Sets a field of *quote to the field of the same name in *source, if that has a value.
#define KAV_MERGE(field)                             \
  do {                                               \
    const double value = KAV_READ(field);            \
    if (is_lumen_value(value)) quote->field = value; \
  } while (false)

void convert_lumen_head(const lumen_udp_head* source, KAVMarketDepthQuoteData* quote) {
  copy_text(quote->InstrumentID, KAV_TEXT(InstrumentID));
  if (KAV_READ(Market) != 0) {
    copy_name(quote->ExchangeID, k_exchange_shfe);
  } else {
    copy_name(quote->ExchangeID, k_exchange_cffex);
  }
  copy_text(quote->ExchangeInstID, KAV_TEXT(InstrumentID));
  copy_text(quote->UpdateTime, KAV_TEXT(UpdateTime));
  quote->UpdateMillisec = KAV_READ(UpdateMillisec);
}

void add_lumen_trade(const lumen_udp_normal* source, KAVMarketDepthQuoteData* quote) {
  KAV_MERGE(LastPrice);
  // Without a sign, so that a sum past the end wraps.
  const auto sum =
      static_cast<std::uint32_t>(quote->Volume) + static_cast<std::uint32_t>(KAV_READ(TradeVolume));
  quote->Volume = static_cast<std::int32_t>(sum);
}

void set_lumen_book(const lumen_udp_normal* source, KAVMarketDepthQuoteData* quote) {
  KAV_MERGE(BidPrice1);
  quote->BidVolume1 = KAV_READ(BidVolume1);
  KAV_MERGE(AskPrice1);
  quote->AskVolume1 = KAV_READ(AskVolume1);
}

}  // namespace

void convert_shfe_quote_to_kav_quote(KQC_CShfeFtdcDepthMarketDataField* source,
                                     KAVMarketDepthQuoteData* quote) {
  if (source == nullptr || quote == nullptr) return;
  convert_ftdc(source, quote);
}

void convert_ffex_quote_to_kav_quote(KQC_CFfexFtdcDepthMarketDataField* source,
                                     KAVMarketDepthQuoteData* quote) {
  if (source == nullptr || quote == nullptr) return;
  convert_ftdc(source, quote);
}

void convert_zce_quote_to_kav_quote(MarketMatchData* source, KAVMarketDepthQuoteData* quote) {
  if (source == nullptr || quote == nullptr) return;
  print_date(source, quote);
  copy_text(quote->InstrumentID, KAV_TEXT(InstrumentID));
  copy_name(quote->ExchangeID, k_exchange_czce);
  copy_text(quote->ExchangeInstID, KAV_TEXT(InstrumentID));
  convert_zce_prices(source, quote);
  convert_zce_volumes(source, quote);
  convert_zce_levels(source, quote);
}

void convert_gfex_quote_to_kav_quote(_fldGfexBestQuot* source, KAVMarketDepthQuoteData* quote) {
  if (source == nullptr || quote == nullptr) return;
  convert_gfex_texts(source, quote);
  convert_gfex_prices(source, quote);
  convert_gfex_volumes(source, quote);
  convert_gfex_levels(source, quote);
}

void convert_lumen_normal_quote_to_kav_quote(lumen_udp_head* head, lumen_udp_normal* body,
                                             KAVMarketDepthQuoteData* quote) {
  if (head == nullptr || body == nullptr || quote == nullptr) return;
  convert_lumen_head(head, quote);
  const auto* const source = body;
  KAV_MERGE(OpenInterest);
  KAV_MERGE(Turnover);
  const int flag = read_le<std::uint8_t>(head, offsetof(lumen_udp_head, QuoteFlag));
  if (flag == k_lumen_trade || flag == k_lumen_trade_and_book) add_lumen_trade(body, quote);
  if (flag == k_lumen_book || flag == k_lumen_trade_and_book) set_lumen_book(body, quote);
}

void convert_lumen_summary_quote_to_kav_quote(lumen_udp_head* head, lumen_udp_summary* body,
                                              KAVMarketDepthQuoteData* quote) {
  if (head == nullptr || body == nullptr || quote == nullptr) return;
  convert_lumen_head(head, quote);
  const auto* const source = body;
  KAV_MERGE(OpenPrice);
  KAV_MERGE(HighestPrice);
  KAV_MERGE(LowestPrice);
  KAV_MERGE(ClosePrice);
  KAV_MERGE(SettlementPrice);
  KAV_MERGE(UpperLimitPrice);
  KAV_MERGE(LowerLimitPrice);
  KAV_MERGE(CurrDelta);
}

#undef KAV_MERGE
#undef KAV_TEXT
#undef KAV_READ
