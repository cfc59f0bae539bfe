// A locked first-in-first-out list.
#pragma once

#include <cstddef>  // size_t
#include <list>

#include "tools/bad_str_key.h"
#include "tools/locks.h"

namespace VORLAN {
namespace TOOLS {

// Hands items from thread to thread in the order of their arrival.
//
// Threads:   every operation may be called from any thread. With several consumers use try_pop():
//            between empty(), front() and pop() another one may take the item.
// Ownership: items are copied; what an item points to is never freed here.
template <class T>
class data_queue {
 public:
  data_queue() = default;
  data_queue(const data_queue&) = delete;
  data_queue& operator=(const data_queue&) = delete;

  void push(const T& item) {
    std::list<T> node(1, item);  // allocated before the lock is taken
    mutex_locker guard(m_lock);
    m_items.splice(m_items.end(), node);
  }

  // A copy of the oldest item, which stays; throws bad_str_key when there is none.
  T front() const {
    mutex_locker guard(m_lock);
    if (m_items.empty()) throw bad_str_key("data queue empty ");
    return m_items.front();
  }

  // Removes the oldest item, if there is one.
  void pop() {
    std::list<T> removed;  // freed after the lock is given back
    mutex_locker guard(m_lock);
    if (!m_items.empty()) removed.splice(removed.begin(), m_items, m_items.begin());
  }

  // Takes the oldest item under one lock; false when there is none, `item` is then unchanged.
  // Should the assignment throw, the item stays in the queue.
  bool try_pop(T& item) {
    std::list<T> removed;
    mutex_locker guard(m_lock);
    if (m_items.empty()) return false;
    item = m_items.front();
    removed.splice(removed.begin(), m_items, m_items.begin());
    return true;
  }

  bool empty() const {
    mutex_locker guard(m_lock);
    return m_items.empty();
  }

  std::size_t size() const {
    mutex_locker guard(m_lock);
    return m_items.size();
  }

 private:
  mutable mutex_lock m_lock;
  std::list<T> m_items KAV_GUARDED_BY(m_lock);
};

}  // namespace TOOLS
}  // namespace VORLAN
