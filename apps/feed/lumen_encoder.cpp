#include "apps/feed/lumen_encoder.h"

#include <cstring>  // memcmp, strncmp

#include "apps/feed/field_values.h"
#include "feeds/exchange_id.h"

namespace kav_feed {

namespace {

constexpr double k_no_value = 9999999999999.9;  // receivers ignore what is not below

bool can_be_told(double value) { return value > 0.0 && value < k_no_value; }

lumen_udp_head head_of(const KAVMarketDepthQuoteData& tick) {
  lumen_udp_head head{};
  const bool cffex = std::strncmp(tick.ExchangeID, k_exchange_cffex, sizeof(tick.ExchangeID)) == 0;
  head.Market = cffex ? 0 : 1;
  put_text(head.InstrumentID, tick.InstrumentID);
  put_text(head.UpdateTime, tick.UpdateTime);
  head.UpdateMillisec = tick.UpdateMillisec;
  return head;
}

lumen_udp_summary summary_of(const KAVMarketDepthQuoteData& tick) {
  lumen_udp_summary summary{};
  summary.OpenPrice = tick.OpenPrice;
  summary.HighestPrice = tick.HighestPrice;
  summary.LowestPrice = tick.LowestPrice;
  summary.ClosePrice = tick.ClosePrice;
  summary.UpperLimitPrice = tick.UpperLimitPrice;
  summary.LowerLimitPrice = tick.LowerLimitPrice;
  summary.SettlementPrice = tick.SettlementPrice;
  summary.CurrDelta = tick.CurrDelta;
  return summary;
}

template <class BODY>
datagram joined(const lumen_udp_head& head, const BODY& body) {
  datagram result;
  result.append(head);
  result.append(body);
  return result;
}

}  // namespace

// Sets the head's flag as well. A new price without a volume, as before the opening, is told as a
// trade of nothing: with a flag of the book alone receivers would not look at it.
lumen_udp_normal lumen_encoder::next_tick(const KAVMarketDepthQuoteData& tick, told& so_far,
                                          lumen_udp_head& head) {
  lumen_udp_normal body{};
  body.LastPrice = tick.LastPrice;
  // Without a sign: receivers add with wrapping, also when a replay begins again.
  body.TradeVolume = static_cast<std::int32_t>(static_cast<std::uint32_t>(tick.Volume) -
                                               static_cast<std::uint32_t>(so_far.volume));
  body.Turnover = tick.Turnover;
  body.OpenInterest = tick.OpenInterest;
  body.BidPrice1 = tick.BidPrice1;
  body.BidVolume1 = tick.BidVolume1;
  body.AskPrice1 = tick.AskPrice1;
  body.AskVolume1 = tick.AskVolume1;
  const double last_price = tick.LastPrice;
  const bool new_price = can_be_told(last_price) && last_price != so_far.last_price;
  head.QuoteFlag = body.TradeVolume != 0 || new_price ? k_lumen_trade_and_book : k_lumen_book;
  so_far.volume = tick.Volume;
  if (new_price) so_far.last_price = last_price;
  return body;
}

void lumen_encoder::encode(const KAVMarketDepthQuoteData& tick, std::vector<datagram>& out) {
  lumen_udp_head head = head_of(tick);
  told& so_far = m_told[head.InstrumentID];
  const lumen_udp_summary summary = summary_of(tick);
  if (!so_far.any || std::memcmp(&summary, &so_far.summary, sizeof(summary)) != 0) {
    so_far.any = true;
    so_far.summary = summary;
    out.push_back(joined(head, summary));
  }
  const lumen_udp_normal body = next_tick(tick, so_far, head);
  out.push_back(joined(head, body));
}

}  // namespace kav_feed
