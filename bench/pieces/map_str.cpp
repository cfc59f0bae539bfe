// map_str beside the standard hash table with text keys, both found by a text that is there.
#include "tools/map_str.h"

#include <functional>     // std::equal_to, std::hash
#include <memory>         // std::unique_ptr
#include <random>         // std::mt19937
#include <string>         // std::string
#include <string_view>    // std::string_view
#include <unordered_map>  // std::unordered_map
#include <vector>         // std::vector

#include "api/kav_quote_api.h"
#include "bench/pieces/piece.h"
#include "bench/pieces/symbols.h"

namespace {

using VORLAN::TOOLS::map_str;

struct text_hash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const {
    return std::hash<std::string_view>()(text);
  }
};
template <class T>
using unordered = std::unordered_map<std::string, T, text_hash, std::equal_to<>>;

// The tables of a client.
using symbol_list = map_str<int, 128>;
using quote_cache = map_str<KAVMarketDepthQuoteData, 31>;

constexpr std::size_t k_entries[] = {90, 1000, 10000};
constexpr std::size_t k_lookups = 16384;  // before their order repeats

// Hits in random order. The texts follow one another, as if a message had brought each.
struct lookups {
  struct text {
    char key[32];
  };

  explicit lookups(const std::vector<std::string>& symbols) : texts(k_lookups) {
    std::mt19937 dice(3);
    for (text& t : texts) {
      const std::string& symbol = symbols[dice() % symbols.size()];
      symbol.copy(t.key, sizeof(t.key) - 1);
      views.emplace_back(t.key, symbol.size());
    }
  }

  std::vector<text> texts;
  std::vector<std::string_view> views;
};

template <class TABLE, class T>
void find_kav(benchmark::State& state, std::size_t entries) {
  const std::vector<std::string> symbols = kav_bench::contract_symbols(entries);
  const lookups wanted(symbols);
  TABLE table;
  for (const std::string& symbol : symbols) table.set(symbol.c_str(), T());
  std::size_t i = 0;
  for ([[maybe_unused]] auto _ : state) {
    T* const value = table.find(wanted.texts[i].key);
    benchmark::DoNotOptimize(*reinterpret_cast<char*>(value));
    i = (i + 1) % k_lookups;
  }
}

template <class T>
void find_unordered(benchmark::State& state, std::size_t entries) {
  const std::vector<std::string> symbols = kav_bench::contract_symbols(entries);
  const lookups wanted(symbols);
  unordered<T> table;
  for (const std::string& symbol : symbols) table.emplace(symbol, T());
  std::size_t i = 0;
  for ([[maybe_unused]] auto _ : state) {
    T* const value = &table.find(wanted.views[i])->second;
    benchmark::DoNotOptimize(*reinterpret_cast<char*>(value));
    i = (i + 1) % k_lookups;
  }
}

// A table made, filled and freed again.
template <class TABLE, class T>
void insert_kav(benchmark::State& state, std::size_t entries) {
  const std::vector<std::string> symbols = kav_bench::contract_symbols(entries);
  while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(entries))) {
    TABLE table;
    for (const std::string& symbol : symbols) table.set(symbol.c_str(), T());
    benchmark::DoNotOptimize(table.size());
  }
}

template <class T>
void insert_unordered(benchmark::State& state, std::size_t entries) {
  const std::vector<std::string> symbols = kav_bench::contract_symbols(entries);
  while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(entries))) {
    unordered<T> table;
    for (const std::string& symbol : symbols) table.emplace(symbol, T());
    benchmark::DoNotOptimize(table.size());
  }
}

template <class TABLE, class T>
void iterate_kav(benchmark::State& state, std::size_t entries) {
  TABLE table;
  for (const std::string& symbol : kav_bench::contract_symbols(entries)) {
    table.set(symbol.c_str(), T());
  }
  while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(entries))) {
    table.for_each([](const char* key, T& value) {
      benchmark::DoNotOptimize(*key);
      benchmark::DoNotOptimize(*reinterpret_cast<char*>(&value));
    });
  }
}

template <class T>
void iterate_unordered(benchmark::State& state, std::size_t entries) {
  unordered<T> table;
  for (const std::string& symbol : kav_bench::contract_symbols(entries)) {
    table.emplace(symbol, T());
  }
  while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(entries))) {
    for (auto& [key, value] : table) {
      benchmark::DoNotOptimize(*key.data());
      benchmark::DoNotOptimize(*reinterpret_cast<char*>(&value));
    }
  }
}

template <class TABLE, class T>
void add_table(const std::string& variant) {
  for (const std::size_t entries : k_entries) {
    const std::string find = variant + "_find", insert = variant + "_insert",
                      iterate = variant + "_iterate";
    kav_bench::add_piece(find, entries, "kav", find_kav<TABLE, T>);
    kav_bench::add_piece(find, entries, "unordered_map", find_unordered<T>);
    kav_bench::add_piece(insert, entries, "kav", insert_kav<TABLE, T>);
    kav_bench::add_piece(insert, entries, "unordered_map", insert_unordered<T>);
    kav_bench::add_piece(iterate, entries, "kav", iterate_kav<TABLE, T>);
    kav_bench::add_piece(iterate, entries, "unordered_map", iterate_unordered<T>);
  }
}

const kav_bench::at_start k_tables([] {
  add_table<symbol_list, int>("map_str/symbol_list");
  add_table<quote_cache, KAVMarketDepthQuoteData>("map_str/quote_cache");
});

}  // namespace
