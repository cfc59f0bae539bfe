// Sockets of multicast groups on the loopback interface.
#pragma once

#include <string>  // std::string

namespace kav_bench {

inline constexpr char k_local_ip[] = "127.0.0.1";

struct group_address {
  std::string ip;
  unsigned short port = 0;
};

// Closes its socket. One thread at a time.
class group_socket {
 public:
  group_socket() = default;
  group_socket(const group_socket&) = delete;
  group_socket& operator=(const group_socket&) = delete;
  ~group_socket();

  // False: errno tells why.
  bool open_sender(const group_address& group);
  // With the receive buffer that the library gives each group; blocking.
  bool open_receiver(const group_address& group);
  bool send(const void* data, std::size_t length) const;
  // Ends a blocking recv() on another thread with 0.
  void shut_down() const;
  int get() const { return m_socket; }

 private:
  bool open();

  int m_socket = -1;
};

// A network namespace of its own for this process, where only its datagrams are: false without the
// rights for it, and then the host's loopback interface serves. Before there are threads.
bool enter_own_network();

}  // namespace kav_bench
