#include <gtest/gtest.h>

#include <string>       // std::string
#include <string_view>  // std::string_view

#include "apps/watch/text_safety.h"

namespace kav_watch {
namespace {

using namespace std::string_view_literals;

std::string json(std::string_view text) {
  fmt::memory_buffer out;
  append_json_text(out, text);
  return fmt::to_string(out);
}

std::string csv(std::string_view text) {
  fmt::memory_buffer out;
  append_csv_text(out, text);
  return fmt::to_string(out);
}

TEST(watch_text, characters_of_one_to_four_bytes_are_recognised) {
  EXPECT_EQ(1u, utf8_character_bytes("a"));
  EXPECT_EQ(2u, utf8_character_bytes("\xC3\xA9"));
  EXPECT_EQ(3u, utf8_character_bytes("\xE9\x93\x9C"));
  EXPECT_EQ(4u, utf8_character_bytes("\xF0\x9F\x92\xB0"));
}

TEST(watch_text, bytes_that_are_no_utf8_are_not_recognised) {
  for (const std::string_view bad :
       {""sv, "\x80"sv, "\xC3"sv, "\xC3("sv, "\xC0\xAF"sv, "\xE0\x80\xAF"sv, "\xED\xA0\x80"sv,
        "\xF4\x90\x80\x80"sv, "\xF8\x88\x80\x80\x80"sv, "\xFF"sv, "\xE9\x93"sv}) {
    EXPECT_EQ(0u, utf8_character_bytes(bad));
  }
}

TEST(watch_text, printable_text_keeps_letters_and_replaces_what_moves_the_cursor) {
  EXPECT_EQ("a\xE9\x93\x9C?[2J?b?", printable_text("a\xE9\x93\x9C\x1B[2J\nb\xC2\x9B"));
  EXPECT_EQ("a??", printable_text("a\xD0\xCE"));
}

TEST(watch_text, ascii_text_has_one_column_per_byte) {
  EXPECT_EQ("Au(T+D)", ascii_text("Au(T+D)"));
  EXPECT_EQ("x?????", ascii_text("x\xE9\x93\x9C\x7F\t"));
}

TEST(watch_text, a_long_list_shows_its_first_and_counts_the_others) {
  EXPECT_EQ("", first_texts({}, 2));
  EXPECT_EQ("a", first_texts({"a"}, 2));
  EXPECT_EQ("a, b", first_texts({"a", "b"}, 2));
  EXPECT_EQ("a, b and 2 more", first_texts({"a", "b", "c", "d"}, 2));
}

TEST(watch_text, json_text_escapes_quotes_backslashes_and_control_characters) {
  EXPECT_EQ(R"("a\"b\\c\u000a\u0000\u007f")", json("a\"b\\c\n\0\x7F"sv));
}

TEST(watch_text, json_text_keeps_utf8_and_replaces_other_bytes) {
  EXPECT_EQ("\"\xE9\x93\x9C\\ufffd\\ufffd\"", json("\xE9\x93\x9C\xFF\xE9"));
}

TEST(watch_text, csv_text_is_quoted_only_where_it_must_be) {
  EXPECT_EQ("Au(T+D)", csv("Au(T+D)"));
  EXPECT_EQ("", csv(""));
  EXPECT_EQ("\"a,b\"", csv("a,b"));
  EXPECT_EQ("\"a\"\"b\"", csv("a\"b"));
  EXPECT_EQ("\"a\nb\"", csv("a\nb"));
  EXPECT_EQ("\"a\rb\"", csv("a\rb"));
}

}  // namespace
}  // namespace kav_watch
