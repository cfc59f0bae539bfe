#include "bench/side_by_side/stream_cutter.h"

#include <cstring>  // memmove

#include "apps/sim/wire.h"

namespace kav_bench {

namespace {

std::size_t server_message_bytes(char type) {
  switch (type) {
    case 'Q':
      return kav_sim::k_quote_bytes;
    case 'H':
      return kav_sim::k_heartbeat_bytes;
    case 'A':
      return kav_sim::k_login_answer_bytes;
    case 'I':
    case 'F':
      return kav_sim::k_symbol_message_bytes;
    case 'M':
      return kav_sim::k_list_entry_bytes;
    default:
      return 0;
  }
}

}  // namespace

std::size_t cut_messages(char* data, std::size_t length, KAVQuoteEvent& event) {
  std::size_t used = 0;
  while (used < length) {
    char* const message = data + used;
    const std::size_t bytes = server_message_bytes(message[0]);
    if (bytes == 0) return k_malformed;
    if (length - used < bytes) break;
    if (message[0] == 'Q') {
      event.OnQuote(
          static_cast<KavKqsIntrumentType>(message[1]),
          reinterpret_cast<KAVMarketDepthQuoteData*>(message + kav_sim::k_quote_record_offset));
    }
    used += bytes;
  }
  return used;
}

stream_cutter::stream_cutter(KAVQuoteEvent& event, std::size_t read_bytes)
    : m_event(event), m_bytes(read_bytes + kav_sim::k_quote_bytes) {}

bool stream_cutter::received(std::size_t bytes) {
  const std::size_t live = m_kept + bytes;
  const std::size_t used = cut_messages(m_bytes.data(), live, m_event);
  if (used == k_malformed) return false;
  m_kept = live - used;
  if (m_kept > 0 && used > 0) std::memmove(m_bytes.data(), m_bytes.data() + used, m_kept);
  return true;
}

}  // namespace kav_bench
