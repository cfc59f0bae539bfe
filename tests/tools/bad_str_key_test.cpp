#include "tools/bad_str_key.h"

#include <gtest/gtest.h>

#include <stdexcept>

using VORLAN::TOOLS::bad_str_key;

TEST(bad_str_key, carries_its_message_and_the_code_minus_one) {
  const bad_str_key error("no such key ");
  EXPECT_STREQ("no such key ", error.what());
  EXPECT_EQ(-1, error.code());
}

TEST(bad_str_key, is_caught_as_out_of_range_and_as_logic_error) {
  EXPECT_THROW(throw bad_str_key("x"), std::out_of_range);
  EXPECT_THROW(throw bad_str_key("x"), std::logic_error);
}

TEST(bad_str_key, keeps_message_and_code_when_copied) {
  const bad_str_key error("text");
  const bad_str_key copy = error;  // NOLINT(performance-unnecessary-copy-initialization): tested
  EXPECT_STREQ("text", copy.what());
  EXPECT_EQ(-1, copy.code());
}
