// The feeds: their names, their groups, and which of them carry a tick.
#pragma once

#include <array>     // std::array
#include <cstddef>   // std::size_t
#include <optional>  // std::optional
#include <string>    // std::string
#include <vector>    // std::vector

#include "api/kav_quote_api.h"

namespace kav_feed {

enum class feed : int { shfe, cffex, czce, gfex, lumen, ine };
constexpr std::size_t k_feed_count = 6;
constexpr std::array<feed, k_feed_count> k_all_feeds = {feed::shfe, feed::cffex, feed::czce,
                                                        feed::gfex, feed::lumen, feed::ine};

constexpr std::size_t index_of(feed which) { return static_cast<std::size_t>(which); }

// "SHFE", "CFFEX", "CZCE", "GFEX", "LUMEN", "INE".
const char* name_of(feed which);
// Nothing for another text; exact and case-sensitive.
std::optional<feed> feed_named(const std::string& name);

// Where a feed is published.
struct feed_group {
  feed which = feed::shfe;
  std::string address;  // dotted IPv4 text, 224.0.0.0 to 239.255.255.255
  unsigned short port = 0;
};

// "SHFE 239.255.10.1:30001"
std::string text_of(const feed_group& group);
// A group of every feed, in the order of k_all_feeds.
std::vector<feed_group> default_groups();
// Reads "NAME=GROUP:PORT". Nothing, and `error` a cause, when it is no such text.
std::optional<feed_group> parse_group(const std::string& text, std::string& error);

// The exchange's feed for a tick, by its ExchangeID; nothing where the exchange has no record.
std::optional<feed> exchange_feed(const KAVMarketDepthQuoteData& tick);
// Does the lumen feed carry the ticks of that feed's exchange?
bool in_lumen(feed exchange);

}  // namespace kav_feed
