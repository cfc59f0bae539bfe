#include "apps/sim/quote_server.h"

#include <algorithm>  // std::copy_if, std::count_if

#include "apps/sim/quote_server_impl.h"

namespace kav_sim {

namespace {

using guard = std::lock_guard<std::mutex>;

}  // namespace

quote_server::quote_server(server_options options)
    : m_impl(std::make_unique<impl>(std::move(options))) {
  if (m_impl->options.password) m_impl->wanted_digest = md5_text(*m_impl->options.password);
}

quote_server::~quote_server() { stop(); }

bool quote_server::start() {
  impl& s = *m_impl;
  {
    const guard hold{s.lock};
    if (s.running) return true;
    if (!s.open_sockets()) return false;
    s.stop = false;
    s.running = true;
  }
  s.thread = std::thread{[&s] { s.run(); }};
  return true;
}

const std::string& quote_server::start_error() const { return m_impl->start_error; }

unsigned short quote_server::port() const {
  const guard hold{m_impl->lock};
  return m_impl->port;
}

void quote_server::stop() {
  impl& s = *m_impl;
  {
    const guard hold{s.lock};
    if (!s.running) return;
    s.stop = true;
    s.wake();
  }
  s.thread.join();
  std::vector<std::string> lines;
  {
    const guard hold{s.lock};
    for (auto& [number, c] : s.connections) {
      if (c.open()) s.forget_queue(c);
    }
    s.close_sockets();
    s.running = false;
    lines.swap(s.log_lines);
  }
  for (const std::string& line : lines) s.options.log(line);
}

void quote_server::set_behaviour(const behaviour& how) {
  change_behaviour([&](behaviour& b) { b = how; });
}

behaviour quote_server::current_behaviour() const {
  const guard hold{m_impl->lock};
  return m_impl->how;
}

void quote_server::change_behaviour(const std::function<void(behaviour&)>& change) {
  behaviour how = current_behaviour();
  change(how);  // the caller's code runs without our lock
  const guard hold{m_impl->lock};
  m_impl->how = std::move(how);
  if (m_impl->running) m_impl->wake();
}

push_result quote_server::push_quote(const KAVMarketDepthQuoteData& quote, char type) {
  const guard hold{m_impl->lock};
  return m_impl->push_locked(quote, type);
}

bool quote_server::push_quote_waiting(const KAVMarketDepthQuoteData& quote, char type,
                                      std::chrono::milliseconds limit, push_result* result) {
  impl& s = *m_impl;
  const std::string_view symbol = field_text(quote.InstrumentID, sizeof quote.InstrumentID);
  std::unique_lock hold{s.lock};
  if (!s.room.wait_for(hold, limit, [&] { return s.room_for_locked(symbol); })) return false;
  const push_result done = s.push_locked(quote, type);
  if (result != nullptr) *result = done;
  return true;
}

void quote_server::send_raw(std::string_view bytes) {
  const guard hold{m_impl->lock};
  for (auto& [number, c] : m_impl->connections) {
    m_impl->queue(c, std::string{bytes});
    m_impl->flush(c);
  }
}

bool quote_server::send_raw(std::size_t connection, std::string_view bytes) {
  const guard hold{m_impl->lock};
  const auto found = m_impl->connections.find(connection);
  if (found == m_impl->connections.end() || !found->second.open()) return false;
  m_impl->queue(found->second, std::string{bytes});
  m_impl->flush(found->second);
  return true;
}

void quote_server::drop_all() {
  const guard hold{m_impl->lock};
  for (auto& [number, c] : m_impl->connections) m_impl->end_with_fin(c, "closed");
}

void quote_server::reset_all() {
  const guard hold{m_impl->lock};
  for (auto& [number, c] : m_impl->connections) m_impl->end_with_reset(c, "reset");
}

bool quote_server::drop(std::size_t connection) {
  const guard hold{m_impl->lock};
  const auto found = m_impl->connections.find(connection);
  if (found == m_impl->connections.end() || !found->second.open()) return false;
  m_impl->end_with_fin(found->second, "closed");
  return true;
}

bool quote_server::reset(std::size_t connection) {
  const guard hold{m_impl->lock};
  const auto found = m_impl->connections.find(connection);
  if (found == m_impl->connections.end() || !found->second.open()) return false;
  m_impl->end_with_reset(found->second, "reset");
  return true;
}

void quote_server::stall(bool on) {
  const guard hold{m_impl->lock};
  m_impl->stall_all = on;
  for (auto& [number, c] : m_impl->connections) {
    if (!c.open()) continue;
    c.stalled = on;
    m_impl->flush(c);
  }
}

void quote_server::go_down() {
  const guard hold{m_impl->lock};
  m_impl->come_back_at.reset();
  m_impl->go_down();
}

bool quote_server::come_back() {
  const guard hold{m_impl->lock};
  return m_impl->running && m_impl->listen_again();
}

void quote_server::outage(std::chrono::milliseconds length) {
  const guard hold{m_impl->lock};
  if (!m_impl->running) return;
  m_impl->go_down();
  m_impl->come_back_at = std::chrono::steady_clock::now() + length;
  m_impl->wake();
}

bool quote_server::listening() const {
  const guard hold{m_impl->lock};
  return m_impl->listen_fd >= 0;
}

std::vector<received_message> quote_server::received(std::size_t connection) const {
  const guard hold{m_impl->lock};
  const auto found = m_impl->connections.find(connection);
  return found == m_impl->connections.end() ? std::vector<received_message>{}
                                            : found->second.received;
}

std::size_t quote_server::received_count(std::size_t connection, char type) const {
  const guard hold{m_impl->lock};
  const auto found = m_impl->connections.find(connection);
  if (found == m_impl->connections.end()) return 0;
  const auto count = found->second.received_by_type.find(type);
  return count == found->second.received_by_type.end() ? 0 : count->second;
}

std::size_t quote_server::received_count(char type) const {
  const guard hold{m_impl->lock};
  std::size_t sum = 0;
  for (const auto& [number, c] : m_impl->connections) {
    const auto count = c.received_by_type.find(type);
    if (count != c.received_by_type.end()) sum += count->second;
  }
  return sum;
}

connection_counts quote_server::connections() const {
  const guard hold{m_impl->lock};
  connection_counts counts;
  counts.ever = m_impl->accepted;
  for (const auto& [number, c] : m_impl->connections) counts.current += c.open() ? 1 : 0;
  return counts;
}

connection_state quote_server::connection(std::size_t number) const {
  const guard hold{m_impl->lock};
  const auto found = m_impl->connections.find(number);
  if (found == m_impl->connections.end()) return {};
  const server_connection& c = found->second;
  connection_state state;
  state.open = c.open();
  state.logged_in = c.logged_in;
  state.stalled = c.stalled;
  state.user = c.user;
  state.registered.assign(c.registered.begin(), c.registered.end());
  state.quotes_sent = c.quotes_sent;
  state.quotes_dropped = c.quotes_dropped;
  state.queued_bytes = c.queued_bytes;
  return state;
}

server_counters quote_server::counters() const {
  const guard hold{m_impl->lock};
  return m_impl->sums;
}

bool quote_server::registered(std::string_view symbol) const {
  const guard hold{m_impl->lock};
  for (const auto& [number, c] : m_impl->connections) {
    if (!c.open()) continue;
    if (symbol.empty() ? !c.registered.empty() : c.registered.contains(symbol)) return true;
  }
  return false;
}

bool quote_server::all_written() const {
  const guard hold{m_impl->lock};
  for (const auto& [number, c] : m_impl->connections) {
    if (c.open() && !(c.queue.empty() && c.delays.empty())) return false;
  }
  return true;
}

}  // namespace kav_sim
