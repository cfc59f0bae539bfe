// A picture as a script for gnuplot.
#pragma once

#include <cstdint>  // std::int64_t
#include <string>   // std::string
#include <vector>   // std::vector

#include "apps/plot/tick_series.h"

namespace kav_plot {

enum class picture_kind { png, svg };

struct picture_options {
  picture_kind kind = picture_kind::png;
  std::string path;
  unsigned width = 0, height = 720;      // pixels; width 0: by the number of symbols
  std::int64_t gap_ms = 10 * 60 * 1000;  // a longer silence is a break
};

// Price with bid and ask, volume and open interest of each series, side by side. `strays` becomes
// the number of quotes that are left out, see time_axis.
std::string picture_script(const std::vector<tick_series>& all, const picture_options& options,
                           std::size_t& strays);

}  // namespace kav_plot
