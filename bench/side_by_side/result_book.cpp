#include "bench/side_by_side/result_book.h"

#include <algorithm>  // std::find_if

#include "bench/side_by_side/statistics.h"

namespace kav_bench {

namespace {

// The entry of that name, made when it is not there.
template <class Entries>
auto& entry_of(Entries& entries, const std::string& name) {
  const auto found = std::find_if(entries.begin(), entries.end(),
                                  [&](const auto& entry) { return entry.first == name; });
  if (found != entries.end()) return found->second;
  entries.push_back({name, {}});
  return entries.back().second;
}

template <class Entries>
auto* find_entry(const Entries& entries, const std::string& name) {
  const auto found = std::find_if(entries.begin(), entries.end(),
                                  [&](const auto& entry) { return entry.first == name; });
  return found == entries.end() ? nullptr : &found->second;
}

}  // namespace

void result_book::add(const std::string& scenario, const std::string& row,
                      const figure_set& figures) {
  entry_of(entry_of(m_scenarios, scenario), row).push_back(figures);
}

void result_book::add_latencies(const std::string& scenario, const std::string& row,
                                const std::vector<std::int64_t>& latencies) {
  std::vector<std::int64_t>& all = m_latencies[{scenario, row}];
  all.insert(all.end(), latencies.begin(), latencies.end());
}

const result_book::rows* result_book::find(const std::string& scenario) const {
  return find_entry(m_scenarios, scenario);
}

double result_book::median_of(const std::string& scenario, const std::string& row,
                              const std::string& figure) const {
  const rows* const all = find(scenario);
  if (all == nullptr) return 0;
  const std::vector<figure_set>* const rounds = find_entry(*all, row);
  if (rounds == nullptr) return 0;
  std::vector<double> values;
  for (const figure_set& figures : *rounds) {
    const auto found = figures.find(figure);
    if (found != figures.end()) values.push_back(found->second);
  }
  return median(values);
}

}  // namespace kav_bench
