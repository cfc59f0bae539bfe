// What is sent at once: the bytes of one record.
#pragma once

#include <cstddef>      // std::size_t
#include <cstring>      // memcpy
#include <type_traits>  // std::is_trivially_copyable

#include "feeds/feed_records.h"

namespace kav_feed {

constexpr std::size_t k_longest_datagram = sizeof(KQC_CShfeFtdcDepthMarketDataField);

struct datagram {
  std::size_t length = 0;
  char bytes[k_longest_datagram] = {};

  // Behind what is there already.
  template <class RECORD>
  void append(const RECORD& record, std::size_t size = sizeof(RECORD)) {
    static_assert(std::is_trivially_copyable<RECORD>::value, "sent as bytes");
    static_assert(sizeof(RECORD) <= k_longest_datagram, "no record is longer");
    std::memcpy(bytes + length, &record, size);
    length += size;
  }
};

}  // namespace kav_feed
