#include "apps/record/recorder.h"

#include <fmt/format.h>  // fmt::format, fmt::print
#include <poll.h>        // poll

#include <cstdio>  // stderr

#include "apps/standard_error.h"

namespace kav_record {
namespace {

using kav_watch::exit_status;
using kav_watch::outcome;

constexpr int k_look_ms = 100;                   // at what does not wake: the writer, the clock
constexpr std::chrono::seconds k_loss_pause{5};  // between two lines about lost quotes

std::string counts_text(const file_counts& counts) {
  return fmt::format("{} {} saved in {} {}, {:.1f} MB", counts.saved_quotes,
                     counts.saved_quotes == 1 ? "quote" : "quotes", counts.files,
                     counts.files == 1 ? "file" : "files", static_cast<double>(counts.bytes) / 1e6);
}

}  // namespace

void note(const std::string& text) { kav_apps::tell(fmt::format("kav-record: {}\n", text)); }

recorder::recorder(const record_options& options, quote_queue& queue,
                   kav_watch::quote_session& session, kav_watch::multicast_feed& feed,
                   kav_watch::signal_source& signals)
    : m_options(options),
      m_queue(queue),
      m_inbox(session.inbox()),
      m_signals(signals),
      m_source(options, session, feed, note),
      m_writer(queue, options.files) {}

outcome recorder::run() {
  if (std::optional<outcome> end = m_source.open()) return *end;
  m_writer.start();
  if (std::optional<outcome> end = m_source.begin()) return *end;
  return finish(record());
}

outcome recorder::record() {
  const steady::time_point now = steady::now();
  if (m_options.duration) m_deadline = now + *m_options.duration;
  if (m_options.progress) m_progress_at = now + *m_options.progress;
  while (true) {
    if (std::optional<outcome> end = turn()) return *end;
    wait();
  }
}

std::optional<outcome> recorder::turn() {
  m_inbox.clear_wake();
  const kav_watch::session_facts facts = m_inbox.facts();
  m_source.report_events();
  m_source.report(facts);
  if (std::optional<outcome> end = m_source.judge_session(facts)) return end;
  m_source.report_reception();
  if (m_writer.look().failure || asked_to_end()) return outcome{};
  report_losses();
  report_progress();
  return std::nullopt;
}

bool recorder::asked_to_end() {
  m_signals.read_all();
  return m_signals.end_asked() || m_queue.look().limit_reached ||
         (m_deadline && steady::now() >= *m_deadline);
}

void recorder::wait() const {
  pollfd fds[] = {{m_inbox.wake_fd(), POLLIN, 0}, {m_signals.fd(), POLLIN, 0}};
  ::poll(fds, 2, k_look_ms);
}

void recorder::report_losses() {
  const std::uint64_t lost = m_queue.look().lost;
  if (lost == m_told_lost || steady::now() < m_losses_at) return;
  note(
      fmt::format("{} quotes lost so far: they come faster than they can be written; record fewer "
                  "symbols, to a faster disk, or with a longer --queue",
                  lost));
  m_told_lost = lost;
  m_losses_at = steady::now() + k_loss_pause;
}

void recorder::report_progress() {
  const steady::time_point now = steady::now();
  if (!m_options.progress || now < m_progress_at) return;
  const file_counts counts = m_writer.look().counts;
  const quote_queue::counts queue = m_queue.look();
  const std::chrono::duration<double> since = now - m_progress_at + *m_options.progress;
  const auto fresh = static_cast<double>(counts.saved_quotes - m_told_saved);
  note(fmt::format("{}, {:.0f} quotes a second; {} waiting, {} lost", counts_text(counts),
                   fresh / since.count(), queue.waiting, queue.lost));
  m_told_saved = counts.saved_quotes;
  m_progress_at = now + *m_options.progress;
}

outcome recorder::finish(outcome end) {
  m_source.report_counts();
  m_writer.finish();
  const file_writer::state state = m_writer.look();
  const quote_queue::counts queue = m_queue.look();
  const std::uint64_t unsaved = queue.taken - state.counts.saved_quotes;
  std::string sums = fmt::format("{}; {} lost", counts_text(state.counts), queue.lost + unsaved);
  if (!state.counts.last_path.empty()) sums += "; the last file is " + state.counts.last_path;
  note(sums);
  if (state.failure) return {exit_status::write_failed, *state.failure};
  if (end.status != exit_status::ended_well || queue.lost == 0) return end;
  return {exit_status::quotes_lost,
          fmt::format("{} quotes came faster than they could be written, and are lost; record "
                      "fewer symbols, to a faster disk, or with a longer --queue",
                      queue.lost)};
}

}  // namespace kav_record
