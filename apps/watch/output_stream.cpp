#include "apps/watch/output_stream.h"

#include <limits.h>    // PIPE_BUF
#include <poll.h>      // poll
#include <sys/stat.h>  // fstat
#include <unistd.h>    // write

#include <algorithm>     // std::min, std::max
#include <cerrno>        // errno
#include <cstring>       // std::memmove
#include <system_error>  // std::generic_category

namespace kav_watch {
namespace {

// A pipe that is ready takes PIPE_BUF bytes at once; more might block. Files never do.
std::size_t chunk_bytes(int fd) {
  struct stat info {};
  const bool file = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
  return file ? output_stream::k_buffer_bytes : PIPE_BUF;
}

void drop_front(fmt::memory_buffer& buffer, std::size_t bytes) {
  if (bytes == 0) return;
  std::memmove(buffer.data(), buffer.data() + bytes, buffer.size() - bytes);
  buffer.resize(buffer.size() - bytes);
}

constexpr std::chrono::seconds k_text_wait{2};

}  // namespace

output_stream::output_stream(int fd, int interrupt_fd)
    : m_fd(fd), m_interrupt_fd(interrupt_fd), m_chunk_bytes(chunk_bytes(fd)) {}

write_result output_stream::wait_writable(int interrupt_fd, int timeout_ms) const {
  pollfd fds[] = {{m_fd, POLLOUT, 0}, {interrupt_fd, POLLIN, 0}};
  const int ready = ::poll(fds, 2, timeout_ms);
  if (ready < 0) return errno == EINTR ? write_result::written : write_result::interrupted;
  if (fds[0].revents != 0) return write_result::written;  // errors show in write()
  return write_result::interrupted;
}

write_result output_stream::write_some(std::size_t& done) {
  const std::size_t length = std::min(m_chunk_bytes, m_buffer.size() - done);
  const ssize_t taken = ::write(m_fd, m_buffer.data() + done, length);
  if (taken >= 0) {
    done += static_cast<std::size_t>(taken);
    return write_result::written;
  }
  if (errno == EINTR || errno == EAGAIN) return write_result::written;  // the next turn waits
  m_error = errno;
  return errno == EPIPE ? write_result::reader_gone : write_result::failed;
}

write_result output_stream::flush(std::chrono::milliseconds longest_wait) {
  std::size_t done = 0;
  write_result result = write_result::written;
  while (done < m_buffer.size() && result == write_result::written) {
    result = wait_writable(m_interrupt_fd, static_cast<int>(longest_wait.count()));
    if (result == write_result::written) result = write_some(done);
  }
  drop_front(m_buffer, done);
  return result;
}

write_result output_stream::flush_for(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::size_t done = 0;
  write_result result = write_result::written;
  while (done < m_buffer.size() && result == write_result::written) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    result = wait_writable(
        -1, static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0)));
    if (result == write_result::written) result = write_some(done);
  }
  drop_front(m_buffer, done);
  return result;
}

std::string output_stream::error_text() const { return std::generic_category().message(m_error); }

outcome print_text(const std::string& text, int fd, int interrupt_fd) {
  output_stream stream{fd, interrupt_fd};
  stream.buffer().append(text);
  if (stream.flush_for(k_text_wait) != write_result::failed) return {};
  return {exit_status::write_failed, "cannot write the output: " + stream.error_text()};
}

}  // namespace kav_watch
