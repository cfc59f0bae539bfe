// Recorded quotes: what is read, and what is said about files that cannot be.
#include <gtest/gtest.h>
#include <unistd.h>  // mkdtemp
#include <zlib.h>    // gzopen

#include <cstdlib>     // getenv
#include <filesystem>  // std::filesystem
#include <fstream>     // std::ofstream
#include <map>         // std::map

#include "apps/sim/feed.h"
#include "apps/sim/tick_file.h"
#include "tests/apps/sim_server_fixture.h"

namespace kav_sim_test {

using kav_sim::tick;
using std::chrono::milliseconds;

class sim_tick_file_test : public sim_server_test {
 protected:
  sim_tick_file_test() {
    std::string name = (std::filesystem::temp_directory_path() / "sim_tick_XXXXXX").string();
    m_folder = ::mkdtemp(name.data());
  }
  ~sim_tick_file_test() override { std::filesystem::remove_all(m_folder); }

  std::string write(const std::string& text, const char* name = "t.csv") {
    std::string path = m_folder + "/" + name;
    std::ofstream{path, std::ios::binary} << text;
    return path;
  }
  std::string error_of(const std::string& text) {
    const std::string path = write(text);
    std::vector<tick> ticks(1);
    std::string error;
    EXPECT_FALSE(kav_sim::read_tick_file(path, ticks, error));
    EXPECT_TRUE(ticks.empty());
    EXPECT_EQ(0u, error.find(path)) << error;
    return error.substr(path.size());
  }
  std::vector<tick> ticks_of(const std::string& text) {
    std::vector<tick> ticks;
    std::string error;
    EXPECT_TRUE(kav_sim::read_tick_file(write(text), ticks, error)) << error;
    return ticks;
  }

  std::string m_folder;
};

const std::string k_head = "TradingDay,InstrumentID,ExchangeID,LastPrice,UpdateTime,UpdateMillisec";
const std::string k_row = "20170420,pb1705,SHFE,15915,18:36:39,117\n";

TEST_F(sim_tick_file_test, values_are_read_exactly_whatever_the_order_of_the_columns) {
  const std::vector<tick> ticks = ticks_of(
      "BidPrice1,UpdateMillisec,UpdateTime,LastPrice,ExchangeID,InstrumentID,TradingDay,"
      "AskVolume5\n"
      "0.1,999,23:59:59,3999.7999999999997,CFFEX,IF1704,20170420,-2147483648\r\n"
      ",0,23:59:59,1e-300,CFFEX,IF1704,,");
  ASSERT_EQ(2u, ticks.size());
  KAVMarketDepthQuoteData expected{};
  std::strcpy(expected.TradingDay, "20170420");
  std::strcpy(expected.InstrumentID, "IF1704");
  std::strcpy(expected.ExchangeID, "CFFEX");
  std::strcpy(expected.UpdateTime, "23:59:59");
  expected.UpdateMillisec = 999;
  expected.LastPrice = 3999.7999999999997;
  expected.BidPrice1 = 0.1;
  expected.AskVolume5 = -2147483647 - 1;
  EXPECT_EQ(0, std::memcmp(&expected, &ticks[0].record, sizeof expected));
  EXPECT_EQ(1e-300, double{ticks[1].record.LastPrice});
  EXPECT_EQ(0.0, double{ticks[1].record.BidPrice1});
  EXPECT_EQ('1', ticks[0].type);
}

TEST_F(sim_tick_file_test, time_never_goes_back_and_runs_on_past_midnight) {
  const std::string row = "\n20170420,a,SHFE,1,";
  const std::vector<tick> ticks = ticks_of(k_head + row + "23:59:59,500" + row + "23:59:59,200" +
                                           row + "00:00:01,0" + row + "09:00:00,0\n");
  ASSERT_EQ(4u, ticks.size());
  EXPECT_EQ(86399500, ticks[0].source_ms);
  EXPECT_EQ(86399500, ticks[1].source_ms);
  EXPECT_EQ(86401000, ticks[2].source_ms);
  EXPECT_EQ(86400000 + 9 * 3600000, ticks[3].source_ms);
  kav_sim::tick_replay replay{ticks, true};
  const milliseconds expected[] = {milliseconds{0}, milliseconds{0}, milliseconds{1500},
                                   milliseconds{4500}, milliseconds{5000}};
  tick next{};
  std::chrono::microseconds due{0};
  for (const milliseconds at : expected) {
    ASSERT_TRUE(replay.next(next, due));
    EXPECT_EQ(at, due);
  }
}

TEST_F(sim_tick_file_test, complaints_name_file_line_and_cause) {
  EXPECT_EQ(":1: the file is empty", error_of(""));
  EXPECT_EQ(":1: unknown column \"Bid\"", error_of(k_head + ",Bid\n" + k_row));
  EXPECT_EQ(":1: column LastPrice comes twice", error_of(k_head + ",LastPrice\n"));
  EXPECT_EQ(":1: column UpdateTime is missing",
            error_of("TradingDay,InstrumentID,ExchangeID,LastPrice,UpdateMillisec\n"));
  EXPECT_EQ(":1: no quotes behind the header line", error_of(k_head + "\n"));
  const std::string good = k_head + "\n" + k_row;
  EXPECT_EQ(":3: empty line", error_of(good + "\n" + k_row));
  EXPECT_EQ(":3: 2 values for 6 columns", error_of(good + "20170420,a\n"));
  EXPECT_EQ(":3: LastPrice \"12x\" is no number",
            error_of(good + "20170420,a,SHFE,12x,18:36:39,0\n"));
  EXPECT_EQ(":3: LastPrice \"nan\" is no number",
            error_of(good + "20170420,a,SHFE,nan,18:36:39,0\n"));
  EXPECT_EQ(":3: LastPrice \"1e999\" is too large or too small",
            error_of(good + "20170420,a,SHFE,1e999,18:36:39,0\n"));
  EXPECT_EQ(":3: UpdateMillisec 1000 is not between 0 and 999",
            error_of(good + "20170420,a,SHFE,1,18:36:39,1000\n"));
  EXPECT_EQ(":3: UpdateTime \"24:00:00\" is not HH:MM:SS",
            error_of(good + "20170420,a,SHFE,1,24:00:00,0\n"));
  EXPECT_EQ(":3: TradingDay \"2017042\" is not YYYYMMDD",
            error_of(good + "2017042,a,SHFE,1,18:36:39,0\n"));
  EXPECT_EQ(":3: InstrumentID is empty", error_of(good + "20170420,,SHFE,1,18:36:39,0\n"));
  EXPECT_EQ(":3: InstrumentID \"abcdefghijklmnopqrst\" is longer than 19 characters",
            error_of(good + "20170420,abcdefghijklmnopqrst,SHFE,1,18:36:39,0\n"));
  EXPECT_EQ(":2: Volume \"2147483648\" is too large or too small",
            error_of(k_head + ",Volume\n20170420,a,SHFE,1,18:36:39,0,2147483648\n"));
}

TEST_F(sim_tick_file_test, what_is_wrong_is_told_in_one_printable_line_of_bearable_length) {
  EXPECT_EQ(":1: unknown column \"?[2J?\"", error_of(k_head + ",\x1B[2J\x7F\n"));
  EXPECT_EQ(":1: unknown column \"?????\"", error_of("\x1F\r\x01\xC2\x9B\n"));
  EXPECT_EQ(":1: unknown column \"" + std::string(60, 'x') + "...\"",
            error_of(std::string(61, 'x') + "\n"));
}

TEST_F(sim_tick_file_test, text_that_a_nul_would_end_early_is_refused) {
  const std::string nul(1, '\0');
  EXPECT_EQ(":2: InstrumentID \"?a\" holds a NUL",
            error_of(k_head + "\n20170420," + nul + "a,SHFE,1,18:36:39,0\n"));
  EXPECT_EQ(":2: ExchangeID \"S?E\" holds a NUL",
            error_of(k_head + "\n20170420,a,S" + nul + "E,1,18:36:39,0\n"));
}

TEST_F(sim_tick_file_test, packed_files_are_read_and_a_torn_one_is_told) {
  const std::string path = m_folder + "/t.csv.gz";
  std::string text = k_head + "\n";
  for (int i = 0; i < 20000; ++i) {
    text += "20170420,pb1705,SHFE," + std::to_string(i * 7919 % 99991) + ",18:36:39,117\n";
  }
  gzFile file = ::gzopen(path.c_str(), "wb");
  ASSERT_EQ(static_cast<int>(text.size()),
            ::gzwrite(file, text.data(), static_cast<unsigned>(text.size())));
  ::gzclose(file);
  std::vector<tick> ticks;
  std::string error;
  ASSERT_TRUE(kav_sim::read_tick_file(path, ticks, error)) << error;
  EXPECT_EQ(20000u, ticks.size());
  std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
  EXPECT_FALSE(kav_sim::read_tick_file(path, ticks, error));
  EXPECT_EQ(path + ": the packed file ends too early", error);
}

TEST_F(sim_tick_file_test, a_missing_file_is_told) {
  std::vector<tick> ticks;
  std::string error;
  EXPECT_FALSE(kav_sim::read_tick_file(m_folder + "/none", ticks, error));
  EXPECT_EQ(m_folder + "/none: No such file or directory", error);
}

TEST_F(sim_tick_file_test, a_replay_waits_for_the_first_registration_and_then_loses_nothing) {
  std::string text = k_head;
  for (int i = 0; i < 2000; ++i) {
    text += "\n20170420,IF2509,CFFEX," + std::to_string(i) + ".1,18:36:39,117";
  }
  const std::vector<tick> ticks = ticks_of(text);
  for (const double speed : {0.0, 1.0}) {
    kav_sim::tick_replay replay{ticks, false};
    raw_client client{start()};
    kav_sim::feed_result result;
    std::atomic<bool> going{true};
    std::thread feeder{[&] {
      kav_sim::feed_options options;
      options.speed = speed;
      options.wait_for_registration = true;
      options.keep_going = [&] { return going.load(); };
      result = kav_sim::run_feed(replay, *m_server, options);
    }};
    log_in(client);
    register_symbol(client, '1', "IF2509");
    bool equal = true;
    for (const tick& t : ticks) {
      equal = equal && client.read_exactly(367).substr(22) ==
                           std::string(reinterpret_cast<const char*>(&t.record), 345);
    }
    going = false;
    feeder.join();
    EXPECT_TRUE(equal);
    EXPECT_EQ(2000u, result.queued);
  }
}

TEST(sim_recorded_day, every_row_of_the_recorded_day_is_read) {
  const char* given = std::getenv("KAV_TICKS");
  const std::string path =
      given != nullptr ? given : std::string{KAV_SOURCE_DIR "/../shared/data/ticks-sample.csv.gz"};
  if (!std::filesystem::exists(path)) GTEST_SKIP() << "no recorded day; KAV_TICKS names one";
  std::vector<tick> ticks;
  std::string error;
  ASSERT_TRUE(kav_sim::read_tick_file(path, ticks, error)) << error;
  EXPECT_EQ(57075u, ticks.size());
  std::map<std::string, int> rows;
  for (const tick& t : ticks) ++rows[std::string{t.record.InstrumentID}];
  EXPECT_EQ((std::map<std::string, int>{
                {"IF1704", 16120}, {"SF705", 3568}, {"cs1709", 16304}, {"pb1705", 21083}}),
            rows);
  EXPECT_EQ(1380396150.0, double{ticks[39998].record.Turnover});
}

}  // namespace kav_sim_test
