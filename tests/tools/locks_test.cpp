#include "tools/locks.h"

#include <gtest/gtest.h>

#include <thread>
#include <type_traits>
#include <vector>

namespace {

using namespace VORLAN::TOOLS;

// What another thread finds: these tests are about who holds what, not about guarded data, so that
// they stand outside the analysis.
template <class ATTEMPT>
bool in_other_thread(ATTEMPT attempt) {
  bool result = false;
  std::thread([&] { result = attempt(); }).join();
  return result;
}

bool is_free(mutex_lock& lock) {
  return in_other_thread([&]() KAV_NO_THREAD_SAFETY_ANALYSIS {
    const bool taken = lock.try_lock();
    if (taken) lock.unlock();
    return taken;
  });
}

bool is_free(spin_lock& lock) {
  return in_other_thread([&]() KAV_NO_THREAD_SAFETY_ANALYSIS {
    const bool taken = lock.try_lock();
    if (taken) lock.unlock();
    return taken;
  });
}

bool can_read(read_write_lock& lock) {
  return in_other_thread([&] {
    const bool taken = lock.try_read_lock();
    if (taken) lock.read_unlock();
    return taken;
  });
}

bool can_write(read_write_lock& lock) {
  return in_other_thread([&] {
    const bool taken = lock.try_write_lock();
    if (taken) lock.write_unlock();
    return taken;
  });
}

// Accepted by clang's analysis: the build is the test.
class guarded_value {
 public:
  void set(int value) {
    mutex_locker guard(m_lock);
    m_value = value;
    guard.unlock();
  }
  int get() const {
    const mutex_locker guard(&m_lock);
    return m_value;
  }
  bool try_set(int value) {
    if (!m_lock.try_lock()) return false;
    m_value = value;
    m_lock.unlock();
    return true;
  }

 private:
  mutable mutex_lock m_lock;
  int m_value KAV_GUARDED_BY(m_lock) = 0;
};

template <class LOCK, class LOCKER>
int count_under_lock() {
  LOCK lock;
  int counter = 0;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        const LOCKER guard(lock);
        ++counter;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  return counter;
}

template <class LOCK>
constexpr bool is_copyable = std::is_copy_constructible_v<LOCK> || std::is_copy_assignable_v<LOCK>;

}  // namespace

TEST(locks, none_can_be_copied) {
  EXPECT_FALSE(is_copyable<null_lock>);
  EXPECT_FALSE(is_copyable<mutex_lock>);
  EXPECT_FALSE(is_copyable<spin_lock>);
  EXPECT_FALSE(is_copyable<read_write_lock>);
  EXPECT_FALSE(is_copyable<mutex_locker>);
  EXPECT_FALSE(is_copyable<spin_locker>);
  EXPECT_FALSE(is_copyable<read_locker>);
  EXPECT_FALSE(is_copyable<write_locker>);
}

TEST(locks, none_has_virtual_operations) {
  EXPECT_FALSE(std::is_polymorphic_v<null_lock>);
  EXPECT_FALSE(std::is_polymorphic_v<mutex_lock>);
  EXPECT_FALSE(std::is_polymorphic_v<spin_lock>);
  EXPECT_FALSE(std::is_polymorphic_v<read_write_lock>);
}

TEST(null_lock, try_lock_succeeds_every_time_also_when_locked) {
  null_lock lock;
  EXPECT_TRUE(lock.try_lock());
  lock.lock();
  EXPECT_TRUE(lock.try_lock());
  EXPECT_TRUE(lock.try_lock());
  lock.unlock();
  EXPECT_TRUE(lock.try_lock());
}

TEST(mutex_lock, is_free_for_others_only_after_as_many_unlocks_as_locks)
KAV_NO_THREAD_SAFETY_ANALYSIS {
  mutex_lock lock;
  EXPECT_EQ(0, lock.lock());
  EXPECT_EQ(0, lock.lock());
  EXPECT_TRUE(lock.try_lock());
  EXPECT_FALSE(is_free(lock));
  EXPECT_EQ(0, lock.unlock());
  EXPECT_EQ(0, lock.unlock());
  EXPECT_FALSE(is_free(lock));
  EXPECT_EQ(0, lock.unlock());
  EXPECT_TRUE(is_free(lock));
}

TEST(mutex_lock, guards_data_under_the_analysis) {
  guarded_value value;
  value.set(4);
  EXPECT_EQ(4, value.get());
  EXPECT_TRUE(value.try_set(5));
  EXPECT_EQ(5, value.get());
}

TEST(mutex_lock, excludes_threads_from_each_other) {
  EXPECT_EQ(8000, (count_under_lock<mutex_lock, mutex_locker>()));
}

TEST(mutex_locker, holds_for_the_block_from_reference_and_from_pointer) {
  mutex_lock lock;
  {
    const mutex_locker guard(lock);
    EXPECT_FALSE(is_free(lock));
  }
  EXPECT_TRUE(is_free(lock));
  {
    const mutex_locker guard(&lock);
    EXPECT_FALSE(is_free(lock));
  }
  EXPECT_TRUE(is_free(lock));
}

TEST(mutex_locker, on_null_does_nothing) KAV_NO_THREAD_SAFETY_ANALYSIS {
  mutex_lock* const none = nullptr;
  mutex_locker guard(none);
  guard.lock();
  guard.unlock();
  guard.unlock();
  SUCCEED() << "and its destructor is harmless";
}

TEST(mutex_locker, lock_after_unlock_leaves_the_mutex_free) KAV_NO_THREAD_SAFETY_ANALYSIS {
  mutex_lock lock;
  {
    mutex_locker guard(lock);
    guard.unlock();
    guard.lock();
    EXPECT_TRUE(is_free(lock));
  }
  EXPECT_TRUE(is_free(lock));
}

TEST(mutex_locker, second_unlock_and_destructor_leave_an_outer_lock_alone)
KAV_NO_THREAD_SAFETY_ANALYSIS {
  mutex_lock lock;
  const mutex_locker outer(lock);
  {
    mutex_locker inner(&lock);
    inner.unlock();
    inner.unlock();
  }
  EXPECT_FALSE(is_free(lock));
}

TEST(mutex_locker, lock_while_holding_takes_the_mutex_once_more) KAV_NO_THREAD_SAFETY_ANALYSIS {
  mutex_lock lock;
  {
    mutex_locker guard(lock);
    guard.lock();
  }
  EXPECT_FALSE(is_free(lock));
  EXPECT_EQ(0, lock.unlock());
  EXPECT_TRUE(is_free(lock));
}

TEST(spin_lock, is_held_between_lock_and_unlock) KAV_NO_THREAD_SAFETY_ANALYSIS {
  spin_lock lock;
  EXPECT_EQ(0, lock.lock());
  EXPECT_FALSE(lock.try_lock());
  EXPECT_FALSE(is_free(lock));
  EXPECT_EQ(0, lock.unlock());
  EXPECT_TRUE(lock.try_lock());
  EXPECT_EQ(0, lock.unlock());
}

TEST(spin_lock, excludes_threads_from_each_other) {
  EXPECT_EQ(8000, (count_under_lock<spin_lock, spin_locker>()));
}

TEST(spin_locker, holds_until_unlock_for_good) KAV_NO_THREAD_SAFETY_ANALYSIS {
  spin_lock lock;
  {
    spin_locker guard(&lock);
    EXPECT_FALSE(is_free(lock));
    guard.unlock();
    guard.lock();
    guard.unlock();
    EXPECT_TRUE(is_free(lock));
  }
  EXPECT_TRUE(is_free(lock));
}

TEST(spin_locker, on_null_does_nothing) KAV_NO_THREAD_SAFETY_ANALYSIS {
  spin_lock* const none = nullptr;
  spin_locker guard(none);
  guard.lock();
  guard.unlock();
  SUCCEED() << "and its destructor is harmless";
}

TEST(read_write_lock, readers_share_and_keep_writers_out) {
  read_write_lock lock;
  EXPECT_EQ(0, lock.read_lock());
  EXPECT_TRUE(can_read(lock));
  EXPECT_FALSE(can_write(lock));
  EXPECT_EQ(0, lock.read_unlock());
  EXPECT_TRUE(can_write(lock));
}

TEST(read_write_lock, a_writer_keeps_everybody_out) {
  read_write_lock lock;
  EXPECT_EQ(0, lock.write_lock());
  EXPECT_FALSE(can_read(lock));
  EXPECT_FALSE(can_write(lock));
  EXPECT_EQ(0, lock.write_unlock());
  EXPECT_TRUE(can_read(lock));
}

TEST(read_locker, shares_the_lock_for_the_block) {
  read_write_lock lock;
  {
    const read_locker first(lock);
    const read_locker second(&lock);
    EXPECT_TRUE(can_read(lock));
    EXPECT_FALSE(can_write(lock));
  }
  EXPECT_TRUE(can_write(lock));
}

TEST(write_locker, has_the_lock_alone_for_the_block) {
  read_write_lock lock;
  {
    const write_locker guard(lock);
    EXPECT_FALSE(can_read(lock));
  }
  {
    const write_locker guard(&lock);
    EXPECT_FALSE(can_read(lock));
  }
  EXPECT_TRUE(can_write(lock));
}

TEST(write_locker, excludes_threads_from_each_other) {
  EXPECT_EQ(8000, (count_under_lock<read_write_lock, write_locker>()));
}
