// Whether a soak went well.
#pragma once

#include <string>  // std::string
#include <vector>  // std::vector

#include "tests/soak/sample.h"

namespace kav_soak {

// All that a run has left behind.
struct soak_record {
  sample before;                      // no client yet
  std::vector<sample> samples;        // one a second
  sample after;                       // the client is gone
  std::uint64_t sessions = 0;         // logins that were accepted, the first included
  std::uint64_t silent_sessions = 0;  // ended without a quote
  std::uint64_t out_of_order = 0;     // quotes that came twice or before an earlier one
  std::uint64_t login_gave_up = 0;    // sessions that the client ended itself
};

// Resident memory may rise by so much over the second half of a run, along the line through its
// samples: the larger of the two. What the allocator keeps for threads that come and go moves by
// some pages; what is left behind by every reconnection would rise faster.
constexpr double k_rise_kib = 256;
constexpr double k_rise_kib_per_minute = 32;
// A run that reconnects more rarely than this has shown nothing.
constexpr double k_most_seconds_per_reconnection = 15;

// Rise per minute of the line through the resident memory of the second half, in KiB.
double resident_slope(const std::vector<sample>& samples);
// One line for each thing that is wrong; none: all is well.
std::vector<std::string> faults_of(const soak_record& record);

}  // namespace kav_soak
