// What a receiver's process is asked to do, and does.
#pragma once

#include <cstddef>  // std::size_t
#include <cstdint>  // std::int64_t
#include <string>   // std::string

#include "bench/side_by_side/measurement.h"

namespace kav_bench {

// Handed over as command-line options of the same program.
struct receiver_job {
  std::string receiver;     // a name of all_receivers(); empty: this is not a receiver's process
  std::string task;         // see below
  unsigned short port = 0;  // of the server on 127.0.0.1
  std::size_t clients = 1, symbols = 1;  // of the library's client; the others have one each
  std::size_t samples = 0;               // room for latencies of each client; 0: only count
  int result_fd = -1;                    // where the figures go
  int not_on = -1;                       // a processor that is the sender's
};

// Tasks: take a stream to its end mark; log in, register and wait to be killed; connect and log in
// again and again, measuring each time.
constexpr const char* k_task_stream = "stream";
constexpr const char* k_task_idle = "idle";
constexpr const char* k_task_start = "start";

// Written as bytes to result_fd, with `latencies` and then `last_latencies` values of int64 behind
// it.
struct receiver_result {
  measured figures;
  std::uint64_t latencies = 0, last_latencies = 0;
};

// The exit status: 0 when the figures have been written; otherwise standard error says why.
int run_receiver(const receiver_job& job);

}  // namespace kav_bench
