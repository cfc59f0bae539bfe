// One multicast group as the user names it: GROUP:PORT:EXCHANGE[@LOCALIP].
#pragma once

#include <string>   // std::string
#include <variant>  // std::variant

#include "api/kav_quote_api.h"

namespace kav_watch {

struct watched_group {
  KqsMulticastInfo info{};
  std::string text;  // the same for messages, fit for a terminal
};

// The group, or what is wrong with the text. The exchange may be given in lower case; without
// LOCALIP, or with 0.0.0.0, the system's routes choose the interface.
std::variant<watched_group, std::string> parse_group(const std::string& text);

// Whether both would join the same group on the same port and interface.
bool same_reception(const watched_group& a, const watched_group& b);

}  // namespace kav_watch
