// From bytes in a buffer to the caller's OnQuote, no sockets, beside a loop that a caller would
// write by hand for quotes alone. Times are those of one message.
#include <cstring>  // memcpy
#include <string>   // std::string
#include <vector>   // std::vector

#include "bench/pieces/piece.h"
#include "bench/pieces/symbols.h"
#include "client/ckqc_tcp.h"
#include "client/kqs_messages.h"
#include "tests/support/quotes_only.h"
#include "tools/helpers.h"

namespace {

using VORLAN::TOOLS::strncpy_vl;

class counter : public kav_test::quotes_only {
 public:
  void OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* quote) override {
    ++m_quotes;
    m_volume += static_cast<unsigned>(quote->Volume);
  }

  std::size_t quotes() const { return m_quotes; }

 private:
  std::size_t m_quotes = 0;
  unsigned m_volume = 0;
};

std::vector<char> quote_messages(std::size_t count) {
  std::vector<char> bytes;
  for (const std::string& symbol : kav_bench::contract_symbols(count)) {
    kqs_quote message{};
    message.type = k_kqs_quote;
    message.instrument_type = '1';
    strncpy_vl(message.quote.InstrumentID, sizeof(message.quote.InstrumentID), symbol.c_str());
    message.quote.Volume = static_cast<std::int32_t>(bytes.size());
    const char* const start = reinterpret_cast<const char*>(&message);
    bytes.insert(bytes.end(), start, start + sizeof(message));
  }
  return bytes;
}

// How much of the chunk was consumed; one data event.
class by_kav {
 public:
  explicit by_kav(counter& quotes) {
    KqsTcpInfo nowhere{};  // knows its caller then, but has no connection
    strncpy_vl(nowhere.m_ServerIp, sizeof(nowhere.m_ServerIp), "nowhere");
    m_client.ConnServer(nowhere, &quotes);
  }
  std::size_t cut(const char* data, std::size_t size) {
    VORLAN::SOCK::socket_param event(VORLAN::SOCK::EVENT_RECEIVE, 0, &data,
                                     static_cast<unsigned>(size), 0);
    m_client.on_cache_callback(event);
    return event.get_proc_len();
  }

 private:
  Ckqc_tcp m_client;
};

class by_hand {
 public:
  explicit by_hand(KAVQuoteEvent& quotes) : m_quotes(&quotes) {}
  std::size_t cut(const char* data, std::size_t size) {
    std::size_t at = 0;
    while (size - at >= sizeof(kqs_quote) && data[at] == k_kqs_quote) {
      auto* const message = reinterpret_cast<kqs_quote*>(const_cast<char*>(data + at));
      m_quotes->OnQuote(static_cast<KavKqsIntrumentType>(message->instrument_type),
                        &message->quote);
      at += sizeof(kqs_quote);
    }
    return at;
  }

 private:
  KAVQuoteEvent* const m_quotes;
};

constexpr std::size_t k_messages = 1100;  // before they repeat
constexpr std::size_t k_messages_a_chunk[] = {1, 22, k_messages};

template <class CUTTER>
void run(benchmark::State& state, std::size_t messages_a_chunk) {
  const std::vector<char> bytes = quote_messages(k_messages);
  const std::size_t chunk = messages_a_chunk * sizeof(kqs_quote);
  counter quotes;
  CUTTER cutter(*kav_bench::unknown(&quotes));
  std::size_t at = 0, cut = 0;
  while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(messages_a_chunk))) {
    cut += cutter.cut(bytes.data() + at, chunk);
    at += chunk;
    if (at == bytes.size()) at = 0;
  }
  if (cut != quotes.quotes() * sizeof(kqs_quote) || cut == 0) state.SkipWithError("quotes lost");
}

const kav_bench::at_start k_chunks([] {
  for (const std::size_t messages : k_messages_a_chunk) {
    kav_bench::add_piece("dispatch/quote", messages, "kav", run<by_kav>);
    kav_bench::add_piece("dispatch/quote", messages, "by_hand", run<by_hand>);
  }
});

}  // namespace
