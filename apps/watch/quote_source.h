// A session, multicast groups or both as one source of quotes: begun, watched over, told of.
#pragma once

#include <chrono>      // std::chrono::steady_clock
#include <functional>  // std::function
#include <optional>    // std::optional
#include <string>      // std::string
#include <vector>      // std::vector

#include "apps/watch/multicast_feed.h"
#include "apps/watch/outcome.h"
#include "apps/watch/quote_session.h"
#include "apps/watch/reception_report.h"
#include "apps/watch/source_options.h"

namespace kav_watch {

// The symbols of the list that were named, in the order of their names, and the names that are in
// no list. No names: the whole list.
struct symbol_choice {
  std::vector<listed_symbol> known;
  std::vector<std::string> unknown;
};
symbol_choice choose_symbols(const std::vector<listed_symbol>& list,
                             const std::vector<std::string>& names);

// Main thread only.
class quote_source {
 public:
  using teller = std::function<void(const std::string&)>;

  // All but the teller, which gets what the user should know, outlive the source.
  quote_source(const source_options& options, quote_session& session, multicast_feed& feed,
               teller tell);

  // Connects, logs in, fetches the symbol list, when a server is named. Nothing: go on; else how
  // the program ends, here and below.
  std::optional<outcome> open();
  // Registers the symbols, joins the groups.
  std::optional<outcome> begin();
  const std::vector<listed_symbol>& watched() const { return m_watched; }

  // Refusals and, where wanted, log lines.
  void report_events();
  // The session's losses and returns.
  void report(const session_facts& facts);
  // Its end, unless the groups go on without it.
  std::optional<outcome> judge_session(const session_facts& facts);
  // What is due about the groups.
  void report_reception();
  // What each group has brought, at the end.
  void report_counts();

 private:
  std::optional<outcome> register_symbols();
  std::optional<outcome> judge_unknown(const symbol_choice& choice) const;
  std::optional<outcome> begin_reception();

  const source_options& m_options;
  quote_session& m_session;
  multicast_feed& m_feed;
  const teller m_tell;
  std::vector<listed_symbol> m_watched;
  link_state m_told_state = link_state::live;           // what the user was told last
  std::optional<reception_watch> m_reception;           // while groups are being received
  bool m_over_told = false;                             // of a session that multicast outlives
  std::chrono::steady_clock::time_point m_next_look{};  // at the groups' counts
};

}  // namespace kav_watch
