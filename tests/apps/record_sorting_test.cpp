// Which file a quote goes to, and the hand-over of quotes to the writer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>    // std::nan
#include <cstdio>   // std::snprintf
#include <ctime>    // timegm
#include <utility>  // std::pair

#include "apps/record/day_files.h"
#include "apps/record/quote_queue.h"
#include "apps/record/trading_day.h"
#include "apps/watch/quote_format.h"
#include "record_files.h"

namespace kav_record_test {

using kav_record::day_files;
using kav_record::file_day;
using kav_record::quote_queue;
using kav_record::received_quote;
using kav_record::trading_day_at;
using steady = std::chrono::steady_clock;

KAVMarketDepthQuoteData quote_of_day(const std::string& day, int volume = 1) {
  KAVMarketDepthQuoteData quote{};
  std::snprintf(quote.TradingDay, sizeof(quote.TradingDay), "%s", day.c_str());
  std::snprintf(quote.InstrumentID, sizeof(quote.InstrumentID), "rb2610");
  std::snprintf(quote.UpdateTime, sizeof(quote.UpdateTime), "21:00:00");
  quote.LastPrice = 3500.5;
  quote.Volume = volume;
  return quote;
}

// A time of China's clock.
std::time_t china(int month, int day, int hour, int minute) {
  std::tm parts{};
  parts.tm_year = 126;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  parts.tm_hour = hour - 8;
  parts.tm_min = minute;
  return ::timegm(&parts);
}

const std::time_t k_noon = china(11, 24, 12, 0);  // a Tuesday

TEST(record_trading_day, dates_are_those_of_the_calendar) {
  for (const char* date : {"20260228", "20240229", "19991231"}) {
    EXPECT_TRUE(kav_record::is_date(date)) << date;
  }
  for (const char* none : {"", "0", "20260229", "20261301", "20260100", "2026-1-1", "202611240",
                           "2026112 ", "00000000"}) {
    EXPECT_FALSE(kav_record::is_date(none)) << none;
  }
}

TEST(record_trading_day, an_evening_belongs_to_the_next_weekday) {
  EXPECT_EQ("20261124", trading_day_at(china(11, 24, 15, 0)));
  EXPECT_EQ("20261124", trading_day_at(china(11, 24, 17, 59)));
  EXPECT_EQ("20261125", trading_day_at(china(11, 24, 18, 0)));
  EXPECT_EQ("20261125", trading_day_at(china(11, 25, 2, 30)));
  EXPECT_EQ("20261130", trading_day_at(china(11, 27, 21, 0)));  // Friday evening
  EXPECT_EQ("20261130", trading_day_at(china(11, 28, 1, 0)));   // Saturday, before dawn
  EXPECT_EQ("20261130", trading_day_at(china(11, 29, 20, 0)));  // Sunday evening
}

TEST(record_trading_day, the_quote_decides_and_odd_ones_are_kept_apart) {
  EXPECT_EQ("20170420", file_day(quote_of_day("20170420"), k_noon));
  EXPECT_EQ("20261124-odd", file_day(quote_of_day(""), k_noon));
  EXPECT_EQ("20261124-odd", file_day(quote_of_day("../../ab"), k_noon));
  KAVMarketDepthQuoteData quote = quote_of_day("20170420");
  std::snprintf(quote.UpdateTime, sizeof(quote.UpdateTime), "20170420");
  EXPECT_EQ("20170420-odd", file_day(quote, k_noon));
  quote = quote_of_day("20170420");
  quote.AskPrice5 = std::nan("");
  EXPECT_EQ("20170420-odd", file_day(quote, k_noon));
  quote = quote_of_day("20170420");
  std::snprintf(quote.ExchangeInstID, sizeof(quote.ExchangeInstID), "a,b");
  EXPECT_EQ("20170420-odd", file_day(quote, k_noon));
  quote = quote_of_day("20170420");
  quote.UpdateMillisec = 1000;
  EXPECT_EQ("20170420-odd", file_day(quote, k_noon));
  quote = quote_of_day("20170420");
  std::snprintf(quote.InstrumentID, sizeof(quote.InstrumentID), "twenty characters...");
  EXPECT_EQ("20170420-odd", file_day(quote, k_noon));
}

std::string text_of(const std::vector<KAVMarketDepthQuoteData>& quotes) {
  fmt::memory_buffer text;
  kav_watch::append_csv_header(text);
  for (const KAVMarketDepthQuoteData& quote : quotes) kav_watch::append_csv(text, quote);
  return fmt::to_string(text);
}

TEST(record_day_files, each_day_has_its_file_also_when_days_alternate) {
  const test_folder folder;
  day_files files{{folder.path(), "q", false}};
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(files.add({quote_of_day("20170419", i), 0}, k_noon));
    ASSERT_TRUE(files.add({quote_of_day("20170420", 10 + i), 0}, k_noon));
    ASSERT_TRUE(files.add({quote_of_day("", 20 + i), 0}, k_noon));
  }
  ASSERT_TRUE(files.close());
  EXPECT_THAT(folder.names(), testing::ElementsAre("q-20170419.csv.gz", "q-20170420.csv.gz",
                                                   "q-20261124-odd.csv.gz"));
  EXPECT_EQ(text_of({quote_of_day("20170419", 0), quote_of_day("20170419", 1),
                     quote_of_day("20170419", 2)}),
            unpacked(folder / "q-20170419.csv.gz"));
  EXPECT_EQ(text_of({quote_of_day("", 20), quote_of_day("", 21), quote_of_day("", 22)}),
            unpacked(folder / "q-20261124-odd.csv.gz"));
  EXPECT_EQ(9u, files.counts().saved_quotes);
  EXPECT_EQ(3u, files.counts().files);
}

TEST(record_day_files, a_further_run_makes_further_files) {
  const test_folder folder;
  for (int run = 1; run <= 3; ++run) {
    day_files files{{folder.path(), "q", false}};
    ASSERT_TRUE(files.add({quote_of_day("20170420", run), 0}, k_noon));
    ASSERT_TRUE(files.close());
  }
  EXPECT_THAT(folder.names(), testing::ElementsAre("q-20170420-2.csv.gz", "q-20170420-3.csv.gz",
                                                   "q-20170420.csv.gz"));
  EXPECT_EQ(text_of({quote_of_day("20170420", 1)}), unpacked(folder / "q-20170420.csv.gz"));
  EXPECT_EQ(text_of({quote_of_day("20170420", 3)}), unpacked(folder / "q-20170420-3.csv.gz"));
}

TEST(record_day_files, days_without_end_keep_few_files_open_and_lose_nothing) {
  const test_folder folder;
  day_files files{{folder.path(), "q", false}};
  std::size_t quotes = 0;
  for (int year = 2000; year < 2005; ++year) {
    for (int month = 1; month <= 12; ++month) {
      for (int day = 1; day <= 28; ++day, ++quotes) {
        const std::string date = fmt::format("{}{:02}{:02}", year, month, day);
        ASSERT_TRUE(files.add({quote_of_day(date), 0}, k_noon)) << files.error();
      }
    }
  }
  ASSERT_TRUE(files.close());
  EXPECT_EQ(quotes, files.counts().saved_quotes);
  EXPECT_EQ(day_files::k_most_days + 1, folder.names().size());
  const std::string odd = unpacked(folder / "q-20261124-odd.csv.gz");
  EXPECT_EQ(quotes - day_files::k_most_days + 1,
            static_cast<std::size_t>(std::count(odd.begin(), odd.end(), '\n')));
}

TEST(record_day_files, a_folder_that_is_gone_is_told_with_the_file) {
  day_files files{{"/nonexistent", "q", false}};
  EXPECT_FALSE(files.add({quote_of_day("20170420"), 0}, k_noon));
  EXPECT_THAT(files.error(), testing::StartsWith("cannot write /nonexistent/q-20170420.csv.gz: No "
                                                 "such file or directory; "));
}

TEST(record_queue, what_finds_no_room_is_counted) {
  quote_queue queue{3, std::nullopt};
  for (int i = 0; i < 5; ++i) queue.take(quote_of_day("20170420", i));
  EXPECT_EQ(3u, queue.look().taken);
  EXPECT_EQ(2u, queue.look().lost);
  std::vector<received_quote> quotes;
  ASSERT_TRUE(queue.take_all(quotes, steady::now()));
  ASSERT_EQ(3u, quotes.size());
  EXPECT_EQ(2, int{quotes[2].record.Volume});
  queue.take(quote_of_day("20170420", 6));
  EXPECT_EQ(4u, queue.look().taken);
}

TEST(record_queue, no_more_than_the_limit_is_taken) {
  quote_queue queue{10, 2};
  queue.take(quote_of_day("20170420"));
  EXPECT_FALSE(queue.look().limit_reached);
  for (int i = 0; i < 3; ++i) queue.take(quote_of_day("20170420"));
  EXPECT_TRUE(queue.look().limit_reached);
  EXPECT_EQ(2u, queue.look().taken);
  EXPECT_EQ(0u, queue.look().lost);
}

TEST(record_queue, a_closed_queue_hands_out_what_waits_and_ends) {
  quote_queue queue{10, std::nullopt};
  queue.take(quote_of_day("20170420", 1));
  queue.close();
  queue.take(quote_of_day("20170420", 2));
  std::vector<received_quote> quotes;
  EXPECT_TRUE(queue.take_all(quotes, steady::now() + std::chrono::hours{1}));
  EXPECT_EQ(1u, quotes.size());
  EXPECT_FALSE(queue.take_all(quotes, steady::now() + std::chrono::hours{1}));
  EXPECT_TRUE(quotes.empty());
}

}  // namespace kav_record_test
