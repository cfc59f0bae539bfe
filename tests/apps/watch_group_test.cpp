#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>  // std::uint16_t
#include <string>   // std::string
#include <variant>  // std::get

#include "apps/watch/multicast_group.h"

namespace kav_watch {
namespace {

using testing::HasSubstr;

watched_group accepted(const std::string& text) {
  const auto parsed = parse_group(text);
  if (const auto* wrong = std::get_if<std::string>(&parsed)) ADD_FAILURE() << *wrong;
  return std::get<watched_group>(parsed);
}

std::string refusal(const std::string& text) {
  const auto parsed = parse_group(text);
  const auto* wrong = std::get_if<std::string>(&parsed);
  return wrong == nullptr ? "not refused: " + text : *wrong;
}

TEST(watch_group, has_its_parts_in_the_record) {
  const watched_group group = accepted("239.255.10.1:30001:SHFE@127.0.0.1");
  EXPECT_STREQ("239.255.10.1", group.info.m_GroupIp);
  EXPECT_EQ(30001, std::uint16_t{group.info.m_GroupPort});
  EXPECT_STREQ("127.0.0.1", group.info.m_LocalIp);
  EXPECT_EQ(0, std::uint16_t{group.info.m_LocalPort});
  EXPECT_STREQ("SHFE", group.info.m_ExchangeId);
  EXPECT_EQ("239.255.10.1:30001:SHFE@127.0.0.1", group.text);
}

TEST(watch_group, without_an_interface_the_system_chooses) {
  for (const char* text : {"224.0.0.1:1:CZCE", "224.0.0.1:1:CZCE@0.0.0.0"}) {
    EXPECT_STREQ("", accepted(text).info.m_LocalIp);
    EXPECT_EQ("224.0.0.1:1:CZCE", accepted(text).text);
  }
}

TEST(watch_group, the_longest_texts_fit_their_fields) {
  const watched_group group = accepted("239.255.255.255:65535:CFFEX@255.255.255.255");
  EXPECT_STREQ("239.255.255.255", group.info.m_GroupIp);
  EXPECT_STREQ("255.255.255.255", group.info.m_LocalIp);
  EXPECT_EQ(65535, std::uint16_t{group.info.m_GroupPort});
}

TEST(watch_group, each_exchange_goes_by_its_name_in_any_case) {
  for (const char* name : {"SHFE", "INE", "CFFEX", "CZCE", "GFEX", "DCE", "SGE", "SHZ", "LUMEN"}) {
    EXPECT_STREQ(name, accepted(std::string{"239.0.0.1:1:"} + name).info.m_ExchangeId);
  }
  EXPECT_STREQ("CFFEX", accepted("239.0.0.1:1:cfFex").info.m_ExchangeId);
  for (const char* name : {"", "SSE", "SHFE2", "SHFELUMENLUMEN", "SHFE:1", " SHFE"}) {
    EXPECT_THAT(refusal(std::string{"239.0.0.1:1:"} + name),
                testing::AllOf(HasSubstr("is no exchange"), HasSubstr("or LUMEN")));
  }
}

TEST(watch_group, malformed_texts_are_refused_with_an_example) {
  for (const char* text :
       {"", ":", "::", "239.0.0.1", "239.0.0.1:1", "239.0.0.1::SHFE", "239.0.0.1:0:SHFE",
        "239.0.0.1:65536:SHFE", "239.0.0.1:-1:SHFE", "239.0.0.1:1x:SHFE", "239.0.0:1:SHFE",
        "239.0.0.256:1:SHFE", "feed:1:SHFE", "239.0.0.1:1:SHFE@", "239.0.0.1:1:SHFE@lo",
        "239.0.0.1:1:SHFE@127.0.0.1@127.0.0.1", "ff02::1:1:SHFE"}) {
    EXPECT_THAT(refusal(text), HasSubstr("such as 239.255.10.1:30001:SHFE@127.0.0.1")) << text;
  }
}

TEST(watch_group, an_address_outside_the_multicast_range_is_told_so) {
  for (const char* group : {"223.255.255.255", "240.0.0.0", "127.0.0.1", "0.0.0.0"}) {
    EXPECT_THAT(refusal(std::string{group} + ":1:SHFE"), HasSubstr("is no multicast address"));
  }
  EXPECT_STREQ("224.0.0.0", accepted("224.0.0.0:1:SHFE").info.m_GroupIp);
}

TEST(watch_group, a_refusal_cannot_move_the_cursor) {
  EXPECT_THAT(refusal("\x1B[2J"), HasSubstr("'?[2J'"));
  EXPECT_THAT(refusal("239.0.0.1:1:\x1B[2J"), HasSubstr("'?[2J'"));
}

TEST(watch_group, the_same_reception_has_the_same_group_port_and_interface) {
  const watched_group group = accepted("239.0.0.1:1:SHFE@127.0.0.1");
  EXPECT_TRUE(same_reception(group, accepted("239.0.0.1:1:INE@127.0.0.1")));
  EXPECT_FALSE(same_reception(group, accepted("239.0.0.2:1:SHFE@127.0.0.1")));
  EXPECT_FALSE(same_reception(group, accepted("239.0.0.1:2:SHFE@127.0.0.1")));
  EXPECT_FALSE(same_reception(group, accepted("239.0.0.1:1:SHFE")));
}

}  // namespace
}  // namespace kav_watch
