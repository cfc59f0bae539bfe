// Packets and capture files for tests, made byte by byte.
#pragma once

#include <pcap/dlt.h>  // DLT_EN10MB

#include <cstdint>  // std::uint32_t
#include <string>   // std::string
#include <vector>   // std::vector

namespace kav_decode_test {

using bytes = std::vector<unsigned char>;

bytes operator+(bytes left, const bytes& right);
bytes text_bytes(const std::string& text);
bytes be16(unsigned value);
bytes be32(std::uint32_t value);

// ---- Packets ----

constexpr std::uint32_t k_group = 0xEFFF0A02;  // 239.255.10.2, the default group of CFFEX
constexpr std::uint16_t k_port = 30002;

struct ipv4_fields {
  std::uint32_t to = k_group;
  unsigned version = 4;
  unsigned char protocol = 17;
  unsigned flags_and_offset = 0x4000;  // may not be fragmented
  bytes options;                       // a multiple of four
  int total_error = 0;                 // added to the total length
};
bytes udp(const bytes& payload, std::uint16_t to = k_port, int length_error = 0);
bytes ipv4(const bytes& body, const ipv4_fields& fields = {});
bytes datagram(const bytes& payload, std::uint32_t to = k_group, std::uint16_t port = k_port);

// In front of what they carry.
bytes ethernet(const bytes& body, unsigned type = 0x0800);
bytes vlan(const bytes& body, unsigned type = 0x0800);  // behind a type such as 0x8100
bytes cooked(const bytes& body, unsigned type = 0x0800);
bytes cooked2(const bytes& body, unsigned type = 0x0800);

// ---- Files ----

enum class byte_order { little, big };

struct file_packet {
  bytes content;
  std::uint32_t seconds = 1'700'000'000;
  std::uint32_t fraction = 0;  // in the unit of the file
  std::uint32_t cut_off = 0;   // bytes that the packet had besides
  std::uint32_t interface = 0;
};

bytes pcap_file(const std::vector<file_packet>& packets, int link_type = DLT_EN10MB,
                byte_order order = byte_order::little, bool nanoseconds = false);

// Each interface has its own clock: packets count in 10^-`digits` s.
struct file_interface {
  int link_type = DLT_EN10MB;
  unsigned digits = 6;
};
bytes pcapng_file(const std::vector<file_packet>& packets,
                  const std::vector<file_interface>& interfaces = {{}},
                  byte_order order = byte_order::little);

// ---- Records ----

// A record of the CFFEX feed; different numbers give different prices and volumes.
bytes cffex_record(const std::string& symbol, int number = 0);
bytes shfe_record(const std::string& symbol, int number = 0);  // INE's too
bytes czce_record(const std::string& symbol, int number = 0);
bytes gfex_record(const std::string& symbol, int number = 0);
// A trade of `volume` lots.
bytes lumen_tick(const std::string& symbol, double price, int volume);
bytes lumen_summary(const std::string& symbol, double open_price);

}  // namespace kav_decode_test
