#include "apps/decode/packet_decoder.h"

namespace kav_decode {

void packet_decoder::take(const captured_packet& packet) {
  // Whatever it holds, its end is missing.
  if (packet.captured_bytes < packet.packet_bytes) {
    return m_counts.add_ignored(ignore_reason::truncated);
  }
  const parsed_packet parsed = parse_packet(m_link_type, packet.bytes, packet.captured_bytes);
  switch (parsed.content) {
    case packet_content::datagram:
      return take_datagram(parsed);
    case packet_content::not_ipv4:
      return m_counts.add_ignored(ignore_reason::not_ipv4);
    case packet_content::not_udp:
      return m_counts.add_ignored(ignore_reason::not_udp);
    case packet_content::fragmented:
      return m_counts.add_ignored(ignore_reason::fragmented);
    case packet_content::malformed:
      return m_counts.add_ignored(ignore_reason::malformed);
  }
}

void packet_decoder::take_datagram(const parsed_packet& datagram) {
  const destination where{datagram.address, datagram.port};
  const std::optional<int> exchange = m_groups.find(where);
  if (!exchange) return m_counts.add_not_mapped(where);
  const multicast_record kind = m_decoder.decode(reinterpret_cast<const char*>(datagram.payload),
                                                 static_cast<unsigned>(datagram.length), *exchange);
  if (kind == multicast_record::ignored) {
    m_counts.add_unknown_length(*exchange, datagram.length);
  } else if (kind == multicast_record::lumen_refused) {
    m_counts.add_ignored(ignore_reason::lumen_refused);
  } else {
    m_counts.add_quote(*exchange, kind);
  }
}

}  // namespace kav_decode
