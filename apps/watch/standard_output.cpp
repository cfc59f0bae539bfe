#include "apps/watch/standard_output.h"

#include <fcntl.h>   // fcntl, O_CLOEXEC
#include <unistd.h>  // dup2, pipe2, read

#include <cerrno>        // errno
#include <cstdio>        // std::setvbuf
#include <system_error>  // std::system_error

namespace kav_watch {
namespace {

constexpr std::size_t k_longest_line = 4096;  // cut there: nobody reads more in a status line
constexpr int k_first_free_fd = 3;            // never one that counts as a standard stream

// The rest of the program may rely on descriptors 0 and 2 being taken.
void fill_with_null(int fd) {
  if (::fcntl(fd, F_GETFD) >= 0) return;
  const int null_fd = ::open("/dev/null", O_RDWR);
  if (null_fd < 0 || null_fd == fd) return;
  ::dup2(null_fd, fd);
  ::close(null_fd);
}

}  // namespace

standard_output::standard_output()
    : m_real(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, k_first_free_fd)) {
  if (m_real < 0) throw std::system_error(errno, std::generic_category(), "standard output");
  fill_with_null(STDIN_FILENO);
  fill_with_null(STDERR_FILENO);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  lead_strays_nowhere();
}

standard_output::~standard_output() {
  lead_strays_nowhere();
  ::close(m_real);
}

bool standard_output::is_terminal() const { return ::isatty(m_real) == 1; }

void standard_output::lead_strays_to_pipe() {
  int ends[2];
  // Non-blocking on both ends: a full pipe costs lines, never the library's time.
  if (::pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) return;
  ::dup2(ends[1], STDOUT_FILENO);
  ::close(ends[1]);
  m_pipe_read = ends[0];
}

void standard_output::lead_strays_to_stderr() {
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
  close_pipe();
}

void standard_output::lead_strays_nowhere() {
  const int null_fd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null_fd < 0) return lead_strays_to_stderr();
  ::dup2(null_fd, STDOUT_FILENO);
  ::close(null_fd);
  close_pipe();
}

void standard_output::close_pipe() {
  if (m_pipe_read >= 0) ::close(m_pipe_read);
  m_pipe_read = -1;
}

std::vector<std::string> standard_output::take_strays() {
  char bytes[4096];
  const ssize_t length = m_pipe_read < 0 ? 0 : ::read(m_pipe_read, bytes, sizeof(bytes));
  std::vector<std::string> lines;
  for (ssize_t i = 0; i < length; ++i) {
    if (bytes[i] == '\n') {
      lines.push_back(std::move(m_partial));
      m_partial.clear();
    } else if (m_partial.size() < k_longest_line) {
      m_partial += bytes[i];
    }
  }
  return lines;
}

}  // namespace kav_watch
