// IPv4 and hardware addresses of the local network interfaces.
#pragma once

#include <string>  // std::string
#include <vector>  // std::vector

namespace VORLAN {
namespace SOCK {

#pragma pack(push, 1)
struct ip_and_mac {
  unsigned char ip[4];   // 0  network byte order
  unsigned char mac[6];  // 4  hardware address; left as it was where the system tells none
};
#pragma pack(pop)
static_assert(sizeof(ip_and_mac) == 10, "entry of an address table");

constexpr int k_ip_and_mac_entries = 128;  // entries that a table for load_ip_and_mac() has

// Fills `table` with the IPv4 interfaces but "lo" and returns how many there are; at most `max`,
// and at most k_ip_and_mac_entries. Any thread.
int load_ip_and_mac(ip_and_mac* table, int max);

// The dotted IPv4 address of an interface; empty when there is no such interface or it has none.
// Of a longer name, the first 15 characters count. Any thread.
std::string get_local_ip(std::string ifname);

// Appends the dotted IPv4 addresses of the interfaces in the system's order, without the first one
// (as a rule the loopback address): the walk starts behind it. At most 24. False, and nothing
// appended, when the system could not be asked. Any thread.
bool get_all_network_card_ip(std::vector<std::string>& out);

}  // namespace SOCK
}  // namespace VORLAN
