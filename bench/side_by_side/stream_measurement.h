// One receiver, one stream: the figures.
#pragma once

#include <cstdint>  // std::int64_t
#include <string>   // std::string
#include <vector>   // std::vector

#include "bench/side_by_side/result_book.h"
#include "bench/side_by_side/sender.h"

namespace kav_bench {

struct stream_request {
  std::string receiver;
  stream_plan plan;
  bool timed = true;        // false: messages are only counted
  std::size_t clients = 1;  // of the library's client, in its one process
};

struct stream_figures {
  std::string error;  // empty: measured, nothing lost
  figure_set figures;
  std::vector<std::int64_t> latencies;
};

stream_figures measure_stream(const stream_request& request);

}  // namespace kav_bench
