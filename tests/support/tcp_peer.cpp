#include "tests/support/tcp_peer.h"

#include <arpa/inet.h>   // htonl
#include <netinet/in.h>  // sockaddr_in
#include <poll.h>        // poll
#include <sys/socket.h>  // socket, accept4
#include <unistd.h>      // close

#include <algorithm>  // std::min
#include <cerrno>     // errno
#include <cstdio>     // sscanf
#include <fstream>    // std::ifstream
#include <utility>    // std::exchange

namespace kav_test {
namespace {

using clock_type = std::chrono::steady_clock;

constexpr std::chrono::milliseconds k_patience{10'000};  // for what comes in a moment if ever
constexpr std::chrono::milliseconds k_answer_time{100};  // a listener of this host answers at once
constexpr int k_most_fillers = 8;
constexpr unsigned k_syn_sent = 2;  // state in /proc/net/tcp

sockaddr_in loopback(unsigned short port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

bool wait_for(int fd, short events, std::chrono::milliseconds limit) {
  pollfd wait{fd, events, 0};
  return ::poll(&wait, 1, static_cast<int>(limit.count())) > 0;
}

// Bound to a free port, which is stored.
int bound_socket(unsigned short& port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof(address);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0) {
    port = ntohs(address.sin_port);
  }
  return fd;
}

}  // namespace

owned_fd& owned_fd::operator=(owned_fd&& other) noexcept {
  const int fd = other.release();
  reset();
  m_fd = fd;
  return *this;
}

int owned_fd::release() { return std::exchange(m_fd, -1); }

void owned_fd::reset() {
  if (m_fd >= 0) ::close(m_fd);
  m_fd = -1;
}

std::string tcp_connection::read_exactly(std::size_t length) {
  std::string bytes;
  char buffer[16384];
  while (bytes.size() < length && wait_for(m_fd.get(), POLLIN, k_patience)) {
    const ssize_t got = ::read(m_fd.get(), buffer, std::min(sizeof(buffer), length - bytes.size()));
    if (got <= 0) break;
    bytes.append(buffer, static_cast<std::size_t>(got));
  }
  return bytes;
}

std::string tcp_connection::read_until_quiet(std::chrono::milliseconds pause) {
  std::string bytes;
  char buffer[16384];
  while (wait_for(m_fd.get(), POLLIN, pause)) {
    const ssize_t got = ::read(m_fd.get(), buffer, sizeof(buffer));
    if (got <= 0) break;
    bytes.append(buffer, static_cast<std::size_t>(got));
  }
  return bytes;
}

bool tcp_connection::write(const std::string& bytes) {
  std::size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t sent =
        ::send(m_fd.get(), bytes.data() + written, bytes.size() - written, MSG_NOSIGNAL);
    if (sent < 0) return false;
    written += static_cast<std::size_t>(sent);
  }
  return true;
}

void tcp_connection::flood(std::chrono::milliseconds limit) {
  const std::string bytes(65536, 'f');
  const auto end = clock_type::now() + limit;
  while (clock_type::now() < end) {
    if (!wait_for(m_fd.get(), POLLOUT, k_answer_time)) continue;
    const ssize_t sent =
        ::send(m_fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno != EAGAIN) return;
  }
}

connection_end tcp_connection::wait_end() {
  char buffer[16384];
  while (wait_for(m_fd.get(), POLLIN, k_patience)) {
    const ssize_t got = ::read(m_fd.get(), buffer, sizeof(buffer));
    if (got == 0) return END_BY_FIN;
    if (got < 0) return errno == ECONNRESET ? END_BY_RESET : END_NOT_SEEN;
  }
  return END_NOT_SEEN;
}

void tcp_connection::close_with_fin() {
  // A close with unread bytes would be a reset.
  ::shutdown(m_fd.get(), SHUT_WR);
  char buffer[16384];
  while (::recv(m_fd.get(), buffer, sizeof(buffer), MSG_DONTWAIT) > 0) {
  }
  m_fd.reset();
}

void tcp_connection::close_with_reset() {
  const linger reset{1, 0};
  ::setsockopt(m_fd.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
  m_fd.reset();
}

tcp_peer::tcp_peer(int backlog) : m_listener(bound_socket(m_port)) {
  ::listen(m_listener.get(), backlog);
}

tcp_connection tcp_peer::accept() {
  if (!has_waiting(k_patience)) return tcp_connection(-1);
  return tcp_connection(::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

bool tcp_peer::has_waiting(std::chrono::milliseconds limit) const {
  return wait_for(m_listener.get(), POLLIN, limit);
}

bool tcp_peer::stop_answering() {
  const sockaddr_in address = loopback(m_port);
  for (int i = 0; i < k_most_fillers; ++i) {
    owned_fd filler(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    static_cast<void>(
        ::connect(filler.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    if (!wait_for(filler.get(), POLLOUT, k_answer_time)) return true;  // the backlog is full
    m_fillers.push_back(std::move(filler));
  }
  return false;
}

bool tcp_peer::is_asked() const {
  std::ifstream table("/proc/net/tcp");
  for (std::string line; std::getline(table, line);) {
    unsigned port = 0;
    unsigned state = 0;
    if (std::sscanf(line.c_str(), " %*[^:]: %*[^:]:%*x %*[^:]:%x %x", &port, &state) == 2 &&
        port == m_port && state == k_syn_sent) {
      return true;
    }
  }
  return false;
}

refusing_port::refusing_port() : m_bound(bound_socket(m_port)) {}

}  // namespace kav_test
