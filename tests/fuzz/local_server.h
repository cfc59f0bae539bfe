// A quote server's end of loopback connections.
#pragma once

#include <arpa/inet.h>    // htonl
#include <netinet/in.h>   // sockaddr_in
#include <netinet/tcp.h>  // TCP_NODELAY
#include <poll.h>         // poll
#include <sys/socket.h>   // socket, accept4
#include <unistd.h>       // close

#include <cerrno>  // errno
#include <cstdio>  // std::snprintf

#include "api/kav_quote_api.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/fuzz_input.h"

namespace kav_fuzz {

// Something to read, or to accept, within a time that is ample? libFuzzer's alarm interrupts
// poll().
inline bool wait_readable(int descriptor) {
  constexpr int k_patience_ms = 20'000;
  pollfd ready{descriptor, POLLIN, 0};
  int result = 0;
  do {
    result = ::poll(&ready, 1, k_patience_ms);
  } while (result < 0 && errno == EINTR);
  return result == 1;
}

// One accepted connection.
class server_end {
 public:
  explicit server_end(int descriptor) : m_descriptor(descriptor) {
    const int on = 1;
    ::setsockopt(m_descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }
  server_end(const server_end&) = delete;
  server_end& operator=(const server_end&) = delete;
  ~server_end() { close(); }

  // False: the client has gone, or takes no more.
  bool send(const std::string& bytes) {
    return ::send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
           static_cast<ssize_t>(bytes.size());
  }
  // Waits for so many bytes.
  std::string receive(std::size_t length) {
    std::string bytes(length, '\0');
    for (std::size_t at = 0; at < length;) {
      KAV_CHECK(wait_readable(m_descriptor));
      const ssize_t got = ::recv(m_descriptor, bytes.data() + at, length - at, 0);
      KAV_CHECK(got > 0);
      at += static_cast<std::size_t>(got);
    }
    return bytes;
  }
  void finish() { ::shutdown(m_descriptor, SHUT_WR); }
  // What is not read yet is lost.
  void reset() {
    const linger hard{1, 0};
    ::setsockopt(m_descriptor, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    close();
  }

 private:
  void close() {
    if (m_descriptor >= 0) ::close(m_descriptor);
    m_descriptor = -1;
  }

  int m_descriptor;
};

class local_listener {
 public:
  local_listener() : m_descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    KAV_CHECK(::bind(m_descriptor, reinterpret_cast<sockaddr*>(&address), length) == 0);
    KAV_CHECK(::listen(m_descriptor, SOMAXCONN) == 0);
    ::getsockname(m_descriptor, reinterpret_cast<sockaddr*>(&address), &length);
    m_port = ntohs(address.sin_port);
  }
  local_listener(const local_listener&) = delete;
  local_listener& operator=(const local_listener&) = delete;
  ~local_listener() { ::close(m_descriptor); }

  int accept() {
    KAV_CHECK(wait_readable(m_descriptor));
    const int accepted = ::accept4(m_descriptor, nullptr, nullptr, SOCK_CLOEXEC);
    KAV_CHECK(accepted >= 0);
    return accepted;
  }
  KqsTcpInfo endpoint() const {
    KqsTcpInfo info{};
    std::snprintf(info.m_ServerIp, sizeof(info.m_ServerIp), "127.0.0.1");
    info.m_ServerPort = m_port;
    return info;
  }

 private:
  const int m_descriptor;
  unsigned short m_port = 0;
};

}  // namespace kav_fuzz
