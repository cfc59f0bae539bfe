#include "tests/chaos/chaos_server.h"

#include <algorithm>  // std::includes
#include <iterator>   // std::size
#include <thread>     // std::this_thread::sleep_for

#include "tests/chaos/dice.h"
#include "tests/chaos/text_field.h"

namespace kav_chaos {
namespace {

using std::chrono::milliseconds;

constexpr char k_type = '1';

kav_sim::server_options options_of(const life_script& script) {
  kav_sim::server_options options;
  options.password = k_password;
  for (const symbol_names& names : k_own_symbols) options.symbols.push_back({names.server, k_type});
  for (const symbol_names& names : k_shared_symbols) {
    options.symbols.push_back({names.server, k_type});
  }
  options.heartbeat = milliseconds{script.heartbeat_ms};
  options.send_buffer_bytes = script.send_buffer_bytes;
  options.record_received = false;
  return options;
}

std::string server_name(const std::string& symbol) {
  for (const symbol_names& names : k_own_symbols) {
    if (symbol == names.caller) return names.server;
  }
  for (const symbol_names& names : k_shared_symbols) {
    if (symbol == names.caller) return names.server;
  }
  return symbol;
}

KAVMarketDepthQuoteData quote_of(const std::string& symbol, std::int32_t number) {
  KAVMarketDepthQuoteData quote{};
  fill(quote.TradingDay, "20261201");
  fill(quote.InstrumentID, symbol);
  fill(quote.ExchangeID, "CFFEX");
  fill(quote.ExchangeInstID, symbol);
  fill(quote.UpdateTime, "09:30:00");
  quote.Volume = number;
  quote.LastPrice = quote.BidPrice1 = quote.AveragePrice = number;
  return quote;
}

std::string symbol_in_turn(unsigned turn) {
  constexpr std::size_t own = std::size(k_own_symbols);
  const std::size_t which = turn % (own + std::size(k_shared_symbols));
  return which < own ? k_own_symbols[which].caller : k_shared_symbols[which - own].caller;
}

std::string garbage(unsigned bytes) {
  dice d(bytes);
  std::string text;
  for (unsigned i = 0; i < bytes; ++i) text += static_cast<char>(d.roll(256));
  return text;
}

}  // namespace

chaos_server::chaos_server(const life_script& script)
    : m_script(script), m_server(options_of(script)) {}

void chaos_server::run_track() {
  for (const server_step& step : m_script.server) perform(step);
}

void chaos_server::perform(const server_step& step) {
  switch (step.what) {
    case server_deed::behave:
      return m_server.set_behaviour({});
    case server_deed::misbehave:
      return m_server.set_behaviour(step.how);
    case server_deed::drop:
      return m_server.drop_all();
    case server_deed::reset:
      return m_server.reset_all();
    case server_deed::stall:
      return m_server.stall(true);
    case server_deed::go_on:
      return m_server.stall(false);
    case server_deed::outage:
      return m_server.outage(milliseconds{step.value});
    case server_deed::push:
      for (unsigned i = 0; i < step.value; ++i) push(symbol_in_turn(i));
      return;
    case server_deed::unasked:
      return m_server.send_raw(unasked_message(step.value));
    case server_deed::garbage:
      return m_server.send_raw(garbage(step.value));
    case server_deed::pause:
      return std::this_thread::sleep_for(milliseconds{step.value});
  }
}

void chaos_server::behave_again() {
  m_server.set_behaviour({});
  m_server.stall(false);
  m_server.come_back();
  m_server.drop_all();
}

std::int32_t chaos_server::push(const std::string& symbol) {
  const std::lock_guard<std::mutex> hold{m_push_lock};
  const std::int32_t number = ++m_volumes[symbol];
  m_server.push_quote(quote_of(server_name(symbol), number), k_type);
  return number;
}

bool chaos_server::has_registered(const std::string& user,
                                  const std::set<std::string>& symbols) const {
  std::set<std::string> wanted;
  for (const std::string& symbol : symbols) wanted.insert(server_name(symbol));
  for (std::size_t number = m_server.connections().ever; number-- > 0;) {
    const kav_sim::connection_state state = m_server.connection(number);
    if (!state.open || !state.logged_in || state.user != user) continue;
    if (std::includes(state.registered.begin(), state.registered.end(), wanted.begin(),
                      wanted.end())) {
      return true;
    }
  }
  return false;
}

}  // namespace kav_chaos
