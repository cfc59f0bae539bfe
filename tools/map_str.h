// A hash table from a short text to a value; the key lives inside the node.
#pragma once

#include <cstddef>  // size_t
#include <cstdint>  // uint64_t
#include <cstring>  // memcmp, memcpy
#include <new>      // bad_alloc

#include "tools/locks.h"

namespace VORLAN {
namespace TOOLS {

// Keys are texts of at most N characters; a longer or a null key is never stored and never found.
// Chains keep the order of insertion. A lookup allocates nothing, an insertion one node; growth
// moves nodes and copies none, so that references to values stay good until erase() or clear().
//
// Threads: every operation holds LOCK once; with null_lock the owner guards the table from outside.
// Memory:  an allocation that fails throws std::bad_alloc with the lock given back and the table
//          whole. When growing fails after an insertion, the new entry stays.
template <class T, std::size_t N, class LOCK = null_lock>
class map_str {
 public:
  map_str() : m_buckets(new node*[k_first_bucket_count]()) {}

  virtual ~map_str() {
    free_nodes();
    delete[] m_buckets;
  }

  map_str(const map_str&) = delete;
  map_str& operator=(const map_str&) = delete;

  bool is_exist(const char* key) const {
    const policy_locker<LOCK> guard(m_lock);
    return find_node(hash_key(key)) != nullptr;
  }

  // The value, or null when the key is absent. Good until the entry is erased.
  T* find(const char* key) {
    const policy_locker<LOCK> guard(m_lock);
    node* found = find_node(hash_key(key));
    return found != nullptr ? &found->value : nullptr;
  }

  const T* find(const char* key) const {
    const policy_locker<LOCK> guard(m_lock);
    const node* found = find_node(hash_key(key));
    return found != nullptr ? &found->value : nullptr;
  }

  // Stores or overwrites; a refused key is ignored.
  void set(const char* key, const T& value) {
    const policy_locker<LOCK> guard(m_lock);
    const hashed_key hashed = hash_key(key);
    if (hashed.text == nullptr) return;
    if (node* found = find_node(hashed)) {
      found->value = value;
    } else {
      insert(hashed, value);
    }
  }

  // The value, stored as T() first when the key is absent. For a refused key: a zeroed value of the
  // calling thread's that belongs to no entry.
  T& operator[](const char* key) {
    const policy_locker<LOCK> guard(m_lock);
    const hashed_key hashed = hash_key(key);
    if (hashed.text == nullptr) return stand_in();
    node* found = find_node(hashed);
    return (found != nullptr ? found : insert(hashed, T()))->value;
  }

  // Absent keys are ignored; the bucket count stays.
  void erase(const char* key) {
    const policy_locker<LOCK> guard(m_lock);
    const hashed_key hashed = hash_key(key);
    if (hashed.text == nullptr) return;
    for (node** link = bucket_of(hashed.hash); *link != nullptr; link = &(*link)->next) {
      if (!(*link)->matches(hashed)) continue;
      node* const erased = *link;
      *link = erased->next;
      --m_count;
      delete erased;
      return;
    }
  }

  std::size_t size() const {
    const policy_locker<LOCK> guard(m_lock);
    return m_count;
  }

  std::size_t bucket_count() const {
    const policy_locker<LOCK> guard(m_lock);
    return m_bucket_count;
  }

  // Forgets every entry and returns to the first bucket count.
  void clear() {
    const policy_locker<LOCK> guard(m_lock);
    free_nodes();
    m_count = 0;
    shrink_to_first_buckets();
  }

  // Calls f(const char* key, T& value) for each entry, bucket by bucket and in chain order, under
  // the lock. f may erase the entry that it is given and must not change the table otherwise.
  template <class F>
  void for_each(F f) {
    const policy_locker<LOCK> guard(m_lock);
    for (std::uint64_t i = 0; i < m_bucket_count; ++i) {
      for (node *entry = m_buckets[i], *next = nullptr; entry != nullptr; entry = next) {
        next = entry->next;
        f(static_cast<const char*>(entry->key), entry->value);
      }
    }
  }

 private:
  static constexpr std::uint64_t k_first_bucket_count = 128;  // always a power of two
  static constexpr std::uint64_t k_33_squared = 1089;

  // A key with what one pass over it has found out; the text is null when the key is refused.
  struct hashed_key {
    const char* text;
    std::size_t length;
    std::uint64_t hash;
  };

  struct node {
    node(const hashed_key& k, const T& v) : next(nullptr), hash(k.hash), value(v) {
      std::memcpy(key, k.text, k.length + 1);
    }

    bool matches(const hashed_key& k) const {
      return hash == k.hash && std::memcmp(key, k.text, k.length + 1) == 0;
    }

    node* next;
    const std::uint64_t hash;  // spares the comparison of most keys that only share the bucket
    char key[N + 1];
    T value;
  };

  // Characters count as signed ones; a negative one wraps around.
  static std::uint64_t signed_value(char c) {
    return static_cast<std::uint64_t>(static_cast<signed char>(c));
  }

  // h = h * 33 + c over the key, two characters a step: a lookup waits for the multiplications.
  static hashed_key hash_key(const char* key) {
    if (key == nullptr) return {nullptr, 0, 0};
    std::uint64_t hash = 0;
    std::size_t length = 0;
    while (key[length] != '\0') {
      if (length == N) return {nullptr, 0, 0};
      const std::uint64_t first = signed_value(key[length++]);
      if (key[length] == '\0') {
        hash = hash * 33 + first;
        break;
      }
      if (length == N) return {nullptr, 0, 0};
      hash = hash * k_33_squared + (first * 33 + signed_value(key[length++]));
    }
    return {key, length, hash};
  }

  static T& stand_in() {
    static thread_local T value;
    value = T();
    return value;
  }

  node** bucket_of(std::uint64_t hash) const { return &m_buckets[hash & (m_bucket_count - 1)]; }

  node* find_node(const hashed_key& key) const {
    if (key.text == nullptr) return nullptr;
    node* entry = *bucket_of(key.hash);
    while (entry != nullptr && !entry->matches(key)) entry = entry->next;
    return entry;
  }

  static void append(node** chain, node* entry) {
    while (*chain != nullptr) chain = &(*chain)->next;
    *chain = entry;
  }

  node* insert(const hashed_key& key, const T& value) {
    node* const entry = new node(key, value);
    append(bucket_of(entry->hash), entry);
    ++m_count;
    if (static_cast<double>(m_count) > 0.7 * static_cast<double>(m_bucket_count)) grow();
    return entry;
  }

  void grow() {
    const std::uint64_t old_count = m_bucket_count;
    node** const old_buckets = m_buckets;
    m_buckets = new node*[old_count * 4]();
    m_bucket_count = old_count * 4;
    for (std::uint64_t i = 0; i < old_count; ++i) {
      for (node *entry = old_buckets[i], *next = nullptr; entry != nullptr; entry = next) {
        next = entry->next;
        entry->next = nullptr;
        append(bucket_of(entry->hash), entry);
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
  void shrink_to_first_buckets() {
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
  mutable LOCK m_lock;
};

}  // namespace TOOLS
}  // namespace VORLAN
