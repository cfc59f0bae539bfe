#include "apps/sim/stop_signal.h"

#include <atomic>   // std::atomic
#include <csignal>  // sigaction

namespace kav_sim {

namespace {

std::atomic<bool> g_stop_asked{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set in a signal handler");

void on_signal(int) { g_stop_asked.store(true, std::memory_order_relaxed); }

}  // namespace

void catch_stop_signals() {
  struct sigaction action {};
  action.sa_handler = on_signal;
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

bool is_stop_asked() { return g_stop_asked.load(std::memory_order_relaxed); }

}  // namespace kav_sim
