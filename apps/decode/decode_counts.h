// What became of the packets of a capture.
#pragma once

#include <array>    // std::array
#include <cstddef>  // std::size_t
#include <cstdint>  // std::uint64_t
#include <map>      // std::map
#include <string>   // std::string
#include <utility>  // std::pair

#include "apps/decode/group_table.h"
#include "feeds/multicast_decoder.h"

namespace kav_decode {

// Why a packet gave no quote.
enum class ignore_reason {
  not_ipv4,
  not_udp,
  fragmented,
  truncated,
  malformed,
  not_mapped,
  unknown_length,
  lumen_refused,
};
inline constexpr std::size_t k_ignore_reasons = 8;

class decode_counts {
 public:
  void add_quote(int exchange, multicast_record kind);
  void add_ignored(ignore_reason reason);
  void add_not_mapped(const destination& where);
  void add_unknown_length(int exchange, std::size_t length);

  std::uint64_t packets() const { return m_packets; }
  std::uint64_t quotes() const { return m_quotes; }
  std::uint64_t quotes(int exchange, multicast_record kind) const;
  std::uint64_t ignored(ignore_reason reason) const;

  // Several lines for people; `selected` is how many quotes were wanted.
  std::string summary(std::uint64_t selected) const;

 private:
  std::uint64_t m_packets = 0;
  std::uint64_t m_quotes = 0;
  std::map<std::pair<int, multicast_record>, std::uint64_t> m_decoded;  // by exchange and kind
  std::array<std::uint64_t, k_ignore_reasons> m_ignored{};
  std::map<destination, std::uint64_t> m_not_mapped;  // of the first k_most_destinations
  std::map<std::pair<int, std::size_t>, std::uint64_t> m_unknown_lengths;  // by exchange and length
};

}  // namespace kav_decode
