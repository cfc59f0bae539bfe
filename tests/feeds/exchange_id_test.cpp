#include "feeds/exchange_id.h"

#include <gtest/gtest.h>

TEST(exchange_id, every_exchange_has_its_number) {
  EXPECT_EQ(101, get_int_exchange_id("SHZ"));
  EXPECT_EQ(102, get_int_exchange_id("CFFEX"));
  EXPECT_EQ(103, get_int_exchange_id("SHFE"));
  EXPECT_EQ(104, get_int_exchange_id("DCE"));
  EXPECT_EQ(105, get_int_exchange_id("CZCE"));
  EXPECT_EQ(106, get_int_exchange_id("INE"));
  EXPECT_EQ(107, get_int_exchange_id("SGE"));
  EXPECT_EQ(108, get_int_exchange_id("GFEX"));
}

TEST(exchange_id, anything_else_is_zero) {
  for (const char* name : {"", "SSE", "SHFE2", "shfe", "SHF", " SHFE", "SHFE "}) {
    EXPECT_EQ(0, get_int_exchange_id(name)) << name;
  }
  EXPECT_EQ(0, get_int_exchange_id(nullptr));
}

TEST(exchange_id, the_shared_names_are_those_that_have_numbers) {
  EXPECT_EQ(k_exchange_number_shz, get_int_exchange_id(k_exchange_shz));
  EXPECT_EQ(k_exchange_number_cffex, get_int_exchange_id(k_exchange_cffex));
  EXPECT_EQ(k_exchange_number_shfe, get_int_exchange_id(k_exchange_shfe));
  EXPECT_EQ(k_exchange_number_dce, get_int_exchange_id(k_exchange_dce));
  EXPECT_EQ(k_exchange_number_czce, get_int_exchange_id(k_exchange_czce));
  EXPECT_EQ(k_exchange_number_ine, get_int_exchange_id(k_exchange_ine));
  EXPECT_EQ(k_exchange_number_sge, get_int_exchange_id(k_exchange_sge));
  EXPECT_EQ(k_exchange_number_gfex, get_int_exchange_id(k_exchange_gfex));
}
