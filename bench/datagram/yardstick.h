// What a program would write by hand for the datagrams of SHFE's group.
#pragma once

#include "api/kav_quote_api.h"
#include "feeds/feed_convert.h"

namespace kav_bench {

inline void deliver(char* datagram, std::size_t length, KAVQuoteEvent& event) {
  if (length != sizeof(KQC_CShfeFtdcDepthMarketDataField)) return;
  KAVMarketDepthQuoteData quote{};
  convert_shfe_quote_to_kav_quote(reinterpret_cast<KQC_CShfeFtdcDepthMarketDataField*>(datagram),
                                  &quote);
  event.OnQuote(KavKqsIntrumentTypeMulticast, &quote);
}

}  // namespace kav_bench
