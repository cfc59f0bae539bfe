// From a captured packet to the UDP datagram in it.
#pragma once

#include <cstddef>  // std::size_t
#include <cstdint>  // std::uint32_t

namespace kav_decode {

enum class packet_content {
  datagram,    // a whole UDP datagram over IPv4
  not_ipv4,    // IPv6, ARP, ...
  not_udp,     //
  fragmented,  // part of a datagram; parts are not joined
  malformed,   // headers that contradict each other or claim more bytes than there are
};

struct parsed_packet {
  packet_content content = packet_content::malformed;
  // Of a datagram only.
  std::uint32_t address = 0;  // destination, host byte order
  std::uint16_t port = 0;
  const unsigned char* payload = nullptr;  // within the packet
  std::size_t length = 0;
};

// Is parse_packet() able to read packets of this link type, a DLT_ number of libpcap?
bool is_link_type_known(int link_type);

// Looks at the `length` bytes of a packet and at no byte behind them. Checksums are not verified:
// captures made on the sending host are full of packets whose checksum the network card was still
// to fill in. Any thread.
parsed_packet parse_packet(int link_type, const unsigned char* bytes, std::size_t length);

}  // namespace kav_decode
