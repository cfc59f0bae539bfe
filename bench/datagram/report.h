// What has been measured, for people and for programs.
#pragma once

#include <string>  // std::string
#include <vector>  // std::vector

#include "bench/datagram/decode_time.h"
#include "bench/datagram/measure.h"

namespace kav_bench {

struct results {
  std::vector<road_figures> roads;  // the first is what the others are compared with
  decode_figures decode;
  unsigned discarded = 0;
};

void print_table(const results& what);
// False: the file cannot be written, errno tells why.
bool write_json(const results& what, const std::string& file);

}  // namespace kav_bench
