// Runs gnuplot.
#pragma once

#include <string>  // std::string

#include "apps/plot/outcome.h"

namespace kav_plot {

// Gives the script to gnuplot and waits for its end. What it complains of is in the outcome.
outcome run_gnuplot(const std::string& script);

}  // namespace kav_plot
