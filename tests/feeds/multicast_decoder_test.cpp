#include "feeds/multicast_decoder.h"

#include <gtest/gtest.h>

#include <atomic>  // std::atomic
#include <map>     // std::map
#include <string>  // std::string
#include <thread>  // std::thread

#include "feeds/feed_convert.h"
#include "tests/feeds/feed_bytes.h"
#include "tests/support/guarded_bytes.h"

namespace {

using feed_test::bytes;
using feed_test::dice;
using feed_test::exact_buffer;
using feed_test::get;
using feed_test::k_quote_bytes;
using feed_test::put;
using feed_test::put_text;

// Keeps what was delivered; any other callback is a failure.
class quote_recorder : public KAVQuoteEvent {
 public:
  struct delivery {
    int type;
    bytes quote;
    const KAVMarketDepthQuoteData* address;
  };

  void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override {
    const auto* const start = reinterpret_cast<const unsigned char*>(quote);
    deliveries.push_back({int{type}, bytes(start, start + k_quote_bytes), quote});
  }
  void OnServerConnected() override { ADD_FAILURE(); }
  void OnServerDisconnected() override { ADD_FAILURE(); }
  void OnLoginResult(bool, const char*) override { ADD_FAILURE(); }
  void OnLog(KavKqsLogLevel, const char*, int) override { ADD_FAILURE(); }
  void OnSymbolRegistered(KavKqsIntrumentType, const char*, bool) override { ADD_FAILURE(); }
  void OnSymbolUnregistered(KavKqsIntrumentType, const char*, bool) override { ADD_FAILURE(); }
  void OnSymbolList(KavKqsIntrumentType, const char*, bool) override { ADD_FAILURE(); }

  std::vector<delivery> deliveries;
};

// ---- Datagrams.

constexpr std::size_t k_tick_length = 108;
constexpr std::size_t k_summary_length = 120;

bytes lumen_datagram(std::size_t length, const char* symbol, unsigned char flag) {
  bytes datagram(length);
  datagram[4] = 1;
  put_text(datagram, 11, 31, symbol);
  put_text(datagram, 42, 9, "09:30:01");
  datagram[55] = flag;
  return datagram;
}

bytes trade(const char* symbol, double price, std::int32_t volume) {
  bytes datagram = lumen_datagram(k_tick_length, symbol, 1);
  put(datagram, 56, price);
  put(datagram, 64, volume);
  return datagram;
}

bytes summary(const char* symbol, double open) {
  bytes datagram = lumen_datagram(k_summary_length, symbol, 0);
  put(datagram, 56, open);
  return datagram;
}

// ---- A model of the decoder that knows nothing of classes.

multicast_record expected_record(std::size_t length, int exchange, bool symbol_ends) {
  if ((exchange == 106 || exchange == 103) && length == 368) return multicast_record::shfe;
  if (exchange == 102 && length == 360) return multicast_record::cffex;
  if (exchange == 105 && length == 239) return multicast_record::czce;
  if (exchange == 108 && length == 239) return multicast_record::gfex;
  if (length != 120 && length != 108) return multicast_record::ignored;
  if (!symbol_ends) return multicast_record::lumen_refused;
  return length == 120 ? multicast_record::lumen_summary : multicast_record::lumen_tick;
}

bool is_delivered(multicast_record kind) {
  return kind != multicast_record::ignored && kind != multicast_record::lumen_refused;
}

// What a conversion makes of the datagram with nothing but zeros behind it.
void convert_padded(bytes datagram, multicast_record kind, bytes& quote) {
  datagram.resize(512);
  auto* const to = reinterpret_cast<KAVMarketDepthQuoteData*>(quote.data());
  void* const start = datagram.data();
  void* const body = datagram.data() + 56;
  if (kind == multicast_record::shfe) {
    convert_shfe_quote_to_kav_quote(static_cast<KQC_CShfeFtdcDepthMarketDataField*>(start), to);
  } else if (kind == multicast_record::cffex) {
    convert_ffex_quote_to_kav_quote(static_cast<KQC_CFfexFtdcDepthMarketDataField*>(start), to);
  } else if (kind == multicast_record::czce) {
    convert_zce_quote_to_kav_quote(static_cast<MarketMatchData*>(start), to);
  } else if (kind == multicast_record::gfex) {
    convert_gfex_quote_to_kav_quote(static_cast<_fldGfexBestQuot*>(start), to);
  } else if (kind == multicast_record::lumen_summary) {
    convert_lumen_summary_quote_to_kav_quote(static_cast<lumen_udp_head*>(start),
                                             static_cast<lumen_udp_summary*>(body), to);
  } else {
    convert_lumen_normal_quote_to_kav_quote(static_cast<lumen_udp_head*>(start),
                                            static_cast<lumen_udp_normal*>(body), to);
  }
}

class multicast_decoder_test : public ::testing::Test {
 protected:
  multicast_decoder_test() { m_decoder.set_event(&m_events); }

  // Offers the datagram in memory that ends with it.
  multicast_record decode(const bytes& datagram, int exchange, std::size_t shift = 0) {
    exact_buffer buffer(datagram, shift);
    const multicast_record kind =
        m_decoder.decode(buffer.data(), static_cast<unsigned>(datagram.size()), exchange);
    EXPECT_EQ(datagram, buffer.content()) << "the datagram is left alone";
    return kind;
  }

  const bytes& last_quote() const { return m_events.deliveries.back().quote; }
  std::size_t delivered() const { return m_events.deliveries.size(); }

  quote_recorder m_events;
  multicast_decoder m_decoder;
};

// Random datagrams of three symbols, a quarter of them without a NUL in the symbol's field.
TEST_F(multicast_decoder_test, every_exchange_and_length_decodes_as_the_rules_say) {
  dice d(11);
  std::map<std::string, bytes> cache;
  for (const int exchange : {-1, 0, 100, 101, 102, 103, 104, 105, 106, 107, 108, 109}) {
    for (std::size_t length = 0; length <= 400; ++length) {
      bytes datagram = d.random_bytes(length);
      const std::string symbol = std::string("sym") + std::to_string(d.below(3));
      const bool ends = d.below(4) != 0;
      if (length >= 42 && ends) put_text(datagram, 11, 31, symbol.c_str());
      for (std::size_t i = 11; i < 42 && i < length && !ends; ++i) datagram[i] |= 1;
      m_events.deliveries.clear();

      const multicast_record kind = expected_record(length, exchange, ends);
      ASSERT_EQ(kind, decode(datagram, exchange, d.below(8))) << exchange << ", " << length;

      ASSERT_EQ(is_delivered(kind) ? 1u : 0u, delivered()) << exchange << ", " << length;
      if (!is_delivered(kind)) continue;
      const bool is_lumen = length == k_tick_length || length == k_summary_length;
      bytes fresh(k_quote_bytes);
      bytes& expected = is_lumen ? cache.try_emplace(symbol, k_quote_bytes).first->second : fresh;
      convert_padded(datagram, kind, expected);
      EXPECT_EQ(expected, last_quote()) << exchange << ", " << length;
      EXPECT_EQ(54, m_events.deliveries.back().type);
    }
  }
  EXPECT_EQ(3u, cache.size());
  EXPECT_EQ(cache.size(), m_decoder.cached_symbols());
}

TEST_F(multicast_decoder_test, an_ine_datagram_is_delivered_as_cffex_with_type_54) {
  bytes datagram(368);
  put_text(datagram, 168, 31, "sc2506");
  EXPECT_EQ(multicast_record::shfe, decode(datagram, 106));
  ASSERT_EQ(1u, delivered());
  EXPECT_EQ(54, m_events.deliveries[0].type);
  EXPECT_STREQ("CFFEX", reinterpret_cast<const char*>(&last_quote()[40]));
  EXPECT_STREQ("sc2506", reinterpret_cast<const char*>(&last_quote()[9]));
}

TEST_F(multicast_decoder_test, an_shfe_datagram_of_the_cffex_length_is_ignored) {
  EXPECT_EQ(multicast_record::ignored, decode(bytes(360), 103));
  EXPECT_EQ(0u, delivered());
}

TEST_F(multicast_decoder_test, an_exchange_group_may_carry_lumen_datagrams) {
  EXPECT_EQ(multicast_record::lumen_tick, decode(trade("TA509", 5000.0, 1), 105));
  EXPECT_EQ(multicast_record::lumen_summary, decode(summary("TA509", 4990.0), 108));
  EXPECT_EQ(2u, delivered());
}

TEST_F(multicast_decoder_test, what_a_gfex_datagram_does_not_carry_is_zero) {
  const bytes datagram(239, '1');
  EXPECT_EQ(multicast_record::gfex, decode(datagram, 108));
  ASSERT_EQ(1u, delivered());
  // Of the time, the last byte and the milliseconds are missing; so are open and close.
  EXPECT_STREQ("1111111", reinterpret_cast<const char*>(&last_quote()[204]));
  EXPECT_EQ(0, get<std::int32_t>(last_quote(), 213));
  EXPECT_EQ(0.0, get<double>(last_quote(), 112));
  EXPECT_EQ(0.0, get<double>(last_quote(), 156));
  EXPECT_NE(0.0, get<double>(last_quote(), 337));
}

TEST_F(multicast_decoder_test, a_tick_after_a_summary_delivers_both) {
  decode(summary("ag2506", 8100.0), 103);
  EXPECT_EQ(8100.0, get<double>(last_quote(), 112));
  EXPECT_EQ(0.0, get<double>(last_quote(), 80));
  decode(trade("ag2506", 8123.0, 3), 103);
  EXPECT_EQ(8100.0, get<double>(last_quote(), 112));
  EXPECT_EQ(8123.0, get<double>(last_quote(), 80));
  decode(trade("ag2506", 0.0, 4), 103);
  EXPECT_EQ(8123.0, get<double>(last_quote(), 80));
  EXPECT_EQ(7, get<std::int32_t>(last_quote(), 136));
}

TEST_F(multicast_decoder_test, two_symbols_keep_separate_quotes) {
  decode(trade("ag2506", 8123.0, 3), 0);
  decode(trade("au2506", 780.5, 1), 0);
  EXPECT_EQ(780.5, get<double>(last_quote(), 80));
  EXPECT_EQ(1, get<std::int32_t>(last_quote(), 136));
  decode(summary("ag2506", 8100.0), 0);
  EXPECT_EQ(8123.0, get<double>(last_quote(), 80));
  EXPECT_EQ(3, get<std::int32_t>(last_quote(), 136));
  EXPECT_EQ(2u, m_decoder.cached_symbols());
}

TEST_F(multicast_decoder_test, exchange_records_never_enter_the_cache) {
  decode(bytes(368), 103);
  decode(bytes(360), 102);
  decode(bytes(239), 105);
  decode(bytes(239), 108);
  EXPECT_EQ(4u, delivered());
  EXPECT_EQ(0u, m_decoder.cached_symbols());
}

TEST_F(multicast_decoder_test, a_symbol_keeps_its_record_while_the_cache_grows) {
  decode(trade("ag2506", 8123.0, 1), 0);
  const KAVMarketDepthQuoteData* const first = m_events.deliveries.back().address;
  for (int i = 0; i < 1000; ++i) decode(trade(std::to_string(i).c_str(), 1.0, 1), 0);
  decode(trade("ag2506", 8124.0, 1), 0);
  EXPECT_EQ(first, m_events.deliveries.back().address);
  EXPECT_EQ(2, get<std::int32_t>(last_quote(), 136));
  EXPECT_EQ(1001u, m_decoder.cached_symbols());
}

TEST_F(multicast_decoder_test, a_symbol_without_a_nul_in_its_field_is_dropped) {
  const std::string full(31, 'x');
  EXPECT_EQ(multicast_record::lumen_refused, decode(trade(full.c_str(), 1.0, 1), 0));
  EXPECT_EQ(multicast_record::lumen_refused, decode(summary(full.c_str(), 1.0), 0));
  bytes ends_behind = trade(full.c_str(), 1.0, 1);
  ends_behind[42] = 0;
  EXPECT_EQ(multicast_record::lumen_refused, decode(ends_behind, 0));
  EXPECT_EQ(0u, delivered());
  EXPECT_EQ(0u, m_decoder.cached_symbols());
  EXPECT_EQ(multicast_record::lumen_tick, decode(trade(full.substr(1).c_str(), 1.0, 1), 0));
  EXPECT_EQ(1u, delivered());
}

TEST_F(multicast_decoder_test, an_empty_symbol_is_a_symbol) {
  EXPECT_EQ(multicast_record::lumen_tick, decode(trade("", 5.0, 2), 0));
  EXPECT_EQ(multicast_record::lumen_tick, decode(trade("", 0.0, 2), 0));
  EXPECT_EQ(4, get<std::int32_t>(last_quote(), 136));
}

TEST_F(multicast_decoder_test, without_an_event_object_the_cache_still_follows) {
  m_decoder.set_event(nullptr);
  EXPECT_EQ(multicast_record::lumen_tick, decode(trade("ag2506", 8123.0, 3), 0));
  EXPECT_EQ(multicast_record::shfe, decode(bytes(368), 103));
  EXPECT_EQ(0u, delivered());
  m_decoder.set_event(&m_events);
  decode(summary("ag2506", 8100.0), 0);
  EXPECT_EQ(8123.0, get<double>(last_quote(), 80));
}

TEST_F(multicast_decoder_test, each_quote_goes_to_one_of_two_event_objects_that_take_turns) {
  constexpr std::size_t k_datagrams = 2000;
  quote_recorder other;
  std::atomic<bool> done{false};
  std::thread setter([&] {
    while (!done.load()) {
      m_decoder.set_event(&other);
      m_decoder.set_event(&m_events);
    }
  });
  for (std::size_t i = 0; i < k_datagrams; ++i) decode(trade("ag2506", 8123.0, 1), 0);
  done.store(true);
  setter.join();
  EXPECT_EQ(k_datagrams, delivered() + other.deliveries.size());
}

TEST_F(multicast_decoder_test, no_byte_behind_a_datagram_is_read) {
  dice random(20250911);
  std::size_t decoded = 0;
  for (int exchange = 100; exchange <= 108; ++exchange) {
    for (std::size_t length = 0; length <= 400; ++length) {
      bytes content = random.random_bytes(length);
      for (unsigned char& byte : content) byte |= 0x20;  // no NUL but that of a lumen symbol
      if (length > 41) content[41] = 0;
      kav_test::guarded_bytes datagram(std::string(content.begin(), content.end()));
      const multicast_record kind = m_decoder.decode(datagram.data(), datagram.size(), exchange);
      decoded += kind != multicast_record::ignored ? 1 : 0;
    }
  }
  EXPECT_EQ(9u * 2 + 5, decoded) << "a lumen record or two for each, and the exchanges' own";
}

TEST_F(multicast_decoder_test, no_data_is_ignored) {
  for (const unsigned length : {0u, 108u, 120u, 239u, 360u, 368u}) {
    for (const int exchange : {0, 102, 103, 105, 106, 108}) {
      EXPECT_EQ(multicast_record::ignored, m_decoder.decode(nullptr, length, exchange));
    }
  }
  EXPECT_EQ(0u, delivered());
}

// The cache of a group that invents symbols without end stays bounded; known symbols live on.
TEST_F(multicast_decoder_test, a_full_cache_refuses_new_symbols_only) {
  m_decoder.set_event(nullptr);
  constexpr int k_more_than_fit = 300'000;
  bytes datagram = trade("", 1.0, 1);
  int refused = 0;
  for (int i = 0; i < k_more_than_fit; ++i) {
    put_text(datagram, 11, 31, std::to_string(i).c_str());
    const auto* const data = reinterpret_cast<const char*>(datagram.data());
    refused += m_decoder.decode(data, k_tick_length, 0) == multicast_record::lumen_refused ? 1 : 0;
  }
  EXPECT_EQ(262'144u, m_decoder.cached_symbols());
  EXPECT_EQ(k_more_than_fit - 262'144, refused);
  m_decoder.set_event(&m_events);
  EXPECT_EQ(multicast_record::lumen_tick, decode(trade("7", 2.0, 1), 0));
  ASSERT_EQ(1u, delivered());
  EXPECT_EQ(2, get<std::int32_t>(last_quote(), 136));
}

}  // namespace
