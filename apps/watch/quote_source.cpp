#include "apps/watch/quote_source.h"

#include <fmt/format.h>  // fmt::format

#include <string_view>    // std::string_view
#include <unordered_map>  // std::unordered_map
#include <utility>        // std::exchange, std::move

#include "apps/watch/text_safety.h"

namespace kav_watch {
namespace {

using steady = std::chrono::steady_clock;

constexpr std::chrono::milliseconds k_look{500};  // often enough for a person
constexpr std::size_t k_named_symbols = 10;       // in one message

std::string first_names(const std::vector<std::string>& names) {
  return printable_text(first_texts(names, k_named_symbols));
}

}  // namespace

symbol_choice choose_symbols(const std::vector<listed_symbol>& list,
                             const std::vector<std::string>& names) {
  if (names.empty()) return {list, {}};
  std::unordered_map<std::string_view, const listed_symbol*> index;
  for (const listed_symbol& symbol : list) index.try_emplace(symbol.name, &symbol);
  symbol_choice choice;
  for (const std::string& name : names) {
    const auto found = index.find(name);
    if (found == index.end()) {
      choice.unknown.push_back(name);
    } else {
      choice.known.push_back(*found->second);
    }
  }
  return choice;
}

quote_source::quote_source(const source_options& options, quote_session& session,
                           multicast_feed& feed, teller tell)
    : m_options(options), m_session(session), m_feed(feed), m_tell(std::move(tell)) {}

std::optional<outcome> quote_source::open() {
  return m_options.server ? m_session.open() : std::nullopt;
}

std::optional<outcome> quote_source::begin() {
  if (m_options.server) {
    if (std::optional<outcome> end = register_symbols()) return end;
  }
  return begin_reception();
}

std::optional<outcome> quote_source::begin_reception() {
  if (!m_feed.is_wanted()) return std::nullopt;
  const std::vector<std::string> refusals = m_feed.start();
  if (!refusals.empty()) {
    report_events();
    for (const std::string& line : refusals) m_tell(line);
    return outcome{exit_status::no_multicast, ""};
  }
  m_reception.emplace(m_feed.groups(), !m_options.server, steady::now());
  return std::nullopt;
}

std::optional<outcome> quote_source::register_symbols() {
  symbol_choice choice = choose_symbols(m_session.symbols(), m_options.symbols);
  if (!choice.unknown.empty()) {
    if (std::optional<outcome> end = judge_unknown(choice)) return end;
  }
  m_watched = std::move(choice.known);
  m_session.watch(m_watched);
  return std::nullopt;
}

std::optional<outcome> quote_source::judge_unknown(const symbol_choice& choice) const {
  const std::string text = "the server does not know " + first_names(choice.unknown);
  if (m_feed.is_wanted()) {  // which groups carry a symbol is known to nobody
    m_tell(text + "; awaiting quotes of the multicast groups only");
    return std::nullopt;
  }
  if (choice.known.empty() || !m_options.keep_going) {
    return outcome{exit_status::unknown_symbol,
                   text + "; kav-watch --list shows what it knows" +
                       (choice.known.empty() ? "" : ", --keep-going goes on with the others")};
  }
  m_tell(text + "; going on with the others");
  return std::nullopt;
}

void quote_source::report_events() {
  const std::vector<std::string> refused = m_session.inbox().take_refusals();
  if (!refused.empty()) {
    m_tell(
        fmt::format("the server refuses to send quotes of {}; still asking", first_names(refused)));
  }
  for (const std::string& line : m_session.inbox().take_log()) {
    if (m_options.verbose) m_tell(line);
  }
}

void quote_source::report(const session_facts& facts) {
  if (!m_options.server || facts.state == m_told_state) return;
  if (facts.state == link_state::reconnecting) {
    m_tell(fmt::format("connection to {} lost, reconnecting", m_options.server_text));
  } else if (facts.state == link_state::live) {
    m_tell(fmt::format("connected to {} again", m_options.server_text));
  }
  m_told_state = facts.state;
}

std::optional<outcome> quote_source::judge_session(const session_facts& facts) {
  if (facts.state != link_state::over) return std::nullopt;
  outcome end = m_session.over();
  if (!m_feed.is_receiving()) return end;
  if (!std::exchange(m_over_told, true)) m_tell(end.message + "; multicast goes on");
  return std::nullopt;
}

void quote_source::report_reception() {
  const steady::time_point now = steady::now();
  if (!m_reception || now < m_next_look) return;
  m_next_look = now + k_look;
  for (const std::string& line : m_reception->due(m_feed.counts(), now)) m_tell(line);
}

void quote_source::report_counts() {
  if (!m_feed.is_receiving()) return;
  const std::vector<KAVMulticastStatistics> counts = m_feed.last_counts();
  for (std::size_t i = 0; i < counts.size(); ++i) {
    if (m_options.verbose || has_losses(counts[i])) {
      m_tell(counts_text(m_feed.groups()[i], counts[i]));
    }
  }
}

}  // namespace kav_watch
