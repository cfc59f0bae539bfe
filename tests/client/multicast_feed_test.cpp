// Feeds from end to end: ticks that kav-feed's publisher turns into datagrams, through the kernel,
// the receiver and the decoder to the callback.
#include <array>     // std::array
#include <cmath>     // std::nearbyint
#include <cstdio>    // printf
#include <map>       // std::map
#include <optional>  // std::optional
#include <thread>    // std::thread

#include "apps/feed/publisher.h"
#include "apps/sim/market.h"
#include "apps/sim/tick_file.h"
#include "tests/client/multicast_support.h"
#include "tests/client/session_support.h"
#include "tests/client/tick_sample.h"
#include "tests/support/machine.h"
#include "tests/support/process_view.h"
#include "tests/support/quotes_only.h"

namespace kav_session {
namespace {

using kav_feed::feed;
using kav_test::group;
using kav_test::k_sanitized;

constexpr int k_attempts = 8;  // on a machine that others use, a core may be away for too long
constexpr double k_most_taken = 0.3;  // processors that others had, of those of this machine
constexpr int k_market_ticks = 10'000;
constexpr std::size_t k_most_quotes = 300'000;

// Keeps every quote of one group; told by one thread.
class quote_keeper : public kav_test::quotes_only {
 public:
  // All memory is there before the first quote: growing, or even a page's first touch, may hold up
  // the receiving thread for longer than the system's buffer lasts.
  quote_keeper() : m_quotes(k_most_quotes) { m_quotes.clear(); }
  void OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* quote) override {
    m_quotes.push_back(*quote);
  }

  // After reception has been stopped.
  const quote_list& quotes() const { return m_quotes; }

 private:
  quote_list m_quotes;
};

// A client of its own for one feed, so that it is known which group a quote came from.
class feed_client {
 public:
  explicit feed_client(const kav_feed::feed_group& from) : m_api(CreateKAVQuoteApi()) {
    const KqsMulticastInfo info =
        group_info(from.address, from.port, kav_feed::name_of(from.which));
    m_started = StartKAVMulticast(m_api, &info, 1, &m_keeper, nullptr) == KAVMulticastStarted;
  }
  feed_client(const feed_client&) = delete;
  feed_client& operator=(const feed_client&) = delete;
  ~feed_client() { DestroyKAVQuoteApi(m_api); }

  bool started() const { return m_started; }
  // Waits until `sent` datagrams have been received or dropped, and stops.
  KAVMulticastStatistics account_for(std::uint64_t sent) {
    KAVMulticastStatistics now{};
    EXPECT_TRUE(wait_until(
        [&] {
          return GetKAVMulticastStatistics(m_api, 0, &now) &&
                 now.m_Datagrams + now.m_Dropped >= sent;
        },
        k_patience));
    StopKAVMulticast(m_api);
    return now;
  }
  const quote_list& quotes() const { return m_keeper.quotes(); }

 private:
  KAVQuoteApi* const m_api;
  quote_keeper m_keeper;
  bool m_started = false;
};

class multicast_feed_test : public testing::Test {
 protected:
  void SetUp() override {
    const std::string obstacle = m_port.obstacle();
    if (!obstacle.empty()) GTEST_SKIP() << obstacle;
  }
  kav_feed::feed_group group_of(feed which) const {
    return {which, group(static_cast<int>(which) + 1), m_port.number()};
  }

  kav_test::shared_port m_port;
};

// ---- What a feed makes of a tick

bool is_of(const KAVMarketDepthQuoteData& tick, feed which) {
  const std::string exchange = tick.ExchangeID;
  if (which != feed::lumen) return exchange == kav_feed::name_of(which);
  return exchange == "SHFE" || exchange == "INE" || exchange == "CFFEX";
}

void clear_levels_behind_1(KAVMarketDepthQuoteData& quote) {
  constexpr std::size_t k_level_2 = offsetof(KAVMarketDepthQuoteData, BidPrice2);
  constexpr std::size_t k_end =
      offsetof(KAVMarketDepthQuoteData, AskVolume5) + sizeof(quote.AskVolume5);
  std::memset(reinterpret_cast<char*>(&quote) + k_level_2, 0, k_end - k_level_2);
}

double in_32_bits(double value) { return std::min(std::nearbyint(value), 4294967295.0); }

KAVMarketDepthQuoteData as_delivered(const KAVMarketDepthQuoteData& tick, feed which) {
  KAVMarketDepthQuoteData quote = tick;
  std::memcpy(quote.ExchangeInstID, quote.InstrumentID, sizeof(quote.InstrumentID));
  if (which == feed::czce) {
    clear_levels_behind_1(quote);
    std::memcpy(quote.UpdateTime, quote.TradingDay, sizeof(quote.UpdateTime));
    quote.Turnover = in_32_bits(quote.Turnover);
    quote.PreDelta = quote.CurrDelta = 0;
  } else if (which == feed::gfex) {
    clear_levels_behind_1(quote);
    quote.OpenPrice = quote.ClosePrice = 0;
    quote.PreDelta = quote.CurrDelta = 0;
    quote.UpdateTime[7] = '\0';  // the datagram ends there
    quote.UpdateMillisec = 0;
  } else {
    put_text(quote.ExchangeID, sizeof(quote.ExchangeID), "CFFEX");
    quote.AveragePrice = 0;
  }
  return quote;
}

// Lumen quotes as they have to be after each part: a value that is one, else as it was.
class lumen_model {
 public:
  using q = KAVMarketDepthQuoteData;

  // A summary comes before a symbol's first tick and before one whose summary differs.
  bool begins_with_summary(const q& tick) {
    std::string values;
    for (const std::size_t field : k_summary_fields) {
      values.append(reinterpret_cast<const char*>(&tick) + field, sizeof(double));
    }
    std::string& before = m_summaries[tick.InstrumentID];
    const bool differs = before != values;
    before = values;
    return differs;
  }
  const q& after_summary(const q& tick) {
    q& quote = head(tick);
    for (const std::size_t field : k_summary_fields) merge(tick, field, quote);
    return quote;
  }
  const q& after_tick(const q& tick) {
    q& quote = head(tick);
    for (const std::size_t field :
         {offsetof(q, LastPrice), offsetof(q, Turnover), offsetof(q, OpenInterest),
          offsetof(q, BidPrice1), offsetof(q, AskPrice1)}) {
      merge(tick, field, quote);
    }
    quote.Volume = tick.Volume;
    quote.BidVolume1 = tick.BidVolume1;
    quote.AskVolume1 = tick.AskVolume1;
    return quote;
  }

 private:
  static constexpr std::array<std::size_t, 8> k_summary_fields = {
      offsetof(q, OpenPrice),       offsetof(q, HighestPrice),    offsetof(q, LowestPrice),
      offsetof(q, ClosePrice),      offsetof(q, UpperLimitPrice), offsetof(q, LowerLimitPrice),
      offsetof(q, SettlementPrice), offsetof(q, CurrDelta)};

  q& head(const q& tick) {
    q& quote = m_quotes[tick.InstrumentID];
    std::memcpy(quote.InstrumentID, tick.InstrumentID, sizeof(quote.InstrumentID));
    std::memcpy(quote.ExchangeInstID, tick.InstrumentID, sizeof(quote.ExchangeInstID));
    const bool cffex = std::string(tick.ExchangeID) == "CFFEX";
    put_text(quote.ExchangeID, sizeof(quote.ExchangeID), cffex ? "CFFEX" : "SHFE");
    std::memcpy(quote.UpdateTime, tick.UpdateTime, sizeof(quote.UpdateTime));
    quote.UpdateMillisec = tick.UpdateMillisec;
    return quote;
  }
  static void merge(const q& tick, std::size_t field, q& quote) {
    double value = 0;
    std::memcpy(&value, reinterpret_cast<const char*>(&tick) + field, sizeof(value));
    if (value > 0.0 && value < 9999999999999.9) {
      std::memcpy(reinterpret_cast<char*>(&quote) + field, &value, sizeof(value));
    }
  }

  std::map<std::string, q> m_quotes;
  std::map<std::string, std::string> m_summaries;
};

bool same(const KAVMarketDepthQuoteData& a, const KAVMarketDepthQuoteData& b) {
  return std::memcmp(&a, &b, sizeof(a)) == 0;
}

void expect_exchange_quotes(const quote_list& ticks, feed which, const quote_list& got) {
  std::size_t at = 0, differing = 0;
  for (const KAVMarketDepthQuoteData& tick : ticks) {
    if (!is_of(tick, which)) continue;
    if (at < got.size() && !same(as_delivered(tick, which), got[at])) ++differing;
    ++at;
  }
  EXPECT_EQ(at, got.size()) << kav_feed::name_of(which);
  EXPECT_EQ(0u, differing) << kav_feed::name_of(which);
}

void expect_lumen_quotes(const quote_list& ticks, const quote_list& got) {
  lumen_model model;
  std::size_t at = 0, differing = 0;
  const auto expect_next = [&](const KAVMarketDepthQuoteData& expected) {
    if (at < got.size() && !same(expected, got[at])) ++differing;
    ++at;
  };
  for (const KAVMarketDepthQuoteData& tick : ticks) {
    if (!is_of(tick, feed::lumen)) continue;
    if (model.begins_with_summary(tick)) expect_next(model.after_summary(tick));
    expect_next(model.after_tick(tick));
  }
  EXPECT_EQ(at, got.size());
  EXPECT_EQ(0u, differing);
}

// ---- The tests

// Publishes all feeds and compares what arrives; false when the system dropped something.
bool arrives_whole(const quote_list& ticks, kav_sim::tick_source& source,
                   const std::vector<kav_feed::feed_group>& groups) {
  std::vector<std::unique_ptr<feed_client>> clients;
  for (const kav_feed::feed_group& from : groups) {
    clients.push_back(std::make_unique<feed_client>(from));
    EXPECT_TRUE(clients.back()->started());
  }
  kav_feed::publisher_options options;
  options.groups = groups;
  kav_feed::publisher publisher(options);
  std::string error;
  EXPECT_TRUE(publisher.open(error)) << error;
  kav_feed::run_options run;
  run.speed = 0;
  run.rate = k_sanitized ? 4'000 : 10'000;
  EXPECT_EQ(kav_feed::run_end::source_ended, publisher.run(source, run, error)) << error;
  std::uint64_t dropped = 0;
  for (std::size_t i = 0; i < groups.size(); ++i) {
    dropped += clients[i]->account_for(publisher.counts().of(groups[i].which).sent).m_Dropped;
  }
  if (dropped > 0) {
    std::printf("the system dropped %llu datagrams; once more\n",
                static_cast<unsigned long long>(dropped));
    return false;
  }
  for (std::size_t i = 0; i < groups.size(); ++i) {
    if (groups[i].which == feed::lumen) {
      expect_lumen_quotes(ticks, clients[i]->quotes());
    } else {
      expect_exchange_quotes(ticks, groups[i].which, clients[i]->quotes());
    }
  }
  return true;
}

TEST_F(multicast_feed_test, every_field_of_a_made_up_market_arrives_through_every_feed) {
  std::vector<kav_feed::feed_group> groups;
  groups.reserve(kav_feed::k_feed_count);
  for (const feed which : kav_feed::k_all_feeds) groups.push_back(group_of(which));
  kav_sim::market market{kav_sim::market_options{}};
  std::vector<kav_sim::tick> made(k_market_ticks);
  quote_list ticks;
  std::chrono::microseconds due{0};
  for (kav_sim::tick& tick : made) {
    ASSERT_TRUE(market.next(tick, due));
    ticks.push_back(tick.record);
  }
  bool whole = false;
  for (int attempt = 0; attempt < k_attempts && !whole && !HasFailure(); ++attempt) {
    kav_sim::tick_replay source(made, false);
    whole = arrives_whole(ticks, source, groups);
  }
  EXPECT_TRUE(whole);
}

TEST_F(multicast_feed_test, every_field_of_a_recorded_day_arrives_through_every_feed) {
  const quote_list ticks = load_sample();
  if (ticks.empty()) GTEST_SKIP() << "no recorded ticks: KAV_TICKS names no file";
  ASSERT_EQ(k_sample_rows, ticks.size());
  std::vector<kav_feed::feed_group> groups;
  for (const feed which : {feed::shfe, feed::cffex, feed::czce, feed::lumen}) {
    groups.push_back(group_of(which));
  }
  bool whole = false;
  for (int attempt = 0; attempt < k_attempts && !whole && !HasFailure(); ++attempt) {
    std::vector<kav_sim::tick> recorded;
    std::string error;
    ASSERT_TRUE(kav_sim::read_tick_file(sample_path(), recorded, error)) << error;
    kav_sim::tick_replay source(std::move(recorded), false);
    whole = arrives_whole(ticks, source, groups);
  }
  EXPECT_TRUE(whole);
}

struct paced_drops {
  std::uint64_t dropped;
  bool undisturbed;  // other programs have left the processors to sender and receiver
};

// Publishes one feed and tells what the system dropped.
paced_drops drops_at(double per_second, std::uint64_t datagrams, const kav_feed::feed_group& shfe) {
  feed_client client(shfe);
  EXPECT_TRUE(client.started());
  kav_feed::publisher_options options;
  options.groups = {shfe};
  kav_feed::publisher publisher(options);
  std::string error;
  EXPECT_TRUE(publisher.open(error)) << error;
  kav_feed::run_options run;
  run.speed = 0;
  run.rate = per_second;
  run.count = datagrams;
  kav_sim::market market{kav_sim::market_options{}};
  const double others = kav_test::processor_seconds_of_others();
  const clock::time_point start = clock::now();
  EXPECT_EQ(kav_feed::run_end::count_reached, publisher.run(market, run, error)) << error;
  const double seconds = std::chrono::duration<double>(clock::now() - start).count();
  const KAVMulticastStatistics got = client.account_for(datagrams);
  const double taken = (kav_test::processor_seconds_of_others() - others) / seconds;
  EXPECT_EQ(datagrams, got.m_Quotes + got.m_Dropped);
  EXPECT_EQ(got.m_Quotes, client.quotes().size());
  std::printf(
      "%.0f datagrams a second for %.2f s: %llu quotes, %llu dropped by the system; other "
      "programs took %.2f processors\n",
      static_cast<double>(datagrams) / seconds, seconds,
      static_cast<unsigned long long>(got.m_Quotes), static_cast<unsigned long long>(got.m_Dropped),
      taken);
  return {got.m_Dropped, taken < k_most_taken};
}

// The system's buffer lasts for two milliseconds at this pace. Virtual machines are away for longer
// at times, so that some attempts lose a few; each of those is counted. Where other programs want
// the processors all the time, only the counts are tested.
TEST_F(multicast_feed_test, at_50000_datagrams_a_second_for_5_seconds_none_is_lost_uncounted) {
  constexpr double k_rate = k_sanitized ? 5'000 : 50'000;
  constexpr std::uint64_t k_datagrams = static_cast<std::uint64_t>(k_rate * 5);
  std::optional<std::uint64_t> fewest;  // of the undisturbed attempts
  for (int attempt = 0; attempt < k_attempts && fewest != 0u && !HasFailure(); ++attempt) {
    const paced_drops each = drops_at(k_rate, k_datagrams, group_of(feed::shfe));
    if (each.undisturbed) fewest = std::min(fewest.value_or(k_datagrams), each.dropped);
  }
  if (fewest) {
    EXPECT_LE(*fewest, k_datagrams / 100);
  } else {
    std::printf("other programs disturbed each attempt: how many are dropped was not tested\n");
  }
}

}  // namespace
}  // namespace kav_session
