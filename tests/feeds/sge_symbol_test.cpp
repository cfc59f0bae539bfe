#include "feeds/sge_symbol.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

// Whatever a test writes into the table is undone.
class sge_symbol_test : public testing::Test {
 protected:
  sge_symbol_test() { std::memcpy(m_saved, g_sge_symbol, sizeof(m_saved)); }
  ~sge_symbol_test() override { std::memcpy(g_sge_symbol, m_saved, sizeof(m_saved)); }

 private:
  sge_symbol_row m_saved[k_sge_symbol_rows];
};

}  // namespace

TEST_F(sge_symbol_test, table_has_its_six_rows_byte_for_byte) {
  char expected[192] = {};
  const std::string names[] = {"Au(T+D)", "Ag(T+D)", "mAu(T+D)", "Au(T+N1)", "Au(T+N2)"};
  char* row = expected;
  char code = '0';
  for (const std::string& name : names) {
    row[0] = code++;
    name.copy(row + 8, name.size());
    row[24] = '0';
    row[25] = '2';
    row += 32;
  }
  ASSERT_EQ(sizeof(expected), sizeof(g_sge_symbol));
  EXPECT_EQ(0, std::memcmp(expected, g_sge_symbol, sizeof(expected)));
}

TEST_F(sge_symbol_test, every_code_has_its_symbol_and_back) {
  for (int row = 0; row < 5; ++row) {
    sge_symbol_row& entry = g_sge_symbol[row];
    EXPECT_EQ(entry.sge_symbol, vex_symbol_to_sge_symbol(entry.code)) << "a pointer into the table";
    EXPECT_EQ(entry.code, sge_symbol_to_vex_symbol(entry.sge_symbol));
  }
}

TEST_F(sge_symbol_test, only_the_first_character_of_a_code_counts) {
  EXPECT_STREQ("Au(T+D)", vex_symbol_to_sge_symbol("0"));
  EXPECT_STREQ("Au(T+D)", vex_symbol_to_sge_symbol("07"));
  EXPECT_STREQ("Au(T+D)", vex_symbol_to_sge_symbol("0abc"));
  EXPECT_STREQ("Au(T+N2)", vex_symbol_to_sge_symbol("4xyz"));
}

TEST_F(sge_symbol_test, unknown_codes_have_no_symbol) {
  for (const char* code : {"5", "", "IF2509", " 0", "Au(T+D)"}) {
    EXPECT_EQ(nullptr, vex_symbol_to_sge_symbol(code)) << code;
  }
  EXPECT_EQ(nullptr, vex_symbol_to_sge_symbol(nullptr));
}

TEST_F(sge_symbol_test, symbols_are_compared_whole) {
  EXPECT_STREQ("2", sge_symbol_to_vex_symbol("mAu(T+D)"));
  for (const char* symbol : {"au(T+D)", "Au(T+D", "Au(T+D) ", "", "0"}) {
    EXPECT_EQ(nullptr, sge_symbol_to_vex_symbol(symbol)) << symbol;
  }
  EXPECT_EQ(nullptr, sge_symbol_to_vex_symbol(nullptr));
}

TEST_F(sge_symbol_test, a_row_written_over_the_terminator_is_found) {
  g_sge_symbol[5] = {"9", "Pt99.95", "02"};
  EXPECT_STREQ("Pt99.95", vex_symbol_to_sge_symbol("9"));
  EXPECT_STREQ("9", sge_symbol_to_vex_symbol("Pt99.95"));
  EXPECT_EQ(nullptr, vex_symbol_to_sge_symbol("8")) << "the search ends with the table";
  EXPECT_EQ(nullptr, sge_symbol_to_vex_symbol("Pd"));
}

TEST_F(sge_symbol_test, the_first_match_wins_and_an_empty_row_ends_the_search) {
  g_sge_symbol[1] = {"0", "second", "02"};
  EXPECT_STREQ("Au(T+D)", vex_symbol_to_sge_symbol("0"));
  g_sge_symbol[2] = {};
  EXPECT_EQ(nullptr, vex_symbol_to_sge_symbol("3"));
  EXPECT_EQ(nullptr, sge_symbol_to_vex_symbol("Au(T+N1)"));
}
