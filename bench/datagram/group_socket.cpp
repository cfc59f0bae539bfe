#include "bench/datagram/group_socket.h"

#include <arpa/inet.h>   // inet_pton
#include <net/if.h>      // ifreq
#include <netinet/in.h>  // IP_ADD_MEMBERSHIP
#include <sched.h>       // unshare
#include <sys/ioctl.h>   // SIOCSIFFLAGS
#include <sys/socket.h>  // socket
#include <unistd.h>      // close

#include <cstring>  // strncpy

namespace kav_bench {

namespace {

constexpr int k_receive_queue_bytes = 65'535;  // as the library's receivers have

sockaddr_in endpoint(const std::string& ip, unsigned short port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  ::inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  return address;
}

using address_call = int (*)(int, const sockaddr*, socklen_t);

bool use_address(address_call call, int sock, const std::string& ip, unsigned short port) {
  const sockaddr_in address = endpoint(ip, port);
  return call(sock, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

bool set_option(int sock, int level, int name, int value) {
  return ::setsockopt(sock, level, name, &value, sizeof(value)) == 0;
}

}  // namespace

group_socket::~group_socket() {
  if (m_socket >= 0) ::close(m_socket);
}

bool group_socket::open() {
  m_socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  return m_socket >= 0;
}

bool group_socket::open_sender(const group_address& group) {
  return open() && use_address(::bind, m_socket, k_local_ip, 0) &&
         use_address(::connect, m_socket, group.ip, group.port);
}

bool group_socket::open_receiver(const group_address& group) {
  if (!open() || !set_option(m_socket, SOL_SOCKET, SO_REUSEADDR, 1) ||
      !set_option(m_socket, IPPROTO_IP, IP_MULTICAST_ALL, 0) ||
      !use_address(::bind, m_socket, "0.0.0.0", group.port)) {
    return false;
  }
  const ip_mreq request{endpoint(group.ip, 0).sin_addr, endpoint(k_local_ip, 0).sin_addr};
  return ::setsockopt(m_socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)) == 0 &&
         set_option(m_socket, SOL_SOCKET, SO_RCVBUF, k_receive_queue_bytes);
}

bool group_socket::send(const void* data, std::size_t length) const {
  return ::send(m_socket, data, length, MSG_NOSIGNAL) == static_cast<ssize_t>(length);
}

void group_socket::shut_down() const { ::shutdown(m_socket, SHUT_RD); }

bool enter_own_network() {
  if (::unshare(CLONE_NEWNET) != 0) return false;
  const int sock = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (sock < 0) return false;
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", sizeof(request.ifr_name) - 1);
  request.ifr_flags = IFF_UP;
  const bool up = ::ioctl(sock, SIOCSIFFLAGS, &request) == 0;
  ::close(sock);
  return up;
}

}  // namespace kav_bench
