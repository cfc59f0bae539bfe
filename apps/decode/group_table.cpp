#include "apps/decode/group_table.h"

#include <arpa/inet.h>   // inet_pton
#include <fmt/format.h>  // fmt::format

#include <array>         // std::array
#include <charconv>      // std::from_chars
#include <system_error>  // std::errc

#include "apps/feed/default_groups.h"
#include "feeds/exchange_id.h"

namespace kav_decode {
namespace {

constexpr std::array k_names{k_exchange_shfe, k_exchange_ine,  k_exchange_cffex,
                             k_exchange_czce, k_exchange_gfex, k_exchange_dce,
                             k_exchange_shz,  k_exchange_sge,  kav_feed::k_lumen_name};

std::optional<std::uint32_t> parse_address(const std::string& text) {
  in_addr parsed{};
  if (inet_pton(AF_INET, text.c_str(), &parsed) != 1) return std::nullopt;
  return ntohl(parsed.s_addr);
}

std::optional<std::uint16_t> parse_port(std::string_view text) {
  std::uint16_t port = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, port);
  if (error != std::errc{} || rest != end || port == 0) return std::nullopt;
  return port;
}

// "GROUP[:PORT]"; without a port it is 0.
std::optional<destination> parse_destination(const std::string& text) {
  const std::size_t colon = text.find(':');
  const std::optional<std::uint32_t> address = parse_address(text.substr(0, colon));
  if (!address) return std::nullopt;
  if (colon == std::string::npos) return destination{*address, 0};
  const std::optional<std::uint16_t> port = parse_port(std::string_view{text}.substr(colon + 1));
  if (!port) return std::nullopt;
  return destination{*address, *port};
}

}  // namespace

std::string destination_text(const destination& where) {
  const std::uint32_t a = where.address;
  return fmt::format("{}.{}.{}.{}:{}", a >> 24, a >> 16 & 255, a >> 8 & 255, a & 255, where.port);
}

std::optional<int> exchange_number(const std::string& name) {
  if (name == kav_feed::k_lumen_name) return k_exchange_number_unknown;
  const int number = get_int_exchange_id(name.c_str());
  return number == k_exchange_number_unknown ? std::nullopt : std::optional{number};
}

std::string_view exchange_name(int number) {
  for (const char* name : k_names) {
    if (exchange_number(name) == number) return name;
  }
  return kav_feed::k_lumen_name;
}

std::string exchange_names() {
  std::string names;
  for (const char* name : k_names) {
    if (!names.empty()) names += ", ";
    names += name;
  }
  return names;
}

group_table group_table::defaults() {
  group_table table;
  for (const kav_feed::default_group& row : kav_feed::k_default_groups) {
    const std::optional<destination> where =
        parse_destination(fmt::format("{}:{}", row.group, row.port));
    const std::optional<int> exchange = exchange_number(row.exchange);
    if (where && exchange) table.m_exchanges.emplace(*where, *exchange);
  }
  return table;
}

std::string group_table::add(const std::string& text) {
  const std::size_t equals = text.find('=');
  const std::optional<destination> where = parse_destination(text.substr(0, equals));
  if (equals == std::string::npos || !where) {
    return fmt::format("'{}' is no GROUP[:PORT]=EXCHANGE such as 239.255.10.1:30001=SHFE", text);
  }
  const std::string name = text.substr(equals + 1);
  const std::optional<int> exchange = exchange_number(name);
  if (!exchange) return fmt::format("'{}' is no exchange; known: {}", name, exchange_names());
  if (!m_exchanges.emplace(*where, *exchange).second) {
    return fmt::format("'{}' is given twice", text.substr(0, equals));
  }
  return "";
}

std::optional<int> group_table::find(const destination& where) const {
  auto found = m_exchanges.find(where);
  if (found == m_exchanges.end()) found = m_exchanges.find({where.address, 0});
  if (found == m_exchanges.end()) return std::nullopt;
  return found->second;
}

}  // namespace kav_decode
