#include "apps/feed/sender.h"

#include <arpa/inet.h>  // inet_pton
#include <fmt/format.h>
#include <sys/socket.h>  // bind, connect
#include <unistd.h>      // close

#include <cerrno>        // errno
#include <system_error>  // std::generic_category

namespace kav_feed {

namespace {

std::string cause_of(int error) { return std::generic_category().message(error); }

using address_call = int (*)(int, const sockaddr*, socklen_t);

// bind() or connect(); 0, or the error's number.
int error_of(address_call call, int socket, const std::string& address, unsigned short port) {
  sockaddr_in endpoint{};
  endpoint.sin_family = AF_INET;
  endpoint.sin_port = htons(port);
  if (::inet_pton(AF_INET, address.c_str(), &endpoint.sin_addr) != 1) return EINVAL;
  const auto* const target = reinterpret_cast<const sockaddr*>(&endpoint);
  return call(socket, target, sizeof(endpoint)) == 0 ? 0 : errno;
}

// What the system says to a socket like those of the library, which tell only that it failed.
int find_cause(const std::string& interface, const feed_group& group) {
  const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (socket < 0) return errno;
  int error = error_of(::bind, socket, interface, 0);
  if (error == 0) error = error_of(::connect, socket, group.address, group.port);
  ::close(socket);
  return error;
}

std::string way_out(int error) {
  switch (error) {
    case EADDRNOTAVAIL:
      return "give --interface an address of this machine, such as 127.0.0.1";
    case ENETUNREACH:
    case ENETDOWN:
    case EHOSTUNREACH:
      return "is the interface up? \"ip -br addr\" lists interfaces and addresses";
    case EPERM:
    case EACCES:
      return "does a firewall forbid it?";
    default:
      return "look at the interface with \"ip -br addr\", or give another --interface";
  }
}

}  // namespace

bool sender::open(const std::vector<feed_group>& groups, const std::string& interface,
                  std::string& error) {
  m_interface = interface;
  m_sockets.sock_set_context(&m_silence);
  for (const feed_group& group : groups) {
    m_texts[index_of(group.which)] = text_of(group);
    m_units[index_of(group.which)] = m_sockets.add_multicast_param(
        group.address, group.port, interface, 0, name_of(group.which));
  }
  if (m_sockets.sock_init(VORLAN::SOCK::MULTICAST_SEND, nullptr, nullptr)) return true;
  m_units.fill(-1);
  for (const feed_group& group : groups) {
    const int cause = find_cause(interface, group);
    if (cause == 0) continue;
    error = fmt::format("cannot publish {} from {}: {}; {}", text_of(group), interface,
                        cause_of(cause), way_out(cause));
    return false;
  }
  error = "cannot open the groups: no socket or thread left; raise ulimit -n or -u";
  return false;
}

bool sender::send(feed which, const datagram& what, std::string& error) {
  const int unit = m_units[index_of(which)];
  if (unit < 0) {
    error = fmt::format("{} has no group", name_of(which));
    return false;
  }
  const int length = static_cast<int>(what.length);
  int sent = -1;
  do {
    errno = 0;
    sent = m_sockets.sock_send(what.bytes, length, unit);
  } while (sent < 0 && errno == EINTR);
  if (sent == length) return true;
  const int cause = errno;
  error = fmt::format("cannot send to {} from {}: {}; {}", m_texts[index_of(which)], m_interface,
                      cause_of(cause), way_out(cause));
  return false;
}

}  // namespace kav_feed
