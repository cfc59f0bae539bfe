// What happens to datagrams on their way: losses, swapped neighbours, the pace.
#include <gtest/gtest.h>

#include "apps/feed/disturbance.h"
#include "apps/feed/pace.h"
#include "tests/apps/feed_ticks.h"

namespace kav_feed_test {

using namespace kav_feed;
using namespace std::chrono_literals;

datagram numbered(int number) {
  datagram result;
  result.append(number);
  return result;
}

std::vector<int> passed(disturbance& by, int count) {
  std::vector<datagram> out;
  for (int i = 0; i < count; ++i) by.pass(numbered(i), out);
  by.finish(out);
  std::vector<int> numbers;
  numbers.reserve(out.size());
  for (const datagram& each : out) numbers.push_back(at<int>(each, 0));
  return numbers;
}

// The same written as a rule about the whole sequence: which are lost, and then which of the others
// change places.
std::vector<int> modelled(double loss, double reorder, std::uint64_t seed, int count,
                          std::uint64_t& lost, std::uint64_t& swapped) {
  std::mt19937_64 random{seed};
  std::vector<int> left;
  std::vector<bool> swap;
  for (int i = 0; i < count; ++i) {
    const double first = std::ldexp(static_cast<double>(random() >> 11), -53);
    const double second = std::ldexp(static_cast<double>(random() >> 11), -53);
    if (first < loss) continue;
    left.push_back(i);
    swap.push_back(second < reorder);
  }
  lost = static_cast<std::uint64_t>(count) - left.size();
  swapped = 0;
  for (std::size_t i = 0; i + 1 < left.size(); ++i) {
    if (!swap[i]) continue;
    std::swap(left[i], left[i + 1]);
    ++swapped;
    ++i;
  }
  return left;
}

TEST(feed_disturbance, what_is_lost_and_swapped_follows_the_seed) {
  for (const auto& [loss, reorder] : std::vector<std::pair<double, double>>{
           {0, 0}, {0.1, 0}, {0, 0.1}, {0.02, 0.3}, {0.5, 0.5}, {0, 1}, {1, 1}}) {
    for (const std::uint64_t seed : {1u, 2u, 99u}) {
      disturbance by{{loss, reorder}, seed};
      std::uint64_t lost = 0, swapped = 0;
      const std::vector<int> expected = modelled(loss, reorder, seed, 10001, lost, swapped);
      EXPECT_EQ(expected, passed(by, 10001)) << loss << " " << reorder << " " << seed;
      EXPECT_EQ(lost, by.left_out());
      EXPECT_EQ(swapped, by.swapped());
    }
  }
}

TEST(feed_disturbance, about_as_many_are_hit_as_were_asked_for) {
  disturbance by{{0.1, 0.05}, 3};
  const std::size_t arrived = passed(by, 100'000).size();
  EXPECT_NEAR(10'000, static_cast<double>(by.left_out()), 500);
  EXPECT_EQ(100'000 - by.left_out(), arrived);
  EXPECT_NEAR(90'000 * 0.05 / 1.05, static_cast<double>(by.swapped()), 400);
}

TEST(feed_pace, datagrams_leave_one_interval_apart_whatever_the_sleeps_last) {
  const steady_time start{1h};
  pace at_50000{50'000, start};
  steady_time now = start;
  for (int i = 0; i < 100'000; ++i) {
    const steady_time due = at_50000.next(start, now);
    const auto expected = start + i * 20us;
    if (due > now) {
      ASSERT_NEAR(0, static_cast<double>((due - expected).count()), 100) << i;
      now = due + 63us;  // the sleep lasts longer
    } else {
      ASSERT_LE(expected, now + 100ns) << i << " before its time";
    }
  }
  EXPECT_LE(now - start, 2s + 63us);
  EXPECT_GE(now - start, 2s - 100us);
}

TEST(feed_pace, a_sender_that_was_held_up_catches_up_in_bursts_of_32) {
  const steady_time start{1h};
  pace at_1000{1000, start};
  steady_time now = start + 1s;  // a thousand are due
  unsigned burst = 0, longest = 0;
  for (int i = 0; i < 3000; ++i) {
    const steady_time due = at_1000.next(start, now);
    burst = due > now ? 1 : burst + 1;
    longest = std::max(longest, burst);
    if (due > now) now = due;
  }
  EXPECT_EQ(32u, longest);
  EXPECT_NEAR(2.999, std::chrono::duration<double>(now - start).count(), 0.002) << "caught up";
}

TEST(feed_pace, a_quiet_source_leaves_nothing_to_catch_up_with) {
  const steady_time start{1h};
  pace at_10{10, start};
  EXPECT_EQ(start, at_10.next(start, start));
  const steady_time later = start + 1min;
  EXPECT_EQ(later, at_10.next(later, later));
  EXPECT_EQ(later + 100ms, at_10.next(later, later));
  EXPECT_EQ(later + 200ms, at_10.next(later, later));
}

TEST(feed_pace, without_a_limit_everything_leaves_when_it_is_made) {
  const steady_time start{1h};
  pace unlimited{0, start};
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(start + 5s, unlimited.next(start + 5s, start));
}

}  // namespace kav_feed_test
