// Which exchange's records a multicast group carries.
#pragma once

#include <compare>      // operator<=>
#include <cstdint>      // std::uint32_t
#include <map>          // std::map
#include <optional>     // std::optional
#include <string>       // std::string
#include <string_view>  // std::string_view

namespace kav_decode {

// Where a datagram was sent to.
struct destination {
  std::uint32_t address = 0;  // host byte order
  std::uint16_t port = 0;
  auto operator<=>(const destination&) const = default;
};
std::string destination_text(const destination& where);  // "239.255.10.1:30001"

// The number of get_int_exchange_id(), 0 for "LUMEN"; nothing for a name that is neither.
std::optional<int> exchange_number(const std::string& name);
std::string_view exchange_name(int number);
// All names, for messages: "CFFEX, SHFE, ..., LUMEN".
std::string exchange_names();

class group_table {
 public:
  // The groups of default_groups.h.
  static group_table defaults();

  // Adds "GROUP[:PORT]=EXCHANGE". Empty, or what is wrong with the text.
  std::string add(const std::string& text);
  bool is_empty() const { return m_exchanges.empty(); }
  // The exchange number of the group; nothing when no group has this destination. An entry with
  // the port comes before one without.
  std::optional<int> find(const destination& where) const;

 private:
  std::map<destination, int> m_exchanges;  // port 0: every port
};

}  // namespace kav_decode
