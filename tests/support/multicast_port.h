// Multicast groups and a UDP port for one test, apart from all others on this host.
#pragma once

#include <arpa/inet.h>  // inet_pton
#include <gtest/gtest.h>
#include <netinet/in.h>  // IP_ADD_MEMBERSHIP
#include <sys/socket.h>  // socket
#include <unistd.h>      // getpid

#include <cerrno>   // errno
#include <cstring>  // strerror
#include <string>   // std::string

#include "tests/support/tcp_peer.h"

namespace kav_test {

inline constexpr const char* k_local = "127.0.0.1";

inline sockaddr_in endpoint(const std::string& ip, unsigned short port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  ::inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  return address;
}

// A group that no other test of this host uses: `number` is this test's own.
inline std::string group(int number) {
  const int process = static_cast<int>(::getpid());
  return "239." + std::to_string(1 + (process >> 8) % 250) + "." + std::to_string(process & 255) +
         "." + std::to_string(number);
}

// A UDP port that is kept free of others, but may be shared.
class shared_port {
 public:
  shared_port() : m_socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    ::setsockopt(m_socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address = endpoint("0.0.0.0", 0);
    socklen_t size = sizeof(address);
    EXPECT_EQ(0, ::bind(m_socket.get(), reinterpret_cast<sockaddr*>(&address), size));
    ::getsockname(m_socket.get(), reinterpret_cast<sockaddr*>(&address), &size);
    m_port = ntohs(address.sin_port);
  }
  unsigned short number() const { return m_port; }
  // Why the system lets nobody join a group here, or "".
  std::string obstacle() const {
    ip_mreq request{endpoint(group(250), 0).sin_addr, endpoint(k_local, 0).sin_addr};
    if (::setsockopt(m_socket.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request))) {
      return std::string("joining a group on 127.0.0.1: ") + std::strerror(errno);
    }
    const owned_fd sender(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in local = endpoint(k_local, 0), to = endpoint(group(250), m_port);
    if (::bind(sender.get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0 ||
        ::sendto(sender.get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) < 0) {
      return std::string("sending to a group from 127.0.0.1: ") + std::strerror(errno);
    }
    return "";
  }

 private:
  owned_fd m_socket;
  unsigned short m_port = 0;
};

}  // namespace kav_test
