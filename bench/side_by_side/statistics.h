// Percentiles and medians.
#pragma once

#include <cstdint>  // std::int64_t
#include <vector>   // std::vector

namespace kav_bench {

// The smallest value that at least so many percent of the values do not exceed; 0 without values.
std::int64_t percentile(std::vector<std::int64_t> values, double percent);
// The same of values that are sorted.
std::int64_t sorted_percentile(const std::vector<std::int64_t>& values, double percent);
// The middle value, or the mean of the two in the middle; 0 without values.
double median(std::vector<double> values);

}  // namespace kav_bench
