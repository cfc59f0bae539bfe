// The simulator as a process of its own, which can be killed.
#pragma once

#include <sys/types.h>  // pid_t

namespace kav_faults {

class server_child {
 public:
  server_child() = default;
  server_child(const server_child&) = delete;
  server_child& operator=(const server_child&) = delete;
  ~server_child() { kill_it(); }
  // On the port of the start before, on a free one at first. False: it does not listen.
  bool start();
  void kill_it();  // SIGKILL, and waits for its end
  unsigned short port() const { return m_port; }

 private:
  pid_t m_child = -1;
  unsigned short m_port = 0;
};

}  // namespace kav_faults
