#include "sock/local_address.h"

#include <arpa/inet.h>   // inet_ntop
#include <ifaddrs.h>     // getifaddrs
#include <net/if.h>      // ifconf, ifreq
#include <netinet/in.h>  // sockaddr_in
#include <sys/ioctl.h>   // ioctl
#include <sys/socket.h>  // socket
#include <unistd.h>      // close

#include <algorithm>  // std::min
#include <array>      // std::array
#include <cstring>    // memcpy, strcmp
#include <memory>     // std::unique_ptr

#include "tools/helpers.h"

namespace VORLAN {
namespace SOCK {
namespace {

// A socket to ask the system about interfaces; closed on every return.
class query_socket {
 public:
  explicit query_socket(int type) : m_fd(::socket(AF_INET, type | SOCK_CLOEXEC, 0)) {}
  query_socket(const query_socket&) = delete;
  query_socket& operator=(const query_socket&) = delete;
  ~query_socket() {
    if (m_fd >= 0) ::close(m_fd);
  }
  int get() const { return m_fd; }

 private:
  const int m_fd;
};

void load_mac(int query, const char* name, ip_and_mac& entry) {
  ifreq request{};
  VORLAN::TOOLS::strncpy_vl(request.ifr_name, sizeof(request.ifr_name), name);
  if (query < 0 || ::ioctl(query, SIOCGIFHWADDR, &request) != 0) return;
  std::memcpy(entry.mac, request.ifr_hwaddr.sa_data, sizeof(entry.mac));
}

bool is_listed(const ifaddrs& interface) {
  return interface.ifa_addr != nullptr && interface.ifa_addr->sa_family == AF_INET &&
         interface.ifa_name != nullptr && std::strcmp(interface.ifa_name, "lo") != 0;
}

// What one SIOCGIFCONF fills: the system lists no more interfaces than fit.
constexpr std::size_t k_interface_list_bytes = 1024;
static_assert(sizeof(ifreq) == 40, "entries of the interface list");

using interface_list = std::array<ifreq, k_interface_list_bytes / sizeof(ifreq)>;

std::size_t load_interfaces(int query, interface_list& list) {
  ifconf request{};
  request.ifc_len = static_cast<int>(sizeof(list));
  request.ifc_req = list.data();
  if (::ioctl(query, SIOCGIFCONF, &request) != 0 || request.ifc_len <= 0) return 0;
  return std::min(static_cast<std::size_t>(request.ifc_len) / sizeof(ifreq), list.size());
}

std::string dotted_text(const sockaddr& address) {
  sockaddr_in ipv4{};
  std::memcpy(&ipv4, &address, sizeof(ipv4));
  char text[INET_ADDRSTRLEN] = "";
  ::inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof(text));
  return text;
}

}  // namespace

int load_ip_and_mac(ip_and_mac* table, int max) {
  ifaddrs* all = nullptr;
  if (table == nullptr || ::getifaddrs(&all) != 0) return 0;
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owned(all, ::freeifaddrs);
  const query_socket query(SOCK_STREAM);
  const int room = std::min(max, k_ip_and_mac_entries);
  int count = 0;
  for (const ifaddrs* at = all; at != nullptr && count < room; at = at->ifa_next) {
    if (!is_listed(*at)) continue;
    sockaddr_in address{};
    std::memcpy(&address, at->ifa_addr, sizeof(address));
    std::memcpy(table[count].ip, &address.sin_addr, sizeof(table[count].ip));
    load_mac(query.get(), at->ifa_name, table[count]);
    ++count;
  }
  return count;
}

// By value: the signature is the one that callers link against.
// cppcheck-suppress passedByValue
// NOLINTNEXTLINE(performance-unnecessary-value-param)
std::string get_local_ip(std::string ifname) {
  const query_socket query(SOCK_DGRAM);
  ifreq request{};
  VORLAN::TOOLS::strncpy_vl(request.ifr_name, sizeof(request.ifr_name), ifname.c_str());
  if (query.get() < 0 || ::ioctl(query.get(), SIOCGIFADDR, &request) != 0) return "";
  return dotted_text(request.ifr_addr);
}

// Two positions move through the list: `taken`, forwards by one with each address, and `taken +
// left`, which is asked whether its interface still has an address. The latter starts at the last
// entry and stays there while the answer is yes; each step lowers `left`. As long as no interface
// goes away meanwhile, this gives the entries from the second to the last.
bool get_all_network_card_ip(std::vector<std::string>& out) {
  const query_socket query(SOCK_DGRAM);
  if (query.get() < 0) return false;
  interface_list list{};
  const std::size_t count = load_interfaces(query.get(), list);
  std::size_t taken = 0;
  for (std::size_t left = count > 0 ? count - 1 : 0; left > 0; --left) {
    if (::ioctl(query.get(), SIOCGIFADDR, &list[taken + left]) != 0) continue;
    ++taken;
    out.push_back(dotted_text(list[taken].ifr_addr));
  }
  return true;
}

}  // namespace SOCK
}  // namespace VORLAN
