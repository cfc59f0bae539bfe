// A file that exists in memory only, for readers that want a path.
#pragma once

#include <sys/mman.h>  // memfd_create
#include <unistd.h>    // close, pwrite, ftruncate

#include <string>  // std::string

#include "tests/fuzz/check.h"

namespace kav_fuzz {

class memory_file {
 public:
  explicit memory_file(const std::string& bytes)
      : m_descriptor(::memfd_create("kav-fuzz", MFD_CLOEXEC)) {
    KAV_CHECK(m_descriptor >= 0);
    const ssize_t written = ::pwrite(m_descriptor, bytes.data(), bytes.size(), 0);
    KAV_CHECK(written == static_cast<ssize_t>(bytes.size()));
  }
  memory_file(const memory_file&) = delete;
  memory_file& operator=(const memory_file&) = delete;
  ~memory_file() { ::close(m_descriptor); }

  std::string path() const { return "/proc/self/fd/" + std::to_string(m_descriptor); }

 private:
  const int m_descriptor;
};

}  // namespace kav_fuzz
