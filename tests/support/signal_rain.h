// Signals that interrupt what the host's threads are in.
#pragma once

#include <sys/time.h>  // setitimer

#include <csignal>  // sigaction

namespace kav_test {

// While it lives, SIGALRM comes 5,000 times a second to a handler that does nothing, so that sleeps
// and waits of the main thread fail with EINTR. One at a time.
class signal_rain {
 public:
  signal_rain() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, nullptr);
    const itimerval often{{0, 200}, {0, 200}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
  }
  signal_rain(const signal_rain&) = delete;
  signal_rain& operator=(const signal_rain&) = delete;
  ~signal_rain() {
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &never, nullptr);
  }
};

}  // namespace kav_test
