// map_str and map_int against standard tables and a plain model of their chains.
#include <algorithm>  // std::min
#include <map>        // std::map
#include <utility>    // std::pair
#include <vector>     // std::vector

#include "tests/fuzz/check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tools/map_int.h"
#include "tools/map_str.h"

namespace {

using kav_fuzz::fuzz_input;

constexpr std::size_t k_most_steps = 200;
constexpr std::size_t k_most_entries = 1000;  // about; holds the time that one input takes
constexpr std::size_t k_most_buckets = 1600;  // asked for
constexpr std::size_t k_longest_key = 12;

// The order in which a table visits its keys: bucket by bucket, in each by arrival.
template <class KEY>
class chain_model {
 public:
  explicit chain_model(std::size_t buckets) : m_chains(buckets) {}

  std::size_t bucket_count() const { return m_chains.size(); }

  template <class HASH>
  void append(const KEY& key, HASH hash) {
    m_chains[hash(key) % m_chains.size()].push_back(key);
  }
  void erase(const KEY& key) {
    for (auto& chain : m_chains) std::erase(chain, key);
  }
  template <class HASH>
  void rehash(std::size_t buckets, HASH hash) {
    const std::vector<std::vector<KEY>> before = std::move(m_chains);
    m_chains.assign(buckets, {});
    for (const auto& chain : before) {
      for (const KEY& key : chain) append(key, hash);
    }
  }
  template <class HASH>
  std::size_t chain_length(const KEY& key, HASH hash) const {
    return m_chains[hash(key) % m_chains.size()].size();
  }
  std::vector<KEY> keys() const {
    std::vector<KEY> all;
    for (const auto& chain : m_chains) all.insert(all.end(), chain.begin(), chain.end());
    return all;
  }

 private:
  std::vector<std::vector<KEY>> m_chains;
};

// ---- map_str.

std::uint64_t text_hash(const std::string& text) {
  std::uint64_t hash = 0;
  for (const char c : text) {
    hash = hash * 33 + static_cast<std::uint64_t>(static_cast<signed char>(c));
  }
  return hash;
}

class map_str_check {
 public:
  void step(fuzz_input& input) {
    const unsigned choice = input.take_byte();
    switch (choice % 6) {
      case 0:
        return set(take_key(input), input.take_byte());
      case 1:
        return index(take_key(input));
      case 2:
        return erase(take_key(input));
      case 3:
        return find(take_key(input));
      case 4:
        return choice < 32 ? clear() : erase_while_visiting(choice);
      default:
        return set_many(input.take_byte(), input.take_byte());
    }
  }

  void check_all() {
    std::vector<std::string> visited;
    m_table.for_each([&](const char* key, unsigned& value) {
      visited.push_back(key);
      KAV_CHECK(m_values.at(key) == value);
    });
    KAV_CHECK(visited == m_order.keys());
    KAV_CHECK(m_table.size() == m_values.size());
    KAV_CHECK(m_table.bucket_count() == m_order.bucket_count());
  }

 private:
  // A key ends at its NUL; the longest ones are refused.
  static std::string take_key(fuzz_input& input) {
    std::string key = input.take_bytes(input.take_byte() % (k_longest_key + 3));
    key.resize(std::min(key.find('\0'), key.size()));
    return key;
  }
  static bool is_refused(const std::string& key) { return key.size() > k_longest_key; }

  void note(const std::string& key, unsigned value) {
    if (m_values.insert_or_assign(key, value).second) {
      m_order.append(key, text_hash);
      const std::size_t buckets = m_order.bucket_count();
      if (static_cast<double>(m_values.size()) > 0.7 * static_cast<double>(buckets)) {
        m_order.rehash(buckets * 4, text_hash);
      }
    }
  }

  void set(const std::string& key, unsigned value) {
    kav_fuzz::heap_bytes copy(key + '\0');
    m_table.set(copy.data(), value);
    if (!is_refused(key)) note(key, value);
  }

  void index(const std::string& key) {
    unsigned& value = m_table[key.c_str()];
    if (is_refused(key)) {
      KAV_CHECK(value == 0);
      value = 1;  // belongs to no entry
    } else if (!m_values.contains(key)) {
      KAV_CHECK(value == 0);
      note(key, 0);
    } else {
      KAV_CHECK(value == m_values[key]);
      m_values[key] = ++value;
    }
  }

  void erase(const std::string& key) {
    m_table.erase(key.c_str());
    if (m_values.erase(key) > 0) m_order.erase(key);
  }

  void find(const std::string& key) {
    kav_fuzz::heap_bytes copy(key + '\0');
    const unsigned* const value = m_table.find(copy.data());
    const auto known = m_values.find(key);
    KAV_CHECK((value != nullptr) == (known != m_values.end()));
    KAV_CHECK(value == nullptr || *value == known->second);
    KAV_CHECK(m_table.is_exist(copy.data()) == (value != nullptr));
  }

  void clear() {
    m_table.clear();
    m_values.clear();
    m_order = chain_model<std::string>(128);
  }

  // f may erase the entry that it is given.
  void erase_while_visiting(unsigned choice) {
    std::vector<std::string> erased;
    m_table.for_each([&](const char* key, unsigned value) {
      if (value % 4 != choice % 4) return;
      erased.push_back(key);
      m_table.erase(key);
    });
    for (const std::string& key : erased) {
      m_values.erase(key);
      m_order.erase(key);
    }
  }

  void set_many(unsigned count, unsigned first) {
    if (m_values.size() > k_most_entries) return;
    for (unsigned i = 0; i < count; ++i) set("k" + std::to_string(first * 7 + i), i);
  }

  VORLAN::TOOLS::map_str<unsigned, k_longest_key> m_table;
  std::map<std::string, unsigned> m_values;
  chain_model<std::string> m_order{128};
};

// ---- map_int.

std::uint64_t number_hash(long long key) {
  if (key >= 0) return static_cast<std::uint64_t>(key);
  const auto low = static_cast<std::int64_t>(static_cast<std::int32_t>(key));
  return static_cast<std::uint64_t>(low < 0 ? -low : low);
}

class map_int_check {
 public:
  void step(fuzz_input& input) {
    const unsigned choice = input.take_byte();
    switch (choice % 5) {
      case 0:
        return set(input.take<std::int64_t>(), input.take_byte());
      case 1:
        return find(input.take<std::int64_t>());
      case 2:
        return set(input.take_signed_byte(), input.take_byte());
      case 3:
        return choice < 32 ? clear() : adjust(input.take_word());
      default:
        return set_many(input.take_byte(), input.take<std::int32_t>());
    }
  }

  void check_all() {
    std::vector<long long> visited;
    m_table.for_each([&](long long key, unsigned& value) {
      visited.push_back(key);
      KAV_CHECK(m_values.at(key) == value);
    });
    KAV_CHECK(visited == m_order.keys());
    KAV_CHECK(m_table.size() == m_values.size());
    KAV_CHECK(m_table.bucket_count() == m_order.bucket_count());
    KAV_CHECK(m_table.longest_chain() == m_longest_chain);
  }

 private:
  void set(long long key, unsigned value) {
    m_table.set(key, value);
    const std::size_t walked = m_order.chain_length(key, number_hash);
    if (!m_values.insert_or_assign(key, value).second) return;
    m_longest_chain = std::max(m_longest_chain, walked);
    m_order.append(key, number_hash);
    if (m_values.size() > m_order.bucket_count()) resize_model(m_values.size());
  }

  void find(long long key) {
    const unsigned* const value = m_table.find(key);
    const auto known = m_values.find(key);
    KAV_CHECK((value != nullptr) == (known != m_values.end()));
    KAV_CHECK(value == nullptr || *value == known->second);
  }

  // The caller asks for no more buckets than he has memory for.
  void adjust(std::size_t buckets) {
    buckets %= k_most_buckets;
    m_table.map_int_adjust_size(buckets);
    resize_model(buckets);
  }

  void resize_model(std::size_t least) {
    std::size_t i = 0;
    while (VORLAN::TOOLS::str_prime_list[i] < least) ++i;
    m_order.rehash(VORLAN::TOOLS::str_prime_list[i], number_hash);
  }

  void clear() {
    m_table.clear();
    m_values.clear();
    m_order = chain_model<long long>(53);
    m_longest_chain = 0;
  }

  void set_many(unsigned count, long long first) {
    if (m_values.size() > k_most_entries) return;
    for (unsigned i = 0; i < count; ++i) set(first + i, i);
  }

  VORLAN::TOOLS::map_int<unsigned> m_table;
  std::map<long long, unsigned> m_values;
  chain_model<long long> m_order{53};
  std::size_t m_longest_chain = 0;
};

template <class CHECK>
void run(fuzz_input& input) {
  CHECK check;
  for (std::size_t i = 0; i < k_most_steps && !input.is_empty(); ++i) check.step(input);
  check.check_all();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  if (input.take_byte() % 2 == 0) {
    run<map_str_check>(input);
  } else {
    run<map_int_check>(input);
  }
  return 0;
}
