#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "apps/decode/options.h"
#include "feeds/exchange_id.h"
#include "tests/apps/decode_packets.h"

namespace kav_decode_test {
namespace {

using kav_decode::decode_options;
using kav_decode::information;
using kav_decode::outcome;
using kav_decode::output_format;
using testing::ElementsAre;
using testing::HasSubstr;

kav_decode::parsed_options parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "kav-decode");
  return kav_decode::parse_options(static_cast<int>(arguments.size()), arguments.data());
}

decode_options accepted(const std::vector<const char*>& arguments) {
  const auto parsed = parse(arguments);
  if (const auto* end = std::get_if<outcome>(&parsed)) ADD_FAILURE() << end->message;
  const auto* options = std::get_if<decode_options>(&parsed);
  return options == nullptr ? decode_options{} : *options;
}

TEST(decode_options_test, a_file_alone_is_decoded_to_csv_with_the_default_groups) {
  const decode_options options = accepted({"feed.pcap"});
  EXPECT_EQ("feed.pcap", options.path);
  EXPECT_EQ(output_format::csv, options.format);
  EXPECT_EQ(k_exchange_number_cffex, options.groups.find({k_group, k_port}));
  EXPECT_TRUE(options.symbols.empty());
  EXPECT_FALSE(options.time || options.summary_only || options.quiet || options.count);
}

TEST(decode_options_test, every_option_is_understood) {
  const decode_options options = accepted(
      {"--group", "239.1.1.1:5=SHFE", "--group=239.1.1.2=LUMEN", "--symbol", "IF2509", "--symbol",
       "Au(T+D)", "--format", "json", "--time", "--count", "12", "--summary-only", "--quiet", "-"});
  EXPECT_EQ("-", options.path);
  EXPECT_EQ(k_exchange_number_shfe, options.groups.find({0xEF010101, 5}));
  EXPECT_EQ(0, options.groups.find({0xEF010102, 77}));
  EXPECT_EQ(std::nullopt, options.groups.find({k_group, k_port}));  // no defaults any more
  EXPECT_THAT(options.symbols, ElementsAre("Au(T+D)", "IF2509"));
  EXPECT_EQ(output_format::json, options.format);
  EXPECT_EQ(12u, options.count);
  EXPECT_TRUE(options.time && options.summary_only && options.quiet);
}

TEST(decode_options_test, no_output_is_another_name) {
  EXPECT_TRUE(accepted({"x", "--no-output"}).summary_only);
}

TEST(decode_options_test, the_file_may_follow_any_option) {
  EXPECT_EQ("x", accepted({"--group", "239.1.1.1=SHFE", "x"}).path);
  EXPECT_EQ("x", accepted({"--symbol", "IF2509", "x"}).path);
}

TEST(decode_options_test, bad_options_give_one_line_with_a_way_out) {
  for (const std::vector<const char*>& arguments : std::vector<std::vector<const char*>>{
           {},
           {"a", "b"},
           {"x", "--nonsense"},
           {"x", "--format", "table"},
           {"x", "--count", "0"},
           {"x", "--count", "-1"},
           {"x", "--count", "nan"},
           {"x", "--count", "1.5"},
           {"x", "--count", "99999999999999999999"},
           {"x", "--count"},
           {"x", "--group", "239.1.1.1"},
           {"x", "--group", "239.1.1.1=shfe"},
           {"x", "--group", "239.1.1.1=SHFE", "--group", "239.1.1.1=INE"},
           {"x", "--symbol"},
           {"x", "--group", "\x1b[2J\n=SHFE"}}) {
    const auto parsed = parse(arguments);
    const auto* end = std::get_if<outcome>(&parsed);
    ASSERT_NE(nullptr, end) << testing::PrintToString(arguments);
    EXPECT_EQ(kav_decode::exit_status::bad_option, end->status);
    EXPECT_THAT(end->message, HasSubstr("; kav-decode --help shows how to use it"));
    EXPECT_EQ(std::string::npos, end->message.find_first_of("\n\x1b"));
    EXPECT_LT(end->message.size(), 300u) << end->message;
  }
}

TEST(decode_options_test, help_names_every_option_group_and_status) {
  const auto parsed = parse({"--help"});
  const auto* help = std::get_if<information>(&parsed);
  ASSERT_NE(nullptr, help);
  for (const char* text : {"FILE", "--group", "--symbol", "--format", "--time", "--count",
                           "--summary-only", "--no-output", "--quiet", "--version",
                           "239.255.10.6:30006=INE", "Exit statuses:", "\n  4  "}) {
    EXPECT_THAT(help->text, HasSubstr(text));
  }
}

}  // namespace
}  // namespace kav_decode_test
