// A program as a child process: started, watched and ended by a test.
#pragma once

#include <sys/types.h>  // pid_t

#include <chrono>      // std::chrono::milliseconds
#include <cstddef>     // std::size_t
#include <functional>  // std::function
#include <mutex>       // std::mutex
#include <optional>    // std::optional
#include <string>      // std::string
#include <thread>      // std::thread
#include <vector>      // std::vector

#include "tests/support/wait_until.h"

namespace kav_watch_test {

// Long enough for a busy machine under a sanitizer; a test that passes never waits for it.
inline constexpr std::chrono::seconds k_limit{30};

inline bool wait_until(const std::function<bool()>& condition) {
  return ::wait_until(condition, k_limit);
}

std::vector<std::string> split_lines(const std::string& text);

enum class child_stdout { pipe, terminal };

struct child_options {
  std::string program;  // empty: the one under test
  std::vector<std::string> arguments;
  std::optional<std::string> environment_password = "secret";
  child_stdout standard_output = child_stdout::pipe;
  std::string output_path;                       // instead of the pipe, when not empty
  bool read_output = true;                       // false: nobody reads the pipe until it is closed
  std::optional<unsigned long> most_file_bytes;  // larger files cannot be written
  unsigned short rows = 24, columns = 130;       // of the terminal
};

// Threads: two threads collect what the child writes; everything else on the test's thread.
// A child that still runs when the object goes is killed.
class child_process {
 public:
  explicit child_process(const child_options& options);
  ~child_process();
  child_process(const child_process&) = delete;
  child_process& operator=(const child_process&) = delete;

  pid_t pid() const { return m_pid; }
  void send_signal(int number) const;
  void press(const std::string& keys) const;                       // terminal only
  void resize(unsigned short rows, unsigned short columns) const;  // terminal only
  void close_output();                                             // only when it is not read
  std::string output() const;
  // A line of standard output, counted from 0, without its end; empty when it does not come in
  // time.
  std::string line(std::size_t number) const;
  std::string errors() const;
  std::string proc_file(const std::string& name) const;
  bool is_running();
  // The exit status; nothing when it did not end in time or was killed by a signal.
  std::optional<int> wait();

 private:
  void start_in_pipe(const child_options& options);
  void start_in_terminal(const child_options& options);
  [[noreturn]] static void run_child(const child_options& options);
  void collect(int fd, std::string& into);
  void reap(int flags);

  pid_t m_pid = -1;
  int m_output_fd = -1;  // pipe or terminal
  int m_error_fd = -1;
  int m_stop_pipe[2] = {-1, -1};  // closing it ends the collectors
  std::optional<int> m_raw_status;
  mutable std::mutex m_lock;
  std::string m_output;  // under m_lock
  std::string m_errors;  // under m_lock
  std::thread m_output_collector, m_error_collector;
};

// The child ends by itself, with this exit status and without a complaint.
void expect_end(child_process& child, int status);

}  // namespace kav_watch_test
