#include "tests/faults/process_state.h"

#include <unistd.h>  // sysconf

#include <fstream>  // std::ifstream

#include "tests/support/process_view.h"

namespace kav_faults {

process_state state_of_process() {
  process_state state;
  state.descriptors = kav_test::open_descriptors();
  state.threads = kav_test::threads().size();
  std::uint64_t all = 0;
  std::ifstream{"/proc/self/statm"} >> all >> state.resident_kib;
  state.resident_kib *= static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE)) / 1024;
  return state;
}

}  // namespace kav_faults
