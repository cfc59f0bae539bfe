#include "apps/watch/multicast_group.h"

#include <arpa/inet.h>   // inet_pton, ntohl
#include <fmt/format.h>  // fmt::format

#include <algorithm>  // std::min, std::transform
#include <charconv>   // std::from_chars
#include <cstdint>    // std::uint16_t
#include <cstring>    // std::memcpy, std::memcmp
#include <optional>   // std::optional

#include "apps/watch/text_safety.h"
#include "feeds/exchange_id.h"

namespace kav_watch {
namespace {

constexpr char k_lumen[] = "LUMEN";  // for groups that carry lumen records only

std::optional<in_addr> parse_address(const std::string& text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
  return address;
}

bool parse_port(const std::string& text, std::uint16_t& port) {
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, port);
  return error == std::errc{} && rest == end && port != 0;
}

std::string upper_case(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  });
  return text;
}

bool is_exchange(const std::string& name) {
  return name == k_lumen || get_int_exchange_id(name.c_str()) != k_exchange_number_unknown;
}

// "a:b:c@d" in its parts, of which the last is absent without "@".
struct group_parts {
  std::string group, port, exchange;
  std::optional<std::string> local;
};

std::optional<group_parts> split(const std::string& text) {
  const std::size_t first = text.find(':');
  if (first == std::string::npos) return std::nullopt;
  const std::size_t second = text.find(':', first + 1);
  if (second == std::string::npos) return std::nullopt;
  const std::size_t at = text.find('@', second);
  group_parts parts{text.substr(0, first), text.substr(first + 1, second - first - 1),
                    upper_case(text.substr(second + 1, at - second - 1)), std::nullopt};
  if (at != std::string::npos) parts.local = text.substr(at + 1);
  return parts;
}

// The field is long enough for what was checked before.
template <std::size_t N>
void fill(char (&field)[N], const std::string& text) {
  static_assert(N > 1);
  std::memcpy(field, text.data(), std::min(text.size(), N - 1));
}

}  // namespace

std::variant<watched_group, std::string> parse_group(const std::string& text) {
  const std::string shown = printable_text(text);
  const std::optional<group_parts> parts = split(text);
  watched_group group;
  std::optional<in_addr> address;
  if (parts) address = parse_address(parts->group);
  if (!address || !parse_port(parts->port, group.info.m_GroupPort) ||
      (parts->local && !parse_address(*parts->local))) {
    return fmt::format(
        "'{}' is no GROUP:PORT:EXCHANGE[@LOCALIP] such as 239.255.10.1:30001:SHFE@127.0.0.1",
        shown);
  }
  if (!IN_MULTICAST(ntohl(address->s_addr))) {
    return fmt::format("'{}': {} is no multicast address; those are 224.0.0.0 to 239.255.255.255",
                       shown, parts->group);
  }
  if (!is_exchange(parts->exchange)) {
    return fmt::format(
        "'{}': '{}' is no exchange; give SHFE, INE, CFFEX, CZCE, GFEX, DCE, SGE, SHZ or LUMEN",
        shown, printable_text(parts->exchange));
  }
  fill(group.info.m_GroupIp, parts->group);
  fill(group.info.m_ExchangeId, parts->exchange);
  const bool chosen = parts->local && parse_address(*parts->local)->s_addr != INADDR_ANY;
  if (chosen) fill(group.info.m_LocalIp, *parts->local);
  group.text = fmt::format("{}:{}:{}{}", parts->group, std::uint16_t{group.info.m_GroupPort},
                           parts->exchange, chosen ? "@" + *parts->local : "");
  return group;
}

bool same_reception(const watched_group& a, const watched_group& b) {
  const KqsMulticastInfo& x = a.info;
  const KqsMulticastInfo& y = b.info;
  const std::uint16_t port_x = x.m_GroupPort, port_y = y.m_GroupPort;
  return port_x == port_y && std::memcmp(x.m_GroupIp, y.m_GroupIp, sizeof(x.m_GroupIp)) == 0 &&
         std::memcmp(x.m_LocalIp, y.m_LocalIp, sizeof(x.m_LocalIp)) == 0;
}

}  // namespace kav_watch
