// A locked first-in-first-out list.
#pragma once

#include <atomic>
#include <cstddef>  // size_t
#include <list>
#include <type_traits>  // std::is_trivially_destructible

#include "tools/bad_str_key.h"
#include "tools/locks.h"

namespace VORLAN {
namespace TOOLS {

// Hands items from thread to thread in the order of their arrival. Nodes of plain items are kept
// for the next ones, so that steady traffic allocates nothing.
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
    if (push_into_spare(item)) return;
    std::list<T> node(1, item);  // allocated without the lock
    mutex_locker guard(m_lock);
    append(node);
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
    if (!m_items.empty()) remove_first(removed);
  }

  // Takes the oldest item under one lock; false when there is none, `item` is then unchanged.
  // Should the assignment throw, the item stays in the queue.
  bool try_pop(T& item) {
    if (m_count.load(std::memory_order_acquire) == 0) return false;
    std::list<T> removed;
    mutex_locker guard(m_lock);
    if (m_items.empty()) return false;
    item = m_items.front();
    remove_first(removed);
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
  static constexpr std::size_t k_most_spares = 512;
  static constexpr bool k_keeps_spares = std::is_trivially_destructible<T>::value;

  bool push_into_spare(const T& item) {
    if (!k_keeps_spares) return false;
    mutex_locker guard(m_lock);
    if (m_spares.empty()) return false;
    m_spares.front() = item;
    append(m_spares);
    return true;
  }

  // The first node of `from` becomes the last item.
  void append(std::list<T>& from) KAV_REQUIRES(m_lock) {
    m_items.splice(m_items.end(), from, from.begin());
    m_count.store(m_items.size(), std::memory_order_release);
  }

  // To the spare nodes, or else to `removed`, which is freed without the lock.
  void remove_first(std::list<T>& removed) KAV_REQUIRES(m_lock) {
    std::list<T>& to = k_keeps_spares && m_spares.size() < k_most_spares ? m_spares : removed;
    to.splice(to.begin(), m_items, m_items.begin());
    m_count.store(m_items.size(), std::memory_order_release);
  }

  std::atomic<std::size_t> m_count{0};  // of the items; changed under the lock, read without
  mutable mutex_lock m_lock;
  std::list<T> m_items KAV_GUARDED_BY(m_lock);
  std::list<T> m_spares KAV_GUARDED_BY(m_lock);  // what they hold is over
};

}  // namespace TOOLS
}  // namespace VORLAN
