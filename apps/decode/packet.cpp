#include "apps/decode/packet.h"

#include <netinet/in.h>  // IPPROTO_UDP
#include <pcap/dlt.h>    // DLT_EN10MB

#include <span>  // std::span

namespace kav_decode {
namespace {

using byte_view = std::span<const unsigned char>;

constexpr std::uint16_t k_type_ipv4 = 0x0800;
constexpr std::size_t k_vlan_tag_bytes = 4;
constexpr std::size_t k_family_bytes = 4;
constexpr std::size_t k_ipv4_least_bytes = 20;
constexpr std::size_t k_udp_head_bytes = 8;
constexpr unsigned k_more_fragments_or_offset = 0x3FFF;

std::uint16_t read_be16(byte_view bytes, std::size_t at) {
  return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

std::uint32_t read_be32(byte_view bytes, std::size_t at) {
  return std::uint32_t{read_be16(bytes, at)} << 16 | read_be16(bytes, at + 2);
}

// A link layer whose header names the protocol of what follows, as Ethernet does.
struct typed_link {
  int link_type;
  std::size_t header_bytes;
  std::size_t type_offset;
};
constexpr typed_link k_typed_links[] = {
    {DLT_EN10MB, 14, 12},
    {DLT_LINUX_SLL, 16, 14},
    {DLT_LINUX_SLL2, 20, 0},
};

const typed_link* find_typed_link(int link_type) {
  for (const typed_link& link : k_typed_links) {
    if (link.link_type == link_type) return &link;
  }
  return nullptr;
}

// The DLT_ number of raw IP differs between systems; files have 101, which reads as DLT_RAW.
bool is_raw(int link_type) { return link_type == DLT_RAW || link_type == DLT_IPV4; }

bool has_family(int link_type) { return link_type == DLT_NULL || link_type == DLT_LOOP; }

bool is_vlan_type(unsigned type) { return type == 0x8100 || type == 0x88A8 || type == 0x9100; }

// The family is in network byte order, or in that of the host that captured.
bool is_ipv4_family(std::uint32_t family) { return family == 2 || family == 0x02000000; }

parsed_packet parse_udp(std::uint32_t address, byte_view packet) {
  if (packet.size() < k_udp_head_bytes) return {};
  const std::size_t length = read_be16(packet, 4);
  if (length < k_udp_head_bytes || length > packet.size()) return {};
  return {packet_content::datagram, address, read_be16(packet, 2), packet.data() + k_udp_head_bytes,
          length - k_udp_head_bytes};
}

// What lies behind the total length is padding of the link layer.
parsed_packet parse_ipv4(byte_view packet) {
  if (packet.size() < k_ipv4_least_bytes || packet[0] >> 4 != 4) return {};
  const std::size_t header_bytes = (packet[0] & 0x0Fu) * 4;
  if (header_bytes < k_ipv4_least_bytes) return {};
  if (packet[9] != IPPROTO_UDP) return {.content = packet_content::not_udp};
  const std::size_t total_bytes = read_be16(packet, 2);
  if (total_bytes < header_bytes || total_bytes > packet.size()) return {};
  if ((read_be16(packet, 6) & k_more_fragments_or_offset) != 0) {
    return {.content = packet_content::fragmented};
  }
  return parse_udp(read_be32(packet, 16), packet.subspan(header_bytes, total_bytes - header_bytes));
}

parsed_packet parse_typed(const typed_link& link, byte_view packet) {
  if (packet.size() < link.header_bytes) return {};
  std::uint16_t type = read_be16(packet, link.type_offset);
  packet = packet.subspan(link.header_bytes);
  while (is_vlan_type(type)) {
    if (packet.size() < k_vlan_tag_bytes) return {};
    type = read_be16(packet, 2);
    packet = packet.subspan(k_vlan_tag_bytes);
  }
  return type == k_type_ipv4 ? parse_ipv4(packet)
                             : parsed_packet{.content = packet_content::not_ipv4};
}

parsed_packet parse_family(byte_view packet) {
  if (packet.size() < k_family_bytes) return {};
  if (!is_ipv4_family(read_be32(packet, 0))) return {.content = packet_content::not_ipv4};
  return parse_ipv4(packet.subspan(k_family_bytes));
}

parsed_packet parse_raw(byte_view packet) {
  const bool ipv6 = !packet.empty() && packet[0] >> 4 == 6;
  return ipv6 ? parsed_packet{.content = packet_content::not_ipv4} : parse_ipv4(packet);
}

}  // namespace

bool is_link_type_known(int link_type) {
  return find_typed_link(link_type) != nullptr || is_raw(link_type) || has_family(link_type);
}

parsed_packet parse_packet(int link_type, const unsigned char* bytes, std::size_t length) {
  const byte_view packet{bytes, length};
  if (const typed_link* link = find_typed_link(link_type)) return parse_typed(*link, packet);
  if (is_raw(link_type)) return parse_raw(packet);
  if (has_family(link_type)) return parse_family(packet);
  return {};
}

}  // namespace kav_decode
