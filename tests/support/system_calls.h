// The test program's own pthread_create() and usleep(), which the library calls as well: lets
// tests make thread creation fail and see how long a thread would have slept.
#pragma once

#include <csignal>  // sigset_t
#include <vector>   // std::vector

namespace kav_test {

// While it lives, no thread can be created. One at a time.
class failing_thread_creation {
 public:
  failing_thread_creation();
  failing_thread_creation(const failing_thread_creation&) = delete;
  failing_thread_creation& operator=(const failing_thread_creation&) = delete;
  ~failing_thread_creation();
};

// The signals that the calling thread had blocked when it last created one.
sigset_t mask_at_last_creation();

// From now on usleep() on the calling thread only appends its microseconds to `sleeps`; null ends
// that.
void record_sleeps(std::vector<unsigned>* sleeps);

}  // namespace kav_test
