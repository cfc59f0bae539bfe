#include "apps/watch/quote_format.h"

#include <cmath>     // std::isfinite
#include <cstring>   // std::memcpy, strnlen
#include <iterator>  // std::back_inserter

#include "apps/watch/text_safety.h"

namespace kav_watch {
namespace {

using record = KAVMarketDepthQuoteData;

#define KAV_TEXT(name) \
  { #name, field_kind::text, offsetof(record, name), sizeof(record::name) }
#define KAV_PRICE(name) \
  { #name, field_kind::price, offsetof(record, name), sizeof(record::name) }
#define KAV_INTEGER(name) \
  { #name, field_kind::integer, offsetof(record, name), sizeof(record::name) }
#define KAV_LEVEL(n)                                                         \
  KAV_PRICE(BidPrice##n), KAV_INTEGER(BidVolume##n), KAV_PRICE(AskPrice##n), \
      KAV_INTEGER(AskVolume##n)

constexpr record_field k_fields[] = {
    KAV_TEXT(TradingDay),
    KAV_TEXT(InstrumentID),
    KAV_TEXT(ExchangeID),
    KAV_PRICE(LastPrice),
    KAV_PRICE(PreSettlementPrice),
    KAV_PRICE(PreClosePrice),
    KAV_PRICE(PreOpenInterest),
    KAV_PRICE(OpenPrice),
    KAV_PRICE(HighestPrice),
    KAV_PRICE(LowestPrice),
    KAV_INTEGER(Volume),
    KAV_PRICE(Turnover),
    KAV_PRICE(OpenInterest),
    KAV_PRICE(UpperLimitPrice),
    KAV_PRICE(LowerLimitPrice),
    KAV_TEXT(UpdateTime),
    KAV_INTEGER(UpdateMillisec),
    KAV_LEVEL(1),
    KAV_LEVEL(2),
    KAV_LEVEL(3),
    KAV_LEVEL(4),
    KAV_LEVEL(5),
    KAV_PRICE(ClosePrice),
    KAV_PRICE(SettlementPrice),
    KAV_PRICE(PreDelta),
    KAV_PRICE(CurrDelta),
    KAV_PRICE(AveragePrice),
    KAV_TEXT(ExchangeInstID),
};

#undef KAV_LEVEL
#undef KAV_INTEGER
#undef KAV_PRICE
#undef KAV_TEXT

constexpr std::size_t covered_bytes() {
  std::size_t bytes = 0;
  for (const record_field& field : k_fields) bytes += field.width;
  return bytes;
}
static_assert(covered_bytes() == sizeof(record), "no field is missing from the lines");

template <class T>
T read_field(const record& quote, const record_field& field) {
  T value;
  std::memcpy(&value, reinterpret_cast<const char*>(&quote) + field.offset, sizeof(value));
  return value;
}

std::string_view read_text(const record& quote, const record_field& field) {
  return field_text(reinterpret_cast<const char*>(&quote) + field.offset, field.width);
}

void append_number(fmt::memory_buffer& out, double value) {
  if (value == 0 && !std::signbit(value)) return out.push_back('0');  // most depth levels
  fmt::format_to(std::back_inserter(out), "{}", value);
}

void append_integer(fmt::memory_buffer& out, int value) {
  const fmt::format_int text{value};
  out.append(text.data(), text.data() + text.size());
}

void append_json_number(fmt::memory_buffer& out, double value) {
  if (std::isfinite(value)) return append_number(out, value);
  fmt::format_to(std::back_inserter(out), "null");
}

void append_csv_field(fmt::memory_buffer& out, const record& quote, const record_field& field) {
  switch (field.kind) {
    case field_kind::text:
      return append_csv_text(out, read_text(quote, field));
    case field_kind::price:
      return append_number(out, read_field<double>(quote, field));
    case field_kind::integer:
      return append_integer(out, read_field<std::int32_t>(quote, field));
  }
}

void append_json_field(fmt::memory_buffer& out, const record& quote, const record_field& field) {
  switch (field.kind) {
    case field_kind::text:
      return append_json_text(out, read_text(quote, field));
    case field_kind::price:
      return append_json_number(out, read_field<double>(quote, field));
    case field_kind::integer:
      return append_integer(out, read_field<std::int32_t>(quote, field));
  }
}

bool has_value(double price) { return price != 0 && std::isfinite(price); }

}  // namespace

std::span<const record_field> record_fields() { return k_fields; }

std::string_view field_text(const char* field, std::size_t width) {
  return {field, strnlen(field, width)};
}

void append_csv_header(fmt::memory_buffer& out) {
  std::string_view separator;
  for (const record_field& field : k_fields) {
    fmt::format_to(std::back_inserter(out), "{}{}", separator, field.name);
    separator = ",";
  }
  out.push_back('\n');
}

void append_csv(fmt::memory_buffer& out, const KAVMarketDepthQuoteData& quote) {
  for (const record_field& field : k_fields) {
    if (&field != k_fields) out.push_back(',');
    append_csv_field(out, quote, field);
  }
  out.push_back('\n');
}

void append_json(fmt::memory_buffer& out, const KAVMarketDepthQuoteData& quote) {
  for (const record_field& field : k_fields) {
    out.push_back(&field == k_fields ? '{' : ',');
    out.push_back('"');
    out.append(field.name.data(), field.name.data() + field.name.size());
    out.push_back('"');
    out.push_back(':');
    append_json_field(out, quote, field);
  }
  out.push_back('}');
  out.push_back('\n');
}

void append_plain(fmt::memory_buffer& out, const KAVMarketDepthQuoteData& quote) {
  const price_change change = change_of(quote);
  fmt::format_to(std::back_inserter(out),
                 "{:<12} {:<10} {:<6} last {:>9} {:>8} {:>8}  bid {:>9} x {:<5} ask {:>9} x {:<5} "
                 "volume {:>8} open interest {:>8}\n",
                 time_text(quote), printable_text(field_text(quote.InstrumentID)),
                 printable_text(field_text(quote.ExchangeID)), price_text(quote.LastPrice),
                 change_text(change), percent_text(change), price_text(quote.BidPrice1),
                 int{quote.BidVolume1}, price_text(quote.AskPrice1), int{quote.AskVolume1},
                 int{quote.Volume}, price_text(quote.OpenInterest));
}

std::string price_text(double price) {
  return has_value(price) ? fmt::format("{:.10g}", price) : "-";
}

price_change change_of(const KAVMarketDepthQuoteData& quote) {
  const double last = quote.LastPrice;
  const double before = quote.PreSettlementPrice;
  if (!has_value(last) || !has_value(before)) return {};
  return {true, last - before, (last - before) / std::fabs(before) * 100};
}

std::string change_text(const price_change& change) {
  return change.known ? fmt::format("{:+.10g}", change.absolute) : "-";
}

std::string percent_text(const price_change& change) {
  return change.known ? fmt::format("{:+.2f}%", change.percent) : "-";
}

std::string time_text(const KAVMarketDepthQuoteData& quote) {
  const std::string time = printable_text(field_text(quote.UpdateTime));
  return time.empty() ? "-" : fmt::format("{}.{:03}", time, int{quote.UpdateMillisec});
}

std::string type_text(KavKqsIntrumentType type) {
  const int code = type;
  if (code > 0x20 && code < 0x7F) return std::string(1, static_cast<char>(code));
  return fmt::format("{}", code);
}

}  // namespace kav_watch
