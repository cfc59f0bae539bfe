// Pushes a source's ticks into a server, each when it is due.
#pragma once

#include <cstdint>     // std::uint64_t
#include <functional>  // std::function

#include "apps/sim/quote_server.h"
#include "apps/sim/tick_source.h"

namespace kav_sim {

struct feed_options {
  // 1: the source's own pace; 10: ten times as fast; 0: as fast as the clients read, and only
  // while somebody has registered something.
  double speed = 1;
  // Waits until somebody has registered something, and the registrations that come along with it
  // are in too (none for k_registration_settle).
  bool wait_for_registration = false;
  // Called at least every 50 ms; false ends the feed.
  std::function<bool()> keep_going;
};

// After the last request of a client that registers several symbols in a row.
constexpr std::chrono::milliseconds k_registration_settle{250};

struct feed_result {
  std::uint64_t ticks = 0;   // handed to the server
  std::uint64_t queued = 0;  // summed over the clients that get them
  bool at_end = false;       // the source had no more
};

// Runs on the caller's thread until the source ends or keep_going() says so. At speed 0 no quote
// is dropped; at others a client with a full queue loses quotes, which the server counts.
feed_result run_feed(tick_source& source, quote_server& server, const feed_options& options);

}  // namespace kav_sim
