// Bytes with nothing behind them.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>  // mmap, mprotect
#include <unistd.h>    // sysconf

#include <cstddef>  // std::size_t
#include <cstring>  // memcpy
#include <string>   // std::string

namespace kav_test {

// A copy that ends where a page begins that may not be touched: a read behind it ends the program,
// with a sanitizer or without.
class guarded_bytes {
 public:
  explicit guarded_bytes(const std::string& bytes) : m_size(bytes.size()) {
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t room = (m_size + page - 1) / page * page;
    m_length = room + page;
    m_memory =
        ::mmap(nullptr, m_length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(MAP_FAILED, m_memory);
    m_data = static_cast<char*>(m_memory) + room - m_size;
    EXPECT_EQ(0, ::mprotect(static_cast<char*>(m_memory) + room, page, PROT_NONE));
    if (m_size > 0) std::memcpy(m_data, bytes.data(), m_size);
  }
  guarded_bytes(const guarded_bytes&) = delete;
  guarded_bytes& operator=(const guarded_bytes&) = delete;
  ~guarded_bytes() { ::munmap(m_memory, m_length); }
  char* data() { return m_data; }
  unsigned size() const { return static_cast<unsigned>(m_size); }

 private:
  const std::size_t m_size;
  std::size_t m_length = 0;
  void* m_memory = nullptr;
  char* m_data = nullptr;
};

}  // namespace kav_test
