// A receiver in a process of its own, so that what it uses is its own alone.
#pragma once

#include <sys/types.h>  // pid_t

#include <chrono>    // std::chrono::milliseconds
#include <cstdint>   // std::int64_t
#include <optional>  // std::optional
#include <vector>    // std::vector

#include "bench/side_by_side/receiver_job.h"

namespace kav_bench {

struct receiver_outcome {
  measured figures;
  std::vector<std::int64_t> latencies, last_latencies;  // nanoseconds
};

// Threads:   one.
// Shutdown:  the destructor kills the process if it still runs.
class receiver_process {
 public:
  receiver_process() = default;
  ~receiver_process();
  receiver_process(const receiver_process&) = delete;
  receiver_process& operator=(const receiver_process&) = delete;

  // Starts this program again with the job's options. False: it could not be started.
  bool start(const receiver_job& job);
  pid_t pid() const { return m_pid; }
  // The figures that it hands over before it ends; none when it fails, be it at its very end, or
  // takes longer than the limit.
  std::optional<receiver_outcome> wait_for_outcome(std::chrono::milliseconds limit);
  void kill();

 private:
  // As read(), and -1 when the time is over.
  ssize_t read_some(void* data, std::size_t most, std::int64_t until_ns) const;
  bool read_whole(void* data, std::size_t left, std::int64_t until_ns) const;
  bool ends_well(std::int64_t until_ns);

  pid_t m_pid = -1;
  int m_result_fd = -1;
};

}  // namespace kav_bench
