#include "bench/side_by_side/start_measurement.h"

#include <algorithm>  // std::max

#include "bench/side_by_side/receiver_process.h"
#include "bench/side_by_side/statistics.h"

namespace kav_bench {

namespace {

constexpr std::chrono::milliseconds k_limit{60000};

double ms_of(std::int64_t ns) { return static_cast<double>(ns) * 1e-6; }

}  // namespace

start_figures measure_starts(const std::string& receiver, std::size_t times) {
  receiver_job job;
  job.receiver = receiver;
  job.task = k_task_start;
  job.samples = std::max<std::size_t>(times, 1);
  receiver_process process;
  if (!process.start(job)) return {receiver + ": the process could not be started", {}};
  const std::optional<receiver_outcome> outcome = process.wait_for_outcome(k_limit);
  if (!outcome) return {receiver + ": the receiver gave no figures or did not end well", {}};
  return {"",
          {{"times", static_cast<double>(outcome->latencies.size())},
           {"p50_ms", ms_of(percentile(outcome->latencies, 50))},
           {"p90_ms", ms_of(percentile(outcome->latencies, 90))},
           {"max_ms", ms_of(percentile(outcome->latencies, 100))}}};
}

}  // namespace kav_bench
