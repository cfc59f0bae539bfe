// Ends the program when a life does not end.
#pragma once

#include <chrono>              // std::chrono::steady_clock
#include <condition_variable>  // std::condition_variable
#include <list>                // std::list
#include <mutex>               // std::mutex
#include <string>              // std::string
#include <thread>              // std::thread

#include "tests/chaos/script.h"

namespace kav_chaos {

// The names and states of all threads of this process, one to a line; with the kernel's stack where
// it may be read.
std::string describe_threads();

// A thread that looks after the lives that are going on. One that takes longer than the limit has
// its script printed, and all threads; then the program aborts, for a debugger or a core to look
// at.
class watchdog {
 public:
  // Until the end of this object a life is going on. The script outlives it.
  class watch {
   public:
    watch(watchdog& dog, const life_script& script);
    ~watch();
    watch(const watch&) = delete;
    watch& operator=(const watch&) = delete;

   private:
    friend class watchdog;
    watchdog& m_dog;
    const life_script& m_script;
    const std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
  };

  explicit watchdog(std::chrono::seconds limit);
  ~watchdog();
  watchdog(const watchdog&) = delete;
  watchdog& operator=(const watchdog&) = delete;

 private:
  void run();
  [[noreturn]] void bite(const watch& late) const;

  const std::chrono::seconds m_limit;
  std::mutex m_lock;
  std::condition_variable m_changed;
  // Protected by m_lock.
  bool m_done = false;
  std::list<const watch*> m_watched;
  std::thread m_thread;  // last: uses the members above
};

}  // namespace kav_chaos
