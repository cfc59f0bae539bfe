#include "tools/map_str.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/tools/counting_lock.h"

namespace {

using namespace VORLAN::TOOLS;

using int_map = map_str<int, 31, null_lock>;

std::string numbered(int number) { return "IF" + std::to_string(number); }

void fill(int_map& map, int count) {
  for (int i = 0; i < count; ++i) map.set(numbered(i).c_str(), i);
}

template <class MAP>
std::vector<std::string> keys(MAP& map) {
  std::vector<std::string> found;
  map.for_each([&](const char* key, auto&) { found.emplace_back(key); });
  return found;
}

std::uint64_t expected_hash(const std::string& key) {
  std::uint64_t hash = 0;
  for (const char c : key) {
    hash = hash * 33 +
           static_cast<std::uint64_t>(static_cast<std::int64_t>(static_cast<signed char>(c)));
  }
  return hash;
}

// Chains as the table is to keep them: a list of keys per bucket, growing by 4.
struct chain_model {
  std::vector<std::vector<std::string>> buckets{128};
  std::size_t count = 0;

  std::vector<std::string>& chain(const std::string& key) {
    return buckets[expected_hash(key) % buckets.size()];
  }
  void insert(const std::string& key) {
    chain(key).push_back(key);
    if (static_cast<double>(++count) > 0.7 * static_cast<double>(buckets.size())) grow();
  }
  void erase(const std::string& key) { count -= std::erase(chain(key), key); }
  void grow() {
    std::vector<std::vector<std::string>> old(buckets.size() * 4);
    old.swap(buckets);
    for (const auto& old_chain : old) {
      for (const std::string& key : old_chain) chain(key).push_back(key);
    }
  }
  std::vector<std::string> keys() const {
    std::vector<std::string> all;
    for (const auto& one : buckets) all.insert(all.end(), one.begin(), one.end());
    return all;
  }
};

struct record {
  char text[16];
  double price;
};

struct fragile {
  fragile() = default;
  fragile(const fragile&) { check(); }
  fragile& operator=(const fragile&) {
    check();
    return *this;
  }
  static void check() {
    if (s_refuses) throw std::runtime_error("refused");
  }
  inline static bool s_refuses = false;
};

}  // namespace

TEST(map_str, starts_empty_with_128_buckets) {
  int_map map;
  EXPECT_EQ(0u, map.size());
  EXPECT_EQ(128u, map.bucket_count());
  EXPECT_FALSE(map.is_exist(""));
  EXPECT_EQ(nullptr, map.find("IF2509"));
}

TEST(map_str, cannot_be_copied_and_has_a_virtual_destructor) {
  EXPECT_FALSE(std::is_copy_constructible_v<int_map>);
  EXPECT_FALSE(std::is_copy_assignable_v<int_map>);
  EXPECT_TRUE(std::has_virtual_destructor_v<int_map>);
}

TEST(map_str, finds_what_was_set) {
  int_map map;
  map.set("IF2509", 4);
  EXPECT_TRUE(map.is_exist("IF2509"));
  ASSERT_NE(nullptr, map.find("IF2509"));
  EXPECT_EQ(4, *map.find("IF2509"));
  EXPECT_FALSE(map.is_exist("IF250"));
  EXPECT_FALSE(map.is_exist("IF25099"));
  EXPECT_FALSE(map.is_exist("if2509"));
  const int_map& constant = map;
  EXPECT_EQ(4, *constant.find("IF2509"));
  EXPECT_EQ(nullptr, constant.find("x"));
}

TEST(map_str, takes_the_empty_key) {
  int_map map;
  map.set("", 3);
  EXPECT_EQ(3, *map.find(""));
  EXPECT_EQ(std::vector<std::string>{""}, keys(map));
}

TEST(map_str, accepts_31_characters_and_refuses_32) {
  int_map map;
  const std::string fits(31, 'k');
  const std::string too_long(32, 'k');
  map.set(fits.c_str(), 1);
  map.set(too_long.c_str(), 2);
  EXPECT_EQ(1u, map.size());
  EXPECT_EQ(1, *map.find(fits.c_str()));
  EXPECT_FALSE(map.is_exist(too_long.c_str()));
  EXPECT_EQ(nullptr, map.find(too_long.c_str()));
  map.erase(too_long.c_str());
  EXPECT_EQ(1u, map.size());
}

TEST(map_str, reads_no_further_than_it_must_to_refuse_a_key) {
  const std::vector<char> no_end(32, 'k');  // no NUL: reading on would be seen by the sanitizer
  int_map map;
  EXPECT_FALSE(map.is_exist(no_end.data()));
}

TEST(map_str, refuses_null_keys) {
  int_map map;
  map.set(nullptr, 1);
  map.erase(nullptr);
  EXPECT_FALSE(map.is_exist(nullptr));
  EXPECT_EQ(nullptr, map.find(nullptr));
  map[nullptr] = 5;
  EXPECT_EQ(0u, map.size());
}

TEST(map_str, index_stores_a_zeroed_value_first) {
  map_str<record, 31, null_lock> map;
  record& value = map["IF2509"];
  EXPECT_EQ(0.0, value.price);
  EXPECT_EQ(std::string(16, '\0'), std::string(value.text, 16));
  value.price = 2.5;
  EXPECT_EQ(2.5, map["IF2509"].price);
  EXPECT_EQ(1u, map.size());
}

TEST(map_str, index_of_an_over_long_key_is_a_zeroed_value_of_no_entry) {
  int_map map;
  const std::string too_long(100, 'k');
  map[too_long.c_str()] = 7;
  EXPECT_EQ(0, map[too_long.c_str()]);
  EXPECT_EQ(0u, map.size());
}

TEST(map_str, grows_by_four_with_the_90th_entry) {
  int_map map;
  fill(map, 89);
  EXPECT_EQ(128u, map.bucket_count());
  map.set(numbered(89).c_str(), 89);
  EXPECT_EQ(512u, map.bucket_count());
  fill(map, 359);
  EXPECT_EQ(2048u, map.bucket_count()) << "359 > 358.4";
  for (int i = 0; i < 359; ++i) EXPECT_EQ(i, *map.find(numbered(i).c_str()));
}

TEST(map_str, does_not_grow_with_358_entries) {
  int_map map;
  fill(map, 358);
  EXPECT_EQ(512u, map.bucket_count());
}

TEST(map_str, keeps_the_order_of_insertion_in_a_bucket) {
  int_map map;
  map.set("ab", 1);  // 3299 and 99: bucket 99 of 128 for both
  map.set("c", 2);
  EXPECT_EQ(1, *map.find("ab"));
  EXPECT_EQ(2, *map.find("c"));
  EXPECT_EQ((std::vector<std::string>{"ab", "c"}), keys(map));
  int_map other;
  other.set("c", 2);
  other.set("ab", 1);
  EXPECT_EQ((std::vector<std::string>{"c", "ab"}), keys(other));
}

TEST(map_str, tells_keys_of_the_same_hash_apart) {
  int_map map;
  map.set("aB", 1);
  map.set("b!", 2);  // 97 * 33 + 66 == 98 * 33 + 33
  EXPECT_EQ(2u, map.size());
  EXPECT_EQ(1, *map.find("aB"));
  EXPECT_EQ(2, *map.find("b!"));
  map.erase("aB");
  EXPECT_FALSE(map.is_exist("aB"));
  EXPECT_EQ(2, *map.find("b!"));
}

TEST(map_str, overwriting_changes_neither_count_nor_order) {
  int_map map;
  map.set("ab", 1);
  map.set("c", 2);
  map.set("ab", 3);
  EXPECT_EQ(2u, map.size());
  EXPECT_EQ(3, *map.find("ab"));
  EXPECT_EQ((std::vector<std::string>{"ab", "c"}), keys(map));
}

TEST(map_str, hashes_characters_as_signed) {
  chain_model model;
  int_map map;
  for (const std::string key : {"\xb0\xa1", "a\xff", "\x80", "plain", "\xff\xff\xff"}) {
    map.set(key.c_str(), 1);
    model.insert(key);
  }
  EXPECT_EQ(model.keys(), keys(map));
}

TEST(map_str, erases_from_every_place_of_a_chain) {
  for (const char* erased : {"ab", "c", "bA"}) {
    int_map map;
    map.set("ab", 1);
    map.set("c", 2);
    map.set("bA", 3);  // 98 * 33 + 65 == 3299
    map.erase(erased);
    map.erase("absent");
    EXPECT_EQ(2u, map.size());
    EXPECT_FALSE(map.is_exist(erased));
    EXPECT_EQ(2u, keys(map).size());
  }
}

TEST(map_str, never_shrinks_by_erasing) {
  int_map map;
  fill(map, 90);
  for (int i = 0; i < 90; ++i) map.erase(numbered(i).c_str());
  EXPECT_EQ(0u, map.size());
  EXPECT_EQ(512u, map.bucket_count());
}

TEST(map_str, is_usable_with_its_first_buckets_after_clear) {
  int_map map;
  for (int round = 0; round < 3; ++round) {
    fill(map, 400);
    EXPECT_EQ(2048u, map.bucket_count());
    map.clear();
    EXPECT_EQ(0u, map.size());
    EXPECT_EQ(128u, map.bucket_count());
    EXPECT_FALSE(map.is_exist(numbered(1).c_str()));
    map.clear();
    EXPECT_EQ(128u, map.bucket_count());
  }
  map.set("IF2509", 1);
  EXPECT_EQ(1, *map.find("IF2509"));
}

TEST(map_str, for_each_may_change_values_and_erase_its_entry) {
  int_map map;
  fill(map, 100);
  map.for_each([&](const char* key, int& value) {
    if (value % 2 == 0) return map.erase(key);
    value += 1000;
  });
  EXPECT_EQ(50u, map.size());
  EXPECT_EQ(1007, *map.find(numbered(7).c_str()));
}

TEST(map_str, references_survive_growth) {
  int_map map;
  int& value = map["first"];
  fill(map, 1000);
  value = 77;
  EXPECT_EQ(77, *map.find("first"));
}

TEST(map_str, agrees_with_std_map_and_keeps_chain_order_over_a_random_life) {
  std::mt19937 random(4711);
  int_map map;
  std::map<std::string, int> expected;
  chain_model chains;
  for (int step = 0; step < 30000; ++step) {
    const std::string key = numbered(static_cast<int>(random() % 2000));
    const bool is_new = !expected.contains(key);
    switch (random() % 4) {
      case 0:
        map.erase(key.c_str());
        if (expected.erase(key) > 0) chains.erase(key);
        break;
      case 1:
        ++map[key.c_str()];
        ++expected[key];
        if (is_new) chains.insert(key);
        break;
      default:
        map.set(key.c_str(), step);
        expected[key] = step;
        if (is_new) chains.insert(key);
    }
    ASSERT_EQ(expected.size(), map.size());
    ASSERT_EQ(expected.contains(key), map.is_exist(key.c_str()));
  }
  EXPECT_EQ(chains.keys(), keys(map));
  EXPECT_EQ(chains.buckets.size(), map.bucket_count());
  map.for_each([&](const char* key, int& value) { EXPECT_EQ(expected.at(key), value); });
}

TEST(map_str, takes_its_lock_once_in_every_operation_and_gives_it_back) {
  map_str<int, 31, counting_lock> map;
  const auto taken = [&](auto operation) {
    counting_lock::reset();
    operation();
    EXPECT_EQ(0, counting_lock::s_depth);
    return counting_lock::s_taken;
  };
  EXPECT_EQ(1, taken([&] { map.set("a", 1); }));
  EXPECT_EQ(1, taken([&] { map["b"] = 2; }));
  EXPECT_EQ(1, taken([&] { map[nullptr] = 2; }));
  EXPECT_EQ(1, taken([&] { map.find("a"); }));
  EXPECT_EQ(1, taken([&] { map.is_exist("a"); }));
  EXPECT_EQ(1, taken([&] { map.erase("a"); }));
  EXPECT_EQ(1, taken([&] { map.size(); }));
  EXPECT_EQ(1, taken([&] { map.bucket_count(); }));
  EXPECT_EQ(1, taken([&] { map.for_each([](const char*, int&) {}); }));
  EXPECT_EQ(1, taken([&] { map.clear(); }));
}

TEST(map_str, a_copy_that_throws_leaves_the_table_whole_and_unlocked) {
  map_str<fragile, 31, counting_lock> map;
  map.set("a", fragile());
  counting_lock::reset();
  fragile::s_refuses = true;
  const fragile value{};
  EXPECT_THROW(map.set("a", value), std::runtime_error);
  EXPECT_THROW(map.set("b", value), std::runtime_error);
  EXPECT_THROW(map["b"], std::runtime_error);
  EXPECT_THROW(map.for_each([](const char*, fragile&) { fragile::check(); }), std::runtime_error);
  fragile::s_refuses = false;
  EXPECT_EQ(0, counting_lock::s_depth);
  EXPECT_EQ(1u, map.size());
  EXPECT_FALSE(map.is_exist("b"));
}

TEST(map_str, with_a_mutex_serves_several_threads) {
  map_str<int, 31, mutex_lock> map;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&map, t] {
      for (int i = 0; i < 500; ++i) {
        map.set(numbered(t * 500 + i).c_str(), i);
        map.is_exist(numbered(i).c_str());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(2000u, map.size());
}

TEST(map_str, with_a_spin_lock_does_not_wait_for_itself) {
  map_str<int, 31, spin_lock> map;
  map["a"] = 1;
  EXPECT_EQ(1, *map.find("a"));
}
