#include "tools/date_time.h"

#include <gtest/gtest.h>
#include <time.h>

#include <climits>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>

namespace {

using VORLAN::TOOLS::date_time;

// Zones as rules, so that the host's zone files do not matter.
constexpr const char* k_utc = "UTC0";
constexpr const char* k_shanghai = "CST-8";
constexpr const char* k_new_york = "EST5EDT,M3.2.0,M11.1.0";
constexpr const char* k_london = "GMT0BST,M3.5.0/1,M10.5.0";
constexpr const char* k_lord_howe = "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0";
constexpr const char* k_zones[] = {k_utc, k_shanghai, k_new_york, k_london, k_lord_howe};

// Lives in a time zone for the length of a block.
class time_zone {
 public:
  explicit time_zone(const char* zone) {
    if (const char* before = std::getenv("TZ")) m_before = before;
    ::setenv("TZ", zone, 1);
    ::tzset();
  }
  ~time_zone() {
    if (m_before) {
      ::setenv("TZ", m_before->c_str(), 1);
    } else {
      ::unsetenv("TZ");
    }
    ::tzset();
  }
  time_zone(const time_zone&) = delete;
  time_zone& operator=(const time_zone&) = delete;

 private:
  std::optional<std::string> m_before;
};

date_time make(int year, int month, int day, int hour, int minute, int second, int millisecond) {
  date_time value;
  value.set_date(year, month, day);
  value.set_time(hour, minute, second, millisecond);
  return value;
}

long long seconds_of(const date_time& value) {
  long long seconds = 0;
  int milliseconds = 0;
  EXPECT_TRUE(value.format(seconds, milliseconds));
  return seconds;
}

int milliseconds_of(const date_time& value) {
  long long seconds = 0;
  int milliseconds = -1;
  value.format(seconds, milliseconds);
  return milliseconds;
}

// Whether what `make_value` gives lies between the clock's readings around it.
template <class MAKE>
bool is_now(MAKE make_value) {
  const long long before = ::time(nullptr);
  const long long seconds = seconds_of(make_value());
  return before <= seconds && seconds <= ::time(nullptr);
}

const date_time k_march = make(2024, 3, 5, 9, 7, 3, 45);

}  // namespace

TEST(date_time, tokens_have_their_fixed_texts) {
  EXPECT_STREQ("yyyy", date_time::s_year);
  EXPECT_STREQ("MM", date_time::s_moth);
  EXPECT_STREQ("dd", date_time::s_day);
  EXPECT_STREQ("HH", date_time::s_hour);
  EXPECT_STREQ("mm", date_time::s_min);
  EXPECT_STREQ("ss", date_time::s_sec);
  EXPECT_STREQ("iii", date_time::s_millisecond);
  EXPECT_STREQ("yyyyMMdd HH:mm:ss.iii", date_time::s_default_format);
}

TEST(date_time, starts_with_the_current_time_and_no_milliseconds) {
  const time_zone zone(k_utc);
  EXPECT_TRUE(is_now([] { return date_time(); }));
  EXPECT_EQ(0, milliseconds_of(date_time()));
}

TEST(date_time, of_a_negative_argument_is_the_current_time_without_milliseconds) {
  const time_zone zone(k_utc);
  EXPECT_TRUE(is_now([] { return date_time(-1, 5); }));
  EXPECT_TRUE(is_now([] { return date_time(1000, -5); }));
  EXPECT_EQ(0, milliseconds_of(date_time(-1, 5)));
}

TEST(date_time, of_an_instant_is_the_local_time) {
  {
    const time_zone zone(k_utc);
    EXPECT_EQ("19700101 00:00:00.007", date_time(0, 7).format());
  }
  {
    const time_zone zone(k_shanghai);
    EXPECT_EQ("19700101 08:00:00.000", date_time(0, 0).format());
  }
  {
    const time_zone zone(k_new_york);
    EXPECT_EQ("19691231 19:00:00.000", date_time(0, 0).format());
    EXPECT_EQ("20240310 03:00:00.000", date_time(1710054000, 0).format()) << "summer time begins";
    EXPECT_EQ("20240310 01:59:59.000", date_time(1710053999, 0).format());
  }
  {
    const time_zone zone(k_lord_howe);
    EXPECT_EQ("19700101 11:00:00.000", date_time(0, 0).format());
  }
}

TEST(date_time, beyond_every_calendar_is_the_current_time) {
  const time_zone zone(k_utc);
  EXPECT_TRUE(is_now([] { return date_time(LLONG_MAX, 5); }));
  date_time value = k_march;
  EXPECT_FALSE(value.assign(LLONG_MAX, 5));
  EXPECT_TRUE(value == k_march);
}

TEST(date_time, goes_to_seconds_and_back_in_every_zone) {
  for (const char* name : k_zones) {
    const time_zone zone(name);
    // Every 7 hours and a bit of three years, summer time changes and year ends included. An hour
    // that happens twice a year is left out: its local time names two instants.
    int repeated = 0;
    for (long long seconds = 1672444800; seconds < 1767225600; seconds += 25321) {
      const date_time value(seconds, 0);
      if (seconds_of(value) != seconds) ++repeated;
    }
    EXPECT_LE(repeated, 3) << name;
    if (name == k_utc || name == k_shanghai) {
      EXPECT_EQ(0, repeated) << name;
    }
  }
}

// As the C library tells it.
std::string library_text(std::time_t seconds) {
  std::tm local{};
  ::localtime_r(&seconds, &local);
  char text[64];
  std::strftime(text, sizeof(text), "%Y%m%d %H:%M:%S.000", &local);
  return text;
}

TEST(date_time, tells_the_ends_of_years_and_changes_of_the_clock_as_the_c_library_does) {
  constexpr std::time_t k_hour = 3600, k_day = 24 * k_hour, k_2000 = 946684800;
  for (const char* name : k_zones) {
    const time_zone zone(name);
    std::time_t at = k_2000 - 2 * k_day;
    for (int year = 2000; year < 2040; ++year) {
      // Every hour of the two days around the new year, and the seconds next to it.
      for (std::time_t seconds = at; seconds < at + 4 * k_day; seconds += k_hour / 2) {
        for (const std::time_t near : {seconds - 1, seconds}) {
          ASSERT_EQ(library_text(near), date_time(near, 0).format()) << name;
        }
      }
      at += (year % 4 == 0 ? 366 : 365) * k_day;  // no century without a leap day in between
    }
    int changes = 0;
    long offset = 0;
    for (std::time_t seconds = k_2000; seconds < k_2000 + 366 * 3 * k_day; seconds += k_hour / 2) {
      std::tm local{};
      ::localtime_r(&seconds, &local);
      changes += local.tm_gmtoff != offset ? 1 : 0;
      offset = local.tm_gmtoff;
      for (const std::time_t near : {seconds - 1, seconds}) {
        ASSERT_EQ(library_text(near), date_time(near, 0).format()) << name;
      }
    }
    EXPECT_LE(changes, 7) << name;
    if (name != k_utc && name != k_shanghai) {
      EXPECT_GE(changes, 6) << name;
    }
  }
}

TEST(date_time, assigns_instants_and_refuses_negative_ones) {
  const time_zone zone(k_shanghai);
  date_time value = k_march;
  EXPECT_FALSE(value.assign(-1, 0));
  EXPECT_FALSE(value.assign(0, -1));
  EXPECT_TRUE(value == k_march);
  EXPECT_TRUE(value.assign(1709600823, 45));
  EXPECT_TRUE(value == k_march);
}

TEST(date_time, parses_the_default_pattern) {
  EXPECT_TRUE(date_time("20240305 09:07:03.045") == k_march);
  EXPECT_TRUE(date_time(std::string("20240305 09:07:03.045")) == k_march);
  date_time value;
  EXPECT_TRUE(value.assign("20240305 09:07:03.045"));
  EXPECT_TRUE(value == k_march);
  value = date_time();
  EXPECT_TRUE(value.assign(std::string("20240305 09:07:03.045")));
  EXPECT_TRUE(value == k_march);
}

TEST(date_time, parses_a_given_pattern) {
  EXPECT_TRUE(date_time("09:07:03 05/03/2024 045", "HH:mm:ss dd/MM/yyyy iii") == k_march);
  EXPECT_TRUE(date_time(std::string("09:07:03 05/03/2024 045"),
                        std::string("HH:mm:ss dd/MM/yyyy iii")) == k_march);
}

TEST(date_time, of_a_text_that_does_not_parse_is_the_current_time) {
  const time_zone zone(k_utc);
  EXPECT_TRUE(is_now([] { return date_time("2024-xx-05 10:00:00.000"); }));
  EXPECT_TRUE(is_now([] { return date_time(std::string("abcd"), std::string("yyyy")); }));
  const char* const none = nullptr;
  EXPECT_TRUE(is_now([&] { return date_time(none); }));
  EXPECT_TRUE(is_now([&] { return date_time(none, "yyyy"); }));
  EXPECT_TRUE(is_now([&] { return date_time("2024", none); }));
}

TEST(date_time, parses_a_day_that_ends_early) {
  EXPECT_TRUE(date_time("2024030", "yyyyMMdd") == make(2024, 3, 0, 0, 0, 0, 0));
}

TEST(date_time, refuses_a_text_that_ends_where_a_token_starts) {
  date_time value = k_march;
  EXPECT_FALSE(value.assign("2024", "yyyyMMdd"));
  EXPECT_TRUE(value == k_march);
}

TEST(date_time, throws_when_a_token_lies_beyond_the_text) {
  date_time value = k_march;
  EXPECT_THROW(value.assign("20", "yyyyMMdd"), std::out_of_range);
  EXPECT_THROW(date_time("20", "yyyyMMdd"), std::out_of_range);
  EXPECT_TRUE(value == k_march);
}

TEST(date_time, refuses_values_out_of_their_range_and_keeps_its_own) {
  for (const char* text : {"2024-13-01", "2024-00-01", "2024-01-32", "2024-1-01x", "-024-01-01"}) {
    date_time value = k_march;
    EXPECT_FALSE(value.assign(text, "yyyy-MM-dd")) << text;
    EXPECT_TRUE(value == k_march) << text;
  }
  date_time value = k_march;
  EXPECT_FALSE(value.assign("24:00:00", "HH:mm:ss"));
  EXPECT_FALSE(value.assign("23:60:00", "HH:mm:ss"));
  EXPECT_FALSE(value.assign("23:59:60", "HH:mm:ss"));
  EXPECT_TRUE(value == k_march);
  EXPECT_TRUE(value.assign("0000-12-31 23:59:59.999", "yyyy-MM-dd HH:mm:ss.iii"));
  EXPECT_TRUE(value == make(0, 12, 31, 23, 59, 59, 999));
}

TEST(date_time, accepts_days_that_the_month_does_not_have) {
  EXPECT_TRUE(date_time("2023-02-31", "yyyy-MM-dd") == make(2023, 2, 31, 0, 0, 0, 0));
}

TEST(date_time, finds_a_token_by_any_of_its_letters) {
  date_time value;
  EXPECT_TRUE(value.assign("20240305", "y   M d"));
  EXPECT_TRUE(value == make(2024, 3, 5, 0, 0, 0, 0)) << "one letter stands for the whole token";
  EXPECT_TRUE(value.assign("12 1999", "M  y"));
  int year = 0, month = 0, day = 0;
  value.get_date(year, month, day);
  EXPECT_EQ(1999, year);
  EXPECT_EQ(12, month);
}

TEST(date_time, takes_what_the_pattern_lacks_from_today_and_midnight) {
  const time_zone zone(k_utc);
  const date_time before;
  date_time value;
  ASSERT_TRUE(value.assign("10:20", "HH:mm"));
  const date_time after;
  int year[3], month[3], day[3];
  before.get_date(year[0], month[0], day[0]);
  value.get_date(year[1], month[1], day[1]);
  after.get_date(year[2], month[2], day[2]);
  EXPECT_TRUE(day[1] == day[0] || day[1] == day[2]);
  EXPECT_TRUE(month[1] == month[0] || month[1] == month[2]);
  EXPECT_TRUE(year[1] == year[0] || year[1] == year[2]);
  int hour = 0, minute = 0, second = 9, millisecond = 9;
  value.get_time(hour, minute, second, millisecond);
  EXPECT_EQ(10, hour);
  EXPECT_EQ(20, minute);
  EXPECT_EQ(0, second);
  EXPECT_EQ(0, millisecond);
}

TEST(date_time, assign_refuses_null_texts) {
  date_time value = k_march;
  const char* const none = nullptr;
  EXPECT_FALSE(value.assign(none));
  EXPECT_FALSE(value.assign(none, "yyyy"));
  EXPECT_FALSE(value.assign("2024", none));
  EXPECT_TRUE(value == k_march);
}

TEST(date_time, prints_its_patterns) {
  EXPECT_EQ("20240305 09:07:03.045", k_march.format());
  EXPECT_EQ("2024-03-05 09:07:03", k_march.format("yyyy-MM-dd HH:mm:ss"));
  EXPECT_EQ("20240305 09:07:03", k_march.get_datetime_str());
  EXPECT_EQ("2024-03-05 09:07:03", k_march.get_sql_datetime_str());
  EXPECT_EQ("2024", k_march.format(std::string("yyyy")));
  EXPECT_EQ("", k_march.format(static_cast<const char*>(nullptr)));
}

TEST(date_time, replaces_only_the_first_of_each_token) {
  EXPECT_EQ("05/dd", k_march.format("dd/dd"));
  EXPECT_EQ("2024yyyy", k_march.format("yyyyyyyy"));
  EXPECT_EQ("03 07", k_march.format("MM mm"));
  EXPECT_EQ("yyy M d", k_march.format("yyy M d")) << "a part of a token is no token";
}

TEST(date_time, pads_with_zeros_and_cuts_nothing) {
  EXPECT_EQ("0033", make(33, 1, 1, 0, 0, 0, 0).format("yyyy"));
  EXPECT_EQ("12345", make(12345, 1, 1, 0, 0, 0, 0).format("yyyy"));
  EXPECT_EQ("00-5", make(-5, 1, 1, 0, 0, 0, 0).format("yyyy"));
  EXPECT_EQ("123", make(1, 1, 123, 0, 0, 0, 0).format("dd"));
}

TEST(date_time, prints_into_a_buffer_only_what_fits) {
  char buffer[32] = "untouched";
  EXPECT_FALSE(k_march.format(buffer, 21));
  EXPECT_STREQ("untouched", buffer);
  EXPECT_TRUE(k_march.format(buffer, 22));
  EXPECT_STREQ("20240305 09:07:03.045", buffer);
  EXPECT_FALSE(k_march.format(buffer, 4, "yyyy"));
  EXPECT_TRUE(k_march.format(buffer, 5, "yyyy"));
  EXPECT_STREQ("2024", buffer);
  EXPECT_FALSE(k_march.format(buffer, -1, "yyyy"));
  EXPECT_FALSE(k_march.format(nullptr, 30, "yyyy"));
}

TEST(date_time, compares_year_first_and_millisecond_last) {
  const date_time later[] = {make(2025, 1, 1, 0, 0, 0, 0), make(2024, 4, 1, 0, 0, 0, 0),
                             make(2024, 3, 6, 0, 0, 0, 0), make(2024, 3, 5, 10, 0, 0, 0),
                             make(2024, 3, 5, 9, 8, 0, 0), make(2024, 3, 5, 9, 7, 4, 0),
                             make(2024, 3, 5, 9, 7, 3, 46)};
  for (const date_time& other : later) {
    EXPECT_TRUE(k_march < other);
    EXPECT_TRUE(other > k_march);
    EXPECT_FALSE(other < k_march);
    EXPECT_FALSE(k_march > other);
    EXPECT_FALSE(k_march == other);
  }
  const date_time copy = k_march;
  EXPECT_TRUE(copy == k_march);
  EXPECT_FALSE(copy < k_march);
  EXPECT_FALSE(copy > k_march);
}

TEST(date_time, knows_leap_years) {
  for (const int year : {2000, 2024, 1600, 0}) {
    EXPECT_TRUE(make(year, 1, 1, 0, 0, 0, 0).leap_year()) << year;
  }
  for (const int year : {1900, 2023, 2100, 2025}) {
    EXPECT_FALSE(make(year, 1, 1, 0, 0, 0, 0).leap_year()) << year;
  }
}

TEST(date_time, knows_the_day_of_the_week_in_every_zone) {
  for (const char* name : k_zones) {
    const time_zone zone(name);
    EXPECT_EQ(2, k_march.weekday()) << name;
    EXPECT_EQ(0, make(2024, 3, 10, 23, 59, 59, 999).weekday()) << name;
    EXPECT_EQ(6, make(2000, 1, 1, 0, 0, 0, 0).weekday()) << name;
  }
}

TEST(date_time, add_day_crosses_the_year_end_and_keeps_milliseconds) {
  for (const char* name : k_zones) {
    const time_zone zone(name);
    date_time value = make(2024, 12, 31, 23, 0, 0, 17);
    EXPECT_TRUE(value.add_day(1));
    EXPECT_TRUE(value == make(2025, 1, 1, 23, 0, 0, 17)) << name;
    EXPECT_TRUE(value.subtract_day(1));
    EXPECT_TRUE(value == make(2024, 12, 31, 23, 0, 0, 17)) << name;
  }
}

TEST(date_time, shifts_by_seconds_minutes_and_hours_both_ways) {
  const time_zone zone(k_shanghai);
  date_time value = k_march;
  EXPECT_TRUE(value.add_sec(57));
  EXPECT_EQ("20240305 09:08:00.045", value.format());
  EXPECT_TRUE(value.add_min(52));
  EXPECT_EQ("20240305 10:00:00.045", value.format());
  EXPECT_TRUE(value.add_hour(14));
  EXPECT_EQ("20240306 00:00:00.045", value.format());
  EXPECT_TRUE(value.subtract_hour(14));
  EXPECT_TRUE(value.subtract_min(52));
  EXPECT_TRUE(value.subtract_sec(57));
  EXPECT_TRUE(value == k_march);
  EXPECT_TRUE(value.add_day(-5));
  EXPECT_EQ("20240229", value.format("yyyyMMdd"));
}

TEST(date_time, shifts_across_summer_time_by_real_seconds) {
  {
    const time_zone zone(k_new_york);
    date_time value = make(2024, 3, 10, 1, 30, 0, 0);
    value.add_hour(1);
    EXPECT_EQ("20240310 03:30:00", value.get_datetime_str());
    value = make(2024, 3, 9, 12, 0, 0, 0);
    value.add_day(1);
    EXPECT_EQ("20240310 13:00:00", value.get_datetime_str());
    value = make(2024, 11, 2, 12, 0, 0, 0);
    value.add_day(1);
    EXPECT_EQ("20241103 11:00:00", value.get_datetime_str());
  }
  {
    const time_zone zone(k_london);
    date_time value = make(2024, 3, 31, 0, 59, 59, 5);
    value.add_sec(1);
    EXPECT_EQ("20240331 02:00:00.005", value.format());
  }
  {
    const time_zone zone(k_lord_howe);
    date_time value = make(2024, 10, 6, 1, 59, 59, 0);
    value.add_sec(1);
    EXPECT_EQ("20241006 02:30:00", value.get_datetime_str()) << "half an hour of summer time";
  }
}

TEST(date_time, products_of_a_shift_wrap_in_32_bits) {
  const time_zone zone(k_utc);
  date_time wrapped = k_march;
  date_time plain = k_march;
  EXPECT_TRUE(wrapped.add_day(49711));  // 49711 * 86400 is 63104 more than 2^32
  EXPECT_TRUE(plain.add_sec(63104));
  EXPECT_TRUE(wrapped == plain) << wrapped.format();
  date_time lowest = k_march;
  EXPECT_TRUE(lowest.subtract_sec(INT_MIN));
  plain = k_march;
  EXPECT_TRUE(plain.add_sec(INT_MIN));
  EXPECT_TRUE(lowest == plain);
}

TEST(date_time, fields_that_are_no_instant_are_left_alone) {
  const time_zone zone(k_utc);
  for (const int year : {INT_MIN, INT_MAX}) {
    const date_time odd = make(year, INT_MIN, INT_MAX, INT_MAX, INT_MIN, INT_MAX, 3);
    date_time value = odd;
    if (!value.add_sec(1)) {
      EXPECT_TRUE(value == odd);
    }
    EXPECT_GE(value.weekday(), -1);
    EXPECT_LE(value.weekday(), 6);
    EXPECT_FALSE(value.format().empty());
  }
}

TEST(date_time, the_second_before_1970_is_an_instant) {
  const time_zone zone(k_utc);
  date_time value = make(1969, 12, 31, 23, 59, 59, 0);
  EXPECT_EQ(-1, seconds_of(value));
  EXPECT_TRUE(value.add_sec(1));
  EXPECT_EQ("19700101 00:00:00", value.get_datetime_str());
}

TEST(date_time, converts_numbers_and_texts_to_seconds) {
  const time_zone zone(k_shanghai);
  long long out = 0;
  EXPECT_EQ(1709600823, date_time::convert_date_time_to_int64(2024, 3, 5, 9, 7, 3, out));
  EXPECT_EQ(1709600823, out);
  out = 0;
  EXPECT_EQ(1709600823,
            date_time::convert_date_time_to_int64("2024", "03", "05", "09", "07", "03", out));
  EXPECT_EQ(1709600823, out);
  EXPECT_EQ(-1, date_time::convert_date_time_to_int64("2024", nullptr, "5", "9", "7", "3", out));
  EXPECT_EQ(-1, out);
}

TEST(date_time, prints_seconds_without_padding) {
  const time_zone zone(k_shanghai);
  char buffer[32] = "untouched";
  EXPECT_FALSE(date_time::convert_int64_date_time_to_str(-1, buffer, sizeof(buffer)));
  EXPECT_STREQ("untouched", buffer);
  EXPECT_TRUE(date_time::convert_int64_date_time_to_str(1709600823, buffer, sizeof(buffer)));
  EXPECT_STREQ("2024:3:5-9:7:3", buffer);
  EXPECT_TRUE(date_time::convert_int64_date_time_to_str(1709600823, buffer, 5));
  EXPECT_STREQ("2024", buffer);
  EXPECT_FALSE(date_time::convert_int64_date_time_to_str(0, nullptr, 5));
  EXPECT_FALSE(date_time::convert_int64_date_time_to_str(0, buffer, -5));
}

TEST(date_time, digits_only_are_a_valid_text) {
  EXPECT_TRUE(date_time::is_valid_date_time_str("0123456789"));
  EXPECT_FALSE(date_time::is_valid_date_time_str(""));
  EXPECT_FALSE(date_time::is_valid_date_time_str("12 "));
  EXPECT_FALSE(date_time::is_valid_date_time_str("-1"));
  EXPECT_FALSE(date_time::is_valid_date_time_str("\xb2\xb3"));
  EXPECT_FALSE(
      date_time::is_valid_date_time_str(std::string("1\0"
                                                    "2",
                                                    3)));
}
