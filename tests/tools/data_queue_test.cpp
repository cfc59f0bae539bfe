#include "tools/data_queue.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using VORLAN::TOOLS::bad_str_key;
using VORLAN::TOOLS::data_queue;

// Can be told to refuse copies.
struct fragile {
  fragile() = default;
  explicit fragile(int v) : value(v) {}
  fragile(const fragile& other) : value(other.value) { check(); }
  fragile& operator=(const fragile& other) {
    check();
    value = other.value;
    return *this;
  }
  static void check() {
    if (s_refuses) throw std::runtime_error("refused");
  }

  int value = 0;
  inline static bool s_refuses = false;
};

struct queue_item {
  int producer;
  int number;
};

constexpr int k_producers = 3;
constexpr int k_items = 3000;

void produce(data_queue<queue_item>& queue, int producer) {
  for (int i = 0; i < k_items; ++i) queue.push({producer, i});
}

// Takes until everything has been taken; false when a producer's items came out of order.
bool consume(data_queue<queue_item>& queue, std::atomic<int>& left) {
  std::array<int, k_producers> last;
  last.fill(-1);
  bool ordered = true;
  while (left.load() > 0) {
    queue_item item{};
    if (!queue.try_pop(item)) {
      std::this_thread::yield();
      continue;
    }
    --left;
    int& previous = last[static_cast<std::size_t>(item.producer)];
    ordered = ordered && item.number > previous;
    previous = item.number;
  }
  return ordered;
}

}  // namespace

TEST(data_queue, gives_items_in_the_order_of_their_arrival) {
  data_queue<std::string> queue;
  EXPECT_TRUE(queue.empty());
  queue.push("first");
  queue.push("second");
  EXPECT_EQ(2u, queue.size());
  EXPECT_EQ("first", queue.front());
  EXPECT_EQ("first", queue.front());
  queue.pop();
  EXPECT_EQ("second", queue.front());
  queue.pop();
  EXPECT_TRUE(queue.empty());
}

TEST(data_queue, front_of_an_empty_queue_throws_its_text) {
  data_queue<int> queue;
  try {
    queue.front();
    FAIL() << "nothing was thrown";
  } catch (const bad_str_key& error) {
    EXPECT_STREQ("data queue empty ", error.what());
    EXPECT_EQ(-1, error.code());
  }
  std::thread([&] { queue.push(1); }).join();  // the lock has been given back
  EXPECT_EQ(1u, queue.size());
}

TEST(data_queue, pop_of_an_empty_queue_does_nothing) {
  data_queue<int> queue;
  queue.pop();
  EXPECT_EQ(0u, queue.size());
}

TEST(data_queue, try_pop_takes_the_front_or_leaves_the_item_alone) {
  data_queue<int> queue;
  queue.push(7);
  int item = 0;
  EXPECT_TRUE(queue.try_pop(item));
  EXPECT_EQ(7, item);
  EXPECT_FALSE(queue.try_pop(item));
  EXPECT_EQ(7, item);
}

TEST(data_queue, does_not_free_what_its_items_point_to) {
  int value = 5;
  {
    data_queue<int*> queue;
    queue.push(&value);
  }
  EXPECT_EQ(5, value);
}

TEST(data_queue, a_copy_that_throws_changes_nothing_and_leaves_no_lock) {
  data_queue<fragile> queue;
  queue.push(fragile(1));
  fragile item;
  fragile::s_refuses = true;
  EXPECT_THROW(queue.push(fragile(2)), std::runtime_error);
  EXPECT_THROW(queue.front(), std::runtime_error);
  EXPECT_THROW(queue.try_pop(item), std::runtime_error);
  fragile::s_refuses = false;
  std::thread([&] { EXPECT_EQ(1u, queue.size()); }).join();
  EXPECT_EQ(1, queue.front().value);
}

TEST(data_queue, passes_every_item_once_from_producers_to_consumers) {
  data_queue<queue_item> queue;
  std::atomic<int> left{k_producers * k_items};
  std::atomic<int> ordered_consumers{0};
  std::vector<std::thread> threads;
  threads.reserve(k_producers + 2);
  for (int producer = 0; producer < k_producers; ++producer) {
    threads.emplace_back([&, producer] { produce(queue, producer); });
  }
  for (int consumer = 0; consumer < 2; ++consumer) {
    threads.emplace_back([&] { ordered_consumers += consume(queue, left) ? 1 : 0; });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(2, ordered_consumers.load());
  EXPECT_EQ(0, left.load());
  EXPECT_TRUE(queue.empty());
}
