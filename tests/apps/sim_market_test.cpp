// What holds in every quote of the made-up market.
#include <gtest/gtest.h>

#include <cmath>    // std::abs
#include <cstring>  // memcmp, memcpy
#include <map>      // std::map
#include <set>      // std::set

#include "apps/sim/market.h"

namespace kav_sim_test {

using kav_sim::contract_terms;
using kav_sim::market;
using kav_sim::tick;
using quote = KAVMarketDepthQuoteData;

struct level {
  double bid, ask;
  int bid_lots, ask_lots;
};

level level_of(const quote& q, int i) {
  const char* at = reinterpret_cast<const char*>(&q) + 217 + i * 24;
  level l{};
  std::memcpy(&l.bid, at, 8);
  std::memcpy(&l.bid_lots, at + 8, 4);
  std::memcpy(&l.ask, at + 12, 8);
  std::memcpy(&l.ask_lots, at + 20, 4);
  return l;
}

const contract_terms& terms_of(const quote& q) {
  for (const contract_terms& t : kav_sim::market_contracts()) {
    if (std::strcmp(t.symbol, q.InstrumentID) == 0) return t;
  }
  ADD_FAILURE() << q.InstrumentID;
  return kav_sim::market_contracts()[0];
}

bool on_grid(const contract_terms& t, double price) {
  return static_cast<double>(std::llround(price * t.tick_den / t.tick_num) * t.tick_num) /
             t.tick_den ==
         price;
}

// Empty levels are those beyond a limit, and nothing follows them.
void expect_ordered_levels(const quote& q) {
  const contract_terms& t = terms_of(q);
  double bid = 0, ask = 0;
  for (int i = 0; i < 5; ++i) {
    const level l = level_of(q, i);
    EXPECT_EQ(l.bid == 0, l.bid_lots == 0);
    EXPECT_EQ(l.ask == 0, l.ask_lots == 0);
    EXPECT_TRUE(on_grid(t, l.bid) && on_grid(t, l.ask));
    if (l.bid != 0) {
      EXPECT_GE(l.bid, double{q.LowerLimitPrice});
      EXPECT_TRUE(i == 0 || l.bid < bid);
    }
    if (l.ask != 0) {
      EXPECT_LE(l.ask, double{q.UpperLimitPrice});
      EXPECT_TRUE(i == 0 || (ask != 0 && l.ask > ask));
    }
    if (l.bid != 0 && l.ask != 0) {
      EXPECT_LT(l.bid, l.ask);
    }
    bid = l.bid;
    ask = l.ask;
  }
}

void expect_ordered_prices(const quote& q) {
  const double low = q.LowestPrice, high = q.HighestPrice;
  for (const double price : {double{q.LastPrice}, double{q.OpenPrice}, low, high}) {
    EXPECT_TRUE(on_grid(terms_of(q), price));
    EXPECT_LE(low, price);
    EXPECT_GE(high, price);
  }
  EXPECT_LE(double{q.LowerLimitPrice}, low);
  EXPECT_GE(double{q.UpperLimitPrice}, high);
  EXPECT_LE(low * (1 - 1e-12), double{q.AveragePrice});
  EXPECT_GE(high * (1 + 1e-12), double{q.AveragePrice});
  EXPECT_GE(double{q.OpenInterest}, 0);
  EXPECT_GT(int{q.Volume}, 0);
}

void expect_no_way_back(const quote& before, const quote& q) {
  EXPECT_GE(int{q.Volume}, int{before.Volume});
  EXPECT_GE(double{q.Turnover}, double{before.Turnover});
  EXPECT_GE(double{q.HighestPrice}, double{before.HighestPrice});
  EXPECT_LE(double{q.LowestPrice}, double{before.LowestPrice});
  EXPECT_EQ(double{q.OpenPrice}, double{before.OpenPrice});
  EXPECT_EQ(double{q.UpperLimitPrice}, double{before.UpperLimitPrice});
}

TEST(sim_market, every_quote_of_a_long_day_holds_together) {
  for (const std::uint64_t seed : {1u, 77u, 4711u}) {
    kav_sim::market_options options;
    options.seed = seed;
    market source{options};
    std::map<std::string, quote> before;
    tick t{};
    std::chrono::microseconds due{0}, due_before{0};
    for (int i = 0; i < 25 * 4000; ++i) {
      ASSERT_TRUE(source.next(t, due));
      EXPECT_GE(due, due_before);
      due_before = due;
      expect_ordered_levels(t.record);
      expect_ordered_prices(t.record);
      const auto [at, is_new] = before.try_emplace(t.record.InstrumentID, t.record);
      if (!is_new) expect_no_way_back(at->second, t.record);
      at->second = t.record;
      if (testing::Test::HasFailure()) FAIL() << "seed " << seed << ", quote " << i;
    }
    EXPECT_EQ(25u, before.size());
  }
}

TEST(sim_market, a_seed_makes_the_same_quotes_again_and_another_does_not) {
  kav_sim::market_options other_options;
  other_options.seed = 2;
  market first{{}}, again{{}}, other{other_options};
  tick a{}, b{}, c{};
  std::chrono::microseconds due{0};
  bool differs = false;
  for (int i = 0; i < 1000; ++i) {
    first.next(a, due);
    again.next(b, due);
    other.next(c, due);
    ASSERT_EQ(0, std::memcmp(&a.record, &b.record, sizeof a.record));
    differs = differs || std::memcmp(&a.record, &c.record, sizeof a.record) != 0;
  }
  EXPECT_TRUE(differs);
}

TEST(sim_market, six_exchanges_and_the_gold_codes_are_listed) {
  std::set<std::string> exchanges;
  for (const contract_terms& t : kav_sim::market_contracts()) exchanges.insert(t.exchange);
  EXPECT_EQ((std::set<std::string>{"SHFE", "CFFEX", "CZCE", "GFEX", "INE", "DCE", "SGE"}),
            exchanges);
  const auto symbols = market{{}}.symbols();
  ASSERT_EQ(25u, symbols.size());
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(std::to_string(i), symbols[static_cast<std::size_t>(20 + i)].name);
    EXPECT_EQ(kav_sim::k_type_gold, symbols[static_cast<std::size_t>(20 + i)].type);
  }
}

TEST(sim_market, snapshots_are_due_at_their_rate_and_carry_their_time) {
  market source{{}};
  tick t{};
  std::chrono::microseconds due{0};
  for (int i = 0; i < 26; ++i) source.next(t, due);
  EXPECT_EQ(std::chrono::milliseconds{500}, due);
  EXPECT_STREQ("09:00:00", t.record.UpdateTime);
  EXPECT_EQ(500, int{t.record.UpdateMillisec});
}

}  // namespace kav_sim_test
