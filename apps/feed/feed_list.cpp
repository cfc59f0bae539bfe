#include "apps/feed/feed_list.h"

#include <arpa/inet.h>  // inet_pton
#include <fmt/format.h>

#include <charconv>  // std::from_chars
#include <cstring>   // strnlen

#include "apps/feed/default_groups.h"

namespace kav_feed {

namespace {

static_assert(k_default_groups.size() == k_feed_count, "a group for each feed, in their order");

bool is_multicast(const std::string& address) {
  in_addr parsed{};
  return address.find('\0') == std::string::npos &&
         ::inet_pton(AF_INET, address.c_str(), &parsed) == 1 && IN_MULTICAST(ntohl(parsed.s_addr));
}

// 1 to 65535; 0 for any other text.
unsigned short parse_port(const std::string& text) {
  unsigned short port = 0;
  const char* const end = text.data() + text.size();
  const auto [stopped, failure] = std::from_chars(text.data(), end, port);
  return failure == std::errc{} && stopped == end ? port : static_cast<unsigned short>(0);
}

}  // namespace

const char* name_of(feed which) { return k_default_groups[index_of(which)].exchange; }

std::optional<feed> feed_named(const std::string& name) {
  for (const feed which : k_all_feeds) {
    if (name == name_of(which)) return which;
  }
  return std::nullopt;
}

std::string text_of(const feed_group& group) {
  return fmt::format("{} {}:{}", name_of(group.which), group.address, group.port);
}

std::vector<feed_group> default_groups() {
  std::vector<feed_group> groups;
  for (const feed which : k_all_feeds) {
    const default_group& row = k_default_groups[index_of(which)];
    groups.push_back({which, row.group, row.port});
  }
  return groups;
}

std::optional<feed_group> parse_group(const std::string& text, std::string& error) {
  const std::size_t equals = text.find('='), colon = text.rfind(':');
  if (equals == std::string::npos || colon == std::string::npos || colon < equals) {
    error = fmt::format("{} is not NAME=GROUP:PORT", text);
    return std::nullopt;
  }
  const std::optional<feed> which = feed_named(text.substr(0, equals));
  if (!which) {
    error = fmt::format("{} is no feed", text.substr(0, equals));
    return std::nullopt;
  }
  const feed_group group{*which, text.substr(equals + 1, colon - equals - 1),
                         parse_port(text.substr(colon + 1))};
  if (!is_multicast(group.address)) {
    error = fmt::format("{} is no address from 224.0.0.0 to 239.255.255.255", group.address);
    return std::nullopt;
  }
  if (group.port == 0) {
    error = fmt::format("{} is no port from 1 to 65535", text.substr(colon + 1));
    return std::nullopt;
  }
  return group;
}

std::optional<feed> exchange_feed(const KAVMarketDepthQuoteData& tick) {
  const std::string name(tick.ExchangeID, ::strnlen(tick.ExchangeID, sizeof(tick.ExchangeID)));
  const std::optional<feed> which = feed_named(name);
  return which == feed::lumen ? std::nullopt : which;  // a format, no exchange
}

bool in_lumen(feed exchange) {
  return exchange == feed::shfe || exchange == feed::ine || exchange == feed::cffex;
}

}  // namespace kav_feed
