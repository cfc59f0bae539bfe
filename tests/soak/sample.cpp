#include "tests/soak/sample.h"

#include <fmt/format.h>
#include <unistd.h>  // sysconf

#include <cerrno>   // errno
#include <cstring>  // strerror
#include <fstream>  // std::ifstream

#include "tests/support/process_view.h"

namespace kav_soak {

namespace {

std::uint64_t resident_kib() {
  std::uint64_t all = 0, resident = 0;
  std::ifstream{"/proc/self/statm"} >> all >> resident;
  return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE)) / 1024;
}

}  // namespace

sample look_at_process() {
  sample s;
  s.descriptors = kav_test::open_descriptors();
  s.threads = kav_test::threads().size();
  s.resident_kib = resident_kib();
  return s;
}

sample_file::~sample_file() {
  if (m_file != nullptr) std::fclose(m_file);
}

bool sample_file::open(const std::string& path) {
  m_path = path;
  if (path.empty()) return true;
  m_file = std::fopen(path.c_str(), "we");
  if (m_file == nullptr) return fail();
  fmt::print(m_file, "seconds,quotes,reconnections,descriptors,threads,resident_kib\n");
  return std::fflush(m_file) == 0 || fail();
}

bool sample_file::write(const sample& s) {
  if (m_file == nullptr) return m_path.empty();
  fmt::print(m_file, "{:.1f},{},{},{},{},{}\n", s.seconds, s.quotes, s.reconnections, s.descriptors,
             s.threads, s.resident_kib);
  return std::fflush(m_file) == 0 || fail();
}

bool sample_file::fail() {
  m_error = fmt::format("cannot write {}: {}", m_path, std::strerror(errno));
  return false;
}

}  // namespace kav_soak
