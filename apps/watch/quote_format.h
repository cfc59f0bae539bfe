// One quote as one line of text: for programs (CSV, JSON) and for people.
#pragma once

#include <fmt/format.h>  // fmt::memory_buffer

#include <cstddef>      // std::size_t
#include <span>         // std::span
#include <string>       // std::string
#include <string_view>  // std::string_view

#include "api/kav_quote_api.h"

namespace kav_watch {

enum class field_kind { text, price, integer };

// Where one field of the quote record lies; the record is packed, so it is read by copying.
struct record_field {
  std::string_view name;
  field_kind kind;
  std::size_t offset;
  std::size_t width;
};

// All fields of the record in the order of the CSV columns.
std::span<const record_field> record_fields();

// A fixed-width text field up to its NUL, or whole when it has none.
std::string_view field_text(const char* field, std::size_t width);
template <std::size_t N>
std::string_view field_text(const char (&field)[N]) {
  return field_text(field, N);
}

// Each appends one line with its line feed. Numbers in CSV and JSON are the shortest that read
// back as the same value; a number that JSON cannot hold (NaN, infinite) becomes null.
void append_csv_header(fmt::memory_buffer& out);
void append_csv(fmt::memory_buffer& out, const KAVMarketDepthQuoteData& quote);
void append_json(fmt::memory_buffer& out, const KAVMarketDepthQuoteData& quote);
void append_plain(fmt::memory_buffer& out, const KAVMarketDepthQuoteData& quote);

// For people: ten significant digits, "-" where there is no value.
std::string price_text(double price);
// What separates the last price from the previous settlement.
struct price_change {
  bool known = false;  // both prices are there
  double absolute = 0;
  double percent = 0;
};
price_change change_of(const KAVMarketDepthQuoteData& quote);
std::string change_text(const price_change& change);          // "+12.2", "-" when unknown
std::string percent_text(const price_change& change);         // "+0.35%"
std::string time_text(const KAVMarketDepthQuoteData& quote);  // "10:15:03.500"
// The server's one-byte code as a character where it is one, else as a number.
std::string type_text(KavKqsIntrumentType type);

}  // namespace kav_watch
