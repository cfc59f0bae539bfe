#include "tests/chaos/checker.h"

#include <fmt/format.h>

#include <algorithm>    // std::max
#include <cstring>      // strnlen
#include <string_view>  // std::string_view

namespace kav_chaos {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t k_most_violations = 20;
constexpr std::size_t k_longest_beginning = 50;
constexpr std::size_t k_longest_history = 50;
constexpr std::size_t k_longest_line = 1023;
constexpr char k_begin_line[] = "[QuoteClient] _th_kqc_send_and_reconn begin";
constexpr char k_end_line[] = "[QuoteClient] _th_kqc_send_and_reconn end";
constexpr char k_timeout_line[] = "[QuoteClient]stop thread timeout";
constexpr char k_loss_line[] = "[on_cache_callback] EVENT_REMOTE_DISCONNECT";
constexpr char k_relogin_good[] = "[QuoteClient] relogin success";
constexpr char k_relogin_bad[] = "[QuoteClient] relogin failed";
// A worker gives up after ten failed logins, with a pause of 2 s before each.
constexpr std::chrono::seconds k_ten_tries{20};
// So long does a destruction inside a callback wait for callbacks on other threads.
constexpr milliseconds k_other_calls_limit{500};

bool begins_with(const std::string& text, std::string_view beginning) {
  return text.compare(0, beginning.size(), beginning) == 0;
}

const char* name_of(operation what) {
  switch (what) {
    case operation::connect:
      return "ConnServer";
    case operation::cancel_connect:
      return "a ConnServer that was stopped";
    case operation::log_in:
      return "LoginToKqs";
    case operation::register_symbol:
      return "RegisterSymbol";
    case operation::unregister_symbol:
      return "UnregisterSymbol";
    case operation::query_list:
      return "QuerySymbolList";
    case operation::disconnect:
      return "DisConnServer";
    case operation::destroy:
      return "DestroyKAVQuoteApi";
    case operation::destroy_inside:
      return "DestroyKAVQuoteApi inside a callback";
  }
  return "?";
}

bool is_stop(operation what) {
  return what == operation::disconnect || what == operation::destroy ||
         what == operation::destroy_inside;
}

milliseconds rounded(clock::duration time) { return std::chrono::ceil<milliseconds>(time); }

}  // namespace

milliseconds limit_of(operation what) {
  switch (what) {
    case operation::connect:
      return milliseconds{6000};  // may close a connection before, which waits for 5 s at most
    case operation::destroy_inside:
      return milliseconds{600};
    case operation::cancel_connect:
    case operation::disconnect:
    case operation::destroy:
      return milliseconds{1000};
    default:
      return milliseconds{200};
  }
}

void experience::add(const experience& other) {
  logins += other.logins;
  refusals += other.refusals;
  quotes += other.quotes;
  losses += other.losses;
  relogins += other.relogins;
  destroyed_inside += other.destroyed_inside;
  callbacks += other.callbacks;
  for (const auto& [what, took] : other.longest) longest[what] = std::max(longest[what], took);
}

void checker::violate(const std::string& text) {
  if (m_violations.size() < k_most_violations) m_violations.push_back(text);
}

// Nothing more when something has been found: what led to it is what counts.
void checker::note(const std::string& text) {
  if (!m_violations.empty()) return;
  const auto since = std::chrono::floor<milliseconds>(clock::now() - m_start);
  std::string line = fmt::format("{:6} ms {}", since.count(), text);
  if (m_beginning.size() < k_longest_beginning) return m_beginning.push_back(std::move(line));
  m_history.push_back(std::move(line));
  if (m_history.size() > k_longest_history) m_history.pop_front();
}

void checker::add_violation(const std::string& text) {
  const std::lock_guard<std::mutex> hold{m_lock};
  violate(text);
}

void checker::call_begins(const seen_call& call) {
  const std::lock_guard<std::mutex> hold{m_lock};
  ++m_sums.callbacks;
  if (call.kind != callback_kind::quote) {
    note(fmt::format("{}({}{}){}", kav_test::name_of(call.kind), call.success ? "true, " : "",
                     call.text, call.on_worker ? " on the worker" : ""));
  }
  const bool late_but_allowed = m_late_calls && m_latecomers.insert(call.thread).second;
  if (m_gone && !late_but_allowed) {
    violate(fmt::format("{}({}) came after the client had been destroyed",
                        kav_test::name_of(call.kind), call.text));
  }
  ++m_running[call.thread];
  look_at_text(call);
  look_at_worker(call);
  switch (call.kind) {
    case callback_kind::server_connected:
      m_stops = 0;
      break;
    case callback_kind::server_disconnected:
      if (++m_disconnected > m_connects) violate("more losses were told than connections made");
      break;
    case callback_kind::login_result:
      ++(call.success ? m_sums.logins : m_sums.refusals);
      if (call.on_worker && m_worker == call.thread) m_session.confirmed = call.success;
      break;
    case callback_kind::log:
      look_at_log(call);
      break;
    default:
      break;
  }
}

void checker::call_ends(std::thread::id thread) {
  const std::lock_guard<std::mutex> hold{m_lock};
  const auto found = m_running.find(thread);
  if (found != m_running.end() && --found->second == 0) m_running.erase(found);
}

void checker::look_at_text(const seen_call& call) {
  if (!call.text_ended) {
    violate(fmt::format("a text of {} has no end", kav_test::name_of(call.kind)));
  }
  if (call.kind != callback_kind::log) return;
  if (call.text.size() > k_longest_line || call.length != static_cast<int>(call.text.size())) {
    violate(fmt::format("a log line of {} characters was told to have {}", call.text.size(),
                        call.length));
  }
}

// When a worker has begun, the one before may say no more than that it has ended.
void checker::look_at_worker(const seen_call& call) {
  if (!call.on_worker) return;
  if (call.kind == callback_kind::log && call.text == k_begin_line) {
    m_worker = call.thread;
    m_worker_begin = call.at;
    m_relogin_refused = false;
    m_worker_stops = m_stops + m_stops_running;
    ++m_session.number;
    m_session.confirmed = false;
    return;
  }
  if (call.kind == callback_kind::log && call.text == k_end_line) return worker_ends(call);
  if (m_worker != call.thread) {
    violate(fmt::format("two workers at once: one that is not the last to begin calls {}({})",
                        kav_test::name_of(call.kind), call.text));
  }
}

void checker::worker_ends(const seen_call& call) {
  if (m_worker != call.thread) return;
  if (m_worker_stops == 0 && !m_relogin_refused && call.at - m_worker_begin < k_ten_tries) {
    violate("the session ended although nobody asked for it and no login was refused");
  }
  m_session.confirmed = false;
}

void checker::look_at_log(const seen_call& call) {
  if (begins_with(call.text, k_loss_line)) ++m_sums.losses;
  if (begins_with(call.text, k_relogin_good)) ++m_sums.relogins;
  if (begins_with(call.text, k_relogin_bad)) m_relogin_refused = true;
  if (call.text == k_timeout_line) violate("the worker did not end within ten seconds");
}

void checker::quote_comes(const KAVMarketDepthQuoteData& quote) {
  const std::lock_guard<std::mutex> hold{m_lock};
  ++m_sums.quotes;
  const std::string symbol = symbol_of(quote);
  const std::int32_t volume = quote.Volume;
  if (!m_facts.whole_messages) {  // may be anything
    if (m_ever_registered.contains(symbol)) {
      m_last_volume[symbol] = std::max(m_last_volume[symbol], volume);
    }
    return;
  }
  if (m_facts.terminated_quotes) look_at_texts_of(quote);
  if (symbol == k_unasked_symbol && !m_facts.asked_quotes_only) return;
  if (!m_ever_registered.contains(symbol)) {
    return violate(fmt::format("a quote of \"{}\", which was never registered", symbol));
  }
  const double last = quote.LastPrice, average = quote.AveragePrice;
  if (last != volume || average != volume) {
    violate(fmt::format("quote {} of {} is not whole: its prices are {} and {}", volume, symbol,
                        last, average));
  }
  std::int32_t& before = m_last_volume[symbol];
  if (volume <= before) {
    violate(fmt::format("quote {} of {} came behind number {}", volume, symbol, before));
  }
  before = std::max(before, volume);
}

void checker::look_at_texts_of(const KAVMarketDepthQuoteData& quote) {
  const auto ended = [](const auto& field) {
    return ::strnlen(field, sizeof(field)) < sizeof(field);
  };
  if (!ended(quote.TradingDay) || !ended(quote.InstrumentID) || !ended(quote.ExchangeID) ||
      !ended(quote.ExchangeInstID) || !ended(quote.UpdateTime)) {
    violate("a text of a quote has no end");
  }
}

// A server that fills its fields sends the symbol with many 'x' behind it, and so a gold code is
// not recognised.
std::string checker::symbol_of(const KAVMarketDepthQuoteData& quote) const {
  std::string symbol(quote.InstrumentID, ::strnlen(quote.InstrumentID, sizeof(quote.InstrumentID)));
  if (m_facts.terminated_quotes || symbol.size() < sizeof(quote.InstrumentID)) return symbol;
  symbol.erase(symbol.find_last_not_of('x') + 1);
  for (const symbol_names& names : k_own_symbols) {
    if (symbol == names.server) return names.caller;
  }
  for (const symbol_names& names : k_shared_symbols) {
    if (symbol == names.server) return names.caller;
  }
  return symbol;
}

void checker::registers(const std::string& symbol) {
  const std::lock_guard<std::mutex> hold{m_lock};
  m_ever_registered.insert(symbol);
}

void checker::operation_begins(operation what) {
  const std::lock_guard<std::mutex> hold{m_lock};
  note(fmt::format("{} begins", name_of(what)));
  if (what == operation::connect) ++m_connects;
  if (!is_stop(what)) return;
  ++m_stops;
  ++m_worker_stops;
  ++m_stops_running;
}

void checker::operation_ends(operation what, clock::duration took, clock::duration slack) {
  const std::lock_guard<std::mutex> hold{m_lock};
  note(fmt::format("{} has taken {} ms", name_of(what), rounded(took).count()));
  if (is_stop(what)) --m_stops_running;
  m_sums.longest[what] = std::max(m_sums.longest[what], rounded(took));
  if (took <= limit_of(what) + slack) return;
  violate(fmt::format("{} took {} ms, {} is the limit and {} the slack", name_of(what),
                      rounded(took).count(), limit_of(what).count(), rounded(slack).count()));
}

void checker::destroyed() {
  const std::lock_guard<std::mutex> hold{m_lock};
  m_gone = true;
  if (!m_running.empty()) {
    violate(fmt::format("{} callbacks were still running when DestroyKAVQuoteApi returned",
                        m_running.size()));
  }
}

void checker::destroyed_inside(clock::duration took) {
  const std::lock_guard<std::mutex> hold{m_lock};
  m_gone = true;
  m_late_calls = took >= k_other_calls_limit;
  ++m_sums.destroyed_inside;
}

session_view checker::session() const {
  const std::lock_guard<std::mutex> hold{m_lock};
  return m_session;
}

std::size_t checker::login_results() const {
  const std::lock_guard<std::mutex> hold{m_lock};
  return m_sums.logins + m_sums.refusals;
}

std::int32_t checker::last_volume(const std::string& symbol) const {
  const std::lock_guard<std::mutex> hold{m_lock};
  const auto found = m_last_volume.find(symbol);
  return found == m_last_volume.end() ? 0 : found->second;
}

std::vector<std::string> checker::violations() const {
  const std::lock_guard<std::mutex> hold{m_lock};
  return m_violations;
}

std::vector<std::string> checker::history() const {
  const std::lock_guard<std::mutex> hold{m_lock};
  std::vector<std::string> all = m_beginning;
  if (m_history.size() == k_longest_history) all.emplace_back("       ...");
  all.insert(all.end(), m_history.begin(), m_history.end());
  return all;
}

experience checker::sums() const {
  const std::lock_guard<std::mutex> hold{m_lock};
  return m_sums;
}

}  // namespace kav_chaos
