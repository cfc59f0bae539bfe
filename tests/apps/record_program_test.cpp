// kav-record as a program: what it writes, how it ends, what survives.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>      // unshare
#include <sys/mount.h>  // mount

#include <algorithm>  // std::min
#include <csignal>    // SIGKILL
#include <cstdlib>    // std::getenv
#include <cstring>    // std::memcmp

#include "apps/sim/tick_file.h"
#include "apps/watch/quote_format.h"
#include "record_files.h"
#include "watch_server.h"

namespace kav_record_test {

using kav_watch_test::child_options;
using kav_watch_test::child_process;
using kav_watch_test::quote_of;
using kav_watch_test::wait_until;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class record_program_test : public kav_watch_test::watch_server_test {
 protected:
  child_options recording(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--output", m_folder.path(), "rb2510"});
    return options_for(arguments);
  }
  bool push_from(int begin, int end) {
    bool sent = true;
    for (int i = begin; i < end; ++i) sent = push("rb2510", i) && sent;
    return sent;
  }
  std::string day_file() const { return m_folder / "quotes-20250901.csv.gz"; }

  test_folder m_folder;
};

std::string expected_text(int begin, int end) {
  fmt::memory_buffer text;
  kav_watch::append_csv_header(text);
  for (int i = begin; i < end; ++i) kav_watch::append_csv(text, quote_of("rb2510", i));
  return fmt::to_string(text);
}

std::string run_with(std::vector<std::string> arguments, int status) {
  child_options options;
  options.arguments = std::move(arguments);
  child_process child{options};
  EXPECT_EQ(status, child.wait()) << child.errors();
  return child.output() + child.errors();
}

TEST_F(record_program_test, a_recording_holds_what_was_sent_and_ends_at_its_count) {
  child_process child{recording({"--count", "5000"})};
  ASSERT_TRUE(wait_registered("rb2510"));
  ASSERT_TRUE(push_from(0, 5001));
  EXPECT_EQ(0, child.wait()) << child.errors();
  EXPECT_TRUE(expected_text(0, 5000) == unpacked(day_file()));
  EXPECT_EQ("", child.output());
  EXPECT_THAT(child.errors(), StartsWith("kav-record: 5000 quotes saved in 1 file, "));
  EXPECT_THAT(child.errors(), HasSubstr(" MB; 0 lost; the last file is " + day_file()));
}

TEST_F(record_program_test, files_grow_while_it_runs_and_are_whole_after_a_kill) {
  child_process child{recording({})};
  ASSERT_TRUE(wait_registered("rb2510"));
  for (int round = 1; round <= 3; ++round) {
    ASSERT_TRUE(push_from(round * 100 - 100, round * 100));
    ASSERT_TRUE(wait_until([&] { return unpacked(day_file()) == expected_text(0, round * 100); }));
    EXPECT_TRUE(gzip_accepts(day_file()));
  }
  child.send_signal(SIGKILL);
  EXPECT_EQ(std::nullopt, child.wait());
  EXPECT_EQ(expected_text(0, 300), unpacked(day_file()));
}

TEST_F(record_program_test, a_kill_in_the_middle_of_a_flood_leaves_whole_lines_in_their_order) {
  child_process child{recording({})};
  ASSERT_TRUE(wait_registered("rb2510"));
  int sent = 0;
  const auto flood = [&] {  // until something of it is in the file
    for (int i = 0; i < 500; ++i) push("rb2510", sent++);
    return unpacked(day_file()).size() > 100'000;
  };
  ASSERT_TRUE(wait_until(flood));
  push_from(sent, sent + 2000);
  child.send_signal(SIGKILL);
  child.wait();
  const std::string text = unpacked(day_file());
  const auto rows = static_cast<int>(std::count(text.begin(), text.end(), '\n')) - 1;
  ASSERT_GT(rows, 100);
  EXPECT_TRUE(expected_text(0, rows) == text);
  std::vector<kav_sim::tick> ticks;
  std::string error;
  EXPECT_TRUE(kav_sim::read_tick_file(day_file(), ticks, error)) << error;
}

TEST_F(record_program_test, a_signal_ends_it_with_all_that_came_and_a_summary) {
  for (const int number : {SIGINT, SIGTERM}) {
    test_folder folder;
    child_process child{options_for({"--output", folder.path(), "--name", "a b", "rb2510"})};
    ASSERT_TRUE(wait_registered("rb2510"));
    ASSERT_TRUE(push_from(0, 10));
    ASSERT_TRUE(wait_until([&] { return !folder.names().empty(); }));
    child.send_signal(number);
    EXPECT_EQ(0, child.wait()) << child.errors();
    EXPECT_THAT(unpacked(folder / "a b-20250901.csv.gz"), StartsWith(expected_text(0, 1)));
    EXPECT_THAT(child.errors(), HasSubstr(" saved in 1 file, "));
    ASSERT_TRUE(wait_until([&] { return !m_server.registered("rb2510"); }));
  }
}

TEST_F(record_program_test, a_second_run_on_the_same_day_leaves_the_first_file_alone) {
  for (int run = 0; run < 2; ++run) {
    child_process child{recording({"--count", "1"})};
    ASSERT_TRUE(wait_registered("rb2510"));
    ASSERT_TRUE(push("rb2510", run));
    EXPECT_EQ(0, child.wait()) << child.errors();
    ASSERT_TRUE(wait_until([&] { return !m_server.registered("rb2510"); }));
  }
  EXPECT_EQ(expected_text(0, 1), unpacked(day_file()));
  EXPECT_EQ(expected_text(1, 2), unpacked(m_folder / "quotes-20250901-2.csv.gz"));
}

TEST_F(record_program_test, the_receive_time_is_one_more_column_that_a_replay_ignores) {
  using std::chrono::system_clock;
  const auto before = system_clock::now();
  child_process child{recording({"--count", "1", "--receive-time"})};
  ASSERT_TRUE(wait_registered("rb2510"));
  ASSERT_TRUE(push("rb2510", 7));
  EXPECT_EQ(0, child.wait()) << child.errors();
  const std::vector<std::string> rows = kav_watch_test::split_lines(unpacked(day_file()));
  ASSERT_EQ(2u, rows.size());
  EXPECT_THAT(rows[0], testing::EndsWith(",ExchangeInstID,ReceiveTimeNs"));
  const system_clock::time_point received{
      std::chrono::nanoseconds{std::stoll(rows[1].substr(rows[1].rfind(',') + 1))}};
  EXPECT_LE(before, received);
  EXPECT_LE(received, system_clock::now());
  std::vector<kav_sim::tick> ticks;
  std::string error;
  ASSERT_TRUE(kav_sim::read_tick_file(day_file(), ticks, error)) << error;
  const KAVMarketDepthQuoteData sent = quote_of("rb2510", 7);
  EXPECT_EQ(0, std::memcmp(&sent, &ticks.at(0).record, sizeof(sent)));
}

TEST_F(record_program_test, a_file_that_may_not_grow_ends_it_with_9_and_stays_whole) {
  child_options options = recording({});
  options.most_file_bytes = 5000;
  child_process child{options};
  ASSERT_TRUE(wait_registered("rb2510"));
  for (int i = 0; child.is_running() && i < 100'000; ++i) push("rb2510", i);
  EXPECT_EQ(9, child.wait());
  EXPECT_THAT(child.errors(), HasSubstr("kav-record: cannot write " + day_file() +
                                        ": File too large; what was saved before is whole. Free "
                                        "some space"));
  EXPECT_THAT(expected_text(0, 2000), StartsWith(unpacked(day_file())));
}

TEST_F(record_program_test, a_full_disk_ends_it_with_9_and_the_file_stays_whole) {
  if (::unshare(CLONE_NEWNS) != 0 ||
      ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount("none", m_folder.path().c_str(), "tmpfs", 0, "size=64k") != 0) {
    GTEST_SKIP() << "no right to mount a small disk";
  }
  child_process child{recording({})};
  ASSERT_TRUE(wait_registered("rb2510"));
  for (int i = 0; child.is_running() && i < 300'000; ++i) push("rb2510", i);
  EXPECT_EQ(9, child.wait());
  EXPECT_THAT(child.errors(), HasSubstr(": No space left on device; what was saved before is "));
  const std::string text = unpacked(day_file());
  const auto rows = static_cast<int>(std::count(text.begin(), text.end(), '\n')) - 1;
  EXPECT_GE(rows, -1);
  EXPECT_TRUE(rows < 0 ? text.empty() : text == expected_text(0, rows));
  ::umount2(m_folder.path().c_str(), MNT_DETACH);
}

TEST_F(record_program_test, quotes_that_find_no_room_are_told_and_end_it_with_11) {
  child_process child{recording({"--queue", "1"})};
  ASSERT_TRUE(wait_registered("rb2510"));
  int sent = 0;
  ASSERT_TRUE(wait_until([&] {
    for (int i = 0; i < 1000; ++i) push("rb2510", sent++);
    return child.errors().find("quotes lost so far: they come faster") != std::string::npos;
  }));
  child.send_signal(SIGTERM);
  EXPECT_EQ(11, child.wait()) << child.errors();
  EXPECT_THAT(child.errors(), HasSubstr("came faster than they could be written, and are lost; "));
}

TEST_F(record_program_test, progress_is_told_in_lines) {
  child_process child{recording({"--progress", "0.05"})};
  ASSERT_TRUE(wait_registered("rb2510"));
  ASSERT_TRUE(push_from(0, 20));
  EXPECT_TRUE(wait_until([&] {
    return child.errors().find("kav-record: 20 quotes saved in 1 file, ") != std::string::npos;
  }));
  EXPECT_THAT(child.errors(), HasSubstr(" quotes a second; 0 waiting, 0 lost\n"));
}

TEST_F(record_program_test, a_folder_that_is_no_good_is_told_before_the_session) {
  write_file(m_folder / "file", "");
  const std::string server = "127.0.0.1:" + std::to_string(m_server.port());
  for (const auto& [folder, why] :
       {std::pair<std::string, std::string>{m_folder / "file", "not a folder"},
        {m_folder / "none", "No such file or directory"}}) {
    EXPECT_EQ(
        fmt::format("kav-record: cannot make files in {}: {}; give --output a folder that can "
                    "be written to\n",
                    folder, why),
        run_with({"--server", server, "--user", "me", "--output", folder}, 9));
  }
  EXPECT_EQ(0u, m_server.connections().ever);
}

TEST_F(record_program_test, what_the_server_does_not_know_ends_it_with_6) {
  child_process child{options_for({"--output", m_folder.path(), "nobody"})};
  EXPECT_EQ(6, child.wait());
  EXPECT_THAT(child.errors(), HasSubstr("the server does not know nobody"));
  EXPECT_THAT(m_folder.names(), IsEmpty());
}

TEST(record_program, bad_options_end_it_with_2_and_one_line) {
  const std::vector<std::string> good{"--server", "127.0.0.1:9000", "--user", "me"};
  for (const std::vector<std::string>& more :
       std::vector<std::vector<std::string>>{{"--bogus"},
                                             {"--queue", "0"},
                                             {"--queue", "x"},
                                             {"--progress", "nan"},
                                             {"--progress", "-1"},
                                             {"--name", ""},
                                             {"--name", "a/b"},
                                             {"--name", ".a"},
                                             {"--count", "0"},
                                             {"--seconds", "0"}}) {
    std::vector<std::string> arguments = good;
    arguments.insert(arguments.end(), more.begin(), more.end());
    const std::string text = run_with(arguments, 2);
    EXPECT_THAT(text, StartsWith("kav-record: ")) << more.front();
    EXPECT_THAT(text, testing::EndsWith("; kav-record --help shows how to use it\n"));
    EXPECT_EQ(1, std::count(text.begin(), text.end(), '\n')) << text;
  }
  EXPECT_THAT(run_with({}, 2), HasSubstr("no source of quotes: give --server"));
}

TEST(record_program, help_and_version_go_to_standard_output) {
  const std::string help = run_with({"--help"}, 0);
  for (const char* word : {"--server", "--multicast", "--output", "--receive-time", "--progress",
                           "--queue", "Exit statuses", "-odd.csv.gz"}) {
    EXPECT_THAT(help, HasSubstr(word));
  }
  EXPECT_THAT(run_with({"--version"}, 0), StartsWith("kav-record "));
}

// What the simulator replays, recorded again.
class record_replay_test : public testing::Test {
 protected:
  // The port of a simulator that replays the file as fast as it is read.
  std::string start_simulator(const std::string& path) {
    child_options options;
    options.program = KAV_SIM_PROGRAM;
    options.arguments = {"--port", "0", "--ticks", path, "--speed", "0", "--quiet"};
    m_simulator = std::make_unique<child_process>(options);
    const std::string head = "listening on ", line = m_simulator->line(0);
    EXPECT_EQ(0u, line.find(head)) << line;
    return line.substr(std::min(head.size(), line.size()));
  }
  static std::vector<kav_sim::tick> ticks_of(const std::string& path) {
    std::vector<kav_sim::tick> ticks;
    std::string error;
    EXPECT_TRUE(kav_sim::read_tick_file(path, ticks, error)) << error;
    return ticks;
  }
  void expect_same_after_recording(const std::string& path, const std::string& day) {
    const std::vector<kav_sim::tick> source = ticks_of(path);
    ASSERT_FALSE(source.empty());
    child_options options;
    options.arguments = {
        "--server", start_simulator(path), "--user",  "me",
        "--output", m_folder.path(),       "--count", std::to_string(source.size())};
    child_process child{options};
    ASSERT_EQ(0, child.wait()) << child.errors();
    const std::vector<kav_sim::tick> copy = ticks_of(m_folder / ("quotes-" + day + ".csv.gz"));
    ASSERT_EQ(source.size(), copy.size());
    for (std::size_t i = 0; i < source.size(); ++i) {
      ASSERT_EQ(0, std::memcmp(&source[i].record, &copy[i].record, sizeof(copy[i].record))) << i;
      ASSERT_EQ(source[i].source_ms, copy[i].source_ms);
    }
  }

  test_folder m_folder;
  std::unique_ptr<child_process> m_simulator;
};

TEST_F(record_replay_test, a_recorded_replay_equals_its_source_in_every_column) {
  fmt::memory_buffer text;
  kav_watch::append_csv_header(text);
  for (int i = 0; i < 2000; ++i) {
    KAVMarketDepthQuoteData quote = quote_of(i % 2 == 0 ? "IF2509" : "rb2510", i);
    int column = 0;
    for (const kav_watch::record_field& field : kav_watch::record_fields()) {
      if (field.kind == kav_watch::field_kind::text || field.name == "UpdateMillisec") continue;
      char* const bytes = reinterpret_cast<char*>(&quote) + field.offset;
      const double price = (i * 43 + ++column) / 7.0 - 100;
      const std::int32_t volume = i * 43 + column;
      if (field.kind == kav_watch::field_kind::price)
        std::memcpy(bytes, &price, sizeof(price));
      else
        std::memcpy(bytes, &volume, sizeof(volume));
    }
    quote.UpdateMillisec = i % 1000;
    std::snprintf(quote.ExchangeInstID, sizeof(quote.ExchangeInstID), "inst %d", i);
    kav_watch::append_csv(text, quote);
  }
  write_packed(m_folder / "source.csv.gz", fmt::to_string(text));
  expect_same_after_recording(m_folder / "source.csv.gz", "20250901");
}

TEST_F(record_replay_test, gold_contracts_are_replayed_under_their_names) {
  fmt::memory_buffer text;
  kav_watch::append_csv_header(text);
  for (int i = 0; i < 200; ++i) {
    for (const char* symbol : {"IF2509", "Au(T+D)", "Ag(T+D)", "mAu(T+D)", "Au(T+N1)", "Au(T+N2)"})
      kav_watch::append_csv(text, quote_of(symbol, i));
  }
  write_packed(m_folder / "source.csv.gz", fmt::to_string(text));
  expect_same_after_recording(m_folder / "source.csv.gz", "20250901");
}

TEST_F(record_replay_test, a_recorded_day_is_recorded_again_without_a_difference) {
  const char* const path = std::getenv("KAV_TICKS");
  if (path == nullptr) GTEST_SKIP() << "no recorded day; KAV_TICKS names one";
  const std::vector<kav_sim::tick> source = ticks_of(path);
  const std::string day{kav_watch::field_text(source.at(0).record.TradingDay)};
  for (const kav_sim::tick& tick : source) {
    if (kav_watch::field_text(tick.record.TradingDay) != day) GTEST_SKIP() << "more than one day";
  }
  expect_same_after_recording(path, day);
}

}  // namespace kav_record_test
