// What the program does until its end: watches the source, the writer and the clock, and tells.
#pragma once

#include <chrono>    // std::chrono::steady_clock
#include <cstdint>   // std::uint64_t
#include <optional>  // std::optional
#include <string>    // std::string

#include "apps/record/file_writer.h"
#include "apps/record/options.h"
#include "apps/record/quote_queue.h"
#include "apps/watch/outcome.h"
#include "apps/watch/quote_source.h"
#include "apps/watch/signal_source.h"

namespace kav_record {

// Writes a line to standard error.
void note(const std::string& text);

// Main thread only.
class recorder {
 public:
  // All arguments outlive the recorder. The session's and the feed's quotes go to the queue.
  recorder(const record_options& options, quote_queue& queue, kav_watch::quote_session& session,
           kav_watch::multicast_feed& feed, kav_watch::signal_source& signals);

  // Everything up to the end, which it returns.
  kav_watch::outcome run();

 private:
  using steady = std::chrono::steady_clock;

  kav_watch::outcome record();
  // One turn. Nothing: go on.
  std::optional<kav_watch::outcome> turn();
  bool asked_to_end();
  void wait() const;
  void report_losses();
  void report_progress();
  kav_watch::outcome finish(kav_watch::outcome end);

  const record_options& m_options;
  quote_queue& m_queue;
  kav_watch::quote_inbox& m_inbox;
  kav_watch::signal_source& m_signals;
  kav_watch::quote_source m_source;
  file_writer m_writer;
  std::optional<steady::time_point> m_deadline;
  steady::time_point m_progress_at{}, m_losses_at{};
  std::uint64_t m_told_saved = 0, m_told_lost = 0;
};

}  // namespace kav_record
