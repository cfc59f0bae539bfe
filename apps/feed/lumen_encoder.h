// Quote records turned into lumen datagrams, which tell of each symbol only what has changed.
#pragma once

#include <string>         // std::string
#include <unordered_map>  // std::unordered_map
#include <vector>         // std::vector

#include "api/kav_quote_api.h"
#include "apps/feed/datagram.h"

namespace kav_feed {

// A receiver that merges all datagrams from the first on has after each tick (the call's last
// datagram) what the tick said: symbol, time, last price, volume, turnover, open interest, level 1
// and the eight values of the summary. A value of 0, below or from 9999999999999.9 on cannot be
// told: the receiver's last one stays. One thread at a time.
class lumen_encoder {
 public:
  // Appends a summary (120 bytes) when it is the symbol's first tick or one of the eight values has
  // changed, and then the tick (108 bytes).
  void encode(const KAVMarketDepthQuoteData& tick, std::vector<datagram>& out);

 private:
  // What the receivers of a symbol have been told.
  struct told {
    bool any = false;
    std::int32_t volume = 0;
    double last_price = 0;
    lumen_udp_summary summary{};
  };

  static lumen_udp_normal next_tick(const KAVMarketDepthQuoteData& tick, told& so_far,
                                    lumen_udp_head& head);

  std::unordered_map<std::string, told> m_told;
};

}  // namespace kav_feed
