#include "tests/support/system_calls.h"

#include <dlfcn.h>    // dlsym
#include <pthread.h>  // pthread_create
#include <unistd.h>   // usleep

#include <atomic>  // std::atomic
#include <cerrno>  // EAGAIN
#include <ctime>   // nanosleep

namespace kav_test {
namespace {

std::atomic<bool> g_thread_creation_fails{false};
thread_local std::vector<unsigned>* t_sleeps = nullptr;
thread_local sigset_t t_mask_at_last_creation{};

}  // namespace

failing_thread_creation::failing_thread_creation() { g_thread_creation_fails.store(true); }
failing_thread_creation::~failing_thread_creation() { g_thread_creation_fails.store(false); }

sigset_t mask_at_last_creation() { return t_mask_at_last_creation; }

void record_sleeps(std::vector<unsigned>* sleeps) { t_sleeps = sleeps; }

}  // namespace kav_test

extern "C" {

int pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*routine)(void*),
                   void* arg) noexcept {
  using function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto next = reinterpret_cast<function>(::dlsym(RTLD_NEXT, "pthread_create"));
  if (kav_test::g_thread_creation_fails.load()) return EAGAIN;
  pthread_sigmask(SIG_BLOCK, nullptr, &kav_test::t_mask_at_last_creation);
  return next(id, attributes, routine, arg);
}

int usleep(useconds_t us) {
  if (kav_test::t_sleeps != nullptr) {
    kav_test::t_sleeps->push_back(us);
    return 0;
  }
  timespec time{};
  time.tv_sec = us / 1'000'000;
  time.tv_nsec = static_cast<long>(us % 1'000'000) * 1000;
  return ::nanosleep(&time, nullptr);
}

}  // extern "C"
