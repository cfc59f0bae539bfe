// Threads of the socket layer: a few functions around POSIX threads, and a loop that other threads
// start, pause and stop.
#pragma once

#include <atomic>  // std::atomic
#include <memory>  // std::shared_ptr
#include <string>  // std::string

#include "sock/wake_event.h"
#include "tools/locks.h"

namespace VORLAN {
namespace SOCK {

// Creates a detached thread. Its id is returned and stored in `id`, 0 when that failed. The thread
// leaves the host's asynchronous signals (SIGINT, SIGTERM, SIGALRM, SIGCHLD, ...) to the host's
// own threads; profiling signals and crash handlers work in it.
unsigned long vl_create_thread(void* (*routine)(void*), void* arg, unsigned long& id);
// Do nothing and return 0.
int vl_suspend_thread(unsigned long id);
int vl_resume_thread(unsigned long id);
// pthread_cancel(), whose result it returns. The caller answers for what the thread was doing.
int vl_close_thread(unsigned long id);
// Sleeps `ms` milliseconds, held at what usleep() can count (about 71 minutes).
void vl_sleep(unsigned ms);
// Gives the calling thread the name that a debugger and `top -H` show (15 characters at most).
void vl_name_thread(const char* name);

enum socket_thread_status : int {
  STATUS_INIT = 0,           // constructed, or created and not yet released
  STATUS_RUNNING = 1,        // calls the function over and over
  STATUS_PAUSED = 2,         // only sleeps
  STATUS_PAUSE_PENDING = 3,  // asked to pause at its next idle return
  STATUS_STOPPED = 4,        // has ended, or is ending and calls the function no more
  STATUS_STOP_PENDING = 5,   // asked to stop at its next idle return
  STATUS_DESTROYED = 6,      // the object is gone
};

// How a loop waits when its function has nothing to do.
enum socket_thread_idle : int {
  IDLE_POLL = 0,      // sleeps the set wait and asks again
  IDLE_WAKE = 1,      // sleeps until wake()
  IDLE_WAKE_OR_WAIT,  // sleeps until wake(), the set wait at most
};

// Runs one function over and over on a detached thread.
//
// Threads:   start(), pause() and stop() by one controlling thread at a time, or by the function
//            itself; wake() and the getters by any. A pause or stop asked for by another thread
//            takes effect when the function returns 0 (idle), without a time limit.
// Shutdown:  the destructor stops the loop and waits until its thread has left this object.
// Ownership: function and argument stay the caller's.
class vorlan_socket_thread {
 public:
  vorlan_socket_thread();
  vorlan_socket_thread(const vorlan_socket_thread&) = delete;
  vorlan_socket_thread& operator=(const vorlan_socket_thread&) = delete;
  virtual ~vorlan_socket_thread();
  // The name under which the system shows the thread; empty: "kav-thread".
  virtual std::string get_thread_name();

  // `fn` returns 0 when it is idle, anything else when there is more work at once. Before start().
  void register_function(int (*fn)(void*), void* arg, bool sleep_when_idle);
  // Microseconds to sleep when idle; a negative value counts as 0.
  void set_thread_wait_micro_sec(int us);
  // Before start(). Polling is the default.
  void set_idle_mode(socket_thread_idle mode);
  // In place of the idle sleep of IDLE_WAKE: `wait`, called with the function's argument and the
  // ticket of wake_word(), returns at the latest when that is notified. Before start().
  void set_idle_wait(void (*wait)(void* arg, std::uint32_t ticket));
  wake_event& wake_word() { return m_wake; }
  // Ends an idle sleep of the two waking modes, or keeps the next one from beginning.
  void wake();
  // By the function: its next idle sleep lasts `us` microseconds at most.
  void limit_next_idle_sleep(int us);

  socket_thread_status get_thread_status() const;
  void set_thread_status(socket_thread_status status);
  unsigned long get_thread_id() const;
  // Is the caller the wrapped thread?
  bool is_same_thread() const;

  // True: running, or no thread could be created: the id is 0 then, and the next start() tries
  // again. False: called by the wrapped thread itself, or a stop is pending.
  bool start();
  void start_spt_thread();
  // True: paused (or, called by the wrapped thread, pausing when the function returns).
  bool pause();
  // True always. By another thread: the function has returned for the last time.
  bool stop();

  // Sleeps as described: below 1,000 us exactly, up to 10,000 us in whole milliseconds, above in
  // slices of 10 ms that end when a pause or a stop is asked for.
  void break_sleep(int us);
  void thread_sleep();

  // The thread's body; `arg` is the wrapper. Returns null.
  static void* run_thread(void* arg);

 private:
  // What a thread and its wrapper share; outlives both.
  struct run {
    std::atomic<bool> superseded{false};  // a newer thread runs the loop, or the wrapper is gone
    std::atomic<bool> left{false};        // the thread touches the wrapper no more
  };
  struct run_start;
  static void* run_entry(void* start);

  unsigned long create_run();
  void name_this_thread();
  void run_loop(run& current);
  // Both false when the thread has to leave without touching the object again.
  bool run_sleeping_step(const run& current);
  bool run_working_step(run& current);
  bool idle_step();
  void idle_sleep(std::uint32_t ticket);
  bool request(socket_thread_status from, socket_thread_status to);
  bool change_status(socket_thread_status from, socket_thread_status to);
  void retire_run();

  // Set before start(), constant while the thread runs.
  int (*m_function)(void*) = nullptr;
  void* m_argument = nullptr;
  void (*m_idle_wait)(void*, std::uint32_t) = nullptr;
  // Any thread.
  std::atomic<unsigned long> m_thread_id{0};
  std::atomic<socket_thread_status> m_status{STATUS_INIT};
  std::atomic<int> m_wait_us{1};
  std::atomic<bool> m_sleep_when_idle{false};
  std::atomic<int> m_idle_mode{IDLE_POLL};
  std::atomic<int> m_next_idle_limit_us{-1};   // -1: none; set and used by the wrapped thread
  std::atomic<bool> m_creation_failed{false};  // nobody will answer a pause or a stop
  wake_event m_wake;
  VORLAN::TOOLS::mutex_lock m_run_lock;
  std::shared_ptr<run> m_run KAV_GUARDED_BY(m_run_lock);
};

}  // namespace SOCK
}  // namespace VORLAN
