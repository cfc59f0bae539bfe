// What the toolkit does when operator new fails: this program's own fails on demand.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>
#include <thread>

#include "tests/tools/counting_lock.h"
#include "tools/data_pool.h"
#include "tools/data_queue.h"
#include "tools/map_int.h"
#include "tools/map_str.h"
#include "tools/stream_buffer.h"

namespace {

constexpr int k_never = -1;
thread_local int t_allocations_left = k_never;  // of the thread that is under test

void* allocate_or_null(std::size_t size) {
  if (t_allocations_left == 0) return nullptr;
  if (t_allocations_left > 0) --t_allocations_left;
  return std::malloc(size);
}

void* allocate(std::size_t size) {
  if (void* const memory = allocate_or_null(size)) return memory;
  throw std::bad_alloc();
}

// Allocations fail, after `granted` of them, for the length of a block.
class memory_shortage {
 public:
  explicit memory_shortage(int granted = 0) { t_allocations_left = granted; }
  ~memory_shortage() { t_allocations_left = k_never; }
  memory_shortage(const memory_shortage&) = delete;
  memory_shortage& operator=(const memory_shortage&) = delete;
};

template <class OPERATION>
bool runs_out_of_memory(int granted, OPERATION operation) {
  const memory_shortage shortage(granted);
  try {
    operation();
  } catch (const std::bad_alloc&) {
    return true;
  }
  return false;
}

using namespace VORLAN::TOOLS;

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocate_or_null(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return allocate_or_null(size);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

TEST(map_str_without_memory, keeps_its_entries_when_a_node_fails) {
  map_str<int, 31, counting_lock> map;
  map.set("a", 1);
  counting_lock::reset();
  EXPECT_TRUE(runs_out_of_memory(0, [&] { map.set("b", 2); }));
  EXPECT_TRUE(runs_out_of_memory(0, [&] { map["c"] = 2; }));
  EXPECT_FALSE(runs_out_of_memory(0, [&] { map.set("a", 3); })) << "overwriting allocates nothing";
  EXPECT_EQ(0, counting_lock::s_depth);
  EXPECT_EQ(1u, map.size());
  EXPECT_FALSE(map.is_exist("b"));
}

TEST(map_str_without_memory, keeps_the_new_entry_when_growing_fails) {
  map_str<int, 31, counting_lock> map;
  for (int i = 0; i < 89; ++i) map.set(std::to_string(i).c_str(), i);
  counting_lock::reset();
  EXPECT_TRUE(runs_out_of_memory(1, [&] { map.set("last", 89); }));
  EXPECT_EQ(0, counting_lock::s_depth);
  EXPECT_EQ(90u, map.size());
  EXPECT_EQ(89, *map.find("last"));
  EXPECT_EQ(128u, map.bucket_count());
  map.set("next", 90);
  EXPECT_EQ(512u, map.bucket_count()) << "the next insertion grows it";
}

TEST(map_str_without_memory, lookups_and_erasing_need_none) {
  map_str<int, 31, null_lock> map;
  map.set("a", 1);
  EXPECT_FALSE(runs_out_of_memory(0, [&] {
    map.find("a");
    map.is_exist("b");
    map["a"] = 2;
    map.erase("a");
  }));
}

TEST(map_str_without_memory, clear_does_not_fail) {
  map_str<int, 31, null_lock> map;
  for (int i = 0; i < 500; ++i) map.set(std::to_string(i).c_str(), i);
  EXPECT_FALSE(runs_out_of_memory(0, [&] { map.clear(); }));
  EXPECT_EQ(128u, map.bucket_count());
  for (int i = 0; i < 500; ++i) map.set(std::to_string(i).c_str(), i);
  EXPECT_EQ(499, *map.find("499"));
}

TEST(map_int_without_memory, keeps_its_entries_when_a_node_fails) {
  map_int<int, counting_lock> map;
  counting_lock::reset();
  EXPECT_TRUE(runs_out_of_memory(0, [&] { map.set(1, 2); }));
  EXPECT_EQ(0, counting_lock::s_depth);
  EXPECT_EQ(0u, map.size());
  EXPECT_EQ(nullptr, map.find(1));
}

TEST(map_int_without_memory, keeps_the_new_entry_when_growing_fails) {
  map_int<int, counting_lock> map;
  for (int i = 0; i < 53; ++i) map.set(i, i);
  counting_lock::reset();
  EXPECT_TRUE(runs_out_of_memory(1, [&] { map.set(53, 53); }));
  EXPECT_TRUE(runs_out_of_memory(0, [&] { map.map_int_adjust_size(500); }));
  EXPECT_EQ(0, counting_lock::s_depth);
  EXPECT_EQ(54u, map.size());
  EXPECT_EQ(53u, map.bucket_count());
  EXPECT_EQ(53, *map.find(53));
}

TEST(map_int_without_memory, clear_does_not_fail) {
  map_int<int, null_lock> map;
  for (int i = 0; i < 500; ++i) map.set(i, i);
  EXPECT_FALSE(runs_out_of_memory(0, [&] { map.clear(); }));
  EXPECT_EQ(53u, map.bucket_count());
  map.set(1, 1);
  EXPECT_EQ(1, *map.find(1));
}

TEST(data_pool_without_memory, counts_nothing_and_leaves_no_lock) {
  data_pool<stream_buffer> pool(4);
  EXPECT_TRUE(runs_out_of_memory(0, [&] { pool.put(pool.get()); }));
  EXPECT_EQ(0, pool.created());
  std::thread([&] { pool.put(pool.get()); }).join();
  EXPECT_EQ(1, pool.created());
}

TEST(data_queue_without_memory, keeps_its_items_and_leaves_no_lock) {
  data_queue<int> queue;
  queue.push(1);
  EXPECT_TRUE(runs_out_of_memory(0, [&] { queue.push(2); }));
  std::thread([&] { EXPECT_EQ(1u, queue.size()); }).join();
  int item = 0;
  EXPECT_FALSE(runs_out_of_memory(0, [&] { queue.try_pop(item); })) << "taking needs no memory";
  EXPECT_EQ(1, item);
}

TEST(data_queue_without_memory, goes_on_with_the_nodes_that_it_has_had) {
  data_queue<int> queue;
  for (int i = 0; i < 100; ++i) queue.push(i);
  int item = 0;
  while (queue.try_pop(item)) continue;
  EXPECT_FALSE(runs_out_of_memory(0, [&] {
    for (int round = 0; round < 1000; ++round) {
      for (int i = 0; i < 100; ++i) queue.push(i);
      for (int i = 0; i < 100; ++i) queue.pop();
    }
  }));
  EXPECT_TRUE(runs_out_of_memory(0, [&] {
    for (int i = 0; i < 101; ++i) queue.push(i);
  }));
  EXPECT_EQ(100u, queue.size());
}
