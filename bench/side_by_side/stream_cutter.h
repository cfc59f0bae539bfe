// Cuts the messages of the server from a byte stream, for all receivers but the library's client.
#pragma once

#include <cstddef>  // std::size_t
#include <vector>   // std::vector

#include "api/kav_quote_api.h"

namespace kav_bench {

// A buffer that a receiver reads into: the rest of a split message, then room for one read.
//
// Threads:   one at a time.
class stream_cutter {
 public:
  // OnQuote() of `event` gets each quote.
  stream_cutter(KAVQuoteEvent& event, std::size_t read_bytes);

  // Where the next read goes; it may bring `read_bytes`.
  char* room() { return m_bytes.data() + m_kept; }
  // Cuts what the read brought, and keeps the rest. False: no message begins like this.
  bool received(std::size_t bytes);

 private:
  KAVQuoteEvent& m_event;
  std::vector<char> m_bytes;
  std::size_t m_kept = 0;
};

constexpr std::size_t k_malformed = ~std::size_t{0};

// Hands over each whole quote of `data`; other messages are skipped. The bytes of all whole
// messages, or k_malformed.
std::size_t cut_messages(char* data, std::size_t length, KAVQuoteEvent& event);

}  // namespace kav_bench
