// What kav-plot reads out of a file, and where it puts it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "apps/plot/picture.h"
#include "apps/plot/tick_series.h"
#include "apps/plot/time_axis.h"
#include "record_files.h"

namespace kav_plot_test {

using namespace kav_plot;
using kav_record_test::test_folder;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::int64_t k_minute = 60'000, k_gap = 10 * k_minute;

std::int64_t at(int hours, int minutes) { return (hours * 60 + minutes) * k_minute; }

// One quote a minute from one time to the other, both included.
void add_quotes(std::vector<quote_point>& points, std::int64_t from, std::int64_t to) {
  for (std::int64_t ms = from; ms <= to; ms += k_minute) {
    points.push_back({ms, 100, 99, 101, 5000, static_cast<std::int64_t>(points.size()) * 3});
  }
}

// A night, two mornings and an afternoon.
std::vector<quote_point> whole_day() {
  std::vector<quote_point> points;
  add_quotes(points, at(20, 59), at(25, 0));
  add_quotes(points, at(33, 0), at(34, 15));
  add_quotes(points, at(34, 30), at(35, 30));
  add_quotes(points, at(37, 30), at(39, 0));
  return points;
}

TEST(plot_axis, sessions_stand_side_by_side_without_the_breaks) {
  const time_axis axis{whole_day(), k_gap};
  ASSERT_EQ(4u, axis.sessions().size());
  EXPECT_EQ(0u, axis.stray_quotes());
  const double trading = 241 + 75 + 60 + 90;
  EXPECT_GT(axis.length(), trading);
  EXPECT_LT(axis.length(), trading * 1.05);
  for (std::size_t i = 1; i < 4; ++i) {
    const session& before = axis.sessions()[i - 1];
    const session& next = axis.sessions()[i];
    EXPECT_LT(axis.place(before, before.end_ms), axis.breaks()[i - 1]);
    EXPECT_LT(axis.breaks()[i - 1], next.offset);
    EXPECT_EQ(next.offset, axis.place(next, next.begin_ms));
  }
}

TEST(plot_axis, ticks_tell_full_times_and_where_sessions_begin) {
  const time_axis axis{whole_day(), k_gap};
  std::vector<std::string> labels;
  double before = -1000;
  for (const axis_tick& tick : axis.ticks(14)) {
    labels.push_back(tick.label);
    EXPECT_GE(tick.minutes - before, axis.length() / 14 * 0.7);
    before = tick.minutes;
  }
  EXPECT_THAT(labels, ElementsAre("21:00", "22:00", "23:00", "00:00", "09:00", "10:30", "11:00",
                                  "13:30", "14:00", "15:00"));
}

TEST(plot_axis, single_quotes_far_from_all_others_are_left_out_and_counted) {
  std::vector<quote_point> points;
  add_quotes(points, at(18, 36), at(18, 36));
  add_quotes(points, at(21, 0), at(25, 0));
  add_quotes(points, at(33, 0), at(34, 15));
  const time_axis axis{points, k_gap};
  EXPECT_EQ(2u, axis.sessions().size());
  EXPECT_EQ(1u, axis.stray_quotes());
}

TEST(plot_axis, of_a_symbol_that_is_hardly_quoted_nothing_is_left_out) {
  std::vector<quote_point> points;
  for (int hour = 0; hour < 500; ++hour) add_quotes(points, at(hour, 0), at(hour, 0));
  const time_axis axis{points, k_gap};
  EXPECT_EQ(500u, axis.sessions().size());
  EXPECT_EQ(0u, axis.stray_quotes());
}

TEST(plot_axis, one_quote_is_a_day_too) {
  std::vector<quote_point> points;
  add_quotes(points, at(9, 3), at(9, 3));
  const time_axis axis{points, k_gap};
  EXPECT_EQ(1u, axis.sessions().size());
  EXPECT_GT(axis.length(), 0);
  EXPECT_EQ(1u, axis.ticks(14).size());
}

std::size_t count_of(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
  return count;
}

TEST(plot_picture, no_line_crosses_a_break) {
  std::size_t strays = 0;
  const std::string script =
      picture_script({{"rb2610", "SHFE", "20261124", whole_day()}}, {}, strays);
  const std::size_t begin = script.find("$points0 << EOD\n");
  const std::string points = script.substr(begin, script.find("\nEOD", begin) - begin + 1);
  EXPECT_EQ(4u, count_of(points, "\n\n"));
  EXPECT_EQ(3u, count_of(script, "nohead dashtype 2"));
}

TEST(plot_picture, thinning_keeps_the_extremes) {
  std::vector<quote_point> points;
  for (int i = 0; i < 100'000; ++i) points.push_back({at(9, 0) + i * 50, 100, 99, 101, 5000, i});
  points[12'345].last = 250;
  points[54'321].last = 17;
  std::size_t strays = 0;
  const std::string script = picture_script({{"rb2610", "SHFE", "20261124", points}}, {}, strays);
  EXPECT_LT(count_of(script, " 99 101 5000\n"), 5000u);
  EXPECT_EQ(1u, count_of(script, " 250 99 101 5000\n"));
  EXPECT_EQ(1u, count_of(script, " 17 99 101 5000\n"));
}

TEST(plot_picture, bars_add_up_to_what_was_traded) {
  std::size_t strays = 0;
  const std::vector<quote_point> points = whole_day();
  const std::string script = picture_script({{"rb2610", "SHFE", "", points}}, {}, strays);
  std::size_t place = script.find("$bars0 << EOD\n") + 14;
  std::int64_t traded = 0;
  while (script.compare(place, 3, "EOD") != 0) {
    const std::size_t end = script.find('\n', place);
    const std::size_t first = script.find(' ', place);
    if (first < end) traded += std::stoll(script.substr(first));
    place = end + 1;
  }
  EXPECT_EQ(points.back().volume - points.front().volume, traded);
}

TEST(plot_picture, texts_of_the_file_cannot_leave_their_quotes) {
  std::size_t strays = 0;
  const std::string script =
      picture_script({{"a'b\nset output", "SHFE", "", whole_day()}}, {}, strays);
  EXPECT_THAT(script, HasSubstr("'a''b?set output SHFE: price'"));
}

class plot_reader_test : public testing::Test {
 protected:
  std::string error_of(const std::string& text) {
    kav_record_test::write_file(m_folder / "t.csv", text);
    std::string error;
    tick_contents contents;
    EXPECT_FALSE(read_series(m_folder / "t.csv", {"rb2610"}, contents, error));
    return error.substr(m_folder.path().size());
  }

  test_folder m_folder;
};

const std::string k_head =
    "UpdateTime,UpdateMillisec,InstrumentID,LastPrice,BidPrice1,Volume,Unknown\n";

TEST_F(plot_reader_test, columns_go_by_their_names_and_empty_values_are_none) {
  kav_record_test::write_file(m_folder / "t.csv", k_head +
                                                      "20:59:59,500,rb2610,3500.5,3500,7,x\r\n"
                                                      "20:59:59,500,IF2612,1,1,1,\n"
                                                      "00:00:01,0,rb2610,,,9,\n"
                                                      "09:00:00,0,rb2610,3501,,9,");
  tick_contents contents;
  std::string error;
  ASSERT_TRUE(read_series(m_folder / "t.csv", {"rb2610", "none"}, contents, error)) << error;
  const std::vector<quote_point>& points = contents.series[0].points;
  ASSERT_EQ(3u, points.size());
  EXPECT_EQ(at(20, 59) + 59'500, points[0].ms);
  EXPECT_EQ(3500.5, points[0].last);
  EXPECT_EQ(3500, points[0].bid);
  EXPECT_EQ(0, points[0].ask);
  EXPECT_EQ(at(24, 0) + 1000, points[1].ms);
  EXPECT_EQ(0, points[1].last);
  EXPECT_EQ(9, points[1].volume);
  EXPECT_EQ(at(33, 0), points[2].ms);
  EXPECT_TRUE(contents.series[1].points.empty());
  EXPECT_THAT(contents.counts, ElementsAre(std::pair{"IF2612", std::size_t{1}},
                                           std::pair{"rb2610", std::size_t{3}}));
}

TEST_F(plot_reader_test, a_quote_late_in_the_evening_is_before_that_of_the_morning) {
  kav_record_test::write_file(m_folder / "t.csv", k_head +
                                                      "19:28:28,0,rb2610,1,,0,\n"
                                                      "08:59:00,0,rb2610,2,,0,\n"
                                                      "08:58:59,0,rb2610,3,,0,\n");
  tick_contents contents;
  std::string error;
  ASSERT_TRUE(read_series(m_folder / "t.csv", {"rb2610"}, contents, error)) << error;
  EXPECT_EQ(at(32, 59), contents.series[0].points[1].ms);
  EXPECT_EQ(at(32, 59), contents.series[0].points[2].ms);
}

TEST_F(plot_reader_test, what_is_wrong_is_told_with_its_line) {
  EXPECT_EQ("/t.csv:0: the file is empty", error_of(""));
  EXPECT_EQ("/t.csv:1: no quotes behind the header line", error_of(k_head));
  EXPECT_EQ("/t.csv:1: no column InstrumentID; is it a tick file, such as kav-record writes?",
            error_of("a,b\n1,2\n"));
  EXPECT_EQ("/t.csv:2: 2 values for 7 columns", error_of(k_head + "1,2\n"));
  EXPECT_EQ("/t.csv:3: a value of a quote of rb2610 is no number or no time",
            error_of(k_head + "09:00:00,0,rb2610,1,1,1,\n09:00:00,0,rb2610,x,1,1,\n"));
  EXPECT_EQ("/t.csv:2: a value of a quote of rb2610 is no number or no time",
            error_of(k_head + "24:00:00,0,rb2610,1,1,1,\n"));
  EXPECT_THAT(error_of(std::string(1 << 20, 'x')), HasSubstr("a line without end"));
}

}  // namespace kav_plot_test
