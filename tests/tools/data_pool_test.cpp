#include "tools/data_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tools/stream_buffer.h"

namespace {

using VORLAN::TOOLS::data_pool;
using VORLAN::TOOLS::stream_buffer;

struct counted {
  explicit counted(unsigned first_size) : size(first_size) { ++s_alive; }
  ~counted() { --s_alive; }
  counted(const counted&) = delete;
  counted& operator=(const counted&) = delete;

  unsigned size;
  inline static std::atomic<int> s_alive{0};
};

struct refusing {
  explicit refusing(unsigned) {
    if (s_refuses) throw std::runtime_error("refused");
  }
  inline static bool s_refuses = true;
};

}  // namespace

TEST(data_pool, makes_objects_of_2048) {
  data_pool<counted> pool(2);
  const std::unique_ptr<counted> object(pool.get());
  EXPECT_EQ(2048u, object->size);
  EXPECT_EQ(1, pool.created());
}

TEST(data_pool, gives_the_object_put_back_last) {
  data_pool<counted> pool(4);
  counted* const first = pool.get();
  counted* const second = pool.get();
  pool.put(first);
  pool.put(second);
  EXPECT_EQ(second, pool.get());
  EXPECT_EQ(first, pool.get());
  EXPECT_EQ(2, pool.created());
  pool.put(first);
  pool.put(second);
}

TEST(data_pool, destroys_what_exceeds_its_capacity) {
  {
    data_pool<counted> pool(1);
    counted* const first = pool.get();
    counted* const second = pool.get();
    pool.put(first);
    pool.put(second);
    EXPECT_EQ(1, pool.available());
    EXPECT_EQ(1, pool.created());
    EXPECT_EQ(1, counted::s_alive.load());
  }
  EXPECT_EQ(0, counted::s_alive.load());
}

TEST(data_pool, with_no_capacity_keeps_nothing) {
  data_pool<counted> pool(0);
  pool.put(pool.get());
  EXPECT_EQ(0, pool.available());
  EXPECT_EQ(0, pool.created());
  EXPECT_EQ(0, counted::s_alive.load());
}

TEST(data_pool, leaves_objects_that_are_out_to_their_holder) {
  std::unique_ptr<counted> held;
  {
    data_pool<counted> pool(4);
    held.reset(pool.get());
  }
  EXPECT_EQ(1, counted::s_alive.load());
}

TEST(data_pool, ignores_null) {
  data_pool<counted> pool(4);
  pool.put(nullptr);
  EXPECT_EQ(0, pool.available());
  EXPECT_EQ(0, pool.created());
}

TEST(data_pool, counts_nothing_when_an_object_cannot_be_made) {
  data_pool<refusing> pool(4);
  EXPECT_THROW(pool.get(), std::runtime_error);
  EXPECT_EQ(0, pool.created());
  refusing::s_refuses = false;
  std::thread([&] { pool.put(pool.get()); }).join();  // the lock has been given back
  EXPECT_EQ(1, pool.available());
}

TEST(data_pool, keeps_the_storage_of_stream_buffers) {
  data_pool<stream_buffer> pool(4);
  stream_buffer* const buffer = pool.get();
  EXPECT_EQ(2048u, buffer->get_reserve_len());
  const std::vector<char> bytes(5000, 'x');
  EXPECT_TRUE(buffer->push_data(bytes.data(), bytes.size()));
  buffer->clear();
  pool.put(buffer);
  EXPECT_EQ(5000u, pool.get()->get_reserve_len());
  pool.put(buffer);
}

TEST(data_pool, serves_several_threads) {
  constexpr int k_threads = 4;
  {
    data_pool<counted> pool(2);
    std::vector<std::thread> threads;
    threads.reserve(k_threads);
    for (int t = 0; t < k_threads; ++t) {
      threads.emplace_back([&pool] {
        for (unsigned i = 0; i < 3000; ++i) {
          counted* const object = pool.get();
          object->size = i;  // nobody else has it
          pool.put(object);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_LE(pool.available(), 2);
    EXPECT_EQ(pool.created(), pool.available());
    EXPECT_EQ(pool.created(), counted::s_alive.load());
  }
  EXPECT_EQ(0, counted::s_alive.load());
}
