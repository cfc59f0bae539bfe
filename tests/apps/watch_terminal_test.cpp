// The table of kav-watch on a pseudo terminal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>  // SIGINT

#include <string>   // std::string
#include <utility>  // std::move

#include "watch_server.h"

namespace kav_watch_test {
namespace {

using testing::HasSubstr;

// With Ctrl-L behind it, since otherwise only what differs is written.
constexpr char k_page_down[] = "\x1B[6~\x0C";
constexpr char k_screen_opened[] = "\x1B[?1049h";
constexpr char k_screen_given_back[] = "\x1B[?1049l";

class watch_terminal_test : public watch_server_test {
 protected:
  child_options terminal_options(std::vector<std::string> arguments) const {
    child_options options = options_for(std::move(arguments));
    options.standard_output = child_stdout::terminal;
    return options;
  }
  static bool wait_shown(const child_process& child, const std::string& text) {
    return wait_until([&] { return child.output().find(text) != std::string::npos; });
  }
};

TEST_F(watch_terminal_test, the_table_shows_symbols_and_prices_and_q_ends_it) {
  child_process child{terminal_options({})};
  EXPECT_TRUE(wait_shown(child, k_screen_opened));
  for (const char* text : {"Symbol", "OpenInt", "IF2509", "Au(T+D)", "rb2510", "live"}) {
    EXPECT_TRUE(wait_shown(child, text)) << text;
  }
  ASSERT_TRUE(wait_registered("IF2509"));
  ASSERT_TRUE(push("IF2509", 11));
  EXPECT_TRUE(wait_shown(child, "3511.2"));
  EXPECT_TRUE(wait_shown(child, "+23.2"));
  EXPECT_TRUE(wait_shown(child, "10:15:03.000"));
  child.press("q");
  EXPECT_EQ(0, child.wait());
  EXPECT_THAT(child.output(), HasSubstr(k_screen_given_back));
  EXPECT_EQ("", child.errors());
}

TEST_F(watch_terminal_test, a_signal_gives_the_terminal_back) {
  child_process child{terminal_options({"IF2509"})};
  ASSERT_TRUE(wait_shown(child, "IF2509"));
  child.send_signal(SIGINT);
  EXPECT_EQ(0, child.wait());
  EXPECT_THAT(child.output(), HasSubstr(k_screen_given_back));
}

TEST_F(watch_terminal_test, ctrl_c_gives_the_terminal_back) {
  child_process child{terminal_options({"IF2509"})};
  ASSERT_TRUE(wait_shown(child, "IF2509"));
  child.press("\x03");
  EXPECT_EQ(0, child.wait());
  EXPECT_THAT(child.output(), HasSubstr(k_screen_given_back));
}

TEST_F(watch_terminal_test, rows_beyond_the_screen_are_scrolled_to_or_shown_when_it_grows) {
  child_options options = terminal_options({});
  options.rows = 4;  // header, one row, status, log
  child_process child{options};
  ASSERT_TRUE(wait_shown(child, "rows 1-1 of 3"));
  child.press(k_page_down);
  EXPECT_TRUE(wait_shown(child, "rows 2-2 of 3"));
  child.press(k_page_down);
  EXPECT_TRUE(wait_shown(child, "rows 3-3 of 3"));
  child.resize(10, 100);
  EXPECT_TRUE(wait_shown(child, "rows 1-3 of 3"));
  child.press("q");
  EXPECT_EQ(0, child.wait());
}

TEST_F(watch_terminal_test, a_lost_connection_and_the_end_of_the_session_are_told) {
  child_process child{terminal_options({"IF2509"})};
  ASSERT_TRUE(wait_registered("IF2509"));
  m_server.change_behaviour([](auto& b) { b.login = kav_sim::login_answer::refuse; });
  m_server.drop_all();
  EXPECT_TRUE(wait_shown(child, "reconnecting"));
  EXPECT_EQ(7, child.wait());
  EXPECT_THAT(child.output(), HasSubstr(k_screen_given_back));
  EXPECT_EQ(1u, split_lines(child.errors()).size()) << child.errors();
  EXPECT_THAT(child.errors(), HasSubstr("ended for good"));
}

TEST_F(watch_terminal_test, count_ends_the_table) {
  child_process child{terminal_options({"--count", "1", "IF2509"})};
  ASSERT_TRUE(wait_registered("IF2509"));
  ASSERT_TRUE(push("IF2509", 1));
  EXPECT_EQ(0, child.wait());
}

TEST_F(watch_terminal_test, list_prints_lines_on_a_terminal_too) {
  child_process child{terminal_options({"--list"})};
  EXPECT_EQ(0, child.wait());
  EXPECT_THAT(child.output(), HasSubstr("Au(T+D)\t2\r\n"));
}

}  // namespace
}  // namespace kav_watch_test
