#include "tools/map_int.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <iterator>
#include <limits>
#include <map>
#include <random>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/tools/counting_lock.h"

namespace {

using namespace VORLAN::TOOLS;

using int_map = map_int<int, null_lock>;

template <class MAP>
std::vector<long long> keys(MAP& map) {
  std::vector<long long> found;
  map.for_each([&](long long key, auto&) { found.push_back(key); });
  return found;
}

void fill(int_map& map, int count) {
  for (int i = 0; i < count; ++i) map.set(i, i);
}

}  // namespace

TEST(str_prime_list, has_the_28_fixed_bucket_counts) {
  const std::vector<std::uint64_t> expected{
      53,        97,        193,       389,       769,        1543,       3079,
      6151,      12289,     24593,     49157,     98317,      196613,     393241,
      786443,    1572869,   3145739,   6291469,   12582917,   25165842,   50331553,
      100663319, 201326611, 402653189, 805306457, 1610612741, 3221225473, 4294967291};
  EXPECT_EQ(expected, std::vector<std::uint64_t>(std::begin(VORLAN::TOOLS::str_prime_list),
                                                 std::end(VORLAN::TOOLS::str_prime_list)));
  EXPECT_EQ(VORLAN::TOOLS::str_prime_list, int_map::str_prime_list) << "one table, two names";
}

TEST(str_prime_list, is_searched_for_the_first_entry_not_less) {
  EXPECT_EQ(53u, first_prime_not_less(0));
  EXPECT_EQ(53u, first_prime_not_less(53));
  EXPECT_EQ(97u, first_prime_not_less(54));
  EXPECT_EQ(25165842u, first_prime_not_less(12582918));
  EXPECT_EQ(4294967291u, first_prime_not_less(3221225474));
  EXPECT_EQ(4294967291u, first_prime_not_less(4294967292));
  EXPECT_EQ(4294967291u, first_prime_not_less(std::numeric_limits<std::uint64_t>::max()));
}

TEST(map_int, starts_empty_with_53_buckets) {
  int_map map;
  EXPECT_EQ(0u, map.size());
  EXPECT_EQ(53u, map.bucket_count());
  EXPECT_EQ(0u, map.longest_chain());
  EXPECT_EQ(nullptr, map.find(0));
  EXPECT_TRUE(std::has_virtual_destructor_v<int_map>);
  EXPECT_FALSE(std::is_copy_constructible_v<int_map>);
}

TEST(map_int, finds_what_was_set_and_overwrites) {
  int_map map;
  map.set(7, 1);
  map.set(60, 2);  // the same bucket
  map.set(7, 3);
  EXPECT_EQ(2u, map.size());
  EXPECT_EQ(3, *map.find(7));
  EXPECT_EQ(2, *map.find(60));
  EXPECT_EQ(nullptr, map.find(113));
  EXPECT_EQ((std::vector<long long>{7, 60}), keys(map));
  const int_map& constant = map;
  EXPECT_EQ(3, *constant.find(7));
}

TEST(map_int, grows_with_the_54th_entry_to_97_buckets) {
  int_map map;
  fill(map, 53);
  EXPECT_EQ(53u, map.bucket_count());
  map.set(53, 53);
  EXPECT_EQ(97u, map.bucket_count());
  fill(map, 98);
  EXPECT_EQ(193u, map.bucket_count());
  for (int i = 0; i < 98; ++i) EXPECT_EQ(i, *map.find(i));
}

TEST(map_int, keeps_opposite_keys_apart_in_one_bucket) {
  int_map map;
  map.set(-5, 1);
  map.set(5, 2);
  EXPECT_EQ(1, *map.find(-5));
  EXPECT_EQ(2, *map.find(5));
  EXPECT_EQ(1u, map.longest_chain());
  EXPECT_EQ((std::vector<long long>{-5, 5}), keys(map));
}

TEST(map_int, hashes_negative_keys_by_their_low_32_bits) {
  EXPECT_EQ(5u, map_int_hash(-5));
  EXPECT_EQ(2147483648u, map_int_hash(INT_MIN));
  EXPECT_EQ(0u, map_int_hash(LLONG_MIN));
  EXPECT_EQ(1u, map_int_hash(-4294967297));
  EXPECT_EQ(5u, map_int_hash(-4294967291));
  EXPECT_EQ(2147483647u, map_int_hash(-2147483647));
  EXPECT_EQ(9223372036854775807u, map_int_hash(LLONG_MAX));
}

TEST(map_int, takes_keys_at_the_ends_of_the_range) {
  int_map map;
  const long long ends[] = {LLONG_MIN, LLONG_MIN + 1, INT_MIN, -1, 0, INT_MAX, LLONG_MAX};
  for (const long long key : ends) map.set(key, static_cast<int>(key % 1000));
  EXPECT_EQ(std::size(ends), map.size());
  for (const long long key : ends) EXPECT_EQ(static_cast<int>(key % 1000), *map.find(key));
}

TEST(map_int, counts_the_nodes_that_an_insertion_walks_past) {
  int_map map;
  map.set(1, 0);
  EXPECT_EQ(0u, map.longest_chain());
  map.set(54, 0);
  EXPECT_EQ(1u, map.longest_chain());
  map.set(107, 0);
  EXPECT_EQ(2u, map.longest_chain());
  map.set(107, 1);
  map.set(2, 0);
  EXPECT_EQ(2u, map.longest_chain());
}

TEST(map_int, adjusts_to_the_first_listed_size_not_less) {
  int_map map;
  fill(map, 50);
  map.map_int_adjust_size(1000);
  EXPECT_EQ(1543u, map.bucket_count());
  map.map_int_adjust_size(1);
  EXPECT_EQ(53u, map.bucket_count());
  EXPECT_EQ(50u, map.size());
  for (int i = 0; i < 50; ++i) EXPECT_EQ(i, *map.find(i));
}

TEST(map_int, moves_entries_bucket_by_bucket_in_chain_order) {
  int_map map;
  map.set(193 + 60, 0);      // bucket 41 of 53
  map.set(60, 0);            // bucket 7
  map.set(193 * 2 + 60, 0);  // bucket 22
  map.map_int_adjust_size(193);
  EXPECT_EQ((std::vector<long long>{60, 193 * 2 + 60, 193 + 60}), keys(map));
}

TEST(map_int, is_usable_with_its_first_buckets_after_clear) {
  int_map map;
  for (int round = 0; round < 2; ++round) {
    fill(map, 200);
    map.clear();
    EXPECT_EQ(0u, map.size());
    EXPECT_EQ(53u, map.bucket_count());
    EXPECT_EQ(0u, map.longest_chain());
    EXPECT_EQ(nullptr, map.find(3));
  }
  map.set(3, 4);
  EXPECT_EQ(4, *map.find(3));
}

TEST(map_int, agrees_with_std_map_over_a_random_life) {
  std::mt19937_64 random(815);
  int_map map;
  std::map<long long, int> expected;
  for (int step = 0; step < 20000; ++step) {
    const long long spread = static_cast<long long>(random());
    const long long key = random() % 2 == 0 ? spread % 3000 : spread;
    map.set(key, step);
    expected[key] = step;
    ASSERT_EQ(expected.size(), map.size());
  }
  for (const auto& [key, value] : expected) {
    ASSERT_NE(nullptr, map.find(key));
    EXPECT_EQ(value, *map.find(key));
  }
  std::size_t visited = 0;
  map.for_each([&](long long key, int& value) {
    EXPECT_EQ(expected.at(key), value);
    ++visited;
  });
  EXPECT_EQ(expected.size(), visited);
  EXPECT_EQ(first_prime_not_less(expected.size()), map.bucket_count());
}

TEST(map_int, takes_its_lock_once_in_every_operation_and_gives_it_back) {
  map_int<int, counting_lock> map;
  const auto taken = [&](auto operation) {
    counting_lock::reset();
    operation();
    EXPECT_EQ(0, counting_lock::s_depth);
    return counting_lock::s_taken;
  };
  EXPECT_EQ(1, taken([&] { map.set(1, 1); }));
  EXPECT_EQ(1, taken([&] { map.find(1); }));
  EXPECT_EQ(1, taken([&] { map.size(); }));
  EXPECT_EQ(1, taken([&] { map.bucket_count(); }));
  EXPECT_EQ(1, taken([&] { map.longest_chain(); }));
  EXPECT_EQ(1, taken([&] { map.map_int_adjust_size(100); }));
  EXPECT_EQ(1, taken([&] { map.for_each([](long long, int&) {}); }));
  EXPECT_EQ(1, taken([&] { map.clear(); }));
}

TEST(map_int, with_a_mutex_serves_several_threads) {
  map_int<int, mutex_lock> map;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&map, t] {
      for (int i = 0; i < 500; ++i) map.set(t * 500 + i, i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(2000u, map.size());
}
