#include "apps/watch/viewer.h"

#include <fmt/format.h>  // fmt::format
#include <poll.h>        // poll

#include <algorithm>  // std::min, std::clamp
#include <cstdio>     // stderr
#include <cstdlib>    // std::getenv
#include <iterator>   // std::back_inserter
#include <utility>    // std::exchange, std::move

#include "apps/standard_error.h"
#include "apps/watch/quote_format.h"
#include "apps/watch/text_safety.h"

namespace kav_watch {
namespace {

using steady = std::chrono::steady_clock;

constexpr std::chrono::milliseconds k_redraw{100};       // the eye does not want it faster
constexpr std::chrono::milliseconds k_last_flush{2000};  // for what waits when the program ends
constexpr int k_idle_wait_ms = 1000;                     // nothing depends on it

void note(const std::string& text) { kav_apps::tell(fmt::format("kav-watch: {}\n", text)); }

bool colour_wanted() {
  const char* no_colour = std::getenv("NO_COLOR");
  return no_colour == nullptr || *no_colour == '\0';
}

}  // namespace

viewer::viewer(const watch_options& options, output_format format, quote_session& session,
               multicast_feed& feed, signal_source& signals, standard_output& output)
    : m_options(options),
      m_format(format),
      m_session(session),
      m_feed(feed),
      m_signals(signals),
      m_output(output),
      m_source(options, session, feed, [this](const std::string& line) { tell(line); }),
      m_lines(output.fd(), signals.fd()) {}

outcome viewer::run() {
  if (std::optional<outcome> end = m_source.open()) return *end;
  if (m_options.list_only) return print_list();
  if (std::optional<outcome> end = m_source.begin()) return *end;
  if (m_options.duration) m_deadline = steady::now() + *m_options.duration;
  outcome end = show_quotes();
  m_source.report_counts();
  return end;
}

outcome viewer::show_quotes() {
  return m_format == output_format::table ? show_table() : stream_quotes();
}

outcome viewer::print_list() {
  fmt::memory_buffer& out = m_lines.buffer();
  if (m_format == output_format::csv) fmt::format_to(std::back_inserter(out), "Symbol,Type\n");
  for (const listed_symbol& symbol : m_session.symbols()) {
    const std::string type = type_text(symbol.type);
    if (m_format == output_format::csv) {
      append_csv_text(out, symbol.name);
      out.push_back(',');
      append_csv_text(out, type);
    } else if (m_format == output_format::json) {
      fmt::format_to(std::back_inserter(out), "{{\"Symbol\":");
      append_json_text(out, symbol.name);
      fmt::format_to(std::back_inserter(out), ",\"Type\":");
      append_json_text(out, type);
      out.push_back('}');
    } else {
      fmt::format_to(std::back_inserter(out), "{}\t{}", printable_text(symbol.name), type);
    }
    out.push_back('\n');
  }
  return finish_stream({});
}

// ---- Lines ----

outcome viewer::stream_quotes() {
  if (m_format == output_format::csv) append_csv_header(m_lines.buffer());
  while (true) {
    std::optional<outcome> end = stream_turn();
    if (!end) end = wait_for_more();
    if (end) return finish_stream(std::move(*end));
  }
}

std::optional<outcome> viewer::stream_turn() {
  m_session.inbox().clear_wake();
  const session_facts facts = m_session.inbox().facts();  // before the quotes that preceded it
  if (std::optional<outcome> end = write_batch()) return end;
  if (std::optional<outcome> end = flush()) return end;
  m_source.report_events();
  m_source.report(facts);
  if (std::optional<outcome> end = m_source.judge_session(facts)) return end;
  m_source.report_reception();
  if (asked_to_end()) return outcome{};
  return std::nullopt;
}

std::size_t viewer::wanted_now(std::size_t available) const {
  if (!m_options.count) return available;
  return static_cast<std::size_t>(std::min<std::uint64_t>(available, *m_options.count - m_shown));
}

std::optional<outcome> viewer::write_batch() {
  m_session.inbox().take_quotes(m_batch);
  const std::size_t wanted = wanted_now(m_batch.size());
  for (std::size_t i = 0; i < wanted; ++i) {
    append_quote(m_batch[i]);
    if (!m_lines.is_full()) continue;
    if (std::optional<outcome> end = flush()) return end;
  }
  m_shown += wanted;
  if (m_options.count && m_shown == *m_options.count) return outcome{};
  return std::nullopt;
}

void viewer::append_quote(const KAVMarketDepthQuoteData& quote) {
  switch (m_format) {
    case output_format::csv:
      return append_csv(m_lines.buffer(), quote);
    case output_format::json:
      return append_json(m_lines.buffer(), quote);
    default:
      return append_plain(m_lines.buffer(), quote);
  }
}

std::optional<outcome> viewer::flush() {
  while (true) {
    const write_result result = m_lines.flush(std::chrono::milliseconds{milliseconds_left()});
    if (result == write_result::written) return std::nullopt;
    if (result != write_result::interrupted) return write_end(result);
    if (asked_to_end()) return outcome{};  // else it was the terminal's size, or a slow reader
  }
}

outcome viewer::write_end(write_result result) const {
  if (result != write_result::failed) return {};
  return {exit_status::write_failed,
          fmt::format("cannot write the output: {}; free some space or write elsewhere",
                      m_lines.error_text())};
}

outcome viewer::finish_stream(outcome end) {
  if (end.status == exit_status::write_failed) return end;
  const outcome written = write_end(m_lines.flush_for(k_last_flush));
  return end.status == exit_status::ended_well ? written : end;
}

std::optional<outcome> viewer::wait_for_more() {
  // The output is watched for its reader's going away, which otherwise only a write would tell.
  pollfd fds[] = {
      {m_session.inbox().wake_fd(), POLLIN, 0}, {m_signals.fd(), POLLIN, 0}, {m_output.fd(), 0, 0}};
  const int ready = ::poll(fds, 3, milliseconds_left());
  if (ready > 0 && (fds[2].revents & (POLLERR | POLLHUP)) != 0) return outcome{};
  return std::nullopt;
}

// ---- Table ----

quote_table viewer::make_table() const {
  // What the server does not know may come from a group all the same.
  if (m_feed.is_wanted() && !m_options.symbols.empty()) return quote_table{m_options.symbols};
  std::vector<std::string> names;
  for (const listed_symbol& symbol : m_source.watched()) names.push_back(symbol.name);
  return quote_table{names, m_feed.is_wanted() ? new_symbols::added : new_symbols::ignored};
}

outcome viewer::show_table() {
  m_table.emplace(make_table());
  m_screen = table_screen::open(m_output.fd(), {colour_wanted(), m_options.green_up});
  if (!m_screen) {
    return {exit_status::bad_option,
            "this terminal cannot show the table; set TERM to its kind or give --format plain"};
  }
  m_output.lead_strays_to_pipe();
  std::optional<outcome> end;
  while (!end) {
    end = table_turn();
    if (!end) wait_for_redraw();
  }
  m_screen.reset();
  m_output.lead_strays_nowhere();
  return *end;
}

std::optional<outcome> viewer::table_turn() {
  m_session.inbox().clear_wake();
  const session_facts facts = m_session.inbox().facts();
  gather_for_table();
  m_rate.update(facts.quotes, steady::now());
  if (std::optional<outcome> end = m_source.judge_session(facts)) return end;
  m_source.report_reception();
  if (m_options.count && facts.quotes >= *m_options.count) return outcome{};
  if (asked_to_end() || !m_screen->obey_keys()) return outcome{};
  if (m_signals.take_resize()) m_screen->fit_to_terminal();
  draw(facts);
  return std::nullopt;
}

void viewer::gather_for_table() {
  m_session.inbox().take_quotes(m_batch);
  const steady_time now = steady::now();
  for (const KAVMarketDepthQuoteData& quote : m_batch) m_table->apply(quote, now);
  for (const std::string& symbol : m_session.inbox().take_refusals()) m_table->set_refused(symbol);
  for (std::string& line : m_session.inbox().take_log()) m_last_log = std::move(line);
  for (std::string& line : m_output.take_strays()) m_last_log = std::move(line);
}

std::vector<std::string> viewer::status_lines(const session_facts& facts) const {
  const std::string quotes =
      fmt::format("{:.0f} quotes/s | {} quotes", m_rate.per_second(), facts.quotes);
  std::vector<std::string> lines{quotes};
  if (m_options.server) {
    lines = {fmt::format("{} {} | {} | {} reconnections", m_options.server_text,
                         state_text(facts.state), quotes, facts.reconnections)};
  }
  if (m_feed.is_wanted()) lines.push_back("multicast " + reception_text(m_feed.counts()));
  return lines;
}

void viewer::draw(const session_facts& facts) {
  m_screen->draw(*m_table, status_lines(facts), m_last_log);
}

void viewer::wait_for_redraw() {
  // Quotes are not waited for: they are picked up with the next drawing. Keys and signals are.
  pollfd fds[] = {{m_signals.fd(), POLLIN, 0}, {m_screen->key_fd(), POLLIN, 0}};
  ::poll(fds, 2, std::min(milliseconds_left(), static_cast<int>(k_redraw.count())));
}

// ---- Both ----

bool viewer::asked_to_end() {
  m_signals.read_all();
  return m_signals.end_asked() || (m_deadline && steady::now() >= *m_deadline);
}

int viewer::milliseconds_left() const {
  if (!m_deadline) return k_idle_wait_ms;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(*m_deadline - steady::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, k_idle_wait_ms));
}

void viewer::tell(const std::string& line) {
  if (m_screen) {
    m_last_log = line;
  } else {
    note(line);
  }
}

}  // namespace kav_watch
