// What the hash tables have in common: an array of buckets, each the start of a chain of nodes.
#pragma once

#include <cstddef>  // size_t
#include <cstdint>  // uint64_t
#include <new>      // bad_alloc

namespace VORLAN {
namespace TOOLS {

// Owns its nodes, which carry a key, a value and `next`; it is the table built on it that knows the
// keys, chooses the buckets and locks. Chains keep the order of insertion; changing the number of
// buckets moves nodes and copies none, so that references to values stay good.
template <class NODE>
class bucket_table {
 public:
  explicit bucket_table(std::uint64_t first_buckets)
      : m_buckets(new NODE*[first_buckets]()), m_bucket_count(first_buckets) {}

  ~bucket_table() {
    free_nodes();
    delete[] m_buckets;
  }

  bucket_table(const bucket_table&) = delete;
  bucket_table& operator=(const bucket_table&) = delete;

  std::size_t size() const { return m_count; }
  std::uint64_t bucket_count() const { return m_bucket_count; }

  // The link to the first node of a bucket's chain; null in it when there is none.
  NODE** chain(std::uint64_t bucket) const { return &m_buckets[bucket]; }

  // Takes over a node whose `next` is null. `link`: the chain, or a link further down it.
  void append(NODE** link, NODE* added) {
    attach(link, added);
    ++m_count;
  }

  // `link`: the one that leads to the node.
  void erase(NODE** link) {
    NODE* const erased = *link;
    *link = erased->next;
    --m_count;
    delete erased;
  }

  // Moves every node, bucket by bucket and in chain order, to the end of the chain that
  // bucket_of(node) tells by then. Without memory nothing changes.
  template <class F>
  void rehash(std::uint64_t bucket_count, F bucket_of) {
    const std::uint64_t old_count = m_bucket_count;
    NODE** const old_buckets = m_buckets;
    m_buckets = new NODE*[bucket_count]();
    m_bucket_count = bucket_count;
    for (std::uint64_t i = 0; i < old_count; ++i) {
      for (NODE *moved = old_buckets[i], *next = nullptr; moved != nullptr; moved = next) {
        next = moved->next;
        moved->next = nullptr;
        attach(chain(bucket_of(*moved)), moved);
      }
    }
    delete[] old_buckets;
  }

  // Frees every node and returns to the first number of buckets.
  void clear(std::uint64_t first_buckets) {
    free_nodes();
    m_count = 0;
    if (m_bucket_count != first_buckets) shrink(first_buckets);
  }

  // Calls f(NODE&) for each, bucket by bucket and in chain order. f may erase the one it is given.
  template <class F>
  void for_each(F f) {
    for (std::uint64_t i = 0; i < m_bucket_count; ++i) {
      for (NODE *entry = m_buckets[i], *next = nullptr; entry != nullptr; entry = next) {
        next = entry->next;
        f(*entry);
      }
    }
  }

 private:
  static void attach(NODE** link, NODE* added) {
    while (*link != nullptr) link = &(*link)->next;
    *link = added;
  }

  // Leaves every bucket empty.
  void free_nodes() {
    for (std::uint64_t i = 0; i < m_bucket_count; ++i) {
      while (NODE* const entry = m_buckets[i]) {
        m_buckets[i] = entry->next;
        delete entry;
      }
    }
  }

  // The buckets are empty. Without memory for the small array, a part of the large one serves.
  void shrink(std::uint64_t bucket_count) {
    try {
      NODE** const buckets = new NODE*[bucket_count]();
      delete[] m_buckets;
      m_buckets = buckets;
    } catch (const std::bad_alloc&) {
      // The large array serves on.
    }
    m_bucket_count = bucket_count;
  }

  NODE** m_buckets;
  std::uint64_t m_bucket_count;
  std::uint64_t m_count = 0;
};

}  // namespace TOOLS
}  // namespace VORLAN
