#include "sock/vorlan_socket_thread.h"

#include <pthread.h>  // pthread_create and others
#include <unistd.h>   // usleep

#include <cerrno>   // ESRCH
#include <csignal>  // sigset_t, sigfillset
#include <limits>   // std::numeric_limits
#include <memory>   // std::unique_ptr
#include <new>      // std::bad_alloc

namespace VORLAN {
namespace SOCK {
namespace {

using VORLAN::TOOLS::mutex_locker;

// The wrapper whose thread this is.
thread_local const vorlan_socket_thread* t_wrapper = nullptr;

constexpr unsigned k_control_poll_ms = 1;     // pause() and stop() look this often
constexpr int k_sleep_slice_us = 10'000;      // longest part of a sleep that nothing interrupts
constexpr int k_no_function_sleep_us = 1000;  // a running loop without a function only waits

// Everything but the signals that concern the thread that causes them, and the profilers'.
sigset_t host_signals() {
  sigset_t set;
  sigfillset(&set);
  for (const int kept : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS, SIGPROF}) {
    sigdelset(&set, kept);
  }
  return set;
}

struct thread_start {
  void* (*routine)(void*);
  void* arg;
};

// What every thread begins with: its creator may have blocked also what has to work in it.
void* enter_thread(void* arg) {
  const sigset_t blocked = host_signals();
  pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
  const thread_start start = *std::unique_ptr<thread_start>(static_cast<thread_start*>(arg));
  return start.routine(start.arg);
}

bool create_detached(void* (*routine)(void*), void* arg, pthread_t& id) try {
  auto start = std::make_unique<thread_start>(thread_start{routine, arg});
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  const bool created = pthread_create(&id, &attributes, enter_thread, start.get()) == 0;
  pthread_attr_destroy(&attributes);
  if (created) static_cast<void>(start.release());  // the thread's now
  return created;
} catch (const std::bad_alloc&) {
  return false;
}

}  // namespace

unsigned long vl_create_thread(void* (*routine)(void*), void* arg, unsigned long& id) {
  // A new thread begins with its creator's signal mask: none of the host's signals may reach it
  // before it has set its own.
  const sigset_t blocked = host_signals();
  sigset_t before;
  const bool masked = pthread_sigmask(SIG_BLOCK, &blocked, &before) == 0;
  pthread_t thread{};
  id = create_detached(routine, arg, thread) ? thread : 0;
  if (masked) pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return id;
}

int vl_suspend_thread(unsigned long) { return 0; }

int vl_resume_thread(unsigned long) { return 0; }

int vl_close_thread(unsigned long id) { return id == 0 ? ESRCH : pthread_cancel(id); }

void vl_sleep(unsigned ms) {
  constexpr unsigned k_longest = std::numeric_limits<useconds_t>::max() / 1000;
  usleep((ms < k_longest ? ms : k_longest) * 1000);
}

void vl_name_thread(const char* name) { pthread_setname_np(pthread_self(), name); }

struct vorlan_socket_thread::run_start {
  vorlan_socket_thread* wrapper;
  std::shared_ptr<run> current;
};

vorlan_socket_thread::vorlan_socket_thread() = default;

vorlan_socket_thread::~vorlan_socket_thread() {
  stop();
  set_thread_status(STATUS_DESTROYED);
  retire_run();
}

std::string vorlan_socket_thread::get_thread_name() { return ""; }

void vorlan_socket_thread::register_function(int (*fn)(void*), void* arg, bool sleep_when_idle) {
  m_function = fn;
  m_argument = arg;
  m_sleep_when_idle.store(sleep_when_idle, std::memory_order_release);
}

void vorlan_socket_thread::set_thread_wait_micro_sec(int us) {
  m_wait_us.store(us < 0 ? 0 : us, std::memory_order_release);
}

void vorlan_socket_thread::set_idle_mode(socket_thread_idle mode) {
  m_idle_mode.store(mode, std::memory_order_release);
}

void vorlan_socket_thread::set_idle_wait(void (*wait)(void* arg, std::uint32_t ticket)) {
  m_idle_wait = wait;
}

void vorlan_socket_thread::wake() { m_wake.notify(); }

void vorlan_socket_thread::limit_next_idle_sleep(int us) {
  m_next_idle_limit_us.store(us, std::memory_order_relaxed);
}

socket_thread_status vorlan_socket_thread::get_thread_status() const {
  return m_status.load(std::memory_order_acquire);
}

void vorlan_socket_thread::set_thread_status(socket_thread_status status) {
  m_status.store(status, std::memory_order_release);
  m_wake.notify();
}

unsigned long vorlan_socket_thread::get_thread_id() const {
  return m_thread_id.load(std::memory_order_acquire);
}

bool vorlan_socket_thread::is_same_thread() const {
  // The id alone is not enough: the system gives a dead thread's id to a new one.
  return t_wrapper == this && pthread_equal(pthread_self(), get_thread_id()) != 0;
}

bool vorlan_socket_thread::start() {
  if (is_same_thread()) return false;
  switch (get_thread_status()) {
    case STATUS_RUNNING:
      if (m_creation_failed.load(std::memory_order_acquire)) break;  // another try
      return true;
    case STATUS_INIT:
    case STATUS_STOPPED:
      break;
    case STATUS_PAUSED:
    case STATUS_PAUSE_PENDING:
      set_thread_status(STATUS_RUNNING);
      return true;
    default:
      return false;
  }
  start_spt_thread();
  set_thread_status(STATUS_RUNNING);
  return true;
}

void vorlan_socket_thread::start_spt_thread() {
  retire_run();  // a thread that has stopped itself may still be inside the function
  set_thread_status(STATUS_INIT);
  const unsigned long id = create_run();
  m_creation_failed.store(id == 0, std::memory_order_release);
  m_thread_id.store(id, std::memory_order_release);
}

// The new thread's id; 0 without a thread, or without memory for one.
unsigned long vorlan_socket_thread::create_run() try {
  const auto current = std::make_shared<run>();
  auto start = std::make_unique<run_start>(run_start{this, current});
  {
    const mutex_locker guard(m_run_lock);
    m_run = current;
  }
  unsigned long id = 0;
  if (vl_create_thread(run_entry, start.get(), id) != 0) {
    static_cast<void>(start.release());  // the thread's now
  } else {
    current->left.store(true, std::memory_order_release);
  }
  return id;
} catch (const std::bad_alloc&) {
  return 0;
}

bool vorlan_socket_thread::pause() {
  const bool at_once = is_same_thread() || m_creation_failed.load(std::memory_order_acquire);
  for (;;) {
    const socket_thread_status status = get_thread_status();
    if (status == STATUS_PAUSED) return true;
    if (status != STATUS_RUNNING && status != STATUS_PAUSE_PENDING) return false;
    if (request(status, at_once ? STATUS_PAUSED : STATUS_PAUSE_PENDING)) break;
  }
  while (get_thread_status() == STATUS_PAUSE_PENDING) vl_sleep(k_control_poll_ms);
  return get_thread_status() == STATUS_PAUSED;
}

bool vorlan_socket_thread::stop() {
  const bool at_once = is_same_thread() || m_creation_failed.load(std::memory_order_acquire);
  for (;;) {
    const socket_thread_status status = get_thread_status();
    if (status == STATUS_INIT || status == STATUS_STOPPED || status == STATUS_DESTROYED) {
      return true;
    }
    if (request(status, at_once ? STATUS_STOPPED : STATUS_STOP_PENDING)) break;
  }
  while (get_thread_status() == STATUS_STOP_PENDING) vl_sleep(k_control_poll_ms);
  return true;
}

// False: the status is no longer `from`. Nobody would answer a request to a thread that has
// stopped itself meanwhile.
bool vorlan_socket_thread::request(socket_thread_status from, socket_thread_status to) {
  if (!change_status(from, to)) return false;
  m_wake.notify();
  return true;
}

void vorlan_socket_thread::break_sleep(int us) {
  if (us <= 0) return;
  if (us < 1000) {
    usleep(static_cast<useconds_t>(us));
    return;
  }
  if (us <= k_sleep_slice_us) {
    vl_sleep(static_cast<unsigned>(us) / 1000);
    return;
  }
  for (int left = us; left > 0; left -= k_sleep_slice_us) {
    const socket_thread_status status = get_thread_status();
    if (status != STATUS_RUNNING && status != STATUS_INIT && status != STATUS_PAUSED) return;
    usleep(k_sleep_slice_us);
  }
}

void vorlan_socket_thread::thread_sleep() {
  if (m_sleep_when_idle.load(std::memory_order_acquire)) {
    break_sleep(m_wait_us.load(std::memory_order_acquire));
  }
}

void* vorlan_socket_thread::run_thread(void* arg) {
  if (arg == nullptr) return nullptr;
  run current;
  static_cast<vorlan_socket_thread*>(arg)->run_loop(current);
  return nullptr;
}

void* vorlan_socket_thread::run_entry(void* start) {
  const std::unique_ptr<run_start> owned(static_cast<run_start*>(start));
  run& current = *owned->current;
  t_wrapper = owned->wrapper;
  owned->wrapper->name_this_thread();
  owned->wrapper->run_loop(current);
  current.left.store(true, std::memory_order_release);  // last touch: the wrapper may go
  return nullptr;
}

void vorlan_socket_thread::name_this_thread() try {
  const std::string name = get_thread_name();
  vl_name_thread(name.empty() ? "kav-thread" : name.c_str());
} catch (const std::bad_alloc&) {
  vl_name_thread("kav-thread");
}

void vorlan_socket_thread::run_loop(run& current) {
  bool stays = true;
  while (stays) {
    if (current.superseded.load(std::memory_order_acquire)) return;
    switch (get_thread_status()) {
      case STATUS_STOPPED:
      case STATUS_DESTROYED:
        return;
      case STATUS_INIT:
      case STATUS_PAUSED:
        stays = run_sleeping_step(current);
        break;
      default:
        stays = run_working_step(current);
        break;
    }
  }
}

bool vorlan_socket_thread::run_sleeping_step(const run& current) {
  const std::uint32_t ticket = m_wake.ticket();
  if (m_idle_mode.load(std::memory_order_acquire) == IDLE_POLL) {
    break_sleep(m_wait_us.load(std::memory_order_acquire));
  } else if (const auto status = get_thread_status();
             status == STATUS_INIT || status == STATUS_PAUSED) {
    m_wake.wait(ticket, std::chrono::nanoseconds(-1));
  }
  return !current.superseded.load(std::memory_order_acquire);
}

bool vorlan_socket_thread::run_working_step(run& current) {
  const std::uint32_t ticket = m_wake.ticket();
  if (m_function == nullptr) {
    break_sleep(k_no_function_sleep_us);
    return idle_step();
  }
  const int more = m_function(m_argument);
  if (current.superseded.load(std::memory_order_acquire)) return false;
  if (more != 0) return true;
  if (!idle_step()) return false;
  if (get_thread_status() == STATUS_RUNNING) idle_sleep(ticket);
  return true;
}

// Answers a pending pause or stop. False: stopped, and the object may be gone already.
bool vorlan_socket_thread::idle_step() {
  if (get_thread_status() == STATUS_RUNNING) return true;
  if (change_status(STATUS_STOP_PENDING, STATUS_STOPPED)) return false;
  change_status(STATUS_PAUSE_PENDING, STATUS_PAUSED);
  return true;
}

void vorlan_socket_thread::idle_sleep(std::uint32_t ticket) {
  const int limit_us = m_next_idle_limit_us.load(std::memory_order_relaxed);
  if (limit_us >= 0) m_next_idle_limit_us.store(-1, std::memory_order_relaxed);
  if (!m_sleep_when_idle.load(std::memory_order_acquire)) return;
  const int mode = m_idle_mode.load(std::memory_order_acquire);
  if (mode == IDLE_POLL) {
    thread_sleep();
  } else if (limit_us >= 0) {
    m_wake.wait(ticket, std::chrono::microseconds(limit_us));
  } else if (mode == IDLE_WAKE && m_idle_wait != nullptr) {
    m_idle_wait(m_argument, ticket);
  } else if (mode == IDLE_WAKE) {
    m_wake.wait(ticket, std::chrono::nanoseconds(-1));
  } else {
    m_wake.wait(ticket, std::chrono::microseconds(m_wait_us.load(std::memory_order_acquire)));
  }
}

bool vorlan_socket_thread::change_status(socket_thread_status from, socket_thread_status to) {
  return m_status.compare_exchange_strong(from, to, std::memory_order_acq_rel);
}

// The present thread, if there is one, leaves at its next step; waits until it has, unless it is
// the caller.
void vorlan_socket_thread::retire_run() {
  std::shared_ptr<run> current;
  {
    const mutex_locker guard(m_run_lock);
    current.swap(m_run);
  }
  if (current == nullptr) return;
  current->superseded.store(true, std::memory_order_release);
  m_wake.notify();
  if (is_same_thread()) return;
  while (!current->left.load(std::memory_order_acquire)) vl_sleep(k_control_poll_ms);
}

}  // namespace SOCK
}  // namespace VORLAN
