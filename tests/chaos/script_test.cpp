// Scripts are random, but the same each time.
#include "tests/chaos/script.h"

#include <gtest/gtest.h>

#include <algorithm>  // std::any_of
#include <set>        // std::set

#include "tests/chaos/dice.h"

namespace kav_chaos {
namespace {

TEST(script_test, dice_fall_the_same_way_everywhere) {
  dice d(0);
  EXPECT_EQ(0xe220a8397b1dcdafu, d.next());
  EXPECT_EQ(0x6e789e6aa1b965f4u, d.next());
}

TEST(script_test, same_seed_and_number_make_the_same_life) {
  for (unsigned number = 0; number < 100; ++number) {
    EXPECT_EQ(text_of(make_script(7, number)), text_of(make_script(7, number)));
  }
}

TEST(script_test, each_seed_and_each_number_makes_another_life) {
  std::set<std::string> lives;
  for (unsigned number = 0; number < 100; ++number) {
    for (const std::uint64_t seed : {7u, 8u}) {
      std::string text = text_of(make_script(seed, number));
      lives.insert(text.substr(text.find('\n')));  // without the line with the numbers
    }
  }
  EXPECT_EQ(200u, lives.size());
}

// Whatever the program claims to try, a few hundred lives do try.
TEST(script_test, every_deed_occurs) {
  std::set<deed> done, done_inside;
  std::set<server_deed> server_done;
  bool at_once = false;
  for (unsigned number = 0; number < 300; ++number) {
    const life_script script = make_script(1, number);
    for (const server_step& step : script.server) server_done.insert(step.what);
    for (const client_script& client : script.clients) {
      for (const inside_action& inside : client.inside) done_inside.insert(inside.what.what);
      for (const client_step& step : client.steps) {
        done.insert(step.first.what);
        at_once |= step.at_once.has_value();
      }
    }
  }
  EXPECT_TRUE(at_once);
  EXPECT_EQ(static_cast<std::size_t>(deed::pause) + 1, done.size());
  EXPECT_EQ(static_cast<std::size_t>(server_deed::pause) + 1, server_done.size());
  EXPECT_TRUE(done_inside.contains(deed::destroy));
  EXPECT_TRUE(done_inside.contains(deed::disconnect));
  EXPECT_TRUE(done_inside.contains(deed::log_in));
  EXPECT_TRUE(done_inside.contains(deed::register_shared));
}

TEST(script_test, facts_tell_of_every_harm_to_the_stream) {
  for (unsigned number = 0; number < 300; ++number) {
    const life_script script = make_script(2, number);
    const auto any = [&](auto harms) {
      return std::any_of(script.server.begin(), script.server.end(), harms);
    };
    if (script.facts.whole_messages) {
      EXPECT_EQ(0u, script.heartbeat_ms);
      EXPECT_FALSE(any([](const server_step& s) { return s.what == server_deed::garbage; }));
    }
    if (script.facts.terminated_quotes) {
      EXPECT_FALSE(any([](const server_step& s) { return s.how.full_width_quotes; }));
    }
    if (script.facts.asked_quotes_only) {
      EXPECT_FALSE(
          any([](const server_step& s) { return s.what == server_deed::unasked && s.value == 0; }));
    }
  }
}

}  // namespace
}  // namespace kav_chaos
