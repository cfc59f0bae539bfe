// parse_packet(): every link type, every defect.
#include <gtest/gtest.h>

#include <cstring>  // std::memcpy
#include <memory>   // std::unique_ptr
#include <random>   // std::mt19937
#include <utility>  // std::pair

#include "apps/decode/packet.h"
#include "tests/apps/decode_packets.h"

namespace kav_decode_test {
namespace {

using kav_decode::packet_content;
using kav_decode::parsed_packet;

const bytes k_payload = text_bytes("a payload of some length");
const bytes k_padding(13, 0xEE);

// A parsed packet that owns its payload.
struct parsed_copy {
  packet_content content;
  std::uint32_t address;
  std::uint16_t port;
  bytes payload;
};

// From memory that ends where the packet ends, so that the address sanitizer sees any overread; a
// payload that does not lie within it fails the test.
parsed_copy parse(int link_type, const bytes& packet, std::size_t length) {
  const std::unique_ptr<unsigned char[]> memory{new unsigned char[length]};
  if (length > 0) std::memcpy(memory.get(), packet.data(), length);
  const parsed_packet parsed = kav_decode::parse_packet(link_type, memory.get(), length);
  if (parsed.content != packet_content::datagram) {
    EXPECT_EQ(0u, parsed.length);
    return {parsed.content, 0, 0, {}};
  }
  EXPECT_GE(parsed.payload, memory.get());
  EXPECT_LE(parsed.payload + parsed.length, memory.get() + length);
  return {parsed.content, parsed.address, parsed.port,
          bytes(parsed.payload, parsed.payload + parsed.length)};
}

parsed_copy parse(int link_type, const bytes& packet) {
  return parse(link_type, packet, packet.size());
}

packet_content content_of(int link_type, const bytes& packet) {
  return parse(link_type, packet).content;
}

void expect_payload(const parsed_copy& parsed) {
  EXPECT_EQ(packet_content::datagram, parsed.content);
  EXPECT_EQ(k_group, parsed.address);
  EXPECT_EQ(k_port, parsed.port);
  EXPECT_EQ(k_payload, parsed.payload);
}

// The same datagram on every link, with what may lie between and behind.
std::vector<std::pair<int, bytes>> all_links() {
  const bytes ip = datagram(k_payload);
  const bytes with_options = ipv4(udp(k_payload), {.options = bytes(40, 1)});
  return {
      {DLT_EN10MB, ethernet(ip)},
      {DLT_EN10MB, ethernet(with_options)},
      {DLT_EN10MB, ethernet(vlan(ip), 0x8100)},
      {DLT_EN10MB, ethernet(vlan(vlan(ip), 0x8100), 0x88A8)},
      {DLT_EN10MB, ethernet(vlan(vlan(vlan(ip), 0x9100), 0x8100), 0x8100)},
      {DLT_LINUX_SLL, cooked(ip)},
      {DLT_LINUX_SLL, cooked(vlan(ip), 0x8100)},
      {DLT_LINUX_SLL2, cooked2(ip)},
      {DLT_LINUX_SLL2, cooked2(vlan(ip), 0x8100)},
      {DLT_RAW, ip},
      {DLT_IPV4, with_options},
      {DLT_NULL, bytes{2, 0, 0, 0} + ip},
      {DLT_NULL, bytes{0, 0, 0, 2} + ip},
      {DLT_LOOP, bytes{0, 0, 0, 2} + ip},
  };
}

TEST(decode_packet_test, a_datagram_is_found_on_every_link) {
  for (const auto& [link_type, packet] : all_links()) {
    SCOPED_TRACE(link_type);
    EXPECT_TRUE(kav_decode::is_link_type_known(link_type));
    expect_payload(parse(link_type, packet));
  }
}

TEST(decode_packet_test, padding_behind_the_datagram_is_no_payload) {
  for (const auto& [link_type, packet] : all_links()) {
    SCOPED_TRACE(link_type);
    expect_payload(parse(link_type, packet + k_padding));
  }
}

TEST(decode_packet_test, a_packet_cut_at_any_length_is_malformed) {
  for (const auto& [link_type, packet] : all_links()) {
    for (std::size_t length = 0; length < packet.size(); ++length) {
      EXPECT_EQ(packet_content::malformed, parse(link_type, packet, length).content)
          << link_type << " cut at " << length;
    }
  }
}

TEST(decode_packet_test, an_empty_datagram_has_an_empty_payload) {
  const parsed_copy parsed = parse(DLT_EN10MB, ethernet(datagram({})));
  EXPECT_EQ(packet_content::datagram, parsed.content);
  EXPECT_TRUE(parsed.payload.empty());
}

TEST(decode_packet_test, a_udp_length_shorter_than_the_packet_ends_the_payload) {
  expect_payload(parse(DLT_RAW, ipv4(udp(k_payload) + k_padding)));
}

TEST(decode_packet_test, other_protocols_than_ipv4_are_told_apart) {
  const bytes ip = datagram(k_payload);
  const bytes ipv6 = bytes{0x60} + bytes(47);
  for (const unsigned type : {0x86DDu, 0x0806u, 0x002Eu}) {
    EXPECT_EQ(packet_content::not_ipv4, content_of(DLT_EN10MB, ethernet(ip, type)));
    EXPECT_EQ(packet_content::not_ipv4, content_of(DLT_EN10MB, ethernet(vlan(ip, type), 0x8100)));
    EXPECT_EQ(packet_content::not_ipv4, content_of(DLT_LINUX_SLL, cooked(ip, type)));
    EXPECT_EQ(packet_content::not_ipv4, content_of(DLT_LINUX_SLL2, cooked2(ip, type)));
  }
  EXPECT_EQ(packet_content::not_ipv4, content_of(DLT_RAW, ipv6));
  EXPECT_EQ(packet_content::not_ipv4, content_of(DLT_NULL, bytes{30, 0, 0, 0} + ipv6));
  EXPECT_EQ(packet_content::not_ipv4, content_of(DLT_LOOP, bytes{0, 0, 0, 24} + ipv6));
}

TEST(decode_packet_test, other_protocols_than_udp_are_told_apart) {
  for (const int protocol : {1, 2, 6, 16, 18, 255}) {
    const bytes packet =
        ipv4(udp(k_payload), {.protocol = static_cast<unsigned char>(protocol), .options = {}});
    EXPECT_EQ(packet_content::not_udp, content_of(DLT_RAW, packet)) << protocol;
  }
}

TEST(decode_packet_test, every_fragment_is_told_apart) {
  for (const unsigned flags : {0x2000u, 0x0001u, 0x2001u, 0x1FFFu, 0x6000u}) {
    const bytes packet = ipv4(udp(k_payload), {.flags_and_offset = flags, .options = {}});
    EXPECT_EQ(packet_content::fragmented, content_of(DLT_RAW, packet)) << flags;
  }
  for (const unsigned flags : {0x0000u, 0x4000u, 0x8000u}) {
    expect_payload(
        parse(DLT_RAW, ipv4(udp(k_payload), {.flags_and_offset = flags, .options = {}})));
  }
}

TEST(decode_packet_test, another_ip_version_is_malformed) {
  for (unsigned version = 0; version < 16; ++version) {
    if (version == 4) continue;
    const bytes packet = ipv4(udp(k_payload), {.version = version, .options = {}});
    EXPECT_EQ(packet_content::malformed, content_of(DLT_EN10MB, ethernet(packet))) << version;
  }
}

TEST(decode_packet_test, a_header_length_below_five_words_is_malformed) {
  for (unsigned char words = 0; words < 5; ++words) {
    bytes packet = datagram(k_payload);
    packet[21] = 8;  // with four words this would be a UDP length that fits
    packet[20] = 0;
    packet[0] = static_cast<unsigned char>(0x40 | words);
    EXPECT_EQ(packet_content::malformed, content_of(DLT_RAW, packet)) << int{words};
  }
}

TEST(decode_packet_test, a_total_length_that_cannot_be_is_malformed) {
  const int whole = static_cast<int>(datagram(k_payload).size());
  // One more than there is, no payload left for UDP, less than the header, zero.
  for (const int error : {1, -1 - static_cast<int>(k_payload.size()), 19 - whole, -whole}) {
    const bytes packet = ipv4(udp(k_payload), {.options = {}, .total_error = error});
    EXPECT_EQ(packet_content::malformed, content_of(DLT_RAW, packet)) << error;
  }
}

TEST(decode_packet_test, a_udp_length_that_cannot_be_is_malformed) {
  const int whole = static_cast<int>(k_payload.size()) + 8;
  for (const int error : {1, 7 - whole, -whole, 60'000}) {
    const bytes packet = ipv4(udp(k_payload, k_port, error));
    EXPECT_EQ(packet_content::malformed, content_of(DLT_RAW, packet)) << error;
    EXPECT_EQ(packet_content::malformed, content_of(DLT_EN10MB, ethernet(packet) + k_padding));
  }
}

TEST(decode_packet_test, an_unknown_link_type_gives_nothing) {
  EXPECT_FALSE(kav_decode::is_link_type_known(DLT_PPP));
  EXPECT_EQ(packet_content::malformed, content_of(DLT_PPP, ethernet(datagram(k_payload))));
}

TEST(decode_packet_test, damaged_packets_never_give_bytes_from_outside) {
  std::mt19937 dice{1};
  const auto links = all_links();
  for (int round = 0; round < 50'000; ++round) {
    auto [link_type, packet] = links[dice() % links.size()];
    for (unsigned changes = dice() % 4 + 1; changes > 0; --changes) {
      packet[dice() % packet.size()] = static_cast<unsigned char>(dice());
    }
    parse(link_type, packet, dice() % (packet.size() + 1));  // looks where the payload lies
  }
}

}  // namespace
}  // namespace kav_decode_test
