// Clients that are logged in and get nothing but heartbeats, looked at from outside.
#pragma once

#include <cstddef>  // std::size_t
#include <string>   // std::string
#include <vector>   // std::vector

#include "bench/side_by_side/result_book.h"

namespace kav_bench {

struct idle_request {
  std::string receiver;
  std::size_t clients = 1;  // of the library's client, in its one process
};

struct idle_figures {
  std::string error;                // empty: all measured
  std::vector<figure_set> figures;  // in the order of the requests
};

// All of them at the same time, for so many seconds, each in a process of its own.
idle_figures measure_idle(const std::vector<idle_request>& requests, double seconds);

}  // namespace kav_bench
