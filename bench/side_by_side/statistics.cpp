#include "bench/side_by_side/statistics.h"

#include <algorithm>  // std::sort
#include <cmath>      // std::ceil

namespace kav_bench {

std::int64_t sorted_percentile(const std::vector<std::int64_t>& values, double percent) {
  if (values.empty()) return 0;
  const double rank = std::ceil(percent / 100 * static_cast<double>(values.size()));
  const auto index = static_cast<std::size_t>(std::max(rank, 1.0)) - 1;
  return values[std::min(index, values.size() - 1)];
}

std::int64_t percentile(std::vector<std::int64_t> values, double percent) {
  std::sort(values.begin(), values.end());
  return sorted_percentile(values, percent);
}

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t half = values.size() / 2;
  return values.size() % 2 == 1 ? values[half] : (values[half - 1] + values[half]) / 2;
}

}  // namespace kav_bench
