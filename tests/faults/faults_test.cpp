// What must hold for each fault. The faults say themselves what is broken; here stands which
// figures they must not leave out, and what the caller may see.
#include <gmock/gmock.h>

#include "tests/faults/caller.h"
#include "tests/faults/fault.h"
#include "tests/support/process_view.h"

namespace kav_faults {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

#if defined(__SANITIZE_THREAD__)
constexpr bool k_thread_sanitizer = true;
#else
constexpr bool k_thread_sanitizer = false;
#endif

// After a loss that was mended behind the caller's back.
auto is_silent_return() {
  return ElementsAre(k_loss, "OnLog(0, relogin success)", "OnSymbolRegistered(true)", "OnQuote");
}

TEST(faults_test, killed_server_is_noticed_at_once_and_tried_every_2_seconds) {
  const fault_result r = server_killed();
  EXPECT_THAT(r.broken, IsEmpty()) << testing::PrintToString(r.calls);
  EXPECT_THAT(r.calls, Contains(k_loss));
  EXPECT_GE(r.value_of("between two tries"), 2);
}

TEST(faults_test, server_back_after_3_seconds_is_found_without_the_callers_help) {
  const fault_result r = server_back_after_3_seconds();
  EXPECT_THAT(r.broken, IsEmpty()) << testing::PrintToString(r.calls);
  EXPECT_THAT(r.calls, Not(Contains("OnServerDisconnected()")));
  EXPECT_GE(r.quotes_s.value_or(0), 3);
}

TEST(faults_test, link_that_is_cut_is_noticed_within_20_seconds) {
  const fault_result r = link_cut();
  if (!r.skipped.empty()) GTEST_SKIP() << r.skipped;
  EXPECT_THAT(r.broken, IsEmpty()) << testing::PrintToString(r.calls);
}

TEST(faults_test, message_that_stops_in_the_middle_waits_for_its_rest) {
  const fault_result r = stalled_in_a_message();
  EXPECT_THAT(r.broken, IsEmpty()) << testing::PrintToString(r.calls);
  EXPECT_THAT(r.calls, ElementsAre("OnQuote"));
}

TEST(faults_test, server_that_is_silent_at_login_leaves_the_caller_waiting_but_free_to_go) {
  EXPECT_THAT(silent_at_login().broken, IsEmpty());
}

TEST(faults_test, refused_relogin_ends_the_session_without_a_callback) {
  const fault_result r = refused_at_relogin();
  EXPECT_THAT(r.broken, IsEmpty()) << testing::PrintToString(r.calls);
  EXPECT_THAT(r.calls, ElementsAre(k_loss, "OnLog(0, relogin failed)", k_worker_end));
}

TEST(faults_test, random_bytes_are_thrown_away_and_quotes_flow_on) {
  const fault_result r = garbage();
  EXPECT_THAT(r.broken, IsEmpty()) << testing::PrintToString(r.calls);
  EXPECT_LT(r.quotes_s.value_or(1e9), kav_test::k_sanitized ? 5 : 1);
}

TEST(faults_test, flood_is_received_whole_and_in_order) {
  const fault_result r = flood();
  EXPECT_THAT(r.broken, IsEmpty()) << testing::PrintToString(r.calls);
  EXPECT_GT(r.value_of("quotes"), 1000);
  EXPECT_EQ(0, r.value_of("lost"));
}

TEST(faults_test, slow_callback_costs_memory_but_no_quotes) {
  const fault_result r = slow_callback();
  EXPECT_THAT(r.broken, IsEmpty()) << testing::PrintToString(r.calls);
  EXPECT_GT(r.value_of("resident memory grows by"), 0);
}

TEST(faults_test, signals_at_every_thread_disturb_nothing) {
  if (k_thread_sanitizer) GTEST_SKIP() << "it crashes when a signal finds it starting a thread";
  const fault_result r = signal_storm();
  EXPECT_THAT(r.broken, IsEmpty()) << testing::PrintToString(r.calls);
  EXPECT_THAT(r.calls, is_silent_return());
  EXPECT_EQ(0, r.value_of("handled by threads of the library"));
  EXPECT_GT(r.value_of("SIGPROF, in all threads"), 100);
}

TEST(faults_test, children_of_every_kind_leave_the_parents_session_alone) {
  const fault_result r = forks();
  EXPECT_THAT(r.broken, IsEmpty()) << testing::PrintToString(r.calls);
  EXPECT_EQ(0, r.value_of("quotes lost"));
}

TEST(faults_test, child_that_lives_on_does_not_keep_its_parent_from_a_new_session) {
  EXPECT_THAT(child_that_lives_on().broken, IsEmpty());
}

TEST(faults_test, two_copies_of_the_library_have_a_session_each) {
  if (k_thread_sanitizer) GTEST_SKIP() << "the dynamic linker's freeing of threads' data upsets it";
  const fault_result r = two_copies();
  EXPECT_THAT(r.broken, IsEmpty()) << testing::PrintToString(r.calls);
  EXPECT_GT(r.value_of("quotes in the first"), 2000);
  EXPECT_GT(r.value_of("quotes in the second"), 4000);
}

TEST(faults_test, unloading_leaves_the_code_under_a_living_client) {
  const fault_result r = unloaded_while_in_use();
  EXPECT_THAT(r.broken, IsEmpty()) << testing::PrintToString(r.calls);
  EXPECT_GT(r.value_of("quotes after `dlclose`"), 2000);
}

// Simulated time comes last: the clock of the process is ahead afterwards.
TEST(faults_time_test, server_back_after_10_minutes_is_found_and_nothing_has_piled_up) {
  const fault_result r = server_back_after_10_minutes();
  EXPECT_THAT(r.broken, IsEmpty()) << testing::PrintToString(r.calls);
  EXPECT_GE(0, r.value_of("more descriptors after them"));
  EXPECT_GE(0, r.value_of("more threads"));
}

TEST(faults_time_test, silence_at_every_relogin_ends_the_session_after_10_tries) {
  const fault_result r = silent_at_relogin();
  EXPECT_THAT(r.broken, IsEmpty()) << testing::PrintToString(r.calls);
  EXPECT_THAT(r.calls,
              ElementsAre(k_loss, "OnLog(3, wait for login response timeout) x 10", k_worker_end));
}

}  // namespace
}  // namespace kav_faults
