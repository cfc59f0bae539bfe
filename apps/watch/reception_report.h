// What the user is told about multicast groups: texts and when they are due, without a socket.
#pragma once

#include <chrono>    // std::chrono::steady_clock
#include <cstdint>   // std::uint64_t
#include <optional>  // std::optional
#include <string>    // std::string
#include <vector>    // std::vector

#include "api/kav_multicast.h"
#include "apps/watch/multicast_group.h"

namespace kav_watch {

// Why a group is not received, and a way out. `log_lines` are what the library logged meanwhile.
std::string refusal_text(const watched_group& group, int result,
                         const std::vector<std::string>& log_lines);

// The counts of all groups together.
KAVMulticastStatistics sum_of(const std::vector<KAVMulticastStatistics>& groups);

// "2 groups | 3 dropped | 90 datagrams | 80 quotes | 10 ignored | 0 refused", over all groups.
std::string reception_text(const std::vector<KAVMulticastStatistics>& groups);

// The counts of one group as a line.
std::string counts_text(const watched_group& group, const KAVMulticastStatistics& counts);
// Whether anything has arrived, or should have, that did not become a quote.
bool has_losses(const KAVMulticastStatistics& counts);

// Decides when something is to be told while groups are being received. Main thread only.
class reception_watch {
 public:
  using time_point = std::chrono::steady_clock::time_point;

  // `tell_silence`: that nothing at all arrives is worth a word.
  reception_watch(std::vector<watched_group> groups, bool tell_silence, time_point start);

  // Lines that are due now; `counts` belong to the groups, in their order.
  std::vector<std::string> due(const std::vector<KAVMulticastStatistics>& counts, time_point now);

  static constexpr std::chrono::seconds k_silence{5};  // then a feed that works has said something
  static constexpr std::chrono::seconds k_drop_pause{5};  // between two lines about drops

 private:
  std::optional<std::string> silence(const std::vector<KAVMulticastStatistics>& counts,
                                     time_point now);
  // False: there are no new ones.
  bool add_drops(const std::vector<KAVMulticastStatistics>& counts,
                 std::vector<std::string>& lines);

  const std::vector<watched_group> m_groups;
  const time_point m_start;
  bool m_tell_silence;
  std::vector<std::uint64_t> m_told_drops;  // of each group
  std::optional<time_point> m_drops_told_at;
};

}  // namespace kav_watch
