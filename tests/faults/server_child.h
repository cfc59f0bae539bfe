// The simulator as a process of its own, which can be killed.
#pragma once

#include <sys/types.h>  // pid_t

namespace kav_faults {

class server_child {
 public:
  server_child() = default;
  server_child(const server_child&) = delete;
  server_child& operator=(const server_child&) = delete;
  ~server_child();
  // On the port of the start before, on a free one at first. False: it does not listen.
  bool start();
  // SIGKILL, and waits for its end. From then on the port refuses connections: no other server of
  // this machine gets it before the next start.
  void kill_it();
  unsigned short port() const { return m_port; }

 private:
  void hold_port();
  void release_port();

  pid_t m_child = -1;
  unsigned short m_port = 0;
  int m_held = -1;  // bound to the port, and listening to nobody
};

}  // namespace kav_faults
