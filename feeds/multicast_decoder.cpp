#include "feeds/multicast_decoder.h"

#include <cstring>  // memchr, memcpy

#include "feeds/exchange_id.h"
#include "feeds/feed_convert.h"
#include "feeds/feed_records.h"

namespace {

constexpr unsigned k_shfe_bytes = sizeof(KQC_CShfeFtdcDepthMarketDataField);
constexpr unsigned k_cffex_bytes = sizeof(KQC_CFfexFtdcDepthMarketDataField);
constexpr unsigned k_czce_bytes = sizeof(MarketMatchData);
constexpr unsigned k_gfex_bytes = 239;  // the record's other bytes never arrive
constexpr unsigned k_lumen_tick_bytes = sizeof(lumen_udp_head) + sizeof(lumen_udp_normal);
constexpr unsigned k_lumen_summary_bytes = sizeof(lumen_udp_head) + sizeof(lumen_udp_summary);
static_assert(k_gfex_bytes <= sizeof(_fldGfexBestQuot), "a GFEX datagram fits into the record");
static_assert(k_lumen_tick_bytes == 108 && k_lumen_summary_bytes == 120, "lumen datagrams");
static_assert(k_lumen_summary_bytes < k_gfex_bytes, "no exchange record has a lumen length");

// No market lists nearly as many symbols; the limit is for a group gone wild.
constexpr std::size_t k_most_symbols = 262'144;

// Of a datagram from that exchange's group.
multicast_record recognise_exchange(unsigned length, int exchange) {
  switch (exchange) {
    case k_exchange_number_shfe:
    case k_exchange_number_ine:
      return length == k_shfe_bytes ? multicast_record::shfe : multicast_record::ignored;
    case k_exchange_number_cffex:
      return length == k_cffex_bytes ? multicast_record::cffex : multicast_record::ignored;
    case k_exchange_number_czce:
      return length == k_czce_bytes ? multicast_record::czce : multicast_record::ignored;
    case k_exchange_number_gfex:
      return length == k_gfex_bytes ? multicast_record::gfex : multicast_record::ignored;
    default:
      return multicast_record::ignored;
  }
}

// A group of any exchange may carry lumen datagrams as well.
multicast_record recognise(unsigned length, int exchange) {
  if (length == k_lumen_summary_bytes) return multicast_record::lumen_summary;
  if (length == k_lumen_tick_bytes) return multicast_record::lumen_tick;
  return recognise_exchange(length, exchange);
}

// The converters take records that they could change, and leave them alone.
template <class RECORD>
RECORD* as_record(const char* data) {
  return reinterpret_cast<RECORD*>(const_cast<char*>(data));
}

void convert_gfex(const char* data, KAVMarketDepthQuoteData* quote) {
  char zero_behind[sizeof(_fldGfexBestQuot)] = {};
  std::memcpy(zero_behind, data, k_gfex_bytes);
  convert_gfex_quote_to_kav_quote(as_record<_fldGfexBestQuot>(zero_behind), quote);
}

void convert_exchange(const char* data, multicast_record kind, KAVMarketDepthQuoteData* quote) {
  if (kind == multicast_record::shfe) {
    convert_shfe_quote_to_kav_quote(as_record<KQC_CShfeFtdcDepthMarketDataField>(data), quote);
  } else if (kind == multicast_record::cffex) {
    convert_ffex_quote_to_kav_quote(as_record<KQC_CFfexFtdcDepthMarketDataField>(data), quote);
  } else if (kind == multicast_record::czce) {
    convert_zce_quote_to_kav_quote(as_record<MarketMatchData>(data), quote);
  } else {
    convert_gfex(data, quote);
  }
}

void convert_lumen(const char* data, multicast_record kind, KAVMarketDepthQuoteData* quote) {
  auto* const head = as_record<lumen_udp_head>(data);
  const char* const body = data + sizeof(lumen_udp_head);
  if (kind == multicast_record::lumen_summary) {
    convert_lumen_summary_quote_to_kav_quote(head, as_record<lumen_udp_summary>(body), quote);
  } else {
    convert_lumen_normal_quote_to_kav_quote(head, as_record<lumen_udp_normal>(body), quote);
  }
}

// The symbol of a lumen datagram; null when no NUL ends it within its field.
const char* lumen_symbol(const char* data) {
  const char* const symbol = data + offsetof(lumen_udp_head, InstrumentID);
  const bool ends = std::memchr(symbol, '\0', sizeof(lumen_udp_head::InstrumentID)) != nullptr;
  return ends ? symbol : nullptr;
}

}  // namespace

multicast_record multicast_decoder::decode(const char* data, unsigned length, int exchange) {
  if (data == nullptr) return multicast_record::ignored;
  const multicast_record kind = recognise(length, exchange);
  if (kind == multicast_record::ignored) return kind;
  if (kind == multicast_record::lumen_summary || kind == multicast_record::lumen_tick) {
    return decode_lumen(data, kind);
  }
  KAVMarketDepthQuoteData quote{};
  convert_exchange(data, kind, &quote);
  deliver(&quote);
  return kind;
}

multicast_record multicast_decoder::decode_lumen(const char* data, multicast_record kind) {
  KAVMarketDepthQuoteData* const quote = cached_quote(lumen_symbol(data));
  if (quote == nullptr) return multicast_record::lumen_refused;
  convert_lumen(data, kind, quote);
  deliver(quote);
  return kind;
}

// Null for a null symbol, and for a new one when the cache is full.
KAVMarketDepthQuoteData* multicast_decoder::cached_quote(const char* symbol) {
  KAVMarketDepthQuoteData* const known = m_cache.find(symbol);
  if (known != nullptr || symbol == nullptr || m_cache.size() >= k_most_symbols) return known;
  return &m_cache[symbol];
}

void multicast_decoder::deliver(KAVMarketDepthQuoteData* quote) {
  KAVQuoteEvent* const event = m_event.load(std::memory_order_acquire);
  if (event != nullptr) event->OnQuote(KavKqsIntrumentTypeMulticast, quote);
}
