// A hash table from an integer to a value, growing through a table of primes.
#pragma once

#include <cstddef>  // size_t
#include <cstdint>  // uint64_t
#include <new>      // bad_alloc

#include "tools/locks.h"

namespace VORLAN {
namespace TOOLS {

// The bucket counts of map_int, smallest first.
constexpr std::size_t k_prime_list_entries = 28;
extern const std::uint64_t str_prime_list[k_prime_list_entries];

// The first entry not less than n; the last one when n exceeds them all.
std::uint64_t first_prime_not_less(std::uint64_t n);

// What is divided by the bucket count: the key, or of a negative one the absolute value of its low
// 32 bits.
inline std::uint64_t map_int_hash(long long key) {
  if (key >= 0) return static_cast<std::uint64_t>(key);
  const std::uint32_t low = static_cast<std::uint32_t>(key);
  return low > 0x80000000u ? 0u - low : low;
}

// Chains keep the order of insertion; growth moves nodes and copies none.
//
// Threads: every operation holds LOCK once; with null_lock the owner guards the table from outside.
// Memory:  an allocation that fails throws std::bad_alloc with the lock given back and the table
//          whole. When growing fails after an insertion, the new entry stays.
template <class T, class LOCK = null_lock>
class map_int {
 public:
  // The same table under the class's name.
  static constexpr const std::uint64_t (&str_prime_list)[k_prime_list_entries] =
      TOOLS::str_prime_list;

  map_int() : m_buckets(new node*[k_first_bucket_count]()) {}

  virtual ~map_int() {
    free_nodes();
    delete[] m_buckets;
  }

  map_int(const map_int&) = delete;
  map_int& operator=(const map_int&) = delete;

  // Stores or overwrites.
  void set(long long key, const T& value) {
    const policy_locker<LOCK> guard(m_lock);
    std::uint64_t visited = 0;
    node** link = bucket_of(key);
    for (; *link != nullptr; link = &(*link)->next, ++visited) {
      if ((*link)->key != key) continue;
      (*link)->value = value;
      return;
    }
    *link = new node(key, value);
    ++m_count;
    if (visited > m_longest_chain) m_longest_chain = visited;
    if (m_count > m_bucket_count && m_grows) rehash(m_count);
  }

  // The value, or null when the key is absent. Good until clear().
  T* find(long long key) {
    const policy_locker<LOCK> guard(m_lock);
    node* const found = find_node(key);
    return found != nullptr ? &found->value : nullptr;
  }

  const T* find(long long key) const {
    const policy_locker<LOCK> guard(m_lock);
    const node* const found = find_node(key);
    return found != nullptr ? &found->value : nullptr;
  }

  std::size_t size() const {
    const policy_locker<LOCK> guard(m_lock);
    return m_count;
  }

  std::size_t bucket_count() const {
    const policy_locker<LOCK> guard(m_lock);
    return m_bucket_count;
  }

  // The most nodes that an insertion has had to walk past.
  std::size_t longest_chain() const {
    const policy_locker<LOCK> guard(m_lock);
    return m_longest_chain;
  }

  // Moves the entries to the first listed number of buckets that is not less than n.
  void map_int_adjust_size(std::size_t n) {
    const policy_locker<LOCK> guard(m_lock);
    rehash(n);
  }

  // Forgets every entry and returns to the first bucket count.
  void clear() {
    const policy_locker<LOCK> guard(m_lock);
    free_nodes();
    m_count = 0;
    m_longest_chain = 0;
    reset_bucket_count();
  }

  // Calls f(long long key, T& value) for each entry, bucket by bucket and in chain order, under the
  // lock. f must not change the table.
  template <class F>
  void for_each(F f) {
    const policy_locker<LOCK> guard(m_lock);
    for (std::uint64_t i = 0; i < m_bucket_count; ++i) {
      for (node* entry = m_buckets[i]; entry != nullptr; entry = entry->next) {
        f(static_cast<long long>(entry->key), entry->value);
      }
    }
  }

 private:
  static constexpr std::uint64_t k_first_bucket_count = 53;  // the first of the list

  struct node {
    node(long long k, const T& v) : next(nullptr), key(k), value(v) {}

    node* next;
    const long long key;
    T value;
  };

  node** bucket_of(long long key) const { return &m_buckets[map_int_hash(key) % m_bucket_count]; }

  node* find_node(long long key) const {
    node* entry = *bucket_of(key);
    while (entry != nullptr && entry->key != key) entry = entry->next;
    return entry;
  }

  static void append(node** chain, node* entry) {
    while (*chain != nullptr) chain = &(*chain)->next;
    *chain = entry;
  }

  void rehash(std::uint64_t n) {
    const std::uint64_t old_count = m_bucket_count;
    node** const old_buckets = m_buckets;
    const std::uint64_t new_count = first_prime_not_less(n);
    m_buckets = new node*[new_count]();
    m_bucket_count = new_count;
    for (std::uint64_t i = 0; i < old_count; ++i) {
      for (node *entry = old_buckets[i], *next = nullptr; entry != nullptr; entry = next) {
        next = entry->next;
        entry->next = nullptr;
        append(bucket_of(entry->key), entry);
      }
    }
    delete[] old_buckets;
  }

  // Leaves every bucket empty; the caller sets the count.
  void free_nodes() {
    for (std::uint64_t i = 0; i < m_bucket_count; ++i) {
      while (node* const entry = m_buckets[i]) {
        m_buckets[i] = entry->next;
        delete entry;
      }
    }
  }

  // The buckets are empty. Without memory for the small array, a part of the large one serves.
  void reset_bucket_count() {
    if (m_bucket_count == k_first_bucket_count) return;
    try {
      node** const buckets = new node*[k_first_bucket_count]();
      delete[] m_buckets;
      m_buckets = buckets;
    } catch (const std::bad_alloc&) {
      // The large array serves on.
    }
    m_bucket_count = k_first_bucket_count;
  }

  // All guarded by m_lock.
  node** m_buckets;
  std::uint64_t m_bucket_count = k_first_bucket_count;
  std::uint64_t m_count = 0;
  const bool m_grows = true;
  std::uint64_t m_longest_chain = 0;
  mutable LOCK m_lock;
};

}  // namespace TOOLS
}  // namespace VORLAN
