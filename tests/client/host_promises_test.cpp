// What a session's threads leave alone in their host: its signals, its processor.
#include <csignal>  // pthread_sigmask
#include <mutex>    // std::mutex
#include <set>      // std::set
#include <thread>   // std::this_thread::sleep_for

#include "tests/client/session_support.h"
#include "tests/support/process_view.h"

namespace kav_session {
namespace {

using names = std::vector<std::string>;

class host_promises_test : public session_fixture {
 protected:
  static void expect_host_signals_blocked(const kav_test::thread_view& thread) {
    for (const int signal : {SIGINT, SIGTERM, SIGALRM, SIGCHLD, SIGHUP, SIGUSR1, SIGPIPE}) {
      EXPECT_TRUE(thread.blocks(signal)) << thread.name << ' ' << signal;
    }
    for (const int signal : {SIGPROF, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
      EXPECT_FALSE(thread.blocks(signal)) << thread.name << ' ' << signal;
    }
  }
};

TEST_F(host_promises_test, every_thread_of_a_session_is_named_and_leaves_signals_to_the_host) {
  start_server();
  const std::size_t before = kav_test::threads().size();
  log_in();
  const names all{"kav-event", "kav-receive", "kav-reconnect", "kav-send", "kav-worker"};
  ASSERT_TRUE(wait_until([&] { return library_threads() == all; }, k_patience));
  EXPECT_EQ(before + all.size(), kav_test::threads().size()) << "none is without a name";
  for (const kav_test::thread_view& thread : kav_test::threads()) {
    if (thread.name.rfind("kav-", 0) == 0 && thread.name.rfind("kav-sim", 0) != 0) {
      expect_host_signals_blocked(thread);
    }
  }
}

// The closing thread lives for 10 ms only: it is looked at while it is in a callback.
TEST_F(host_promises_test, a_closing_thread_is_named_and_leaves_signals_to_the_host) {
  std::atomic<int> seen{0};
  m_record.set_hook([&](const call& c) {
    if (c.what != "OnLog(0, [on_cache_callback] EVENT_LOCALE_DISCONNECT)") return;
    EXPECT_EQ("kav-close", c.thread);
    for (const kav_test::thread_view& thread : kav_test::threads_named("kav-close")) {
      expect_host_signals_blocked(thread);
      ++seen;
    }
  });
  m_how.login = kav_sim::login_answer::refuse;
  connect();
  ASSERT_NE(0, send_login());
  EXPECT_TRUE(wait_until([&] { return seen == 1; }, k_patience));
}

TEST_F(host_promises_test, an_idle_session_costs_next_to_nothing) {
  log_in();
  register_symbol("IF2509");
  ASSERT_TRUE(m_record.wait_text("OnLog(0, [QuoteClient] nothing to reg or unreg)"));
  const auto before = kav_test::processor_time();
  std::this_thread::sleep_for(milliseconds{2000});
  EXPECT_LT(kav_test::processor_time() - before,
            milliseconds{60 * (kav_test::k_sanitized ? 8 : 1)});
}

}  // namespace
}  // namespace kav_session
