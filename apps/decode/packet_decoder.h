// From the packets of a capture to OnQuote().
#pragma once

#include "api/kav_quote_api.h"
#include "apps/decode/capture_file.h"
#include "apps/decode/decode_counts.h"
#include "apps/decode/group_table.h"
#include "apps/decode/packet.h"
#include "feeds/multicast_decoder.h"

namespace kav_decode {

// Decodes as the library does when it receives the groups itself: one cache of lumen quotes for all
// groups. One thread at a time; event and table outlive it.
class packet_decoder {
 public:
  packet_decoder(int link_type, const group_table& groups, KAVQuoteEvent* event)
      : m_link_type(link_type), m_groups(groups) {
    m_decoder.set_event(event);
  }

  // Every packet is counted once.
  void take(const captured_packet& packet);
  const decode_counts& counts() const { return m_counts; }

 private:
  void take_datagram(const parsed_packet& datagram);

  const int m_link_type;
  const group_table& m_groups;
  multicast_decoder m_decoder;
  decode_counts m_counts;
};

}  // namespace kav_decode
