// A local calendar date and time with milliseconds.
#pragma once

#include <time.h>  // tm

#include <string>

namespace VORLAN {
namespace TOOLS {

// A value: seven fields, no time zone. Conversions from and to seconds since 1970-01-01 UTC use the
// process's local time zone.
//
// Patterns: "yyyy" year, "MM" month, "dd" day, "HH" hour, "mm" minute, "ss" second, "iii"
//           millisecond. Printing replaces the first whole occurrence of each. Parsing reads each
//           at the first place in the pattern where any of its letters stands.
// Threads:  a value has one owner at a time, like an int.
class date_time {
 public:
  static const char* const s_year;
  static const char* const s_moth;  // the month
  static const char* const s_day;
  static const char* const s_hour;
  static const char* const s_min;
  static const char* const s_sec;
  static const char* const s_millisecond;
  static const char* const s_default_format;  // "yyyyMMdd HH:mm:ss.iii"

  // The current time with 0 milliseconds.
  date_time();
  // The local time of that instant; a negative argument gives the current time instead.
  date_time(long long seconds, int milliseconds);
  // Parses, with the default pattern when none is given; a text that does not parse gives the
  // current time. Throws like assign().
  explicit date_time(const std::string& text);
  explicit date_time(const char* text);
  date_time(const std::string& text, const std::string& pattern);
  date_time(const char* text, const char* pattern);
  date_time(const date_time&) = default;
  date_time& operator=(const date_time&) = default;

  // The current local time with 0 milliseconds.
  void default_construct();

  // Each is false, with the value unchanged, when the arguments make no date and time. Parsing
  // throws std::out_of_range when the pattern puts a token beyond the end of the text.
  bool assign(long long seconds, int milliseconds);
  bool assign(const std::string& text, const std::string& pattern);
  bool assign(const std::string& text);
  bool assign(const char* text);
  bool assign(const char* text, const char* pattern);

  bool operator==(const date_time& other) const;
  bool operator<(const date_time& other) const;
  bool operator>(const date_time& other) const;

  void get_date(int& year, int& month, int& day) const;
  void get_time(int& hour, int& minute, int& second, int& millisecond) const;
  // Stored without any check.
  void set_date(int year, int month, int day);
  void set_time(int hour, int minute, int second, int millisecond);

  // Shifts the instant; the milliseconds stay. Minutes, hours and days are 60, 3600 and 86400
  // seconds, the product wrapping in 32 bits. True, unless the fields or the result cannot be an
  // instant: the value is then unchanged.
  bool add_sec(int count);
  bool add_min(int count);
  bool add_hour(int count);
  bool add_day(int count);
  bool subtract_sec(int count);
  bool subtract_min(int count);
  bool subtract_hour(int count);
  bool subtract_day(int count);

  bool leap_year() const;
  // 0 Sunday to 6 Saturday, -1 for a date that is none.
  int weekday() const;

  // Seconds since 1970-01-01 UTC and the milliseconds. Always true.
  bool format(long long& seconds, int& milliseconds) const;

  std::string format(const std::string& pattern) const;
  std::string format(const char* pattern) const;  // empty for null
  std::string format() const;
  std::string get_datetime_str() const;      // yyyyMMdd HH:mm:ss
  std::string get_sql_datetime_str() const;  // yyyy-MM-dd HH:mm:ss
  // False, with nothing written, when the text and its NUL do not fit.
  bool format(char* buffer, int size) const;
  bool format(char* buffer, int size, const char* pattern) const;

  // mktime() of the values: stored and returned. A null text gives -1.
  static long long convert_date_time_to_int64(int year, int month, int day, int hour, int minute,
                                              int second, long long& out);
  static long long convert_date_time_to_int64(const char* year, const char* month, const char* day,
                                              const char* hour, const char* minute,
                                              const char* second, long long& out);

  // "2024:3:5-9:7:3", cut to the buffer. False for negative seconds or no buffer.
  static bool convert_int64_date_time_to_str(long long seconds, char* buffer, int size);

  // Not empty and ASCII digits only.
  static bool is_valid_date_time_str(const std::string& text);

 private:
  bool set_from_seconds(long long seconds);  // year to second; false: unchanged
  bool shift(unsigned int seconds);          // a count in two's complement
  tm to_tm() const;

  int m_year = 0;
  int m_month = 0;
  int m_day = 0;
  int m_hour = 0;
  int m_minute = 0;
  int m_second = 0;
  int m_millisecond = 0;
};

}  // namespace TOOLS
}  // namespace VORLAN
