// Two networks of a test's own with one cable between them that can be cut.
#pragma once

#include <sys/types.h>  // pid_t

#include <condition_variable>  // std::condition_variable
#include <functional>          // std::function
#include <mutex>               // std::mutex
#include <string>              // std::string
#include <thread>              // std::thread

namespace kav_test {

// A thread in an empty network namespace of its own. Sockets made by it are in there, and threads
// that it starts are as well; everybody may use the sockets.
//
// Threads: one at a time.
class network_thread {
 public:
  network_thread();
  network_thread(const network_thread&) = delete;
  network_thread& operator=(const network_thread&) = delete;
  ~network_thread();

  // Runs `body` in the network, and waits until it has returned.
  void run(std::function<void()> body);
  // Applies a command of the program ip, "link set lo up". False: refused.
  bool ip(const std::string& command);
  // Why there is no such network here, or "".
  const std::string& obstacle() const { return m_obstacle; }
  pid_t id() const { return m_id; }

 private:
  void live();

  std::mutex m_lock;
  std::condition_variable m_changed;
  std::function<void()> m_body;  // protected by m_lock, like the next one
  bool m_ends = false;
  std::string m_obstacle;  // set by the constructor's first run()
  pid_t m_id = 0;          // likewise
  std::thread m_thread;
};

// `near` has the address k_near_ip, `far` k_far_ip.
class two_networks {
 public:
  static constexpr const char* k_near_ip = "192.0.2.1";
  static constexpr const char* k_far_ip = "192.0.2.2";

  two_networks();
  network_thread& near() { return m_near; }
  network_thread& far() { return m_far; }
  // Why there are no such networks here, or "".
  const std::string& obstacle() const { return m_obstacle; }
  // What is sent while the cable is cut is lost, and nobody is told.
  bool cut_cable() { return m_far.ip("link set kav-far down"); }
  bool mend_cable() { return m_far.ip("link set kav-far up"); }

 private:
  network_thread m_near;
  network_thread m_far;
  std::string m_obstacle;
};

}  // namespace kav_test
