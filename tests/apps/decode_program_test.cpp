// kav-decode as its users run it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>  // std::count
#include <chrono>     // std::chrono_literals
#include <cstdio>     // popen

#include "feeds/exchange_id.h"
#include "tests/apps/decode_lines.h"
#include "tests/apps/decode_process.h"
#include "tests/support/wait_until.h"

namespace kav_decode_test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::StartsWith;

sent_record record_of(int number) {
  return {k_exchange_number_cffex, cffex_record("IF2509", number)};
}

file_packet packet_of(int number) {
  return {.content = ethernet(datagram(record_of(number).payload)), .fraction = 5};
}

const bytes k_capture = pcap_file({packet_of(1), packet_of(2)});

std::string csv_of(const std::vector<sent_record>& records) {
  return csv_header() + joined(lines_of(records, false));
}

void expect_one_error(const process_result& result, int status, const std::string& text) {
  EXPECT_EQ(status, result.status);
  EXPECT_THAT(result.errors, StartsWith("kav-decode: "));
  EXPECT_THAT(result.errors, HasSubstr(text));
  EXPECT_EQ(1, std::count(result.errors.begin(), result.errors.end(), '\n')) << result.errors;
}

TEST(decode_program_test, quotes_go_to_standard_output_and_the_summary_to_standard_error) {
  const temporary_file file{k_capture};
  const process_result result = run({file.path()});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(csv_of({record_of(1), record_of(2)}), result.output);
  EXPECT_EQ(
      "           2  packets\n"
      "           2  quotes decoded\n"
      "           2    CFFEX\n"
      "           2  quotes selected\n"
      "           0  packets ignored\n",
      result.errors);
}

TEST(decode_program_test, json_count_time_and_quiet_do_what_they_say) {
  const temporary_file file{pcapng_file({packet_of(1), packet_of(2), packet_of(3)})};
  const process_result result =
      run({"--format", "json", "--time", "--count", "2", "--quiet", file.path()});
  EXPECT_EQ(0, result.status);
  std::string expected;
  for (const std::string& line : lines_of({record_of(1), record_of(2)}, true)) {
    expected += "{\"CaptureTime\":1700000000.000005000," + line.substr(1);
  }
  EXPECT_EQ(expected, result.output);
  EXPECT_EQ("", result.errors);
}

TEST(decode_program_test, groups_and_symbols_are_chosen) {
  const temporary_file file{k_capture};
  const process_result mapped = run({file.path(), "--group", "239.255.10.2=SHFE"});
  EXPECT_EQ(csv_header(), mapped.output);
  EXPECT_THAT(mapped.errors, HasSubstr("           2      SHFE, 360 bytes\n"));
  const process_result unmapped = run({file.path(), "--group", "239.255.10.2:1=CFFEX"});
  EXPECT_THAT(unmapped.errors, HasSubstr("           2      239.255.10.2:30002\n"));
  const process_result other = run({file.path(), "--symbol", "Au(T+D)"});
  EXPECT_EQ(csv_header(), other.output);
  EXPECT_THAT(other.errors, HasSubstr("           0  quotes selected\n"));
}

TEST(decode_program_test, only_the_summary_comes_on_demand) {
  const temporary_file file{k_capture};
  for (const char* option : {"--summary-only", "--no-output"}) {
    const process_result result = run({file.path(), option});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.output);
    EXPECT_THAT(result.errors, HasSubstr("           2  quotes decoded\n"));
  }
}

TEST(decode_program_test, standard_input_is_read_too) {
  const temporary_file file{k_capture};
  const process_result result = run({"-"}, file.path());
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(csv_of({record_of(1), record_of(2)}), result.output);
}

TEST(decode_program_test, lines_come_while_the_writer_of_the_capture_pauses) {
  const temporary_file output;
  FILE* const input =
      ::popen((command({"-", "--quiet"}) + " >" + quoted(output.path())).c_str(), "w");
  ASSERT_NE(nullptr, input);
  std::fwrite(k_capture.data(), 1, k_capture.size(), input);
  std::fflush(input);
  EXPECT_TRUE(wait_until(
      [&] {
        return output.text() == csv_of({record_of(1), record_of(2)});
      },
      30s));
  EXPECT_EQ(0, ::pclose(input));
}

TEST(decode_program_test, a_capture_that_ends_early_gives_4_after_all_that_was_whole) {
  const temporary_file file{bytes(k_capture.begin(), k_capture.end() - 1)};
  const process_result quiet = run({file.path(), "--quiet"});
  EXPECT_EQ(csv_of({record_of(1)}), quiet.output);
  expect_one_error(quiet, 4, "ends in the middle of packet 2; all before it was decoded");
  const process_result result = run({file.path()});
  EXPECT_EQ(4, result.status);
  EXPECT_THAT(result.errors, StartsWith("           1  packets\n"));
  EXPECT_THAT(result.errors, HasSubstr("kav-decode: "));
}

TEST(decode_program_test, what_cannot_be_decoded_gives_3) {
  expect_one_error(run({"/nowhere/x.pcap"}), 3, "No such file or directory");
  expect_one_error(run({"-"}), 3, "cannot read standard input: ");
  const temporary_file file{pcap_file({packet_of(1)}, DLT_PPP)};
  expect_one_error(run({file.path()}), 3, "link type 9 (PPP)");
}

TEST(decode_program_test, bad_options_give_2) {
  expect_one_error(run({}), 2, "FILE is required");
  expect_one_error(run({"x", "--group", "239.1.1.1=NYSE"}), 2, "'NYSE' is no exchange");
}

TEST(decode_program_test, help_and_version_go_to_standard_output) {
  const process_result help = run({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_THAT(help.output, HasSubstr("Exit statuses:"));
  EXPECT_EQ("", help.errors);
  EXPECT_THAT(run({"--version"}).output, testing::MatchesRegex("kav-decode [0-9.]+\n"));
}

TEST(decode_program_test, a_full_disk_gives_1) {
  const temporary_file file{k_capture}, errors;
  const int status = run_shell(command({file.path()}) + " >/dev/full 2>" + quoted(errors.path()));
  expect_one_error({status, "", errors.text()}, 1, "No space left on device");
}

TEST(decode_program_test, a_reader_that_goes_away_ends_it_quietly_with_0) {
  const std::vector<file_packet> packets(20'000, packet_of(1));  // more than any pipe holds
  const temporary_file file{pcap_file(packets)}, errors, status;
  run_shell("{ " + command({file.path()}) + " 2>" + quoted(errors.path()) + "; echo $? >" +
            quoted(status.path()) + "; } | head -n 1 >/dev/null");
  EXPECT_EQ("0\n", status.text());
  EXPECT_EQ("", errors.text());
}

TEST(decode_program_test, a_long_capture_is_written_whole) {
  std::vector<file_packet> packets;
  std::vector<sent_record> records;
  for (int i = 0; i < 10'000; ++i) {
    packets.push_back(packet_of(i));
    records.push_back(record_of(i));
  }
  const temporary_file file{pcap_file(packets)};
  EXPECT_TRUE(csv_of(records) == run({file.path()}).output);
}

}  // namespace
}  // namespace kav_decode_test
