// The watchdog lets good lives pass and bites at bad ones.
#include "tests/chaos/watchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>  // std::this_thread::sleep_for

namespace kav_chaos {
namespace {

using std::chrono::seconds;

TEST(watchdog_test, threads_are_described_by_name_and_state) {
  EXPECT_THAT(describe_threads(), testing::ContainsRegex("chaos_checker.*running.*wchan"));
}

TEST(watchdog_test, life_that_ends_in_time_is_left_alone) {
  watchdog dog(seconds{60});
  const life_script script = make_script(1, 1);
  const watchdog::watch watched(dog, script);
}

TEST(watchdog_death_test, life_that_does_not_end_is_printed_and_ends_the_program) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const life_script script = make_script(5, 17);
  EXPECT_DEATH(
      {
        watchdog dog(seconds{1});
        const watchdog::watch watched(dog, script);
        std::this_thread::sleep_for(seconds{60});
      },
      "life 17 of seed 5 has not ended.*--seed 5 --life 17.*chaos-watchdog.*server: send buffer");
}

}  // namespace
}  // namespace kav_chaos
