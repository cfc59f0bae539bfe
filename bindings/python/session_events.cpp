#include "bindings/python/session_events.h"

#include <utility>  // std::move, std::exchange

namespace kav_python {
namespace {

using kav_watch::link_state;
using steady = std::chrono::steady_clock;

constexpr std::size_t k_most_log_lines = 4096;
constexpr std::size_t k_most_answers = 262'144;       // no more symbols can be registered
constexpr std::chrono::seconds k_drop_news_pause{1};  // at most one such line in this time

std::string text_of(const char* text) { return text == nullptr ? "" : text; }

}  // namespace

session_facts session_events::facts() const {
  const std::lock_guard lock(m_lock);
  session_facts facts = m_facts;
  facts.state = m_tracker.state();
  facts.reconnections = m_tracker.reconnections();
  facts.relogin_refused = m_tracker.relogin_refused();
  return facts;
}

symbol_types session_events::symbols() const {
  const std::lock_guard lock(m_lock);
  return m_symbols;
}

registration session_events::registration_of(const std::string& symbol) const {
  const std::lock_guard lock(m_lock);
  const auto found = m_registrations.find(symbol);
  return found == m_registrations.end() ? registration::unknown : found->second;
}

void session_events::forget_answer(const std::string& symbol) {
  const std::lock_guard lock(m_lock);
  m_registrations.erase(symbol);
}

std::uint64_t session_events::changes() const {
  const std::lock_guard lock(m_lock);
  return m_changes;
}

bool session_events::wait_for_change(std::uint64_t seen, steady_time limit) {
  std::unique_lock lock(m_lock);
  return m_change.wait_until(lock, limit, [&] { return m_changes != seen; });
}

void session_events::changed() {
  ++m_changes;
  m_change.notify_all();
}

void session_events::set_connected(bool connected) {
  const std::lock_guard lock(m_lock);
  m_facts.connected = connected;
  changed();
}

void session_events::close() {
  m_quotes.close();
  const std::lock_guard lock(m_lock);
  changed();
}

void session_events::end_log() {
  const std::lock_guard lock(m_lock);
  m_log_ended = true;
  m_log_change.notify_all();
}

bool session_events::drops_are_due() const {
  return m_drops_to_tell && steady::now() >= m_next_drop_news;
}

void session_events::tell_drops(std::vector<log_line>& lines) {
  if (!m_drops_to_tell) return;
  m_drops_to_tell = false;
  m_next_drop_news = steady::now() + k_drop_news_pause;
  const std::uint64_t dropped = m_quotes.tell_dropped();
  const std::uint64_t fresh = dropped - std::exchange(m_drops_told, dropped);
  lines.push_back({LogLevelWarning, std::to_string(fresh) + " quotes dropped, the oldest of " +
                                        std::to_string(m_quotes.capacity()) +
                                        " that waited to be taken; " + std::to_string(dropped) +
                                        " since the beginning"});
}

std::vector<log_line> session_events::take_log() {
  std::unique_lock lock(m_lock);
  const auto something = [this] { return m_log_ended || !m_log.empty() || drops_are_due(); };
  while (!something()) {
    if (m_drops_to_tell) {
      m_log_change.wait_until(lock, m_next_drop_news);
    } else {
      m_log_change.wait(lock);
    }
  }
  std::vector<log_line> lines(std::make_move_iterator(m_log.begin()),
                              std::make_move_iterator(m_log.end()));
  m_log.clear();
  if (const std::uint64_t lost = std::exchange(m_lost_lines, 0)) {
    lines.push_back(
        {LogLevelWarning, std::to_string(lost) + " log lines came too fast and are lost"});
  }
  if (m_log_ended || drops_are_due()) tell_drops(lines);
  return lines;
}

void session_events::keep_line(KavKqsLogLevel level, std::string text) {
  if (m_log.size() == k_most_log_lines) {
    m_log.pop_front();
    ++m_lost_lines;
  }
  m_log.push_back({level, std::move(text)});
  m_log_change.notify_all();
}

void session_events::OnServerDisconnected() {
  {
    const std::lock_guard lock(m_lock);
    m_facts.disconnected_before_login = true;
    changed();
  }
  m_quotes.close();  // last: whoever sees the end finds the reason
}

void session_events::OnLoginResult(bool success, const char* reason) {
  const std::lock_guard lock(m_lock);
  if (success) m_tracker.login_accepted();
  m_facts.login_accepted = success;
  m_facts.refused_by_server = m_tracker.login_refused();
  m_facts.login_reason = text_of(reason);
  changed();
}

void session_events::OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* quote) {
  if (!m_quotes.push(*quote)) return;
  const std::lock_guard lock(m_lock);
  m_drops_to_tell = true;
  m_log_change.notify_all();
}

void session_events::OnLog(KavKqsLogLevel level, const char* text, int) {
  std::string line = text_of(text);
  bool is_over = false;
  {
    const std::lock_guard lock(m_lock);
    const link_state before = m_tracker.state();
    m_tracker.read_log_line(line);
    if (m_tracker.state() != before) changed();
    is_over = m_tracker.state() == link_state::over;
    keep_line(level, std::move(line));
  }
  if (is_over) m_quotes.close();
}

void session_events::OnSymbolRegistered(KavKqsIntrumentType, const char* symbol, bool success) {
  const std::lock_guard lock(m_lock);
  const std::string name = text_of(symbol);
  if (m_registrations.size() >= k_most_answers && !m_registrations.contains(name)) return;
  m_registrations[name] = success ? registration::registered : registration::refused;
  changed();
}

void session_events::OnSymbolUnregistered(KavKqsIntrumentType, const char* symbol, bool success) {
  if (!success) return;
  const std::lock_guard lock(m_lock);
  m_registrations.erase(text_of(symbol));
  changed();
}

void session_events::OnSymbolList(KavKqsIntrumentType type, const char* symbol, bool last) {
  const std::lock_guard lock(m_lock);
  if (!last) {
    m_coming_symbols.insert_or_assign(text_of(symbol), type);
    return;
  }
  m_symbols = std::exchange(m_coming_symbols, {});
  ++m_facts.symbol_lists;
  changed();
}

}  // namespace kav_python
