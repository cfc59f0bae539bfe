#include "bindings/python/quote_ring.h"

#include <gtest/gtest.h>
#include <poll.h>  // poll

#include <atomic>     // std::atomic
#include <stdexcept>  // std::invalid_argument
#include <thread>     // std::thread
#include <vector>     // std::vector

#include "tests/support/wait_until.h"

namespace kav_python {
namespace {

using namespace std::chrono_literals;
using record = KAVMarketDepthQuoteData;
using steady = std::chrono::steady_clock;

constexpr std::chrono::seconds k_limit{20};

record numbered(int number) {
  record quote{};
  quote.Volume = number;
  return quote;
}

void push_numbers(quote_ring& ring, int from, int to) {
  for (int i = from; i < to; ++i) ring.push(numbered(i));
}

std::vector<int> take_numbers(quote_ring& ring, std::size_t most) {
  std::vector<record> quotes(most);
  quotes.resize(ring.take(quotes.data(), most));
  std::vector<int> numbers;
  numbers.reserve(quotes.size());
  for (const record& quote : quotes) numbers.push_back(int{quote.Volume});
  return numbers;
}

bool is_readable(const quote_ring& ring) {
  pollfd fd{ring.fd(), POLLIN, 0};
  return ::poll(&fd, 1, 0) == 1;
}

TEST(quote_ring, gives_quotes_back_in_their_order_across_its_end) {
  quote_ring ring{4, when_full::drop_oldest};
  push_numbers(ring, 0, 3);
  EXPECT_EQ((std::vector<int>{0, 1}), take_numbers(ring, 2));
  push_numbers(ring, 3, 6);
  EXPECT_EQ((std::vector<int>{2, 3, 4, 5}), take_numbers(ring, 10));
  EXPECT_TRUE(take_numbers(ring, 10).empty());
  EXPECT_EQ(6u, ring.received());
  EXPECT_EQ(0u, ring.dropped());
}

TEST(quote_ring, the_oldest_make_room_and_are_counted) {
  quote_ring ring{4, when_full::drop_oldest};
  push_numbers(ring, 0, 10);
  EXPECT_EQ(6u, ring.dropped());
  EXPECT_EQ((std::vector<int>{6, 7, 8, 9}), take_numbers(ring, 10));
}

TEST(quote_ring, the_first_drop_since_they_were_told_says_so) {
  quote_ring ring{1, when_full::drop_oldest};
  EXPECT_FALSE(ring.push(numbered(0)));
  EXPECT_TRUE(ring.push(numbered(1)));
  EXPECT_FALSE(ring.push(numbered(2)));
  EXPECT_EQ(2u, ring.tell_dropped());
  EXPECT_TRUE(ring.push(numbered(3)));
}

TEST(quote_ring, a_ring_that_waits_loses_nothing_between_two_threads) {
  constexpr int k_quotes = 20'000;
  quote_ring ring{100, when_full::wait};
  std::thread library([&] { push_numbers(ring, 0, k_quotes); });
  std::vector<int> numbers;
  while (numbers.size() < k_quotes && ring.wait_until(steady::now() + k_limit)) {
    const std::vector<int> some = take_numbers(ring, 37);
    numbers.insert(numbers.end(), some.begin(), some.end());
  }
  ring.close();
  library.join();
  ASSERT_EQ(k_quotes, static_cast<int>(numbers.size()));
  for (int i = 0; i < k_quotes; ++i) ASSERT_EQ(i, numbers[static_cast<std::size_t>(i)]);
  EXPECT_EQ(0u, ring.dropped());
}

TEST(quote_ring, what_is_dropped_and_what_is_taken_is_what_was_received) {
  constexpr int k_quotes = 50'000;
  quote_ring ring{64, when_full::drop_oldest};
  std::thread library([&] {
    push_numbers(ring, 0, k_quotes);
    ring.close();
  });
  int last = -1;
  std::size_t taken = 0;
  const auto take_all = [&] {
    for (const int number : take_numbers(ring, 300)) {
      ASSERT_LT(last, number);
      last = number;
      ++taken;
    }
  };
  while (!ring.closed() && ring.wait_until(steady::now() + k_limit)) take_all();
  library.join();
  take_all();
  EXPECT_EQ(k_quotes - 1, last);
  EXPECT_EQ(ring.received(), ring.dropped() + taken);
}

TEST(quote_ring, closing_ends_a_push_that_waits_for_room) {
  quote_ring ring{1, when_full::wait};
  ring.push(numbered(0));
  std::atomic<bool> returned{false};
  std::thread library([&] {
    ring.push(numbered(1));
    returned = true;
  });
  EXPECT_FALSE(wait_until([&] { return returned.load(); }, 50ms));
  ring.close();
  EXPECT_TRUE(wait_until([&] { return returned.load(); }, k_limit));
  library.join();
  EXPECT_EQ((std::vector<int>{0}), take_numbers(ring, 10));  // what had arrived stays
}

TEST(quote_ring, closing_ends_a_wait_for_quotes_and_later_ones_are_not_taken) {
  quote_ring ring{4, when_full::drop_oldest};
  std::atomic<bool> returned{false};
  std::thread consumer([&] {
    EXPECT_TRUE(ring.wait_until(steady::now() + k_limit));
    returned = true;
  });
  ring.close();
  EXPECT_TRUE(wait_until([&] { return returned.load(); }, k_limit));
  consumer.join();
  ring.push(numbered(0));
  EXPECT_EQ(0u, ring.size());
}

TEST(quote_ring, a_wait_without_quotes_ends_at_its_limit) {
  quote_ring ring{4, when_full::drop_oldest};
  const auto limit = steady::now() + 20ms;
  EXPECT_FALSE(ring.wait_until(limit));
  EXPECT_GE(steady::now(), limit);
}

TEST(quote_ring, its_descriptor_becomes_readable_when_it_was_armed) {
  quote_ring ring{4, when_full::drop_oldest};
  ring.push(numbered(0));
  EXPECT_FALSE(is_readable(ring));  // nobody asked
  EXPECT_TRUE(ring.arm());
  take_numbers(ring, 1);
  EXPECT_FALSE(ring.arm());
  EXPECT_FALSE(is_readable(ring));
  ring.push(numbered(1));
  EXPECT_TRUE(is_readable(ring));
  ring.clear_fd();
  EXPECT_FALSE(is_readable(ring));
  take_numbers(ring, 1);
  EXPECT_FALSE(ring.arm());
  ring.close();
  EXPECT_TRUE(is_readable(ring));
  EXPECT_TRUE(ring.arm());
}

TEST(quote_ring, without_room_for_one_quote_there_is_none) {
  EXPECT_THROW(quote_ring(0, when_full::wait), std::invalid_argument);
}

}  // namespace
}  // namespace kav_python
