#include "tests/faults/time_lapse.h"

#include <dlfcn.h>        // dlsym
#include <linux/futex.h>  // FUTEX_WAIT_PRIVATE
#include <sys/syscall.h>  // SYS_futex
#include <unistd.h>       // usleep

#include <atomic>   // std::atomic
#include <cerrno>   // errno
#include <chrono>   // std::chrono::steady_clock
#include <cstdarg>  // va_list
#include <ctime>    // clock_gettime, nanosleep

namespace kav_faults {
namespace {

constexpr long k_second_ns = 1'000'000'000;
constexpr long k_slice_ns = 10'000'000;  // a wait that began before the lapse hears of it so late

std::atomic<long> g_factor{1};
// What the clock shows is g_shown plus the time since g_real, g_factor times; changed while no
// other thread is about to compare times that are more than one change apart.
std::atomic<long> g_real{0}, g_shown{0};
std::atomic<unsigned> g_changes{0};  // odd: under way

long real_ns() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * k_second_ns + now.tv_nsec;
}

long shown_ns() {
  for (;;) {
    const unsigned before = g_changes.load();
    const long shown = g_shown.load() + (real_ns() - g_real.load()) * g_factor.load();
    if (before % 2 == 0 && g_changes.load() == before) return shown;
  }
}

void set_factor(long factor) {
  const long shown = shown_ns();
  ++g_changes;
  g_real.store(real_ns());
  g_shown.store(shown);
  g_factor.store(factor);
  ++g_changes;
}

timespec spec_of(long ns) { return {ns / k_second_ns, ns % k_second_ns}; }

}  // namespace

time_lapse::time_lapse(long factor) { set_factor(factor); }
time_lapse::~time_lapse() { set_factor(1); }

}  // namespace kav_faults

std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
  return time_point{nanoseconds{kav_faults::shown_ns()}};
}

extern "C" {

int usleep(useconds_t us) {
  const timespec time = kav_faults::spec_of(long{us} * 1000 / kav_faults::g_factor.load());
  return ::nanosleep(&time, nullptr);
}

// A futex wait with a time limit is made of short ones, so that it ends when the clock says so.
// Like the C library it hands on six arguments, however many the caller gave.
__attribute__((no_sanitize("address"))) long syscall(long number, ...) noexcept {
  using function = long (*)(long, ...);
  static const auto next = reinterpret_cast<function>(::dlsym(RTLD_NEXT, "syscall"));
  va_list list;
  va_start(list, number);
  long a[6];
  for (long& argument : a) argument = va_arg(list, long);
  va_end(list);
  // NOLINTNEXTLINE(performance-no-int-to-ptr): that is how system calls take pointers
  const auto* const limit = reinterpret_cast<const timespec*>(a[3]);
  if (number != SYS_futex || a[1] != FUTEX_WAIT_PRIVATE || limit == nullptr) {
    return next(number, a[0], a[1], a[2], a[3], a[4], a[5]);
  }
  const long end =
      kav_faults::shown_ns() + limit->tv_sec * kav_faults::k_second_ns + limit->tv_nsec;
  for (;;) {
    const long left = (end - kav_faults::shown_ns()) / kav_faults::g_factor.load();
    const bool last = left <= kav_faults::k_slice_ns;
    const timespec slice =
        kav_faults::spec_of(last ? (left > 0 ? left : 0) : kav_faults::k_slice_ns);
    const long result = next(number, a[0], a[1], a[2], &slice, a[4], a[5]);
    if (last || result == 0 || errno != ETIMEDOUT) return result;
  }
}

}  // extern "C"
