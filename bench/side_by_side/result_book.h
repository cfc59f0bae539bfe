// All figures of all rounds.
#pragma once

#include <cstdint>  // std::int64_t
#include <map>      // std::map
#include <string>   // std::string
#include <utility>  // std::pair
#include <vector>   // std::vector

namespace kav_bench {

using figure_set = std::map<std::string, double>;  // of one measurement, by the figure's name

// By scenario and by what was measured in it: a receiver, or a size of the growth scenario.
class result_book {
 public:
  using rows = std::vector<std::pair<std::string, std::vector<figure_set>>>;  // rounds of each

  void add(const std::string& scenario, const std::string& row, const figure_set& figures);
  void add_latencies(const std::string& scenario, const std::string& row,
                     const std::vector<std::int64_t>& latencies);

  // In the order of their first measurement.
  const std::vector<std::pair<std::string, rows>>& scenarios() const { return m_scenarios; }
  const rows* find(const std::string& scenario) const;
  // Over the rounds; 0 where nothing was measured.
  double median_of(const std::string& scenario, const std::string& row,
                   const std::string& figure) const;
  // Of all rounds together, by (scenario, row).
  const std::map<std::pair<std::string, std::string>, std::vector<std::int64_t>>& latencies()
      const {
    return m_latencies;
  }

 private:
  std::vector<std::pair<std::string, rows>> m_scenarios;
  std::map<std::pair<std::string, std::string>, std::vector<std::int64_t>> m_latencies;
};

}  // namespace kav_bench
