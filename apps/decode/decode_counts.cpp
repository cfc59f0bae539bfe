#include "apps/decode/decode_counts.h"

#include <fmt/format.h>  // fmt::format_to

#include <algorithm>    // std::sort
#include <iterator>     // std::back_inserter
#include <string_view>  // std::string_view
#include <vector>       // std::vector

namespace kav_decode {
namespace {

constexpr std::size_t k_most_destinations =
    65'536;                           // holds the memory where a capture has millions
constexpr std::size_t k_listed = 20;  // of destinations and of unknown lengths

constexpr std::array<std::string_view, k_ignore_reasons> k_reason_texts{
    "not IPv4",
    "not UDP",
    "fragmented (parts of datagrams are not joined)",
    "truncated by the capture (its snapshot length was too short)",
    "malformed headers",
    "destination not mapped to an exchange (--group maps it)",
    "unknown length for that exchange",
    "lumen record without a valid symbol",
};

// Only what the group's exchange does not tell by itself.
std::string_view kind_text(multicast_record kind) {
  switch (kind) {
    case multicast_record::lumen_summary:
      return " lumen summary";
    case multicast_record::lumen_tick:
      return " lumen tick";
    default:
      return "";
  }
}

struct counted_name {
  std::string name;
  std::uint64_t count;
};

class summary_text {
 public:
  void line(std::string_view name, std::uint64_t count, std::string_view indent) {
    fmt::format_to(std::back_inserter(m_text), "{:>12}  {}{}\n", count, indent, name);
  }
  // The most frequent ones.
  void list(std::vector<counted_name> names) {
    std::stable_sort(names.begin(), names.end(), [](const counted_name& a, const counted_name& b) {
      return a.count > b.count;
    });
    for (std::size_t i = 0; i < std::min(names.size(), k_listed); ++i) {
      line(names[i].name, names[i].count, "    ");
    }
    if (names.size() <= k_listed) return;
    std::uint64_t others = 0;
    for (std::size_t i = k_listed; i < names.size(); ++i) others += names[i].count;
    line(fmt::format("{} others", names.size() - k_listed), others, "    ");
  }
  std::string take() { return std::move(m_text); }

 private:
  std::string m_text;
};

}  // namespace

void decode_counts::add_quote(int exchange, multicast_record kind) {
  ++m_packets;
  ++m_quotes;
  ++m_decoded[{exchange, kind}];
}

void decode_counts::add_ignored(ignore_reason reason) {
  ++m_packets;
  ++m_ignored[static_cast<std::size_t>(reason)];
}

void decode_counts::add_not_mapped(const destination& where) {
  add_ignored(ignore_reason::not_mapped);
  const auto known = m_not_mapped.find(where);
  if (known != m_not_mapped.end()) {
    ++known->second;
  } else if (m_not_mapped.size() < k_most_destinations) {
    m_not_mapped.emplace(where, 1);
  }
}

void decode_counts::add_unknown_length(int exchange, std::size_t length) {
  add_ignored(ignore_reason::unknown_length);
  ++m_unknown_lengths[{exchange, length}];
}

std::uint64_t decode_counts::quotes(int exchange, multicast_record kind) const {
  const auto found = m_decoded.find({exchange, kind});
  return found == m_decoded.end() ? 0 : found->second;
}

std::uint64_t decode_counts::ignored(ignore_reason reason) const {
  return m_ignored[static_cast<std::size_t>(reason)];
}

std::string decode_counts::summary(std::uint64_t selected) const {
  summary_text text;
  text.line("packets", m_packets, "");
  text.line("quotes decoded", m_quotes, "");
  for (const auto& [key, count] : m_decoded) {
    text.line(fmt::format("{}{}", exchange_name(key.first), kind_text(key.second)), count, "  ");
  }
  text.line("quotes selected", selected, "");
  text.line("packets ignored", m_packets - m_quotes, "");
  for (std::size_t reason = 0; reason < k_ignore_reasons; ++reason) {
    if (m_ignored[reason] == 0) continue;
    text.line(k_reason_texts[reason], m_ignored[reason], "  ");
    std::vector<counted_name> details;
    if (reason == static_cast<std::size_t>(ignore_reason::not_mapped)) {
      for (const auto& [where, count] : m_not_mapped) {
        details.push_back({destination_text(where), count});
      }
    } else if (reason == static_cast<std::size_t>(ignore_reason::unknown_length)) {
      for (const auto& [key, count] : m_unknown_lengths) {
        details.push_back(
            {fmt::format("{}, {} bytes", exchange_name(key.first), key.second), count});
      }
    }
    text.list(std::move(details));
  }
  return text.take();
}

}  // namespace kav_decode
