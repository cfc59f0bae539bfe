#include "apps/plot/gnuplot.h"

#include <fmt/format.h>
#include <spawn.h>     // posix_spawnp
#include <sys/mman.h>  // memfd_create
#include <sys/wait.h>  // waitpid
#include <unistd.h>    // write, pread, close

#include <algorithm>     // std::replace
#include <cerrno>        // errno
#include <cstring>       // std::strerror
#include <system_error>  // std::system_error

#include "apps/watch/text_safety.h"

namespace kav_plot {
namespace {

constexpr std::size_t k_most_complaint = 500;  // bytes of it that are shown

// A file in memory: as long as it needs to be, so that neither side waits for the other.
class memory_file {
 public:
  explicit memory_file(const char* name) : m_fd(::memfd_create(name, MFD_CLOEXEC)) {
    if (m_fd < 0) throw std::system_error(errno, std::generic_category(), "memfd_create");
  }
  ~memory_file() { ::close(m_fd); }
  memory_file(const memory_file&) = delete;
  memory_file& operator=(const memory_file&) = delete;

  int fd() const { return m_fd; }
  void fill(const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
      const ssize_t written = ::write(m_fd, text.data() + done, text.size() - done);
      if (written < 0) throw std::system_error(errno, std::generic_category(), "write");
      done += static_cast<std::size_t>(written);
    }
    ::lseek(m_fd, 0, SEEK_SET);
  }
  std::string begin() const {
    std::string text(k_most_complaint, '\0');
    const ssize_t length = ::pread(m_fd, text.data(), text.size(), 0);
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return text;
  }

 private:
  const int m_fd;
};

int spawn(const memory_file& script, const memory_file& complaints, pid_t& pid) {
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, script.fd(), STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, complaints.fd(), STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, complaints.fd(), STDERR_FILENO);
  char name[] = "gnuplot", defaults[] = "-d";  // nobody's own settings
  char* const arguments[] = {name, defaults, nullptr};
  const int error = ::posix_spawnp(&pid, name, &actions, nullptr, arguments, environ);
  ::posix_spawn_file_actions_destroy(&actions);
  return error;
}

int wait_for(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
  return status;
}

std::string on_one_line(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  const std::size_t begin = text.find_first_not_of(' ');
  return begin == std::string::npos ? "" : kav_watch::printable_text(text.substr(begin));
}

}  // namespace

outcome run_gnuplot(const std::string& script) {
  memory_file input{"script"};
  const memory_file complaints{"complaints"};
  input.fill(script);
  pid_t pid = 0;
  if (const int error = spawn(input, complaints, pid); error != 0) {
    return {exit_status::no_gnuplot,
            fmt::format("cannot start gnuplot: {}; install it, on Debian with: apt-get install "
                        "gnuplot-nox",
                        std::strerror(error))};
  }
  if (wait_for(pid) == 0) return {};
  return {exit_status::no_gnuplot,
          fmt::format("gnuplot failed: {}", on_one_line(complaints.begin()))};
}

}  // namespace kav_plot
