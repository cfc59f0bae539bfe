// The multicast groups that the feeds use where nobody says otherwise: kav-feed publishes to them,
// and kav-decode expects them in a capture.
#pragma once

#include <array>  // std::array

namespace kav_feed {

struct default_group {
  const char* exchange;  // a name that get_int_exchange_id() knows, or k_lumen_name
  const char* group;
  unsigned short port;
};

// Stands for a group that carries lumen records only.
inline constexpr char k_lumen_name[] = "LUMEN";

inline constexpr std::array<default_group, 6> k_default_groups = {
    {{"SHFE", "239.255.10.1", 30001},
     {"CFFEX", "239.255.10.2", 30002},
     {"CZCE", "239.255.10.3", 30003},
     {"GFEX", "239.255.10.4", 30004},
     {k_lumen_name, "239.255.10.5", 30005},
     {"INE", "239.255.10.6", 30006}}};

}  // namespace kav_feed
