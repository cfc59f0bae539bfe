// kav-feed as a program: what it prints and publishes, how it ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>  // WEXITSTATUS
#include <zlib.h>      // gzopen

#include <chrono>      // std::chrono::steady_clock
#include <csignal>     // SIGINT
#include <cstdio>      // popen
#include <cstring>     // strstr, memcpy
#include <filesystem>  // std::filesystem
#include <fstream>     // std::ofstream
#include <sstream>     // std::istringstream

#include "tests/apps/feed_receiver.h"
#include "tests/apps/watch_process.h"

namespace kav_feed_test {

using kav_feed::feed;
using kav_watch_test::child_options;
using kav_watch_test::child_process;
using kav_watch_test::split_lines;
using testing::HasSubstr;

struct outcome {
  int status = -1;
  std::string text;  // both streams
};

outcome run_command(const std::string& command) {
  outcome result;
  FILE* pipe = ::popen(command.c_str(), "r");
  char line[512];
  while (std::fgets(line, sizeof line, pipe) != nullptr) result.text += line;
  result.status = WEXITSTATUS(::pclose(pipe));
  return result;
}

// timeout ends what does not end by itself.
outcome run(const std::string& arguments) {
  return run_command("timeout 60 " KAV_TESTED_PROGRAM " " + arguments + " 2>&1");
}

child_options with(const std::string& arguments) {
  child_options options;
  std::istringstream words{arguments};
  for (std::string word; words >> word;) options.arguments.push_back(word);
  return options;
}

TEST(feed_program, bad_options_end_it_with_2_and_one_line) {
  for (const char* arguments : {"--bogus",
                                "extra",
                                "--speed nan",
                                "--speed -1",
                                "--speed 0.0001",
                                "--rate -1",
                                "--rate 0.0001",
                                "--rate 1e9",
                                "--rate x",
                                "--snapshots 0",
                                "--seed -4",
                                "--loop",
                                "--ticks /nowhere/t.csv",
                                "--ticks",
                                "--ticks t.csv --snapshots 3",
                                "--loss 101",
                                "--loss -1",
                                "--loss %",
                                "--loss nan",
                                "--reorder 100.5%",
                                "--seconds inf",
                                "--seconds -1",
                                "--count -1",
                                "--count 1.5",
                                "--wait -1",
                                "--feeds",
                                "--feeds DCE",
                                "--feeds SHFE,shfe",
                                "--group",
                                "--group SHFE",
                                "--group DCE=239.1.1.1:1",
                                "--group SHFE=10.1.1.1:1",
                                "--group SHFE=239.1.1.1:70000",
                                "--group SHFE=239.1.1.1:1 --group SHFE=239.1.1.1:2",
                                "--interface here",
                                "--interface 1.2.3"}) {
    const outcome result = run(arguments);
    EXPECT_EQ(2, result.status) << arguments;
    EXPECT_EQ(0u, result.text.find("kav-feed: ")) << arguments << ": " << result.text;
    EXPECT_EQ(result.text.size() - 1, result.text.find('\n')) << arguments << ": " << result.text;
  }
}

TEST(feed_program, help_and_version_end_it_with_0) {
  const outcome help = run("--help");
  EXPECT_EQ(0, help.status);
  EXPECT_THAT(help.text, HasSubstr("Examples:"));
  EXPECT_THAT(help.text, HasSubstr("Exit status:"));
  for (const kav_feed::feed_group& group : kav_feed::default_groups()) {
    EXPECT_THAT(help.text, HasSubstr(group.address + ":" + std::to_string(group.port)));
  }
  EXPECT_EQ(0, run("--version").status);
}

TEST(feed_program, an_address_that_is_none_of_this_machine_ends_it_with_1) {
  const outcome result = run("--interface 203.0.113.254");
  EXPECT_EQ(1, result.status);
  EXPECT_EQ(
      "kav-feed: cannot publish SHFE 239.255.10.1:30001 from 203.0.113.254: Cannot assign "
      "requested "
      "address; give --interface an address of this machine, such as 127.0.0.1\n",
      result.text);
}

TEST(feed_program, a_send_that_fails_ends_it_with_1) {
  // In a network of its own, from which the address goes as soon as it publishes.
  const std::string alone = "unshare -rn sh -c 'ip link set lo up; ";
  if (run_command(alone + "ip addr show dev lo' 2>&1").text.find("127.0.0.1") ==
      std::string::npos) {
    GTEST_SKIP() << "this host allows no network namespaces";
  }
  const outcome result =
      run_command(alone + "{ timeout 60 " KAV_TESTED_PROGRAM
                          " --feeds SHFE --speed 0 --rate 100 --quiet; echo status $?; } 2>&1 | "
                          "while read -r line; do echo \"$line\"; "
                          "[ \"$line\" != publishing ] || ip addr del 127.0.0.1/8 dev lo; done'");
  EXPECT_THAT(result.text,
              HasSubstr("\nkav-feed: cannot send to SHFE 239.255.10.1:30001 from 127.0.0.1: "
                        "Network is unreachable; is the interface up? \"ip -br addr\" lists "
                        "interfaces and addresses\nstatus 1\n"));
}

TEST(feed_program, it_publishes_until_ctrl_c) {
  for (const int number : {SIGINT, SIGTERM}) {
    receiver shfe{feed::shfe, 21};
    receiver lumen{feed::lumen, 22};
    child_process program{
        with("--feeds LUMEN,SHFE --snapshots 50 " + shfe.option() + " " + lumen.option())};
    EXPECT_EQ(text_of(shfe.group()), program.line(0));
    EXPECT_EQ(text_of(lumen.group()), program.line(1));
    EXPECT_EQ("publishing", program.line(2));
    EXPECT_EQ(120u, lumen.next().size());
    EXPECT_EQ(108u, lumen.next().size());
    program.send_signal(number);
    EXPECT_EQ(0, program.wait());
    EXPECT_EQ(3u, split_lines(program.output()).size()) << program.output();
    const std::string errors = program.errors();
    EXPECT_EQ(0u, errors.find("end: SHFE ")) << errors;
    EXPECT_THAT(errors, HasSubstr("; LUMEN "));
  }
}

TEST(feed_program, receivers_that_have_joined_before_it_publishes_get_everything) {
  receiver cffex{feed::cffex, 23};
  child_process program{with("--feeds CFFEX --speed 0 --count 150 --wait 0.3 " + cffex.option())};
  EXPECT_EQ(text_of(cffex.group()), program.line(0));
  const auto ready = std::chrono::steady_clock::now();
  EXPECT_EQ("publishing", program.line(1));
  EXPECT_GE(std::chrono::steady_clock::now() - ready, std::chrono::milliseconds{150});
  EXPECT_EQ(0, program.wait());
  EXPECT_EQ(150u, cffex.arrived().size());
  EXPECT_THAT(program.errors(), HasSubstr("end: CFFEX 150 sent, 0 left out, 0 swapped; "));
}

TEST(feed_program, a_signal_while_it_waits_ends_it_with_nothing_published) {
  receiver cffex{feed::cffex, 24};
  child_process program{with("--feeds CFFEX --wait 1000 " + cffex.option())};
  EXPECT_EQ(text_of(cffex.group()), program.line(0));
  program.send_signal(SIGINT);
  EXPECT_EQ(0, program.wait());
  EXPECT_EQ(1u, split_lines(program.output()).size()) << program.output();
  EXPECT_THAT(program.errors(), HasSubstr("end: CFFEX 0 sent, "));
  EXPECT_TRUE(cffex.arrived().empty());
}

TEST(feed_program, losses_and_swaps_follow_the_seed) {
  const std::string options =
      "--feeds CZCE --speed 0 --count 5000 --loss 10% --reorder 5 --quiet --group "
      "CZCE=239.255.0.1:9 --seed ";
  const outcome first = run(options + "4"), again = run(options + "4"), other = run(options + "5");
  EXPECT_EQ(0, first.status);
  EXPECT_EQ(first.text, again.text);
  EXPECT_NE(first.text, other.text);
  int sent = 0, left_out = 0, swapped = 0;
  const char* const counts = std::strstr(first.text.c_str(), "end: CZCE");
  ASSERT_NE(nullptr, counts) << first.text;
  ASSERT_EQ(3, std::sscanf(counts, "end: CZCE %d sent, %d left out, %d swapped", &sent, &left_out,
                           &swapped));
  EXPECT_EQ(5000, sent + left_out);
  EXPECT_NEAR(500, left_out, 120);
  EXPECT_NEAR(4500 * 0.05 / 1.05, swapped, 80);
}

TEST(feed_program, a_packed_file_is_replayed_to_its_end) {
  const std::string path =
      (std::filesystem::temp_directory_path() / ("feed_" + std::to_string(::getpid()) + ".csv.gz"))
          .string();
  std::string text = "TradingDay,InstrumentID,ExchangeID,LastPrice,UpdateTime,UpdateMillisec\n";
  for (int i = 0; i < 100; ++i) {
    text += "20170420,pb1705,SHFE," + std::to_string(i) + ".25,18:36:39,117\n";
    text += "20170420,cs1709,DCE,1600,18:36:39,117\n";
  }
  gzFile file = ::gzopen(path.c_str(), "wb");
  ASSERT_EQ(static_cast<int>(text.size()),
            ::gzwrite(file, text.data(), static_cast<unsigned>(text.size())));
  ::gzclose(file);
  receiver shfe{feed::shfe, 25};
  const outcome result = run("--feeds SHFE --quiet --ticks " + path + " " + shfe.option());
  std::filesystem::remove(path);
  EXPECT_EQ(0, result.status);
  EXPECT_THAT(result.text, HasSubstr("end: SHFE 100 sent, 0 left out, 0 swapped; 200 ticks, 100 "
                                     "without record\n"));
  const std::vector<std::string> arrived = shfe.arrived();
  ASSERT_EQ(100u, arrived.size());
  for (std::size_t i = 0; i < arrived.size(); ++i) {
    double last_price = 0;
    ASSERT_EQ(368u, arrived[i].size());
    std::memcpy(&last_price, arrived[i].data() + 24, sizeof(last_price));
    EXPECT_EQ(static_cast<double>(i) + 0.25, last_price);
    EXPECT_STREQ("pb1705", arrived[i].data() + 168);
  }
}

TEST(feed_program, it_ends_by_itself_after_so_many_seconds) {
  const outcome result = run("--feeds INE --seconds 0.1 --group INE=239.255.0.1:9");
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(0u, result.text.find("INE 239.255.0.1:9\npublishing\nend: INE ")) << result.text;
}

}  // namespace kav_feed_test
