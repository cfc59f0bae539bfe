#include "tools/date_time.h"

#include <cstddef>  // size_t
#include <cstdlib>  // strtol
#include <cstring>  // memcpy, strlen
#include <tuple>    // tie

#include "tools/helpers.h"

namespace VORLAN {
namespace TOOLS {

const char* const date_time::s_year = "yyyy";
const char* const date_time::s_moth = "MM";
const char* const date_time::s_day = "dd";
const char* const date_time::s_hour = "HH";
const char* const date_time::s_min = "mm";
const char* const date_time::s_sec = "ss";
const char* const date_time::s_millisecond = "iii";
const char* const date_time::s_default_format = "yyyyMMdd HH:mm:ss.iii";

namespace {

constexpr unsigned int k_minute_seconds = 60;
constexpr unsigned int k_hour_seconds = 3600;
constexpr unsigned int k_day_seconds = 86400;

// Wraps: a year or month that is no calendar's is mktime()'s to refuse.
int wrapping_minus(int a, unsigned int b) {
  return static_cast<int>(static_cast<unsigned int>(a) - b);
}

int minus(int count) { return wrapping_minus(0, static_cast<unsigned int>(count)); }

int full_year(const tm& local) {
  return static_cast<int>(static_cast<unsigned int>(local.tm_year) + 1900u);
}

tm local_tm(int year, int month, int day, int hour, int minute, int second) {
  tm local{};
  local.tm_year = wrapping_minus(year, 1900);
  local.tm_mon = wrapping_minus(month, 1);
  local.tm_mday = day;
  local.tm_hour = hour;
  local.tm_min = minute;
  local.tm_sec = second;
  local.tm_isdst = -1;  // the platform knows whether summer time applies
  return local;
}

// False when there is no such instant. mktime() answers -1 then, but also for one second before
// 1970: only the day of the week that it fills in tells.
bool to_seconds(tm local, long long& seconds) {
  local.tm_wday = -1;
  seconds = ::mktime(&local);
  return local.tm_wday >= 0;
}

}  // namespace

date_time::date_time() { default_construct(); }

date_time::date_time(long long seconds, int milliseconds) {
  if (!assign(seconds, milliseconds)) default_construct();
}

date_time::date_time(const std::string& text) {
  if (!assign(text)) default_construct();
}

date_time::date_time(const char* text) {
  if (!assign(text)) default_construct();
}

date_time::date_time(const std::string& text, const std::string& pattern) {
  if (!assign(text, pattern)) default_construct();
}

date_time::date_time(const char* text, const char* pattern) {
  if (!assign(text, pattern)) default_construct();
}

void date_time::default_construct() {
  set_from_seconds(::time(nullptr));
  m_millisecond = 0;
}

bool date_time::assign(long long seconds, int milliseconds) {
  if (seconds < 0 || milliseconds < 0 || !set_from_seconds(seconds)) return false;
  m_millisecond = milliseconds;
  return true;
}

bool date_time::assign(const std::string& text) { return assign(text, s_default_format); }

bool date_time::assign(const char* text) {
  return text != nullptr && assign(std::string(text), s_default_format);
}

bool date_time::assign(const char* text, const char* pattern) {
  return text != nullptr && pattern != nullptr && assign(std::string(text), std::string(pattern));
}

namespace {

// One token of a pattern while a text is parsed.
struct token_rule {
  const char* token;
  int lowest;
  int highest;
  int* value;  // holds the default
};

// Reads the token's value where the pattern has any of its letters; true with the default when it
// has none.
bool read_token(const std::string& text, const std::string& pattern, const token_rule& rule) {
  const std::size_t position = pattern.find_first_of(rule.token);
  if (position == std::string::npos) return true;
  const std::string digits = text.substr(position, std::strlen(rule.token));
  if (!date_time::is_valid_date_time_str(digits)) return false;
  *rule.value = static_cast<int>(std::strtol(digits.c_str(), nullptr, 10));
  return *rule.value >= rule.lowest && *rule.value <= rule.highest;
}

}  // namespace

bool date_time::assign(const std::string& text, const std::string& pattern) {
  date_time parsed;
  parsed.set_time(0, 0, 0, 0);
  const token_rule rules[] = {
      {s_year, 0, 9999, &parsed.m_year},
      {s_moth, 1, 12, &parsed.m_month},
      {s_day, 0, 31, &parsed.m_day},
      {s_hour, 0, 23, &parsed.m_hour},
      {s_min, 0, 59, &parsed.m_minute},
      {s_sec, 0, 59, &parsed.m_second},
      {s_millisecond, 0, 999, &parsed.m_millisecond},
  };
  for (const token_rule& rule : rules) {
    if (!read_token(text, pattern, rule)) return false;
  }
  *this = parsed;
  return true;
}

bool date_time::operator==(const date_time& other) const {
  return !(*this < other) && !(other < *this);
}

bool date_time::operator<(const date_time& other) const {
  return std::tie(m_year, m_month, m_day, m_hour, m_minute, m_second, m_millisecond) <
         std::tie(other.m_year, other.m_month, other.m_day, other.m_hour, other.m_minute,
                  other.m_second, other.m_millisecond);
}

bool date_time::operator>(const date_time& other) const { return other < *this; }

void date_time::get_date(int& year, int& month, int& day) const {
  year = m_year;
  month = m_month;
  day = m_day;
}

void date_time::get_time(int& hour, int& minute, int& second, int& millisecond) const {
  hour = m_hour;
  minute = m_minute;
  second = m_second;
  millisecond = m_millisecond;
}

void date_time::set_date(int year, int month, int day) {
  m_year = year;
  m_month = month;
  m_day = day;
}

void date_time::set_time(int hour, int minute, int second, int millisecond) {
  m_hour = hour;
  m_minute = minute;
  m_second = second;
  m_millisecond = millisecond;
}

bool date_time::add_sec(int count) { return shift(static_cast<unsigned int>(count)); }

bool date_time::add_min(int count) {
  return shift(static_cast<unsigned int>(count) * k_minute_seconds);
}

bool date_time::add_hour(int count) {
  return shift(static_cast<unsigned int>(count) * k_hour_seconds);
}

bool date_time::add_day(int count) {
  return shift(static_cast<unsigned int>(count) * k_day_seconds);
}

bool date_time::subtract_sec(int count) { return add_sec(minus(count)); }
bool date_time::subtract_min(int count) { return add_min(minus(count)); }
bool date_time::subtract_hour(int count) { return add_hour(minus(count)); }
bool date_time::subtract_day(int count) { return add_day(minus(count)); }

bool date_time::shift(unsigned int seconds) {
  long long instant = 0;
  return to_seconds(to_tm(), instant) && set_from_seconds(instant + static_cast<int>(seconds));
}

bool date_time::leap_year() const {
  if (m_year % 400 == 0) return true;
  return m_year % 4 == 0 && m_year % 100 != 0;
}

int date_time::weekday() const {
  long long midnight = 0;
  tm local{};
  if (!to_seconds(local_tm(m_year, m_month, m_day, 0, 0, 0), midnight)) return -1;
  return localtime_vl(static_cast<time_t>(midnight), &local) != nullptr ? local.tm_wday : -1;
}

bool date_time::format(long long& seconds, int& milliseconds) const {
  to_seconds(to_tm(), seconds);
  milliseconds = m_millisecond;
  return true;
}

namespace {

void replace_token(std::string& text, const char* token, int value) {
  const std::size_t width = std::strlen(token);
  const std::size_t position = text.find(token);
  if (position == std::string::npos) return;
  std::string number = to_string(value);
  if (number.size() < width) number.insert(0, width - number.size(), '0');
  text.replace(position, width, number);
}

}  // namespace

std::string date_time::format(const std::string& pattern) const {
  std::string text = pattern;
  replace_token(text, s_year, m_year);
  replace_token(text, s_moth, m_month);
  replace_token(text, s_day, m_day);
  replace_token(text, s_hour, m_hour);
  replace_token(text, s_min, m_minute);
  replace_token(text, s_sec, m_second);
  replace_token(text, s_millisecond, m_millisecond);
  return text;
}

std::string date_time::format(const char* pattern) const {
  return pattern != nullptr ? format(std::string(pattern)) : std::string();
}

std::string date_time::format() const { return format(s_default_format); }

std::string date_time::get_datetime_str() const { return format("yyyyMMdd HH:mm:ss"); }

std::string date_time::get_sql_datetime_str() const { return format("yyyy-MM-dd HH:mm:ss"); }

bool date_time::format(char* buffer, int size) const {
  return format(buffer, size, s_default_format);
}

bool date_time::format(char* buffer, int size, const char* pattern) const {
  const std::string text = format(pattern);
  if (buffer == nullptr || size < 1 || text.size() >= static_cast<std::size_t>(size)) return false;
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return true;
}

long long date_time::convert_date_time_to_int64(int year, int month, int day, int hour, int minute,
                                                int second, long long& out) {
  to_seconds(local_tm(year, month, day, hour, minute, second), out);
  return out;
}

long long date_time::convert_date_time_to_int64(const char* year, const char* month,
                                                const char* day, const char* hour,
                                                const char* minute, const char* second,
                                                long long& out) {
  int numbers[6] = {};
  int* number = numbers;
  for (const char* text : {year, month, day, hour, minute, second}) {
    if (text == nullptr) return out = -1;
    *number++ = static_cast<int>(std::strtol(text, nullptr, 10));
  }
  return convert_date_time_to_int64(numbers[0], numbers[1], numbers[2], numbers[3], numbers[4],
                                    numbers[5], out);
}

bool date_time::convert_int64_date_time_to_str(long long seconds, char* buffer, int size) {
  tm local{};
  if (seconds < 0 || buffer == nullptr || size < 1) return false;
  if (localtime_vl(static_cast<time_t>(seconds), &local) == nullptr) return false;
  snprintf_vl(buffer, static_cast<unsigned int>(size), "%d:%d:%d-%d:%d:%d", full_year(local),
              local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  return true;
}

bool date_time::is_valid_date_time_str(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

bool date_time::set_from_seconds(long long seconds) {
  tm local{};
  if (localtime_vl(static_cast<time_t>(seconds), &local) == nullptr) return false;
  set_date(full_year(local), local.tm_mon + 1, local.tm_mday);
  m_hour = local.tm_hour;
  m_minute = local.tm_min;
  m_second = local.tm_sec;
  return true;
}

tm date_time::to_tm() const { return local_tm(m_year, m_month, m_day, m_hour, m_minute, m_second); }

}  // namespace TOOLS
}  // namespace VORLAN
