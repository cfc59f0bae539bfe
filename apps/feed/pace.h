// When the next datagram may leave: at most so many a second, evenly.
#pragma once

#include <chrono>  // std::chrono::steady_clock

namespace kav_feed {

using steady_time = std::chrono::steady_clock::time_point;

// Datagrams without a pause between them; what is behind its time catches up in such steps.
constexpr unsigned k_longest_burst = 32;

// An absolute schedule, so that late wake-ups do not add up: each datagram has a time, one interval
// behind the one before it, or later when it is made later. A sender that was held up is behind;
// it catches up at most at about twice the rate. One thread at a time.
class pace {
 public:
  // `per_second` 0: no limit.
  pace(double per_second, steady_time start);

  // The time of the next datagram, which is made at `ready`; not later than `now`: at once. Each
  // call is one datagram.
  steady_time next(steady_time ready, steady_time now);

 private:
  using interval = std::chrono::duration<double, std::nano>;

  const bool m_limited;
  const interval m_interval;
  std::chrono::time_point<std::chrono::steady_clock, interval> m_due;
  unsigned m_burst = 0;  // datagrams since the last pause
};

}  // namespace kav_feed
