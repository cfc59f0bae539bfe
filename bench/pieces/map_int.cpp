// map_int beside the standard hash table with integer keys.
#include "tools/map_int.h"

#include <random>         // std::mt19937_64
#include <string>         // std::string
#include <unordered_map>  // std::unordered_map
#include <vector>         // std::vector

#include "bench/pieces/piece.h"

namespace {

using kav_table = VORLAN::TOOLS::map_int<int>;
using unordered = std::unordered_map<long long, int>;

constexpr std::size_t k_entries[] = {90, 1000, 10000};
constexpr std::size_t k_lookups = 16384;  // before their order repeats

// Thread numbers, mostly: anything below a few million.
std::vector<long long> make_keys(std::size_t count) {
  std::mt19937_64 dice(5);
  unordered seen;
  std::vector<long long> keys;
  while (keys.size() < count) {
    const auto key = static_cast<long long>(dice() % 4000000);
    if (seen.emplace(key, 0).second) keys.push_back(key);
  }
  return keys;
}

std::vector<long long> make_lookups(const std::vector<long long>& keys) {
  std::mt19937_64 dice(3);
  std::vector<long long> wanted(k_lookups);
  for (long long& key : wanted) key = keys[dice() % keys.size()];
  return wanted;
}

void find_kav(benchmark::State& state, std::size_t entries) {
  const std::vector<long long> keys = make_keys(entries), wanted = make_lookups(keys);
  kav_table table;
  for (const long long key : keys) table.set(key, 1);
  std::size_t i = 0;
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(*table.find(wanted[i]));
    i = (i + 1) % k_lookups;
  }
}

void find_unordered(benchmark::State& state, std::size_t entries) {
  const std::vector<long long> keys = make_keys(entries), wanted = make_lookups(keys);
  unordered table;
  for (const long long key : keys) table.emplace(key, 1);
  std::size_t i = 0;
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(table.find(wanted[i])->second);
    i = (i + 1) % k_lookups;
  }
}

// A table made, filled and freed again.
void insert_kav(benchmark::State& state, std::size_t entries) {
  const std::vector<long long> keys = make_keys(entries);
  while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(entries))) {
    kav_table table;
    for (const long long key : keys) table.set(key, 1);
    benchmark::DoNotOptimize(table.size());
  }
}

void insert_unordered(benchmark::State& state, std::size_t entries) {
  const std::vector<long long> keys = make_keys(entries);
  while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(entries))) {
    unordered table;
    for (const long long key : keys) table.emplace(key, 1);
    benchmark::DoNotOptimize(table.size());
  }
}

const kav_bench::at_start k_tables([] {
  for (const std::size_t entries : k_entries) {
    kav_bench::add_piece("map_int/find", entries, "kav", find_kav);
    kav_bench::add_piece("map_int/find", entries, "unordered_map", find_unordered);
    kav_bench::add_piece("map_int/insert", entries, "kav", insert_kav);
    kav_bench::add_piece("map_int/insert", entries, "unordered_map", insert_unordered);
  }
});

}  // namespace
