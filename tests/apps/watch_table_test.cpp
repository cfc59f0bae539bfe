#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>  // std::chrono_literals
#include <cstdio>  // std::snprintf
#include <string>  // std::string

#include "apps/watch/quote_table.h"
#include "apps/watch/viewer.h"

namespace kav_watch {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

const steady_time k_start{1000s};

KAVMarketDepthQuoteData quote_of(const char* symbol, double last) {
  KAVMarketDepthQuoteData quote{};
  std::snprintf(quote.InstrumentID, sizeof(quote.InstrumentID), "%s", symbol);
  std::snprintf(quote.ExchangeID, sizeof(quote.ExchangeID), "%s", "CFFEX");
  std::snprintf(quote.UpdateTime, sizeof(quote.UpdateTime), "%s", "10:15:03");
  quote.LastPrice = last;
  quote.PreSettlementPrice = 100;
  return quote;
}

TEST(watch_table, rows_stand_in_the_order_of_the_symbols_and_wait_for_quotes) {
  const quote_table table{{"B", "A", "B"}};
  ASSERT_EQ(2u, table.size());
  EXPECT_EQ("B", table.line(0, k_start).cells[0]);
  EXPECT_EQ("A", table.line(1, k_start).cells[0]);
  EXPECT_EQ("", table.line(0, k_start).cells[2]);
}

TEST(watch_table, a_row_shows_the_latest_quote_and_its_age) {
  quote_table table{{"A"}};
  table.apply(quote_of("A", 99), k_start);
  table.apply(quote_of("A", 101.5), k_start + 1s);
  const table_line line = table.line(0, k_start + 3500ms);
  EXPECT_THAT(line.cells, ElementsAre("A", "CFFEX", "101.5", "+1.5", "+1.50%", "-", "0", "-", "0",
                                      "0", "-", "10:15:03.000", "2.5s"));
  EXPECT_EQ(1, line.direction);
}

TEST(watch_table, the_direction_follows_the_previous_settlement) {
  quote_table table{{"A"}};
  table.apply(quote_of("A", 99), k_start);
  EXPECT_EQ(-1, table.line(0, k_start).direction);
  table.apply(quote_of("A", 100), k_start);
  EXPECT_EQ(0, table.line(0, k_start).direction);
  table.apply(quote_of("A", 0), k_start);
  EXPECT_EQ(0, table.line(0, k_start).direction);
}

TEST(watch_table, quotes_of_other_symbols_add_no_row) {
  quote_table table{{"A"}};
  table.apply(quote_of("X", 1), k_start);
  EXPECT_EQ(1u, table.size());
}

TEST(watch_table, rows_can_be_added_as_symbols_arrive) {
  quote_table table{{"A"}, new_symbols::added};
  table.apply(quote_of("X", 1), k_start);
  table.apply(quote_of("A", 2), k_start);
  table.apply(quote_of("C", 3), k_start);
  table.apply(quote_of("X", 4), k_start);
  ASSERT_EQ(3u, table.size());
  EXPECT_EQ("A", table.line(0, k_start).cells[0]);
  EXPECT_EQ("X", table.line(1, k_start).cells[0]);
  EXPECT_EQ("4", table.line(1, k_start).cells[2]);
  EXPECT_EQ("C", table.line(2, k_start).cells[0]);
}

TEST(watch_table, a_feed_that_invents_names_fills_no_more_than_its_room) {
  std::vector<std::string> names;
  for (std::size_t i = 0; i + 1 < quote_table::k_most_rows; ++i) names.push_back(std::to_string(i));
  quote_table table{names, new_symbols::added};
  table.apply(quote_of("X", 1), k_start);
  table.apply(quote_of("Y", 2), k_start);
  EXPECT_EQ(quote_table::k_most_rows, table.size());
  EXPECT_EQ("X", table.line(quote_table::k_most_rows - 1, k_start).cells[0]);
}

TEST(watch_table, a_refused_symbol_says_so_until_a_quote_comes) {
  quote_table table{{"A"}};
  table.set_refused("A");
  table.set_refused("X");
  EXPECT_EQ("refused", table.line(0, k_start).cells[1]);
  table.apply(quote_of("A", 1), k_start);
  EXPECT_EQ("CFFEX", table.line(0, k_start).cells[1]);
}

TEST(watch_table, texts_from_outside_are_ascii) {
  quote_table table{{"a\x1B["}};
  EXPECT_EQ("a?[", table.line(0, k_start).cells[0]);
}

TEST(watch_table, ages_grow_coarser) {
  EXPECT_EQ("0.0s", age_text(-5s));
  EXPECT_EQ("0.3s", age_text(349ms));
  EXPECT_EQ("12s", age_text(12'900ms));
  EXPECT_EQ("3m05s", age_text(185s));
  EXPECT_EQ("2h10m", age_text(7800s));
}

TEST(watch_table, columns_that_do_not_fit_whole_are_left_out) {
  column_widths widths;
  table_line line;
  line.cells[0] = "symbol";
  line.cells[2] = "123456789";
  widths.fit(line);
  const auto pieces = widths.arrange(line.cells, 1, 24);
  ASSERT_EQ(3u, pieces.size());
  EXPECT_EQ("symbol  ", pieces[0].text);
  EXPECT_EQ(9u, pieces[1].at);
  EXPECT_EQ("123456789", pieces[2].text);
  EXPECT_EQ(15u, pieces[2].at);
  EXPECT_EQ(2u, widths.arrange(line.cells, 1, 23).size());
}

TEST(watch_table, scrolled_columns_keep_the_symbol) {
  const column_widths widths;
  table_line line;
  const auto pieces = widths.arrange(line.cells, 5, 80);
  EXPECT_EQ(0u, pieces[0].column);
  EXPECT_EQ(5u, pieces[1].column);
}

TEST(watch_table, a_screen_of_no_width_shows_nothing_wrong) {
  const column_widths widths;
  table_line line;
  line.cells[0] = "symbol";
  EXPECT_EQ("s", widths.arrange(line.cells, 1, 1)[0].text);
  EXPECT_EQ("", widths.arrange(line.cells, 1, 0)[0].text);
}

TEST(watch_table, scrolling_stops_at_both_ends) {
  table_position position;
  position.set_rows(10, 4);
  position.move_rows(-1);
  EXPECT_EQ(0u, position.first_row());
  EXPECT_EQ(4u, position.end_row());
  position.move_rows(1);
  EXPECT_EQ(1u, position.first_row());
  position.move_pages(1);
  EXPECT_EQ(5u, position.first_row());
  position.move_pages(1);
  EXPECT_EQ(6u, position.first_row());
  position.to_first();
  EXPECT_EQ(0u, position.first_row());
  position.to_last();
  EXPECT_EQ(6u, position.first_row());
  EXPECT_EQ(10u, position.end_row());
}

TEST(watch_table, a_screen_that_grows_shows_rows_and_no_gap) {
  table_position position;
  position.set_rows(10, 4);
  position.to_last();
  position.set_rows(10, 8);
  EXPECT_EQ(2u, position.first_row());
  position.set_rows(10, 20);
  EXPECT_EQ(0u, position.first_row());
  EXPECT_EQ(10u, position.end_row());
  position.set_rows(10, 0);
  EXPECT_EQ(0u, position.end_row());
}

TEST(watch_table, columns_scroll_between_the_second_and_the_last) {
  table_position position;
  position.move_columns(-1);
  EXPECT_EQ(1u, position.first_column());
  position.move_columns(100);
  EXPECT_EQ(k_table_columns - 1, position.first_column());
}

TEST(watch_table, the_rate_is_that_of_the_last_second) {
  rate_meter meter;
  meter.update(100, k_start);
  EXPECT_EQ(0, meter.per_second());
  meter.update(150, k_start + 500ms);
  EXPECT_EQ(0, meter.per_second());
  meter.update(300, k_start + 2s);
  EXPECT_EQ(100, meter.per_second());
  meter.update(300, k_start + 3s);
  EXPECT_EQ(0, meter.per_second());
}

TEST(watch_choice, no_names_choose_the_whole_list) {
  const std::vector<listed_symbol> list{{"B", KavKqsIntrumentTypeNone},
                                        {"A", KavKqsIntrumentTypeMulticast}};
  const symbol_choice choice = choose_symbols(list, {});
  ASSERT_EQ(2u, choice.known.size());
  EXPECT_EQ("B", choice.known[0].name);
  EXPECT_TRUE(choice.unknown.empty());
}

TEST(watch_choice, names_are_parted_into_known_and_unknown) {
  const std::vector<listed_symbol> list{{"Au(T+D)", KavKqsIntrumentTypeNone},
                                        {"A", KavKqsIntrumentTypeMulticast}};
  const symbol_choice choice = choose_symbols(list, {"A", "Z", "Au(T+D)", "a"});
  ASSERT_EQ(2u, choice.known.size());
  EXPECT_EQ("A", choice.known[0].name);
  EXPECT_EQ(KavKqsIntrumentTypeMulticast, choice.known[0].type);
  EXPECT_EQ("Au(T+D)", choice.known[1].name);
  EXPECT_THAT(choice.unknown, ElementsAre("Z", "a"));
}

}  // namespace
}  // namespace kav_watch
