// Four locks over POSIX threads and the lockers that hold one for the length of a block.
#pragma once

#include <pthread.h>  // pthread_mutex_t, pthread_spinlock_t, pthread_rwlock_t

// Annotations for clang's thread safety analysis (-Wthread-safety); other compilers ignore them.
#if defined(__clang__)
#define KAV_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define KAV_THREAD_ATTRIBUTE(x)
#endif
#define KAV_CAPABILITY(name) KAV_THREAD_ATTRIBUTE(capability(name))
#define KAV_SCOPED_CAPABILITY KAV_THREAD_ATTRIBUTE(scoped_lockable)
#define KAV_GUARDED_BY(lock) KAV_THREAD_ATTRIBUTE(guarded_by(lock))
#define KAV_ACQUIRE(...) KAV_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define KAV_RELEASE(...) KAV_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define KAV_TRY_ACQUIRE(...) KAV_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define KAV_REQUIRES(...) KAV_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define KAV_NO_THREAD_SAFETY_ANALYSIS KAV_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace VORLAN {
namespace TOOLS {

// Locks nothing: the lock policy of a table that its owner guards from outside.
class null_lock {
 public:
  null_lock() = default;
  null_lock(const null_lock&) = delete;
  null_lock& operator=(const null_lock&) = delete;

  int lock() { return 0; }
  int unlock() { return 0; }
  bool try_lock() { return true; }
};

// A recursive mutex: the thread that holds it may take it again, and gives it back as many times.
// lock() and unlock() return the system's result, 0 on success.
class KAV_CAPABILITY("mutex") mutex_lock {
 public:
  mutex_lock();
  ~mutex_lock();
  mutex_lock(const mutex_lock&) = delete;
  mutex_lock& operator=(const mutex_lock&) = delete;

  int lock() KAV_ACQUIRE();
  int unlock() KAV_RELEASE();
  bool try_lock() KAV_TRY_ACQUIRE(true);

 private:
  pthread_mutex_t m_mutex;
};

// Busy-waits; for the threads of one process and for very short blocks. Not recursive.
class KAV_CAPABILITY("spin lock") spin_lock {
 public:
  spin_lock();
  ~spin_lock();
  spin_lock(const spin_lock&) = delete;
  spin_lock& operator=(const spin_lock&) = delete;

  int lock() KAV_ACQUIRE();
  int unlock() KAV_RELEASE();
  bool try_lock() KAV_TRY_ACQUIRE(true);

 private:
  pthread_spinlock_t m_spin;
};

// Many readers or one writer, with the system's default preference between them.
class read_write_lock {
 public:
  read_write_lock();
  ~read_write_lock();
  read_write_lock(const read_write_lock&) = delete;
  read_write_lock& operator=(const read_write_lock&) = delete;

  int read_lock();
  int write_lock();
  int read_unlock();
  int write_unlock();
  bool try_read_lock();
  bool try_write_lock();

 private:
  pthread_rwlock_t m_rwlock;
};

// Holds a mutex_lock until unlock() or the end of the block; a null lock means: hold nothing.
// unlock() is for good: it forgets the lock, so that a later lock() does nothing. To hold again,
// make a new locker. Used by the thread that made it only.
class KAV_SCOPED_CAPABILITY mutex_locker {
 public:
  explicit mutex_locker(mutex_lock* lock) KAV_ACQUIRE(lock);
  explicit mutex_locker(mutex_lock& lock) KAV_ACQUIRE(lock);
  ~mutex_locker() KAV_RELEASE();
  mutex_locker(const mutex_locker&) = delete;
  mutex_locker& operator=(const mutex_locker&) = delete;

  void lock();
  void unlock() KAV_RELEASE();

 private:
  mutex_lock* m_lock;  // null: released
};

// The same for a spin_lock.
class KAV_SCOPED_CAPABILITY spin_locker {
 public:
  explicit spin_locker(spin_lock* lock) KAV_ACQUIRE(lock);
  explicit spin_locker(spin_lock& lock) KAV_ACQUIRE(lock);
  ~spin_locker() KAV_RELEASE();
  spin_locker(const spin_locker&) = delete;
  spin_locker& operator=(const spin_locker&) = delete;

  void lock();
  void unlock() KAV_RELEASE();

 private:
  spin_lock* m_lock;  // null: released
};

// Holds a read_write_lock for reading from construction to destruction. The lock is never null.
class read_locker {
 public:
  explicit read_locker(read_write_lock* lock);
  explicit read_locker(read_write_lock& lock);
  ~read_locker();
  read_locker(const read_locker&) = delete;
  read_locker& operator=(const read_locker&) = delete;

 private:
  read_write_lock* m_lock;
};

// The same for writing.
class write_locker {
 public:
  explicit write_locker(read_write_lock* lock);
  explicit write_locker(read_write_lock& lock);
  ~write_locker();
  write_locker(const write_locker&) = delete;
  write_locker& operator=(const write_locker&) = delete;

 private:
  read_write_lock* m_lock;
};

// Holds any lock with lock() and unlock() for a block: the tables take theirs through it.
template <class LOCK>
class policy_locker {
 public:
  explicit policy_locker(LOCK& lock) KAV_NO_THREAD_SAFETY_ANALYSIS : m_lock(lock) { m_lock.lock(); }
  ~policy_locker() KAV_NO_THREAD_SAFETY_ANALYSIS { m_lock.unlock(); }
  policy_locker(const policy_locker&) = delete;
  policy_locker& operator=(const policy_locker&) = delete;

 private:
  LOCK& m_lock;
};

}  // namespace TOOLS
}  // namespace VORLAN
