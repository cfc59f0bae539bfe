// Buffered lines on their way to a file, a pipe or a terminal.
#pragma once

#include <fmt/format.h>  // fmt::memory_buffer

#include <chrono>   // std::chrono::milliseconds
#include <cstddef>  // std::size_t
#include <string>   // std::string

#include "apps/watch/outcome.h"

namespace kav_watch {

enum class write_result {
  written,
  reader_gone,  // the other end of the pipe is closed
  failed,       // error_text() says why
  interrupted,  // something is to be read from the interrupting descriptor, or the time is up
};

// Main thread only. Descriptors are not owned.
class output_stream {
 public:
  // A write that would block ends early when `interrupt_fd` becomes readable.
  output_stream(int fd, int interrupt_fd);

  fmt::memory_buffer& buffer() { return m_buffer; }
  bool is_full() const { return m_buffer.size() >= k_buffer_bytes; }
  // Writes what is in the buffer, and is interrupted when it has waited so long for the reader;
  // what could not be written stays in it.
  write_result flush(std::chrono::milliseconds longest_wait = k_for_ever);
  // The same, deaf to interruptions, for `limit` at most.
  write_result flush_for(std::chrono::milliseconds limit);
  std::string error_text() const;

  static constexpr std::size_t k_buffer_bytes = 1 << 20;
  static constexpr std::chrono::milliseconds k_for_ever{-1};

 private:
  write_result wait_writable(int interrupt_fd, int timeout_ms) const;
  write_result write_some(std::size_t& done);

  const int m_fd;
  const int m_interrupt_fd;
  const std::size_t m_chunk_bytes;  // what one write() may take without blocking
  int m_error = 0;
  fmt::memory_buffer m_buffer;
};

// Writes a text that ends the program, such as its help; a slow reader has 2 s.
outcome print_text(const std::string& text, int fd, int interrupt_fd);

}  // namespace kav_watch
