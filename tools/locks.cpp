#include "tools/locks.h"

namespace VORLAN {
namespace TOOLS {

mutex_lock::mutex_lock() {
  pthread_mutexattr_t attribute;
  pthread_mutexattr_init(&attribute);
  pthread_mutexattr_settype(&attribute, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&m_mutex, &attribute);
  pthread_mutexattr_destroy(&attribute);
}

mutex_lock::~mutex_lock() { pthread_mutex_destroy(&m_mutex); }

int mutex_lock::lock() { return pthread_mutex_lock(&m_mutex); }
int mutex_lock::unlock() { return pthread_mutex_unlock(&m_mutex); }
bool mutex_lock::try_lock() { return pthread_mutex_trylock(&m_mutex) == 0; }

spin_lock::spin_lock() { pthread_spin_init(&m_spin, PTHREAD_PROCESS_PRIVATE); }
spin_lock::~spin_lock() { pthread_spin_destroy(&m_spin); }

int spin_lock::lock() { return pthread_spin_lock(&m_spin); }
int spin_lock::unlock() { return pthread_spin_unlock(&m_spin); }
bool spin_lock::try_lock() { return pthread_spin_trylock(&m_spin) == 0; }

read_write_lock::read_write_lock() { pthread_rwlock_init(&m_rwlock, nullptr); }
read_write_lock::~read_write_lock() { pthread_rwlock_destroy(&m_rwlock); }

int read_write_lock::read_lock() { return pthread_rwlock_rdlock(&m_rwlock); }
int read_write_lock::write_lock() { return pthread_rwlock_wrlock(&m_rwlock); }
int read_write_lock::read_unlock() { return pthread_rwlock_unlock(&m_rwlock); }
int read_write_lock::write_unlock() { return pthread_rwlock_unlock(&m_rwlock); }
bool read_write_lock::try_read_lock() { return pthread_rwlock_tryrdlock(&m_rwlock) == 0; }
bool read_write_lock::try_write_lock() { return pthread_rwlock_trywrlock(&m_rwlock) == 0; }

mutex_locker::mutex_locker(mutex_lock* lock) : m_lock(lock) { this->lock(); }
mutex_locker::mutex_locker(mutex_lock& lock) : m_lock(&lock) { this->lock(); }
mutex_locker::~mutex_locker() { unlock(); }

void mutex_locker::lock() KAV_NO_THREAD_SAFETY_ANALYSIS {
  if (m_lock != nullptr) m_lock->lock();
}

void mutex_locker::unlock() KAV_NO_THREAD_SAFETY_ANALYSIS {
  if (m_lock == nullptr) return;
  m_lock->unlock();
  m_lock = nullptr;
}

spin_locker::spin_locker(spin_lock* lock) : m_lock(lock) { this->lock(); }
spin_locker::spin_locker(spin_lock& lock) : m_lock(&lock) { this->lock(); }
spin_locker::~spin_locker() { unlock(); }

void spin_locker::lock() KAV_NO_THREAD_SAFETY_ANALYSIS {
  if (m_lock != nullptr) m_lock->lock();
}

void spin_locker::unlock() KAV_NO_THREAD_SAFETY_ANALYSIS {
  if (m_lock == nullptr) return;
  m_lock->unlock();
  m_lock = nullptr;
}

read_locker::read_locker(read_write_lock* lock) : m_lock(lock) { m_lock->read_lock(); }
read_locker::read_locker(read_write_lock& lock) : m_lock(&lock) { m_lock->read_lock(); }
read_locker::~read_locker() { m_lock->read_unlock(); }

write_locker::write_locker(read_write_lock* lock) : m_lock(lock) { m_lock->write_lock(); }
write_locker::write_locker(read_write_lock& lock) : m_lock(&lock) { m_lock->write_lock(); }
write_locker::~write_locker() { m_lock->write_unlock(); }

}  // namespace TOOLS
}  // namespace VORLAN
