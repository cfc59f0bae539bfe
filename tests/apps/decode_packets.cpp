#include "tests/apps/decode_packets.h"

#include <cstddef>  // offsetof
#include <cstring>  // std::memcpy

#include "feeds/feed_records.h"

namespace kav_decode_test {
namespace {

class file_writer {
 public:
  explicit file_writer(byte_order order) : m_order(order) {}
  file_writer& number(std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i) {
      const int shift = 8 * (m_order == byte_order::little ? i : width - 1 - i);
      m_bytes.push_back(static_cast<unsigned char>(value >> shift));
    }
    return *this;
  }
  file_writer& raw(const bytes& content) {
    m_bytes.insert(m_bytes.end(), content.begin(), content.end());
    return *this;
  }
  file_writer& padded(const bytes& content) {
    return raw(content).raw(bytes((4 - content.size() % 4) % 4));
  }
  // A pcapng block: type, length, body, length.
  file_writer& block(std::uint32_t type, const bytes& body) {
    const std::size_t length = body.size() + 12;
    return number(type, 4).number(length, 4).raw(body).number(length, 4);
  }
  const bytes& content() const { return m_bytes; }

 private:
  const byte_order m_order;
  bytes m_bytes;
};

std::uint64_t units_per_second(unsigned digits) {
  std::uint64_t units = 1;
  for (unsigned i = 0; i < digits; ++i) units *= 10;
  return units;
}

template <class T>
void put(bytes& record, std::size_t offset, T value) {
  for (std::size_t i = 0; i < sizeof(value); ++i) {
    unsigned char raw[sizeof(value)];
    std::memcpy(raw, &value, sizeof(value));
    record.at(offset + i) = raw[i];
  }
}

void put_text(bytes& record, std::size_t offset, const std::string& text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    record.at(offset + i) = static_cast<unsigned char>(text[i]);
  }
}

bytes ftdc_record(std::size_t length, const std::string& symbol, int number) {
  using record = ftdc_depth_market_data;
  bytes content(length);
  put_text(content, offsetof(record, TradingDay), "20250801");
  put_text(content, offsetof(record, UpdateTime), "10:15:03");
  put_text(content, offsetof(record, InstrumentID), symbol);
  put(content, offsetof(record, LastPrice), 3500.2 + number);
  put(content, offsetof(record, Volume), std::int32_t{number});
  return content;
}

bytes lumen_head(const std::string& symbol, std::size_t length) {
  bytes content(length);
  put_text(content, offsetof(lumen_udp_head, InstrumentID), symbol);
  put_text(content, offsetof(lumen_udp_head, UpdateTime), "10:15:04");
  put(content, offsetof(lumen_udp_head, QuoteFlag), static_cast<unsigned char>(k_lumen_trade));
  return content;
}

}  // namespace

bytes operator+(bytes left, const bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

bytes text_bytes(const std::string& text) { return {text.begin(), text.end()}; }

bytes be16(unsigned value) {
  return {static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
}

bytes be32(std::uint32_t value) { return be16(value >> 16) + be16(value & 0xFFFF); }

bytes udp(const bytes& payload, std::uint16_t to, int length_error) {
  const int length = static_cast<int>(payload.size()) + 8 + length_error;
  return be16(40000) + be16(to) + be16(static_cast<unsigned>(length)) + be16(0) + payload;
}

bytes ipv4(const bytes& body, const ipv4_fields& fields) {
  const std::size_t header_bytes = 20 + fields.options.size();
  const int total = static_cast<int>(header_bytes + body.size()) + fields.total_error;
  const auto first = static_cast<unsigned char>(fields.version << 4 | header_bytes / 4);
  return bytes{first, 0} + be16(static_cast<unsigned>(total)) + be16(1) +
         be16(fields.flags_and_offset) + bytes{1, fields.protocol, 0, 0} + be32(0x7F000001) +
         be32(fields.to) + fields.options + body;
}

bytes datagram(const bytes& payload, std::uint32_t to, std::uint16_t port) {
  return ipv4(udp(payload, port), {.to = to, .options = {}});
}

bytes ethernet(const bytes& body, unsigned type) { return bytes(12, 2) + be16(type) + body; }

bytes vlan(const bytes& body, unsigned type) { return be16(7) + be16(type) + body; }

bytes cooked(const bytes& body, unsigned type) { return bytes(14) + be16(type) + body; }

bytes cooked2(const bytes& body, unsigned type) { return be16(type) + bytes(18) + body; }

bytes pcap_file(const std::vector<file_packet>& packets, int link_type, byte_order order,
                bool nanoseconds) {
  file_writer file{order};
  file.number(nanoseconds ? 0xA1B23C4D : 0xA1B2C3D4, 4).number(2, 2).number(4, 2);
  file.number(0, 8).number(65535, 4).number(static_cast<unsigned>(link_type), 4);
  for (const file_packet& packet : packets) {
    const std::size_t length = packet.content.size();
    file.number(packet.seconds, 4).number(packet.fraction, 4);
    file.number(length, 4).number(length + packet.cut_off, 4).raw(packet.content);
  }
  return file.content();
}

bytes pcapng_file(const std::vector<file_packet>& packets,
                  const std::vector<file_interface>& interfaces, byte_order order) {
  file_writer file{order};
  file_writer section{order};
  section.number(0x1A2B3C4D, 4).number(1, 2).number(0, 2).number(~std::uint64_t{0}, 8);
  file.block(0x0A0D0D0A, section.content());
  for (const file_interface& interface : interfaces) {
    file_writer description{order};
    description.number(static_cast<unsigned>(interface.link_type), 2).number(0, 2);
    description.number(262'144, 4);
    description.number(9, 2).number(1, 2).number(interface.digits, 1).number(0, 3);  // if_tsresol
    description.number(0, 4);                                                        // last option
    file.block(1, description.content());
  }
  for (const file_packet& packet : packets) {
    const std::uint64_t time =
        packet.seconds * units_per_second(interfaces.at(packet.interface).digits) + packet.fraction;
    file_writer body{order};
    body.number(packet.interface, 4).number(time >> 32, 4).number(time & 0xFFFFFFFF, 4);
    body.number(packet.content.size(), 4).number(packet.content.size() + packet.cut_off, 4);
    file.block(6, body.padded(packet.content).content());
  }
  return file.content();
}

bytes cffex_record(const std::string& symbol, int number) {
  return ftdc_record(sizeof(KQC_CFfexFtdcDepthMarketDataField), symbol, number);
}

bytes shfe_record(const std::string& symbol, int number) {
  return ftdc_record(sizeof(KQC_CShfeFtdcDepthMarketDataField), symbol, number);
}

bytes czce_record(const std::string& symbol, int number) {
  bytes content(sizeof(MarketMatchData));
  put_text(content, offsetof(MarketMatchData, InstrumentID), symbol);
  put(content, offsetof(MarketMatchData, LastPrice), 7000.0 + number);
  put(content, offsetof(MarketMatchData, Year), std::uint16_t{2025});
  put(content, offsetof(MarketMatchData, Month), std::uint8_t{8});
  put(content, offsetof(MarketMatchData, Day), std::uint8_t{1});
  return content;
}

bytes gfex_record(const std::string& symbol, int number) {
  constexpr std::size_t k_datagram_bytes = 239;  // the record's other bytes never arrive
  bytes content(k_datagram_bytes);
  put_text(content, offsetof(_fldGfexBestQuot, TradingDay), "20250801");
  put_text(content, offsetof(_fldGfexBestQuot, InstrumentID), symbol);
  put(content, offsetof(_fldGfexBestQuot, LastPrice), 8000.0 + number);
  return content;
}

bytes lumen_tick(const std::string& symbol, double price, int volume) {
  constexpr std::size_t k_head = sizeof(lumen_udp_head);
  bytes content = lumen_head(symbol, k_head + sizeof(lumen_udp_normal));
  put(content, k_head + offsetof(lumen_udp_normal, LastPrice), price);
  put(content, k_head + offsetof(lumen_udp_normal, TradeVolume), std::int32_t{volume});
  return content;
}

bytes lumen_summary(const std::string& symbol, double open_price) {
  constexpr std::size_t k_head = sizeof(lumen_udp_head);
  bytes content = lumen_head(symbol, k_head + sizeof(lumen_udp_summary));
  put(content, k_head + offsetof(lumen_udp_summary, OpenPrice), open_price);
  return content;
}

}  // namespace kav_decode_test
