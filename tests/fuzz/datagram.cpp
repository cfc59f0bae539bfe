// Datagrams of a multicast group into the decoder, several with one cache.
#include <map>     // std::map
#include <vector>  // std::vector

#include "feeds/exchange_id.h"
#include "feeds/feed_convert.h"
#include "feeds/multicast_decoder.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/record_check.h"
#include "tests/support/quotes_only.h"

namespace {

using kav_fuzz::fuzz_input;
using kav_fuzz::heap_bytes;
using quote_data = KAVMarketDepthQuoteData;

constexpr std::size_t k_most_datagrams = 64;
constexpr std::size_t k_lengths[] = {368, 360, 239, 120, 108};  // of the records that are known
constexpr unsigned k_other_lengths = 512;

class quote_catcher : public kav_test::quotes_only {
 public:
  struct caught {
    KAVMarketDepthQuoteData* address;
    KAVMarketDepthQuoteData quote;
  };
  std::vector<caught> quotes;

  void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override {
    KAV_CHECK(type == KavKqsIntrumentTypeMulticast);
    quotes.push_back({quote, *quote});
    kav_fuzz::check_texts_end(*quote);
  }
};

// What the decoder is to see, told from exchange number and length.
multicast_record expected_kind(const std::string& bytes, int exchange) {
  const std::size_t length = bytes.size();
  if ((exchange == 103 || exchange == 106) && length == 368) return multicast_record::shfe;
  if (exchange == 102 && length == 360) return multicast_record::cffex;
  if (exchange == 105 && length == 239) return multicast_record::czce;
  if (exchange == 108 && length == 239) return multicast_record::gfex;
  if (length != 120 && length != 108) return multicast_record::ignored;
  if (bytes.find('\0', 11) >= 42) return multicast_record::lumen_refused;
  return length == 120 ? multicast_record::lumen_summary : multicast_record::lumen_tick;
}

// The quote that follows from the one that was there, by the converters alone.
void convert(std::string bytes, multicast_record kind, quote_data& quote) {
  bytes.resize(512, '\0');  // no converter reads further
  char* const data = bytes.data();
  auto* const head = reinterpret_cast<lumen_udp_head*>(data);
  switch (kind) {
    case multicast_record::shfe:
      return convert_shfe_quote_to_kav_quote(
          reinterpret_cast<KQC_CShfeFtdcDepthMarketDataField*>(data), &quote);
    case multicast_record::cffex:
      return convert_ffex_quote_to_kav_quote(
          reinterpret_cast<KQC_CFfexFtdcDepthMarketDataField*>(data), &quote);
    case multicast_record::czce:
      return convert_zce_quote_to_kav_quote(reinterpret_cast<MarketMatchData*>(data), &quote);
    case multicast_record::gfex:
      return convert_gfex_quote_to_kav_quote(reinterpret_cast<_fldGfexBestQuot*>(data), &quote);
    case multicast_record::lumen_summary:
      return convert_lumen_summary_quote_to_kav_quote(
          head, reinterpret_cast<lumen_udp_summary*>(data + sizeof(*head)), &quote);
    default:
      return convert_lumen_normal_quote_to_kav_quote(
          head, reinterpret_cast<lumen_udp_normal*>(data + sizeof(*head)), &quote);
  }
}

class decoder_check {
 public:
  explicit decoder_check(int exchange) : m_exchange(exchange) { m_decoder.set_event(&m_events); }

  void take(const std::string& bytes) {
    heap_bytes copy(bytes);
    m_events.quotes.clear();
    const multicast_record kind =
        m_decoder.decode(copy.data(), static_cast<unsigned>(bytes.size()), m_exchange);
    KAV_CHECK(kind == expected_kind(bytes, m_exchange));
    if (kind == multicast_record::ignored || kind == multicast_record::lumen_refused) {
      KAV_CHECK(m_events.quotes.empty());
    } else {
      KAV_CHECK(m_events.quotes.size() == 1);
      check_quote(bytes, kind);
    }
    KAV_CHECK(m_decoder.cached_symbols() == m_cache.size());
  }

 private:
  struct cached {
    quote_data quote{};
    const quote_data* address = nullptr;  // where the decoder keeps it
  };

  void check_quote(const std::string& bytes, multicast_record kind) {
    const quote_catcher::caught& caught = m_events.quotes.front();
    if (kind != multicast_record::lumen_summary && kind != multicast_record::lumen_tick) {
      quote_data expected{};
      convert(bytes, kind, expected);
      KAV_CHECK(kav_fuzz::is_same_quote(caught.quote, expected));
      return;
    }
    cached& entry = m_cache[bytes.c_str() + 11];
    convert(bytes, kind, entry.quote);
    KAV_CHECK(kav_fuzz::is_same_quote(caught.quote, entry.quote));
    if (entry.address == nullptr) entry.address = caught.address;
    KAV_CHECK(entry.address == caught.address);
  }

  const int m_exchange;
  quote_catcher m_events;
  multicast_decoder m_decoder;
  std::map<std::string, cached> m_cache;
};

// One byte tells the length, as one that is known or not, and then come the bytes.
std::string take_datagram(fuzz_input& input) {
  const unsigned choice = input.take_byte();
  const std::size_t length = choice < 0xC0 ? k_lengths[choice % std::size(k_lengths)]
                                           : input.take_word() % k_other_lengths;
  return input.take_padded(length);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  constexpr int k_exchanges[] = {101, 102, 103, 104, 105, 106, 107, 108, 0};
  decoder_check check(k_exchanges[input.take_byte() % std::size(k_exchanges)]);
  for (std::size_t i = 0; i < k_most_datagrams && !input.is_empty(); ++i) {
    check.take(take_datagram(input));
  }
  return 0;
}
