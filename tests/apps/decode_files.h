// Files of a test, deleted with it.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>  // getpid, unlink

#include <fstream>   // std::ofstream
#include <iterator>  // std::istreambuf_iterator
#include <string>    // std::string

#include "tests/apps/decode_packets.h"

namespace kav_decode_test {

class temporary_file {
 public:
  explicit temporary_file(const bytes& content = {}) {
    static int number = 0;
    m_path = fmt::format("{}kav_decode_{}_{}", testing::TempDir(), ::getpid(), ++number);
    std::ofstream file{m_path, std::ios::binary};
    for (const unsigned char byte : content) file.put(static_cast<char>(byte));
  }
  ~temporary_file() { ::unlink(m_path.c_str()); }
  temporary_file(const temporary_file&) = delete;
  temporary_file& operator=(const temporary_file&) = delete;

  const std::string& path() const { return m_path; }
  std::string text() const {
    std::ifstream file{m_path, std::ios::binary};
    return {std::istreambuf_iterator<char>{file}, {}};
  }

 private:
  std::string m_path;
};

}  // namespace kav_decode_test
