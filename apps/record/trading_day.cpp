#include "apps/record/trading_day.h"

#include <fmt/format.h>  // fmt::format

#include <algorithm>  // std::all_of
#include <chrono>     // std::chrono::year_month_day
#include <cmath>      // std::isfinite
#include <cstring>    // std::memcpy

#include "apps/watch/quote_format.h"

namespace kav_record {
namespace {

using kav_watch::field_kind;
using kav_watch::field_text;
using kav_watch::record_field;

constexpr std::size_t k_longest_symbol = 19;  // longer ones can be registered with no server
constexpr std::chrono::hours k_china{8};      // ahead of UTC, all the year
constexpr std::chrono::hours k_evening{18};   // the night session belongs to the next day

bool is_digit(char c) { return c >= '0' && c <= '9'; }

unsigned number_of(std::string_view digits) {
  unsigned number = 0;
  for (const char c : digits) number = number * 10 + static_cast<unsigned>(c - '0');
  return number;
}

bool is_time(std::string_view t) {
  if (t.size() != 8 || t[2] != ':' || t[5] != ':') return false;
  const std::string digits = fmt::format("{}{}{}", t.substr(0, 2), t.substr(3, 2), t.substr(6));
  return std::all_of(digits.begin(), digits.end(), is_digit) && number_of(t.substr(0, 2)) < 24 &&
         number_of(t.substr(3, 2)) < 60 && number_of(t.substr(6)) < 60;
}

bool is_plain(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return c != ',' && c != '"' && c != '\n' && c != '\r'; });
}

bool is_plain_field(const KAVMarketDepthQuoteData& quote, const record_field& field) {
  const char* const bytes = reinterpret_cast<const char*>(&quote) + field.offset;
  if (field.kind == field_kind::text) {
    const std::string_view text = field_text(bytes, field.width);
    return text.size() < field.width && is_plain(text);
  }
  if (field.kind == field_kind::integer) return true;
  double price = 0;
  std::memcpy(&price, bytes, sizeof(price));
  return std::isfinite(price);
}

}  // namespace

bool is_date(std::string_view text) {
  if (text.size() != 8 || !std::all_of(text.begin(), text.end(), is_digit)) return false;
  const std::chrono::year_month_day date{
      std::chrono::year{static_cast<int>(number_of(text.substr(0, 4)))},
      std::chrono::month{number_of(text.substr(4, 2))},
      std::chrono::day{number_of(text.substr(6))}};
  return date.ok();
}

bool is_replayable(const KAVMarketDepthQuoteData& quote) {
  const std::string_view symbol = field_text(quote.InstrumentID);
  const std::string_view day = field_text(quote.TradingDay);
  const int millisec = quote.UpdateMillisec;
  const auto fields = kav_watch::record_fields();
  return !symbol.empty() && symbol.size() <= k_longest_symbol && (day.empty() || is_date(day)) &&
         is_time(field_text(quote.UpdateTime)) && millisec >= 0 && millisec <= 999 &&
         std::all_of(fields.begin(), fields.end(),
                     [&](const record_field& field) { return is_plain_field(quote, field); });
}

std::string trading_day_at(std::time_t now) {
  using namespace std::chrono;
  const auto local = system_clock::from_time_t(now) + k_china;
  sys_days day = floor<days>(local);
  if (local - day >= k_evening) day += days{1};
  while (weekday{day} == Saturday || weekday{day} == Sunday) day += days{1};
  const year_month_day date{day};
  return fmt::format("{:04}{:02}{:02}", int{date.year()}, unsigned{date.month()},
                     unsigned{date.day()});
}

std::string file_day(const KAVMarketDepthQuoteData& quote, std::time_t now) {
  const std::string_view named = field_text(quote.TradingDay);
  if (is_date(named) && is_replayable(quote)) return std::string{named};
  return (is_date(named) ? std::string{named} : trading_day_at(now)) + "-odd";
}

}  // namespace kav_record
