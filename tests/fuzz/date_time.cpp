// date_time: parsing, printing and arithmetic, in several time zones.
#include "tools/date_time.h"

#include <cstdlib>    // setenv
#include <ctime>      // tzset
#include <memory>     // std::unique_ptr
#include <optional>   // std::optional
#include <stdexcept>  // std::out_of_range

#include "tests/fuzz/check.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

using kav_fuzz::fuzz_input;
using kav_fuzz::up_to_nul;
using VORLAN::TOOLS::date_time;

// One that has no summer time, where clocks read the same only once, and two that have.
constexpr const char* k_zones[] = {"CST-8", "EST5EDT,M3.2.0,M11.1.0", "CET-1CEST,M3.5.0,M10.5.0/3"};
constexpr long long k_far_seconds = 1LL << 40;  // tens of thousands of years

struct fields {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, millisecond = 0;
  bool operator==(const fields&) const = default;
};

fields fields_of(const date_time& value) {
  fields f;
  value.get_date(f.year, f.month, f.day);
  value.get_time(f.hour, f.minute, f.second, f.millisecond);
  return f;
}

date_time date_time_of(const fields& f) {
  date_time value;
  value.set_date(f.year, f.month, f.day);
  value.set_time(f.hour, f.minute, f.second, f.millisecond);
  return value;
}

struct token {
  const char* letters;
  int lowest, highest;
  int fields::*field;
};

constexpr token k_tokens[] = {
    {"yyyy", 0, 9999, &fields::year},      {"MM", 1, 12, &fields::month},
    {"dd", 0, 31, &fields::day},           {"HH", 0, 23, &fields::hour},
    {"mm", 0, 59, &fields::minute},        {"ss", 0, 59, &fields::second},
    {"iii", 0, 999, &fields::millisecond},
};

// ---- Parsing.

enum class parse_end { stored, refused, thrown };

// `parsed` starts as today at midnight.
parse_end parse(const std::string& text, const std::string& pattern, fields& parsed) {
  for (const token& t : k_tokens) {
    const std::size_t at = pattern.find(t.letters[0]);
    if (at == std::string::npos) continue;
    if (at > text.size()) return parse_end::thrown;
    int value = 0;
    std::size_t digits = 0;
    for (const char c : text.substr(at, std::strlen(t.letters))) {
      if (c < '0' || c > '9') return parse_end::refused;
      value = value * 10 + (c - '0');
      ++digits;
    }
    if (digits == 0 || value < t.lowest || value > t.highest) return parse_end::refused;
    parsed.*t.field = value;
  }
  return parse_end::stored;
}

fields today() {
  fields f = fields_of(date_time());
  f.hour = f.minute = f.second = f.millisecond = 0;
  return f;
}

void check_parsing(fuzz_input& input) {
  const std::string pattern = input.take_text(), text = input.take_rest();
  const fields before{1, 2, 3, 4, 5, 6, 7};
  date_time value = date_time_of(before);
  fields expected = today();
  parse_end end = parse_end::thrown;
  try {
    end = value.assign(text, pattern) ? parse_end::stored : parse_end::refused;
  } catch (const std::out_of_range&) {
    // told by `end`
  }
  const fields day_after = today();
  if (!(expected == day_after) && end == parse_end::stored) return;  // midnight came between
  KAV_CHECK(parse(text, pattern, expected) == end);
  KAV_CHECK(fields_of(value) == (end == parse_end::stored ? expected : before));
}

// ---- Printing.

std::string print(const fields& f, std::string text) {
  for (const token& t : k_tokens) {
    const std::size_t width = std::strlen(t.letters), at = text.find(t.letters);
    if (at == std::string::npos) continue;
    std::string number = std::to_string(f.*t.field);
    if (number.size() < width) number.insert(0, width - number.size(), '0');
    text.replace(at, width, number);
  }
  return text;
}

fields take_fields(fuzz_input& input) {
  fields f;
  for (const token& t : k_tokens) f.*t.field = input.take<std::int32_t>();
  return f;
}

void check_printing(fuzz_input& input) {
  const fields f = take_fields(input);
  const date_time value = date_time_of(f);
  const std::size_t room = input.take_byte();
  const std::string pattern = input.take_rest(), expected = print(f, pattern);
  KAV_CHECK(value.format(pattern) == expected);
  KAV_CHECK(value.format() == print(f, "yyyyMMdd HH:mm:ss.iii"));
  KAV_CHECK(value.get_sql_datetime_str() == print(f, "yyyy-MM-dd HH:mm:ss"));

  const std::unique_ptr<char[]> buffer(new char[room]());
  const std::string text = pattern.substr(0, pattern.find('\0'));
  const std::string from_text = print(f, text);
  const bool fits = value.format(buffer.get(), static_cast<int>(room), pattern.c_str());
  KAV_CHECK(fits == (from_text.size() < room));
  KAV_CHECK(!fits || up_to_nul(from_text) == buffer.get());
}

// Fields within their ranges come back from their print.
void check_print_and_parse(fuzz_input& input) {
  fields f;
  for (const token& t : k_tokens) {
    f.*t.field = t.lowest + static_cast<int>(input.take_word()) % (t.highest - t.lowest + 1);
  }
  date_time value;
  KAV_CHECK(value.assign(date_time_of(f).format()));
  KAV_CHECK(fields_of(value) == f);
}

// ---- Instants.

bool has_summer_time(const char* zone) { return zone != k_zones[0]; }

// Two clocks that show the same may be an hour apart where clocks are set back.
bool is_same_instant(long long a, long long b, const char* zone) {
  const long long gap = a > b ? a - b : b - a;
  return gap == 0 || (has_summer_time(zone) && gap == 3600);
}

void check_seconds(fuzz_input& input, const char* zone) {
  const long long seconds = input.take<std::int64_t>() % k_far_seconds;
  const int milliseconds = input.take<std::int32_t>();
  date_time value = date_time_of({});
  KAV_CHECK(value.assign(seconds, milliseconds) == (seconds >= 0 && milliseconds >= 0));
  if (seconds < 0 || milliseconds < 0) return KAV_CHECK(fields_of(value) == fields{});
  long long back = 0;
  int milliseconds_back = 0;
  KAV_CHECK(value.format(back, milliseconds_back));
  KAV_CHECK(milliseconds_back == milliseconds && is_same_instant(back, seconds, zone));
  const int weekday = value.weekday();
  KAV_CHECK(weekday >= 0 && weekday < 7);
}

// There and back again; counts wrap like the operations' own.
void check_shifting(fuzz_input& input, const char* zone) {
  const long long seconds = (input.take<std::int64_t>() & (k_far_seconds - 1)) + k_far_seconds;
  const int count = input.take<std::int32_t>();
  using shift = bool (date_time::*)(int);
  constexpr shift k_there[] = {&date_time::add_sec, &date_time::add_min, &date_time::add_hour,
                               &date_time::add_day};
  constexpr shift k_back[] = {&date_time::subtract_sec, &date_time::subtract_min,
                              &date_time::subtract_hour, &date_time::subtract_day};
  constexpr unsigned k_unit[] = {1, 60, 3600, 86400};
  const unsigned unit = input.take_byte() % std::size(k_unit);
  date_time value(seconds, 5);
  long long start = 0, there = 0, back = 0;
  int milliseconds = 0;
  value.format(start, milliseconds);
  KAV_CHECK((value.*k_there[unit])(count));
  value.format(there, milliseconds);
  const auto moved = static_cast<std::int32_t>(static_cast<unsigned>(count) * k_unit[unit]);
  KAV_CHECK(is_same_instant(there, start + moved, zone));
  KAV_CHECK((value.*k_back[unit])(count));
  value.format(back, milliseconds);
  if (moved != INT32_MIN && !has_summer_time(zone)) KAV_CHECK(back == start);
  KAV_CHECK(milliseconds == 5);
}

// Fields that are no date, and numbers that are no instant: no result is promised, only an end.
void check_odd_fields(fuzz_input& input) {
  const fields f = take_fields(input);
  date_time value = date_time_of(f);
  const int weekday = value.weekday();
  KAV_CHECK(weekday >= -1 && weekday < 7);
  KAV_CHECK(value.leap_year() == ((f.year % 4 == 0 && f.year % 100 != 0) || f.year % 400 == 0));
  if (!value.add_day(input.take<std::int32_t>())) KAV_CHECK(fields_of(value) == f);
  const date_time other = date_time_of(take_fields(input));
  KAV_CHECK(int{value < other} + int{value > other} + int{value == other} == 1);
  long long seconds = 0;
  KAV_CHECK(date_time::convert_date_time_to_int64(f.year, f.month, f.day, f.hour, f.minute,
                                                  f.second, seconds) == seconds);
  const std::string text = input.take_text();
  const char* const t = text.c_str();
  date_time::convert_date_time_to_int64(t, t, t, t, t, t, seconds);
  const std::size_t room = input.take_byte();
  const std::unique_ptr<char[]> buffer(new char[room]);
  const long long instant = input.take<std::int64_t>();
  const bool printed =
      date_time::convert_int64_date_time_to_str(instant, buffer.get(), static_cast<int>(room));
  KAV_CHECK(!printed || (instant >= 0 && std::memchr(buffer.get(), '\0', room) != nullptr));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  const unsigned choice = input.take_byte();
  const char* const zone = k_zones[choice / 8 % std::size(k_zones)];
  ::setenv("TZ", zone, 1);
  ::tzset();
  switch (choice % 6) {
    case 0:
      check_parsing(input);
      break;
    case 1:
      check_printing(input);
      break;
    case 2:
      check_print_and_parse(input);
      break;
    case 3:
      check_seconds(input, zone);
      break;
    case 4:
      check_shifting(input, zone);
      break;
    default:
      check_odd_fields(input);
      break;
  }
  return 0;
}
