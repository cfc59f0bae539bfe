// A plain receiver of one multicast group on the loopback interface.
#pragma once

#include <arpa/inet.h>  // inet_pton
#include <gtest/gtest.h>
#include <netinet/in.h>  // IP_ADD_MEMBERSHIP
#include <poll.h>        // poll
#include <sys/socket.h>  // recv
#include <unistd.h>      // close, getpid

#include <string>  // std::string
#include <vector>  // std::vector

#include "apps/feed/feed_list.h"

namespace kav_feed_test {

// Longer than anything takes on a busy machine; a test that passes never waits for it.
constexpr int k_limit_ms = 30'000;
// As many fit into the system's buffer while nobody reads.
constexpr int k_buffered = 200;

// Joins a group of its own: the address is this process's and `number`'s, the port a free one.
class receiver {
 public:
  receiver(kav_feed::feed which, int number) {
    const int process = static_cast<int>(::getpid());
    m_group.which = which;
    m_group.address = "239." + std::to_string(1 + (process >> 8) % 250) + "." +
                      std::to_string(process & 255) + "." + std::to_string(number);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, m_group.address.c_str(), &address.sin_addr);
    const int bytes = 1 << 22;
    ::setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes));
    EXPECT_EQ(0, ::bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    socklen_t length = sizeof(address);
    ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length);
    m_group.port = ntohs(address.sin_port);
    ip_mreq request{};
    request.imr_multiaddr = address.sin_addr;
    request.imr_interface.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, ::setsockopt(m_socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)));
  }
  receiver(const receiver&) = delete;
  receiver& operator=(const receiver&) = delete;
  ~receiver() { ::close(m_socket); }

  const kav_feed::feed_group& group() const { return m_group; }
  // "--group SHFE=239.1.2.3:40000"
  std::string option() const {
    return std::string{"--group "} + kav_feed::name_of(m_group.which) + "=" + m_group.address +
           ":" + std::to_string(m_group.port);
  }

  // The next datagram; empty when none comes within the limit.
  std::string next(int limit_ms = k_limit_ms) {
    pollfd waiting{m_socket, POLLIN, 0};
    if (::poll(&waiting, 1, limit_ms) != 1) return "";
    char bytes[2048];
    const ssize_t length = ::recv(m_socket, bytes, sizeof(bytes), 0);
    return length < 0 ? "" : std::string(bytes, static_cast<std::size_t>(length));
  }
  // What lies in the buffer: on the loopback a datagram arrives within its send().
  std::vector<std::string> arrived() {
    std::vector<std::string> all;
    for (std::string each = next(0); !each.empty(); each = next(0)) all.push_back(each);
    return all;
  }

 private:
  const int m_socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  kav_feed::feed_group m_group;
};

}  // namespace kav_feed_test
