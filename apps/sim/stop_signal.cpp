#include "apps/sim/stop_signal.h"

#include <poll.h>  // poll

#include <atomic>   // std::atomic
#include <csignal>  // sigaction

namespace kav_sim {

namespace {

std::atomic<bool> g_stop_asked{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set in a signal handler");

void on_signal(int) { g_stop_asked.store(true, std::memory_order_relaxed); }

// ThreadSanitizer's runtime loses a signal that arrives while a thread prepares for its first
// blocking call: that call is made before any signal is expected.
void make_first_blocking_call() {
#ifdef __SANITIZE_THREAD__
  ::poll(nullptr, 0, 0);
#endif
}

}  // namespace

void catch_stop_signals() {
  make_first_blocking_call();
  struct sigaction action {};
  action.sa_handler = on_signal;
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

bool is_stop_asked() { return g_stop_asked.load(std::memory_order_relaxed); }

}  // namespace kav_sim
