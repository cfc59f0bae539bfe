#include "apps/watch/reception_report.h"

#include <arpa/inet.h>   // inet_ntop
#include <fmt/format.h>  // fmt::format
#include <ifaddrs.h>     // getifaddrs

#include <algorithm>  // std::find_if
#include <memory>     // std::unique_ptr
#include <utility>    // std::move

#include "apps/watch/text_safety.h"

namespace kav_watch {
namespace {

using counts_list = std::vector<KAVMulticastStatistics>;

constexpr std::size_t k_named_groups = 3;      // in one message
constexpr std::size_t k_named_addresses = 10;  // in one message

struct interface_list_closer {
  void operator()(ifaddrs* list) const { ::freeifaddrs(list); }
};

std::vector<std::string> local_addresses() {
  ifaddrs* first = nullptr;
  if (::getifaddrs(&first) != 0) return {};
  const std::unique_ptr<ifaddrs, interface_list_closer> list{first};
  std::vector<std::string> texts;
  for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &address->sin_addr, text, sizeof(text));
    texts.emplace_back(text);
  }
  return texts;
}

std::string interface_way_out(const watched_group& group) {
  const std::vector<std::string> addresses = local_addresses();
  const std::string there = addresses.empty()
                                ? "this host has no address at all"
                                : "this host has " + first_texts(addresses, k_named_addresses);
  return group.info.m_LocalIp[0] == '\0'
             ? fmt::format("append @LOCALIP, the address of the interface to use; {}", there)
             : fmt::format("give the address of a local interface behind @; {}", there);
}

// The library's own words about a group, or the last that it said about anything.
std::string line_about(const watched_group& group, const std::vector<std::string>& log_lines) {
  const auto found = std::find_if(log_lines.rbegin(), log_lines.rend(), [&](const auto& line) {
    return line.find(group.info.m_GroupIp) != std::string::npos;
  });
  if (found != log_lines.rend()) return *found;
  return log_lines.empty() ? "none given" : log_lines.back();
}

std::string way_out(const watched_group& group, int result,
                    const std::vector<std::string>& log_lines) {
  switch (result) {
    case KAVMulticastNoInterface:
      return interface_way_out(group);
    case KAVMulticastPortInUse:
      return fmt::format("end the program that has UDP port {}, 'ss -ulpn' tells which",
                         std::uint16_t{group.info.m_GroupPort});
    case KAVMulticastSystemError:
      return "the system's reason: " + line_about(group, log_lines);
    default:
      return "check --multicast";
  }
}

}  // namespace

KAVMulticastStatistics sum_of(const counts_list& groups) {
  KAVMulticastStatistics sum{};
  for (const KAVMulticastStatistics& counts : groups) {
    sum.m_Datagrams += counts.m_Datagrams;
    sum.m_Quotes += counts.m_Quotes;
    sum.m_Ignored += counts.m_Ignored;
    sum.m_Refused += counts.m_Refused;
    sum.m_Dropped += counts.m_Dropped;
  }
  return sum;
}

std::string refusal_text(const watched_group& group, int result,
                         const std::vector<std::string>& log_lines) {
  return fmt::format("cannot receive {}: {}; {}", group.text, KAVMulticastResultText(result),
                     way_out(group, result, log_lines));
}

std::string reception_text(const counts_list& groups) {
  const KAVMulticastStatistics sum = sum_of(groups);
  // Losses come first: the end of the line is cut on a narrow terminal.
  const std::string dropped =
      sum.m_Dropped > 0 ? fmt::format(" | {} dropped", sum.m_Dropped) : std::string{};
  return fmt::format("{} group{}{} | {} datagrams | {} quotes | {} ignored | {} refused",
                     groups.size(), groups.size() == 1 ? "" : "s", dropped, sum.m_Datagrams,
                     sum.m_Quotes, sum.m_Ignored, sum.m_Refused);
}

std::string counts_text(const watched_group& group, const KAVMulticastStatistics& counts) {
  return fmt::format("{}: {} datagrams, {} quotes, {} ignored, {} refused, {} dropped", group.text,
                     counts.m_Datagrams, counts.m_Quotes, counts.m_Ignored, counts.m_Refused,
                     counts.m_Dropped);
}

bool has_losses(const KAVMulticastStatistics& counts) {
  return counts.m_Ignored > 0 || counts.m_Refused > 0 || counts.m_Dropped > 0;
}

reception_watch::reception_watch(std::vector<watched_group> groups, bool tell_silence,
                                 time_point start)
    : m_groups(std::move(groups)),
      m_start(start),
      m_tell_silence(tell_silence),
      m_told_drops(m_groups.size(), 0) {}

std::vector<std::string> reception_watch::due(const counts_list& counts, time_point now) {
  std::vector<std::string> lines;
  if (std::optional<std::string> line = silence(counts, now)) lines.push_back(std::move(*line));
  if (!m_drops_told_at || now - *m_drops_told_at >= k_drop_pause) {
    if (add_drops(counts, lines)) m_drops_told_at = now;
  }
  return lines;
}

std::optional<std::string> reception_watch::silence(const counts_list& counts, time_point now) {
  if (!m_tell_silence) return std::nullopt;
  if (sum_of(counts).m_Datagrams > 0) m_tell_silence = false;
  if (!m_tell_silence || now - m_start < k_silence) return std::nullopt;
  m_tell_silence = false;
  std::vector<std::string> names;
  for (const watched_group& group : m_groups) names.push_back(group.text);
  return fmt::format(
      "no datagram yet on {}; check that the sender runs, that the feed reaches the interface, and "
      "the firewall: see docs/multicast.md",
      first_texts(names, k_named_groups));
}

bool reception_watch::add_drops(const counts_list& counts, std::vector<std::string>& lines) {
  const std::size_t before = lines.size();
  for (std::size_t i = 0; i < counts.size(); ++i) {
    const std::uint64_t dropped = counts[i].m_Dropped;
    if (dropped <= m_told_drops[i]) continue;
    lines.push_back(
        fmt::format("{}: the system dropped {} datagrams ({} in all), the output is slower than "
                    "the feed",
                    m_groups[i].text, dropped - m_told_drops[i], dropped));
    m_told_drops[i] = dropped;
  }
  return lines.size() > before;
}

}  // namespace kav_watch
