#include "tests/chaos/remains.h"

#include <fmt/format.h>
#include <malloc.h>  // mallinfo2
#include <unistd.h>  // sysconf

#include <fstream>  // std::ifstream

#include "tests/support/process_view.h"
#include "tests/support/wait_until.h"

namespace kav_chaos {
namespace {

// The heap at the end, above that at the beginning: what libraries keep once, the caches of a few
// hundred threads' arenas, and nothing that grows with each life.
constexpr std::size_t k_heap_once = 4u << 20;
constexpr std::size_t k_heap_per_life = 64;

std::size_t resident_kb() {
  std::ifstream statm("/proc/self/statm");
  std::size_t all = 0, resident = 0;
  statm >> all >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) / 1024;
}

}  // namespace

remains look_at_process() {
  return {kav_test::open_descriptors(), kav_test::library_threads(), ::mallinfo2().uordblks,
          resident_kb()};
}

std::vector<std::string> left_behind(const remains& before, std::size_t lives,
                                     std::chrono::milliseconds limit) {
  wait_until(
      [&] {
        const remains now = look_at_process();
        return now.threads.empty() && now.descriptors == before.descriptors;
      },
      limit);
  const remains now = look_at_process();
  std::vector<std::string> left;
  if (!now.threads.empty()) {
    left.push_back(fmt::format("{} threads of the library are left: {}", now.threads.size(),
                               fmt::join(now.threads, ", ")));
  }
  if (now.descriptors != before.descriptors) {
    left.push_back(
        fmt::format("{} descriptors are open instead of {}", now.descriptors, before.descriptors));
  }
  if (now.heap_bytes > before.heap_bytes + k_heap_once + k_heap_per_life * lives) {
    left.push_back(
        fmt::format("the heap has grown from {} to {} bytes", before.heap_bytes, now.heap_bytes));
  }
  return left;
}

}  // namespace kav_chaos
