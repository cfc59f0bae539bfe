// Sends the stream of stamped quotes, precisely.
#pragma once

#include <chrono>   // std::chrono::nanoseconds
#include <cstddef>  // std::size_t
#include <cstdint>  // std::int64_t
#include <string>   // std::string
#include <vector>   // std::vector

namespace kav_bench {

// What is sent; the same to every receiver.
struct stream_plan {
  // Between two sends; 0: as fast as the receiver takes it, in writes of about 64 KiB.
  std::chrono::nanoseconds gap{0};
  std::size_t burst = 1;                         // messages in one send; flood chooses for itself
  std::size_t warm_up = 0, counted = 0;          // messages
  std::size_t symbols = 1;                       // named in turn
  std::chrono::nanoseconds spin_up_to{200'000};  // gaps that are spun, not slept
  int processor = -1;                            // the sender's alone; -1: where the system likes
};

// What went out.
struct sent_stream {
  bool whole = false;      // false: a connection broke
  double late_p50_us = 0;  // behind the deadline, when paced
  double seconds = 0;      // of the counted part
};

// Writes the plan to the sockets, in turn, then the end mark to each, and shuts their sending side.
// On the calling thread, which should be the sender's own.
//
// Each message is stamped right before the send() that carries it, so that a late sender is no
// latency of the receiver. Deadlines are absolute: after a short delay the sender catches up. After
// more than 1 ms, when something else had the processor, the schedule starts anew, since the
// catching up would be a burst that the plan does not ask for.
//
// Gaps above spin_up_to are slept (clock_nanosleep with a timer slack of 1 ns), so that all
// processors are the receiver's and it wakes up from idle, as it would in a quiet market. Shorter
// gaps are spun, since a sleep may end later than the next deadline: the sender then keeps one
// processor busy, and on a machine with two a receiver has one for all its threads.
//
// The end mark comes a moment after the last message, which its work would delay otherwise.
sent_stream send_stream(const std::vector<int>& sockets, const stream_plan& plan);

}  // namespace kav_bench
