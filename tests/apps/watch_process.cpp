#include "watch_process.h"

#include <fcntl.h>         // open
#include <gtest/gtest.h>   // EXPECT_EQ
#include <poll.h>          // poll
#include <pty.h>           // forkpty
#include <signal.h>        // kill
#include <sys/ioctl.h>     // TIOCSWINSZ
#include <sys/resource.h>  // setrlimit
#include <sys/wait.h>      // waitpid
#include <unistd.h>        // fork, execv

#include <algorithm>  // std::count
#include <cstdlib>    // setenv
#include <fstream>    // std::ifstream
#include <iterator>   // std::istreambuf_iterator
#include <sstream>    // std::istringstream
#include <stdexcept>  // std::runtime_error

namespace kav_watch_test {

std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream{text};
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

child_process::child_process(const child_options& options) {
  if (::pipe2(m_stop_pipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  if (options.standard_output == child_stdout::terminal) {
    start_in_terminal(options);
  } else {
    start_in_pipe(options);
  }
  if (options.read_output)
    m_output_collector = std::thread([this] { collect(m_output_fd, m_output); });
  m_error_collector = std::thread([this] { collect(m_error_fd, m_errors); });
}

child_process::~child_process() {
  if (is_running()) {
    ::kill(m_pid, SIGKILL);
    reap(0);
  }
  ::close(m_stop_pipe[1]);
  if (m_output_collector.joinable()) m_output_collector.join();
  m_error_collector.join();
  for (const int fd : {m_output_fd, m_error_fd, m_stop_pipe[0]}) {
    if (fd >= 0) ::close(fd);
  }
}

void child_process::start_in_pipe(const child_options& options) {
  int output[2], errors[2];
  if (::pipe2(output, O_CLOEXEC) != 0 || ::pipe2(errors, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe2");
  }
  m_pid = ::fork();
  if (m_pid < 0) throw std::runtime_error("fork");
  if (m_pid == 0) {
    const bool file = !options.output_path.empty();
    const int target =
        file ? ::open(options.output_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600) : output[1];
    ::dup2(target, STDOUT_FILENO);
    ::dup2(errors[1], STDERR_FILENO);
    ::dup2(::open("/dev/null", O_RDONLY), STDIN_FILENO);
    run_child(options);
  }
  ::close(output[1]);
  ::close(errors[1]);
  m_output_fd = output[0];
  m_error_fd = errors[0];
}

void child_process::start_in_terminal(const child_options& options) {
  int errors[2];
  if (::pipe2(errors, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  winsize size{options.rows, options.columns, 0, 0};
  m_pid = ::forkpty(&m_output_fd, nullptr, nullptr, &size);
  if (m_pid < 0) throw std::runtime_error("forkpty");
  if (m_pid == 0) {
    ::setenv("TERM", "xterm", 1);
    ::dup2(errors[1], STDERR_FILENO);
    run_child(options);
  }
  ::close(errors[1]);
  m_error_fd = errors[0];
}

void child_process::run_child(const child_options& options) {
  if (options.environment_password) {
    ::setenv("KAV_PASSWORD", options.environment_password->c_str(), 1);
  } else {
    ::unsetenv("KAV_PASSWORD");
  }
  if (options.most_file_bytes) {
    const rlimit limit{*options.most_file_bytes, *options.most_file_bytes};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  const char* const program =
      options.program.empty() ? KAV_TESTED_PROGRAM : options.program.c_str();
  std::vector<char*> argv{const_cast<char*>(program)};
  for (const std::string& argument : options.arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  ::execv(program, argv.data());
  ::_exit(127);
}

void child_process::collect(int fd, std::string& into) {
  char bytes[65536];
  while (true) {
    pollfd fds[] = {{fd, POLLIN, 0}, {m_stop_pipe[0], 0, 0}};
    ::poll(fds, 2, -1);
    if (fds[1].revents != 0 && (fds[0].revents & POLLIN) == 0) return;
    const ssize_t length = ::read(fd, bytes, sizeof(bytes));
    if (length <= 0) return;  // a terminal without child fails
    const std::lock_guard lock(m_lock);
    into.append(bytes, static_cast<std::size_t>(length));
  }
}

void child_process::send_signal(int number) const { ::kill(m_pid, number); }

void child_process::press(const std::string& keys) const {
  if (::write(m_output_fd, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
    throw std::runtime_error("write to the terminal");
  }
}

void child_process::resize(unsigned short rows, unsigned short columns) const {
  const winsize size{rows, columns, 0, 0};
  ::ioctl(m_output_fd, TIOCSWINSZ, &size);
}

void child_process::close_output() {
  ::close(m_output_fd);
  m_output_fd = -1;
}

std::string child_process::output() const {
  const std::lock_guard lock(m_lock);
  return m_output;
}

std::string child_process::line(std::size_t number) const {
  std::string text;
  const auto is_whole = [&] {
    text = output();
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) > number;
  };
  return wait_until(is_whole) ? split_lines(text)[number] : "";
}

std::string child_process::errors() const {
  const std::lock_guard lock(m_lock);
  return m_errors;
}

std::string child_process::proc_file(const std::string& name) const {
  std::ifstream file{"/proc/" + std::to_string(m_pid) + "/" + name, std::ios::binary};
  return {std::istreambuf_iterator<char>{file}, {}};
}

void child_process::reap(int flags) {
  int status = 0;
  if (!m_raw_status && ::waitpid(m_pid, &status, flags) == m_pid) m_raw_status = status;
}

bool child_process::is_running() {
  reap(WNOHANG);
  return !m_raw_status;
}

std::optional<int> child_process::wait() {
  if (!wait_until([this] { return !is_running(); })) return std::nullopt;
  // What the child wrote before its end is complete when the collectors have seen the end.
  if (m_output_collector.joinable()) m_output_collector.join();
  m_error_collector.join();
  m_error_collector = std::thread([] {});
  if (!WIFEXITED(*m_raw_status)) return std::nullopt;
  return WEXITSTATUS(*m_raw_status);
}

void expect_end(child_process& child, int status) {
  EXPECT_EQ(status, child.wait()) << child.errors();
  EXPECT_EQ("", child.errors());
}

}  // namespace kav_watch_test
