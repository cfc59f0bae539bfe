#include <gtest/gtest.h>

#include "apps/watch/session_tracker.h"

namespace kav_watch {
namespace {

TEST(watch_tracker, a_session_connects_until_its_login_is_accepted) {
  session_tracker tracker;
  EXPECT_EQ(link_state::connecting, tracker.state());
  tracker.login_accepted();
  EXPECT_EQ(link_state::live, tracker.state());
}

TEST(watch_tracker, each_kind_of_loss_means_reconnecting) {
  for (const char* line : {"[on_cache_callback] EVENT_REMOTE_DISCONNECT,thd_is_run:1",
                           "[QuoteClient] reveive error length msg.",
                           "[QuoteClient] tcp client send reg symbol req error.",
                           "[QuoteClient] tcp client send unreg symbol req error.",
                           "[QuoteClient] connect server failed. server ip: 127.0.0.1, port: 9.",
                           "[QuoteClient] wait for login response timeout."}) {
    session_tracker tracker;
    tracker.login_accepted();
    tracker.read_log_line(line);
    EXPECT_EQ(link_state::reconnecting, tracker.state()) << line;
  }
}

TEST(watch_tracker, other_lines_change_nothing) {
  session_tracker tracker;
  tracker.login_accepted();
  for (const char* line : {"", "[QuoteClient] nothing to reg or unreg",
                           "[on_cache_callback] EVENT_REMOTE_DISCONNECT,thd_is_run:0",
                           "[QuoteClient] _th_kqc_send_and_reconn begin"}) {
    tracker.read_log_line(line);
  }
  EXPECT_EQ(link_state::live, tracker.state());
  EXPECT_EQ(0u, tracker.reconnections());
}

TEST(watch_tracker, reconnections_are_counted) {
  session_tracker tracker;
  tracker.login_accepted();
  for (int i = 0; i < 2; ++i) {
    tracker.read_log_line("[on_cache_callback] EVENT_REMOTE_DISCONNECT,thd_is_run:1");
    tracker.read_log_line("[QuoteClient] relogin success, server ip: 127.0.0.1, port: 9.");
  }
  EXPECT_EQ(link_state::live, tracker.state());
  EXPECT_EQ(2u, tracker.reconnections());
}

TEST(watch_tracker, a_refused_relogin_ends_the_session) {
  session_tracker tracker;
  tracker.login_accepted();
  tracker.read_log_line("[QuoteClient] relogin failed, server ip: 127.0.0.1, port: 9.");
  tracker.read_log_line("[QuoteClient] _th_kqc_send_and_reconn end");
  EXPECT_EQ(link_state::over, tracker.state());
  EXPECT_TRUE(tracker.relogin_refused());
  EXPECT_FALSE(tracker.login_refused());
}

TEST(watch_tracker, a_refused_first_login_is_told_apart_from_a_missing_list) {
  session_tracker tracker;
  tracker.read_log_line("[QuoteClient] query symbol error");
  EXPECT_FALSE(tracker.login_refused());
  tracker.read_log_line("[QuoteClient] login failed, result: N,  server ip: 127.0.0.1, port: 9.");
  EXPECT_TRUE(tracker.login_refused());
}

TEST(watch_tracker, each_state_has_a_text) {
  EXPECT_EQ("connecting", state_text(link_state::connecting));
  EXPECT_EQ("live", state_text(link_state::live));
  EXPECT_EQ("reconnecting", state_text(link_state::reconnecting));
  EXPECT_EQ("over", state_text(link_state::over));
}

}  // namespace
}  // namespace kav_watch
