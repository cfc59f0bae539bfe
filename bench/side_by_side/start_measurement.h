// How long a client takes from ConnServer() to OnLoginResult(true).
#pragma once

#include <cstddef>  // std::size_t
#include <string>   // std::string

#include "bench/side_by_side/result_book.h"

namespace kav_bench {

struct start_figures {
  std::string error;  // empty: measured
  figure_set figures;
};

// So many clients, one after the other, against a simulator that answers at once.
start_figures measure_starts(const std::string& receiver, std::size_t times);

}  // namespace kav_bench
