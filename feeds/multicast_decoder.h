// From a multicast datagram to OnQuote().
#pragma once

#include <atomic>   // std::atomic
#include <cstddef>  // size_t

#include "api/kav_quote_api.h"
#include "tools/map_str.h"

// What decode() has seen in a datagram.
enum class multicast_record {
  ignored,        // no record that is known: nothing was delivered
  shfe,           // of SHFE or INE
  cffex,          //
  czce,           //
  gfex,           //
  lumen_summary,  //
  lumen_tick,     //
  lumen_refused,  // a lumen record that cannot be kept under its symbol: nothing was delivered
};

// Recognises the one record of a datagram by the group's exchange number and the datagram's length,
// converts it and hands it to the event object. Lumen records carry parts of quotes; they are
// merged in a cache that holds one quote for each symbol and only ever grows.
//
// Threads:   set_event() may be called at any time, also while decode() runs: the datagram that is
//            being decoded may still go to the object set before. The cache has no lock: one thread
//            at a time decodes for one decoder. Callbacks come on that thread, under no lock.
// Ownership: the event object stays the caller's. The record that it is given lives on the stack
//            (exchanges) or in the cache (lumen), there at the same address for each symbol.
class multicast_decoder {
 public:
  // Who gets the quotes; null (as at first) for nobody. The cache is kept up to date all the same.
  void set_event(KAVQuoteEvent* event) { m_event.store(event, std::memory_order_release); }

  // Decodes the `length` bytes at `data`; no byte behind them is read. `exchange` is a number of
  // get_int_exchange_id(), 0 where it is not known: then only lumen records are recognised.
  // std::bad_alloc, with the cache whole, when there is no memory for a new symbol.
  multicast_record decode(const char* data, unsigned length, int exchange);

  // Lumen symbols seen so far. Same thread as decode().
  std::size_t cached_symbols() const { return m_cache.size(); }

 private:
  multicast_record decode_lumen(const char* data, multicast_record kind);
  KAVMarketDepthQuoteData* cached_quote(const char* symbol);
  void deliver(KAVMarketDepthQuoteData* quote);

  std::atomic<KAVQuoteEvent*> m_event{nullptr};  // read by the decoding thread
  // Decoding thread only.
  VORLAN::TOOLS::map_str<KAVMarketDepthQuoteData, 31, VORLAN::TOOLS::null_lock> m_cache;
};
