// What the system shows of this process: its threads, its descriptors, its processor time.
#pragma once

#include <chrono>  // std::chrono::milliseconds
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kav_test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool k_sanitized = true;
#else
constexpr bool k_sanitized = false;
#endif

struct thread_view {
  std::string name;
  std::uint64_t blocked_signals = 0;  // bit n - 1: signal n
  bool blocks(int signal) const { return ((blocked_signals >> (signal - 1)) & 1) != 0; }
};

std::vector<thread_view> threads();
std::vector<thread_view> threads_named(const std::string& name);
// Names of the library's threads only ("kav-..."), sorted.
std::vector<std::string> library_threads();
std::string name_of_this_thread();

std::size_t open_descriptors();
bool is_open_descriptor(int fd);

std::chrono::milliseconds processor_time();

}  // namespace kav_test
