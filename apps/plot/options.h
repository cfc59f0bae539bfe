// The command line of kav-plot.
#pragma once

#include <string>   // std::string
#include <variant>  // std::variant
#include <vector>   // std::vector

#include "apps/plot/outcome.h"
#include "apps/plot/picture.h"
#include "apps/watch/information.h"

namespace kav_plot {

struct plot_options {
  std::string path;
  std::vector<std::string> symbols;
  bool list_only = false;
  picture_options picture;
};

using kav_watch::information;

using parsed_options = std::variant<plot_options, information, outcome>;

parsed_options parse_options(int argc, const char* const* argv);

}  // namespace kav_plot
