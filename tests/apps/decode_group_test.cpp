// Groups and their exchanges.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "apps/decode/group_table.h"
#include "apps/feed/default_groups.h"
#include "feeds/exchange_id.h"
#include "tests/apps/decode_packets.h"

namespace kav_decode_test {
namespace {

using kav_decode::group_table;
using testing::HasSubstr;

TEST(decode_group_test, every_default_group_finds_its_exchange) {
  const group_table table = group_table::defaults();
  for (std::uint32_t i = 1; i <= std::size(kav_feed::k_default_groups); ++i) {
    const kav_feed::default_group& row = kav_feed::k_default_groups[i - 1];
    const kav_decode::destination where{0xEFFF0A00 + i, static_cast<std::uint16_t>(30000 + i)};
    EXPECT_EQ(std::string{row.group} + ":" + std::to_string(row.port), destination_text(where));
    EXPECT_EQ(kav_decode::exchange_number(row.exchange), table.find(where)) << row.exchange;
  }
  EXPECT_EQ(k_exchange_number_cffex, table.find({k_group, k_port}));
  EXPECT_EQ(0, table.find({0xEFFF0A05, 30005}));
  EXPECT_EQ(std::nullopt, table.find({k_group, 30001}));
}

TEST(decode_group_test, an_entry_with_a_port_comes_before_one_without) {
  group_table table;
  EXPECT_EQ("", table.add("239.255.10.2=CZCE"));
  EXPECT_EQ("", table.add("239.255.10.2:5=GFEX"));
  EXPECT_EQ(k_exchange_number_gfex, table.find({k_group, 5}));
  EXPECT_EQ(k_exchange_number_czce, table.find({k_group, 6}));
  EXPECT_EQ(std::nullopt, table.find({k_group + 1, 5}));
}

TEST(decode_group_test, every_exchange_has_a_name_and_a_number) {
  for (const char* name : {"SHFE", "INE", "CFFEX", "CZCE", "GFEX", "DCE", "SHZ", "SGE", "LUMEN"}) {
    const std::optional<int> number = kav_decode::exchange_number(name);
    ASSERT_TRUE(number) << name;
    EXPECT_EQ(name, kav_decode::exchange_name(*number));
    EXPECT_THAT(kav_decode::exchange_names(), HasSubstr(name));
  }
  EXPECT_EQ(k_exchange_number_ine, kav_decode::exchange_number("INE"));
  EXPECT_EQ(0, kav_decode::exchange_number("LUMEN"));
}

TEST(decode_group_test, texts_that_name_no_group_are_refused) {
  for (const char* text :
       {"", "=", "=SHFE", "239.1.1.1", "239.1.1=SHFE", "239.1.1.256=SHFE", "group=SHFE",
        "239.1.1.1:=SHFE", "239.1.1.1:0=SHFE", "239.1.1.1:65536=SHFE", "239.1.1.1:1x=SHFE",
        "239.1.1.1:-1=SHFE", "239.1.1.1:1:2=SHFE", " 239.1.1.1=SHFE"}) {
    group_table table;
    EXPECT_THAT(table.add(text), HasSubstr("is no GROUP[:PORT]=EXCHANGE")) << text;
    EXPECT_TRUE(table.is_empty());
  }
}

TEST(decode_group_test, unknown_exchanges_are_refused) {
  for (const char* text : {"239.1.1.1=", "239.1.1.1=shfe", "239.1.1.1=SHFE ", "239.1.1.1=SHFE=INE",
                           "239.1.1.1:5=lumen"}) {
    group_table table;
    EXPECT_THAT(table.add(text), HasSubstr("is no exchange; known: SHFE, ")) << text;
  }
}

TEST(decode_group_test, the_same_group_twice_is_refused) {
  group_table table;
  EXPECT_EQ("", table.add("239.1.1.1:5=SHFE"));
  EXPECT_EQ("'239.1.1.1:5' is given twice", table.add("239.1.1.1:5=INE"));
  EXPECT_EQ("", table.add("239.1.1.1=INE"));
  EXPECT_EQ(k_exchange_number_shfe, table.find({0xEF010101, 5}));
}

}  // namespace
}  // namespace kav_decode_test
