// Visitors of a client, and the last one out.
#include "client/client_life.h"

#include <gtest/gtest.h>

#include <atomic>  // std::atomic
#include <thread>  // std::thread
#include <vector>  // std::vector

#include "tests/support/wait_until.h"

namespace {

using clock = std::chrono::steady_clock;
using visitor = client_life::visitor;
using visit = client_life::visit;

constexpr std::chrono::seconds k_patience{20};

struct fake_client {
  std::atomic<int> farewells{0};
  static void farewell(void* client) { ++static_cast<fake_client*>(client)->farewells; }
};

bool is_empty(const client_life& life) { return life.wait_empty(clock::now()); }

}  // namespace

class client_life_test : public testing::Test {
 protected:
  fake_client m_client;
  const std::shared_ptr<client_life> m_life = std::make_shared<client_life>();
};

TEST_F(client_life_test, open_client_lets_visitors_in) {
  EXPECT_FALSE(m_life->is_closed());
  EXPECT_TRUE(is_empty(*m_life));
  {
    const visit first(m_life, visitor::caller);
    const visit second(m_life, visitor::library);
    EXPECT_TRUE(first);
    EXPECT_TRUE(second);
    EXPECT_FALSE(is_empty(*m_life));
  }
  EXPECT_TRUE(is_empty(*m_life));
}

TEST_F(client_life_test, closed_client_turns_newcomers_away_and_keeps_who_is_inside) {
  const visit inside(m_life, visitor::caller);
  m_life->close();
  EXPECT_TRUE(m_life->is_closed());
  const visit late(m_life, visitor::caller);
  EXPECT_FALSE(late);
  EXPECT_TRUE(inside);
  EXPECT_FALSE(is_empty(*m_life));
}

TEST_F(client_life_test, one_turned_away_is_no_visitor) {
  m_life->close();
  const visit late(m_life, visitor::library);
  EXPECT_FALSE(m_life->visited_by_this_thread());
  EXPECT_FALSE(m_life->visited_by_this_library_thread());
  EXPECT_TRUE(is_empty(*m_life));
}

TEST_F(client_life_test, waiting_for_the_last_visitor_ends_at_the_deadline) {
  const visit inside(m_life, visitor::caller);
  const auto begin = clock::now();
  EXPECT_FALSE(m_life->wait_empty(begin + std::chrono::milliseconds{30}));
  EXPECT_GE(clock::now() - begin, std::chrono::milliseconds{30});
}

TEST_F(client_life_test, waiting_for_the_last_visitor_ends_when_it_leaves) {
  std::atomic<bool> leave{false}, inside{false};
  std::thread other([&] {
    const visit stay(m_life, visitor::library);
    inside = true;
    wait_until([&] { return leave.load(); }, k_patience);
  });
  ASSERT_TRUE(wait_until([&] { return inside.load(); }, k_patience));
  EXPECT_FALSE(is_empty(*m_life));
  leave = true;
  EXPECT_TRUE(m_life->wait_empty(clock::now() + k_patience));
  other.join();
}

TEST_F(client_life_test, client_given_up_while_empty_goes_at_once) {
  m_life->give_up(fake_client::farewell, &m_client);
  EXPECT_EQ(1, m_client.farewells);
  EXPECT_TRUE(m_life->is_closed());
  const visit late(m_life, visitor::caller);
  EXPECT_FALSE(late);
}

TEST_F(client_life_test, client_given_up_with_visitors_goes_with_the_last_of_them) {
  auto first = std::make_unique<visit>(m_life, visitor::caller);
  auto second = std::make_unique<visit>(m_life, visitor::library);
  m_life->give_up(fake_client::farewell, &m_client);
  EXPECT_EQ(0, m_client.farewells);
  second.reset();
  EXPECT_EQ(0, m_client.farewells);
  first.reset();
  EXPECT_EQ(1, m_client.farewells);
}

TEST_F(client_life_test, client_closed_and_never_given_up_is_not_said_farewell_to) {
  {
    const visit inside(m_life, visitor::caller);
    m_life->close();
  }
  EXPECT_EQ(0, m_client.farewells);
  m_life->give_up(fake_client::farewell, &m_client);
  EXPECT_EQ(1, m_client.farewells);
}

TEST_F(client_life_test, expected_visitor_counts_before_it_exists) {
  m_life->expect_visitor();
  EXPECT_FALSE(is_empty(*m_life));
  m_life->close();
  m_life->give_up(fake_client::farewell, &m_client);
  EXPECT_EQ(0, m_client.farewells);
  std::thread worker([this] {
    const visit stay(m_life, visitor::library, visit::expected{});
    EXPECT_TRUE(stay) << "expected ones come in also when the client is closed";
    EXPECT_TRUE(m_life->visited_by_this_library_thread());
    EXPECT_EQ(0, m_client.farewells);
  });
  worker.join();
  EXPECT_EQ(1, m_client.farewells);
}

TEST_F(client_life_test, expected_visitor_that_does_not_come_may_be_the_last) {
  m_life->expect_visitor();
  m_life->give_up(fake_client::farewell, &m_client);
  m_life->forget_expected_visitor();
  EXPECT_EQ(1, m_client.farewells);
}

TEST_F(client_life_test, thread_knows_its_own_visits_by_client_and_by_kind) {
  const auto other_life = std::make_shared<client_life>();
  EXPECT_FALSE(m_life->visited_by_this_thread());
  const visit as_library(m_life, visitor::library);
  {
    const visit elsewhere(other_life, visitor::caller);
    EXPECT_TRUE(m_life->visited_by_this_thread()) << "also from inside another client";
    EXPECT_TRUE(m_life->visited_by_this_library_thread());
    EXPECT_TRUE(other_life->visited_by_this_thread());
    EXPECT_FALSE(other_life->visited_by_this_library_thread());
  }
  EXPECT_FALSE(other_life->visited_by_this_thread());
  const visit as_caller(m_life, visitor::caller);
  EXPECT_TRUE(m_life->visited_by_this_library_thread()) << "the outer visit counts";
  std::thread stranger([this] { EXPECT_FALSE(m_life->visited_by_this_thread()); });
  stranger.join();
}

TEST_F(client_life_test, caller_is_no_library_thread) {
  const visit as_caller(m_life, visitor::caller);
  EXPECT_TRUE(m_life->visited_by_this_thread());
  EXPECT_FALSE(m_life->visited_by_this_library_thread());
}

TEST_F(client_life_test, life_outlives_the_owner_while_somebody_is_inside) {
  auto life = std::make_shared<client_life>();
  const std::weak_ptr<client_life> watched = life;
  auto inside = std::make_unique<visit>(life, visitor::caller);
  life.reset();
  EXPECT_FALSE(watched.expired());
  inside.reset();
  EXPECT_TRUE(watched.expired());
}

// Many threads come and go while the client is given up: the farewell comes once, when nobody is
// inside, and nobody gets in afterwards.
TEST(client_life_race, exactly_one_farewell_and_nobody_inside) {
  struct racing_client {
    std::atomic<int> inside{0}, farewells{0}, met{0};
    int touched_by_visitors[4] = {};  // each by its own thread, read by the farewell
    static void farewell(void* client) {
      auto* const self = static_cast<racing_client*>(client);
      self->met += self->inside.load();
      int sum = 0;
      for (const int touches : self->touched_by_visitors) sum += touches;
      self->met += sum < 0 ? 1 : 0;
      ++self->farewells;
    }
  };
  for (int round = 0; round < 200; ++round) {
    racing_client client;
    const auto life = std::make_shared<client_life>();
    std::atomic<int> entered{0};
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int number = 0; number < 4; ++number) {
      threads.emplace_back([&, number] {
        for (;;) {
          const visit stay(life, visitor::library);
          if (!stay) return;
          ++client.inside;
          ++client.touched_by_visitors[number];
          ++entered;
          --client.inside;
        }
      });
    }
    EXPECT_TRUE(wait_until([&] { return entered.load() > 4; }, k_patience));
    life->give_up(racing_client::farewell, &client);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(1, client.farewells);
    EXPECT_EQ(0, client.met);
  }
}
