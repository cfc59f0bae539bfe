// Quote records turned into the exchanges' datagrams: the other way round than feed_convert.h.
//
// Whoever converts such a datagram finds in every field that its record carries what the tick
// said. What no record carries is lost: the exchange of an SHFE or INE quote ("CFFEX" is read), its
// average price, the levels 2 to 5 elsewhere. Texts that do not fit are cut, bytes without a
// meaning are zero. Any thread.
#pragma once

#include "api/kav_quote_api.h"
#include "apps/feed/datagram.h"

namespace kav_feed {

// Bytes of a GFEX datagram; the rest of the record never arrives.
constexpr std::size_t k_gfex_bytes = 239;

datagram encode_shfe(const KAVMarketDepthQuoteData& tick);   // 368 bytes; INE as well
datagram encode_cffex(const KAVMarketDepthQuoteData& tick);  // 360 bytes
// 239 bytes. The time of day is lost. Turnover and the open interests travel as whole numbers of 32
// bits: rounded, and held at the nearest one that can be told.
datagram encode_czce(const KAVMarketDepthQuoteData& tick);
// 239 bytes. The datagram ends within the time: its last digit and the milliseconds are lost, as
// are the opening and the closing price. The open interests are whole numbers as above.
datagram encode_gfex(const KAVMarketDepthQuoteData& tick);

}  // namespace kav_feed
