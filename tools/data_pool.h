// Released objects kept for reuse.
#pragma once

#include "tools/locks.h"

namespace VORLAN {
namespace TOOLS {

// Keeps up to `capacity` released objects, so that steady traffic allocates nothing. Objects are
// made with T(2048), for a stream_buffer its first size.
//
// Threads:   every operation may be called from any thread.
// Ownership: the destructor destroys what has been put back; an object that is still out belongs
//            to whoever got it.
template <class T>
class data_pool {
 public:
  explicit data_pool(unsigned capacity) : m_free(new T*[capacity]), m_capacity(capacity) {}

  ~data_pool() {
    mutex_locker guard(m_lock);
    for (int i = 0; i < m_free_count; ++i) delete m_free[i];
    delete[] m_free;
  }

  data_pool(const data_pool&) = delete;
  data_pool& operator=(const data_pool&) = delete;

  // The object put back last, else a new one. An allocation that fails throws and counts nothing.
  T* get() {
    mutex_locker guard(m_lock);
    if (m_free_count > 0) return m_free[--m_free_count];
    T* made = new T(2048);
    ++m_created;
    return made;
  }

  // Keeps the object, or destroys it when enough are kept. Null is ignored.
  void put(T* object) {
    if (object != nullptr && !keep(object)) delete object;
  }

  // Objects made and not yet destroyed, kept ones included.
  int created() const {
    mutex_locker guard(m_lock);
    return m_created;
  }

  // Objects that wait for reuse.
  int available() const {
    mutex_locker guard(m_lock);
    return m_free_count;
  }

 private:
  bool keep(T* object) {
    mutex_locker guard(m_lock);
    if (static_cast<unsigned>(m_free_count) < m_capacity) {
      m_free[m_free_count++] = object;
      return true;
    }
    --m_created;
    return false;
  }

  T** const m_free;  // its entries are guarded by m_lock, the pointer never changes
  mutable mutex_lock m_lock;
  int m_created KAV_GUARDED_BY(m_lock) = 0;
  int m_free_count KAV_GUARDED_BY(m_lock) = 0;
  const unsigned m_capacity;
};

}  // namespace TOOLS
}  // namespace VORLAN
