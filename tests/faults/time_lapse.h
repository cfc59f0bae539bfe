// The program's own steady_clock::now(), usleep() and futex waits, which the library calls as well:
// lets ten minutes pass in seconds.
#pragma once

namespace kav_faults {

// While it lives, the steady clock runs `factor` times as fast, and sleeps and timed waits of the
// library end as much sooner. Waits for descriptors (epoll_wait, poll) take their real time. One at
// a time.
class time_lapse {
 public:
  explicit time_lapse(long factor);
  time_lapse(const time_lapse&) = delete;
  time_lapse& operator=(const time_lapse&) = delete;
  ~time_lapse();
};

}  // namespace kav_faults
