// A hash table from an integer to a value, growing through a table of primes.
#pragma once

#include <cstddef>  // size_t
#include <cstdint>  // uint64_t

#include "tools/bucket_table.h"
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

  map_int() = default;
  virtual ~map_int() = default;
  map_int(const map_int&) = delete;
  map_int& operator=(const map_int&) = delete;

  // Stores or overwrites.
  void set(long long key, const T& value) {
    const policy_locker<LOCK> guard(m_lock);
    std::uint64_t visited = 0;
    node** link = chain_of(key);
    for (; *link != nullptr; link = &(*link)->next, ++visited) {
      if ((*link)->key != key) continue;
      (*link)->value = value;
      return;
    }
    m_table.append(link, new node(key, value));
    if (visited > m_longest_chain) m_longest_chain = visited;
    if (m_table.size() > m_table.bucket_count() && m_grows) rehash(m_table.size());
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
    return m_table.size();
  }

  std::size_t bucket_count() const {
    const policy_locker<LOCK> guard(m_lock);
    return m_table.bucket_count();
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
    m_table.clear(k_first_bucket_count);
    m_longest_chain = 0;
  }

  // Calls f(long long key, T& value) for each entry, bucket by bucket and in chain order, under the
  // lock. f must not change the table.
  template <class F>
  void for_each(F f) {
    const policy_locker<LOCK> guard(m_lock);
    m_table.for_each([&](node& entry) { f(static_cast<long long>(entry.key), entry.value); });
  }

 private:
  static constexpr std::uint64_t k_first_bucket_count = 53;  // the first of the list

  struct node {
    node(long long k, const T& v) : next(nullptr), key(k), value(v) {}

    node* next;
    const long long key;
    T value;
  };

  std::uint64_t bucket_of(long long key) const {
    return map_int_hash(key) % m_table.bucket_count();
  }

  node** chain_of(long long key) const { return m_table.chain(bucket_of(key)); }

  node* find_node(long long key) const {
    node* entry = *chain_of(key);
    while (entry != nullptr && entry->key != key) entry = entry->next;
    return entry;
  }

  void rehash(std::uint64_t n) {
    m_table.rehash(first_prime_not_less(n),
                   [this](const node& moved) { return bucket_of(moved.key); });
  }

  // All guarded by m_lock.
  bucket_table<node> m_table{k_first_bucket_count};
  const bool m_grows = true;
  std::uint64_t m_longest_chain = 0;
  mutable LOCK m_lock;
};

}  // namespace TOOLS
}  // namespace VORLAN
