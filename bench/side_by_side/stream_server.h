// The session side of the timed measurements: answers logins, list queries and registrations, and
// hands out the sockets, so that the sender writes to them with nothing in between.
#pragma once

#include <chrono>         // std::chrono::milliseconds
#include <cstddef>        // std::size_t
#include <mutex>          // std::mutex
#include <string>         // std::string
#include <thread>         // std::thread
#include <unordered_map>  // std::unordered_map
#include <vector>         // std::vector

namespace kav_bench {

// Listens on a free port of 127.0.0.1. Its messages are the simulator's.
//
// Threads:   start() starts one thread, which accepts, reads and answers. It writes nothing to a
//            client that has nothing to ask; from then on the socket is the sender's.
// Shutdown:  stop() joins the thread and closes the sockets; the destructor does it too.
class stream_server {
 public:
  // Lists so many symbols.
  explicit stream_server(std::size_t symbols);
  ~stream_server();
  stream_server(const stream_server&) = delete;
  stream_server& operator=(const stream_server&) = delete;

  bool start();
  unsigned short port() const { return m_port; }
  // The sockets of `clients` connections, in blocking mode, once each has registered `symbols`
  // symbols; empty when that does not come true in time.
  std::vector<int> wait_for_clients(std::size_t clients, std::size_t symbols,
                                    std::chrono::milliseconds limit);
  void stop();

 private:
  struct connection {
    std::string input;
    std::size_t registered = 0;
  };

  void run();
  void accept_one();
  bool serve(int fd);  // false: the client has gone
  std::string answer_to(connection& c, const std::string& message) const;

  const std::size_t m_symbols;
  std::string m_list_answer;  // constant once made
  int m_listener = -1, m_wake = -1;
  unsigned short m_port = 0;
  std::mutex m_lock;
  std::unordered_map<int, connection> m_connections;  // by socket; guarded by m_lock
  std::vector<int> m_order;                           // in the order of accept(); guarded too
  std::thread m_thread;
};

}  // namespace kav_bench
