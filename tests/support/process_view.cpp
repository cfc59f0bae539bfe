#include "tests/support/process_view.h"

#include <fcntl.h>    // fcntl
#include <pthread.h>  // pthread_getname_np

#include <algorithm>   // std::sort
#include <ctime>       // clock_gettime
#include <filesystem>  // std::filesystem::directory_iterator
#include <fstream>     // std::ifstream

namespace kav_test {
namespace {

// False: the thread has ended meanwhile.
bool load_thread(const std::filesystem::path& folder, thread_view& view) {
  std::ifstream status(folder / "status");
  bool complete = false;
  for (std::string key, line; status >> key && std::getline(status, line);) {
    const std::size_t start = line.find_first_not_of(" \t");
    const std::string value = start == std::string::npos ? "" : line.substr(start);
    if (key == "Name:") view.name = value;
    if (key == "State:" && !value.empty() && (value[0] == 'Z' || value[0] == 'X')) return false;
    if (key != "SigBlk:") continue;
    view.blocked_signals = std::stoull(value, nullptr, 16);
    complete = true;
  }
  return complete;
}

}  // namespace

std::vector<thread_view> threads() {
  std::vector<thread_view> result;
  std::error_code error;
  std::filesystem::directory_iterator at("/proc/self/task", error);
  while (!error && at != std::filesystem::directory_iterator()) {
    thread_view view;
    if (load_thread(at->path(), view)) result.push_back(view);
    at.increment(error);
  }
  return result;
}

std::vector<thread_view> threads_named(const std::string& name) {
  std::vector<thread_view> result = threads();
  std::erase_if(result, [&](const thread_view& view) { return view.name != name; });
  return result;
}

std::vector<std::string> library_threads() {
  std::vector<std::string> names;
  for (const thread_view& view : threads()) {
    if (view.name.rfind("kav-", 0) == 0) names.push_back(view.name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string name_of_this_thread() {
  char name[16] = "";
  pthread_getname_np(pthread_self(), name, sizeof(name));
  return name;
}

std::size_t open_descriptors() {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    static_cast<void>(entry);
    ++count;
  }
  return count;
}

bool is_open_descriptor(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

std::chrono::milliseconds processor_time() {
  timespec now{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return std::chrono::milliseconds(now.tv_sec * 1000 + now.tv_nsec / 1'000'000);
}

}  // namespace kav_test
