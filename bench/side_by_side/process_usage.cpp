#include "bench/side_by_side/process_usage.h"

#include <fcntl.h>         // open
#include <fmt/format.h>    // fmt::format
#include <sys/resource.h>  // getrusage
#include <unistd.h>        // read, sysconf

#include <cstdlib>     // strtoull
#include <ctime>       // clock_getcpuclockid
#include <filesystem>  // directory_iterator
#include <fstream>     // std::ifstream
#include <string>      // std::string

#include "bench/side_by_side/allocation_count.h"
#include "bench/side_by_side/stamped_quote.h"

namespace kav_bench {

namespace {

double seconds_of(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

// The second number of /proc/self/statm, pages, read without an allocation.
std::uint64_t own_resident_kib() {
  char text[128] = "";
  const int fd = ::open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  const ssize_t got = ::read(fd, text, sizeof text - 1);
  ::close(fd);
  if (got <= 0) return 0;
  char* rest = nullptr;
  std::strtoull(text, &rest, 10);
  const auto page_kib = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE)) / 1024;
  return std::strtoull(rest, nullptr, 10) * page_kib;
}

std::uint64_t field_of_status(const std::string& path, const std::string& name) {
  std::ifstream status{path};
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with(name + ":")) {
      return std::strtoull(line.c_str() + name.size() + 1, nullptr, 10);
    }
  }
  return 0;
}

}  // namespace

process_usage own_usage() {
  rusage used{};
  ::getrusage(RUSAGE_SELF, &used);
  process_usage usage;
  usage.cpu_seconds = seconds_of(used.ru_utime) + seconds_of(used.ru_stime);
  usage.voluntary = static_cast<std::uint64_t>(used.ru_nvcsw);
  usage.involuntary = static_cast<std::uint64_t>(used.ru_nivcsw);
  usage.resident_kib = own_resident_kib();
  usage.allocations = allocation_count();
  usage.at_ns = monotonic_ns();
  return usage;
}

std::optional<process_usage> usage_of(pid_t process) {
  clockid_t clock{};
  timespec used{};
  if (::clock_getcpuclockid(process, &clock) != 0 || ::clock_gettime(clock, &used) != 0) {
    return std::nullopt;
  }
  process_usage usage;
  usage.at_ns = monotonic_ns();
  usage.cpu_seconds = static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
  std::error_code error;
  const std::string tasks = fmt::format("/proc/{}/task", process);
  for (const auto& task : std::filesystem::directory_iterator{tasks, error}) {
    const std::string status = task.path().string() + "/status";
    usage.voluntary += field_of_status(status, "voluntary_ctxt_switches");
    usage.involuntary += field_of_status(status, "nonvoluntary_ctxt_switches");
  }
  usage.resident_kib = status_field(process, "VmRSS");
  return usage;
}

std::uint64_t status_field(pid_t process, const char* name) {
  return field_of_status(fmt::format("/proc/{}/status", process), name);
}

}  // namespace kav_bench
