// What the program does with its sources: choose symbols, show their quotes.
#pragma once

#include <chrono>    // std::chrono::steady_clock
#include <cstdint>   // std::uint64_t
#include <optional>  // std::optional
#include <string>    // std::string
#include <vector>    // std::vector

#include "apps/watch/multicast_feed.h"
#include "apps/watch/options.h"
#include "apps/watch/outcome.h"
#include "apps/watch/output_stream.h"
#include "apps/watch/quote_session.h"
#include "apps/watch/quote_source.h"
#include "apps/watch/quote_table.h"
#include "apps/watch/signal_source.h"
#include "apps/watch/standard_output.h"
#include "apps/watch/table_screen.h"

namespace kav_watch {

// Main thread only.
class viewer {
 public:
  viewer(const watch_options& options, output_format format, quote_session& session,
         multicast_feed& feed, signal_source& signals, standard_output& output);

  // Everything up to the end, which it returns.
  outcome run();

 private:
  outcome show_quotes();
  outcome print_list();

  outcome stream_quotes();
  // One turn: quotes that wait become lines. Nothing: go on.
  std::optional<outcome> stream_turn();
  std::optional<outcome> write_batch();
  void append_quote(const KAVMarketDepthQuoteData& quote);
  std::optional<outcome> flush();
  outcome write_end(write_result result) const;
  outcome finish_stream(outcome end);
  // Nothing: go on; else the reader of the output is gone.
  std::optional<outcome> wait_for_more();

  outcome show_table();
  std::optional<outcome> table_turn();
  void gather_for_table();
  quote_table make_table() const;
  void draw(const session_facts& facts);
  std::vector<std::string> status_lines(const session_facts& facts) const;
  void wait_for_redraw();

  bool asked_to_end();  // by a signal or --seconds
  int milliseconds_left() const;
  void tell(const std::string& line);  // on standard error, in the table's last line
  std::size_t wanted_now(std::size_t available) const;  // what --count still allows

  const watch_options& m_options;
  const output_format m_format;
  quote_session& m_session;
  multicast_feed& m_feed;
  signal_source& m_signals;
  standard_output& m_output;
  quote_source m_source;
  output_stream m_lines;
  std::optional<steady_time> m_deadline;
  std::uint64_t m_shown = 0;
  std::vector<KAVMarketDepthQuoteData> m_batch;

  // Of the table only.
  std::optional<quote_table> m_table;
  std::unique_ptr<table_screen> m_screen;
  rate_meter m_rate;
  std::string m_last_log;
};

}  // namespace kav_watch
