// The library prints lines of its own to standard output; this keeps them out of the program's.
#pragma once

#include <string>  // std::string
#include <vector>  // std::vector

namespace kav_watch {

// Takes the real standard output for the program alone and lets descriptor 1 lead elsewhere: at
// first to nowhere, for what matters comes as log lines too; to standard error for those who want
// to see everything; or into a pipe whose lines the table shows. Main thread only, before the
// library is used.
class standard_output {
 public:
  standard_output();  // std::system_error when there is no standard output
  ~standard_output();
  standard_output(const standard_output&) = delete;
  standard_output& operator=(const standard_output&) = delete;

  int fd() const { return m_real; }  // the real standard output
  bool is_terminal() const;

  void lead_strays_to_pipe();
  void lead_strays_to_stderr();
  void lead_strays_nowhere();
  int stray_fd() const { return m_pipe_read; }  // -1 unless they go to the pipe
  // The complete lines that came through the pipe since the last call.
  std::vector<std::string> take_strays();

 private:
  void close_pipe();

  int m_real;
  int m_pipe_read = -1;
  std::string m_partial;  // begin of a line whose end has not come yet
};

}  // namespace kav_watch
