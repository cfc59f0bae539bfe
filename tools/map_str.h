// A hash table from a short text to a value; the key lives inside the node.
#pragma once

#include <cstddef>  // size_t
#include <cstdint>  // uint64_t
#include <cstring>  // memcpy, strnlen

#include "tools/bucket_table.h"
#include "tools/key_text.h"
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
  map_str() = default;
  virtual ~map_str() = default;
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
    node** link = chain_of(hashed.hash);
    while (*link != nullptr && !(*link)->matches(hashed)) link = &(*link)->next;
    if (*link != nullptr) m_table.erase(link);
  }

  std::size_t size() const {
    const policy_locker<LOCK> guard(m_lock);
    return m_table.size();
  }

  std::size_t bucket_count() const {
    const policy_locker<LOCK> guard(m_lock);
    return m_table.bucket_count();
  }

  // Forgets every entry and returns to the first bucket count.
  void clear() {
    const policy_locker<LOCK> guard(m_lock);
    m_table.clear(k_first_bucket_count);
  }

  // Calls f(const char* key, T& value) for each entry, bucket by bucket and in chain order, under
  // the lock. f may erase the entry that it is given and must not change the table otherwise.
  template <class F>
  void for_each(F f) {
    const policy_locker<LOCK> guard(m_lock);
    m_table.for_each([&](node& entry) { f(static_cast<const char*>(entry.key), entry.value); });
  }

 private:
  static constexpr std::uint64_t k_first_bucket_count = 128;  // always a power of two

  // A key with what one pass over it has found out; the text is null when the key is refused.
  struct hashed_key {
    const char* text;
    std::size_t length;
    std::uint64_t hash;
  };

  struct node {
    node(const hashed_key& k, const T& v)
        : next(nullptr), length(k.length), hash(k.hash), value(v) {
      std::memcpy(key, k.text, k.length + 1);
    }

    bool matches(const hashed_key& k) const {
      return hash == k.hash && length == k.length && same_text(key, k.text, k.length);
    }

    node* next;
    const std::size_t length;
    const std::uint64_t hash;  // spares the comparison of most keys that only share the bucket
    char key[N + 1];
    T value;
  };

  static hashed_key hash_key(const char* key) {
    if (key == nullptr) return {nullptr, 0, 0};
    const std::size_t length = ::strnlen(key, N + 1);
    if (length > N) return {nullptr, 0, 0};
    return {key, length, hash_text(key, length)};
  }

  static T& stand_in() {
    static thread_local T value;
    value = T();
    return value;
  }

  std::uint64_t bucket_of(std::uint64_t hash) const { return hash & (m_table.bucket_count() - 1); }

  node** chain_of(std::uint64_t hash) const { return m_table.chain(bucket_of(hash)); }

  node* find_node(const hashed_key& key) const {
    if (key.text == nullptr) return nullptr;
    node* entry = *chain_of(key.hash);
    while (entry != nullptr && !entry->matches(key)) entry = entry->next;
    return entry;
  }

  node* insert(const hashed_key& key, const T& value) {
    node* const entry = new node(key, value);
    m_table.append(chain_of(key.hash), entry);
    const std::uint64_t buckets = m_table.bucket_count();
    if (static_cast<double>(m_table.size()) > 0.7 * static_cast<double>(buckets)) {
      m_table.rehash(buckets * 4, [this](const node& moved) { return bucket_of(moved.hash); });
    }
    return entry;
  }

  bucket_table<node> m_table{k_first_bucket_count};  // guarded by m_lock
  mutable LOCK m_lock;
};

}  // namespace TOOLS
}  // namespace VORLAN
