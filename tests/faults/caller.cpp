#include "tests/faults/caller.h"

#include <algorithm>    // std::min
#include <cstring>      // memcpy
#include <string_view>  // std::string_view

#include "tests/support/wait_until.h"

namespace kav_faults {

namespace {

using guard = std::lock_guard<std::mutex>;

constexpr std::string_view k_client_head = "[QuoteClient] ";
constexpr std::string_view k_trace_head = "[on_cache_callback] ";

// Traces that belong to a fault; all others are the same in every session.
bool concerns_faults(std::string_view text) {
  for (const char* part : {"EVENT_REMOTE_DISCONNECT", "relogin", "_th_kqc_send_and_reconn end"}) {
    if (text.find(part) != text.npos) return true;
  }
  return false;
}

// Without what differs from run to run: endpoint, flags, lengths.
std::string shortened(std::string_view text) {
  for (const std::string_view head : {k_client_head, k_trace_head}) {
    if (text.starts_with(head)) text.remove_prefix(head.size());
  }
  for (const char* tail : {". server ip", ", server ip", ",thd_is_run", ". length is", ": "}) {
    text = text.substr(0, text.find(tail));
  }
  if (text.ends_with('.')) text.remove_suffix(1);
  return std::string{text};
}

bool begins(const std::string& text, const std::string& beginning) {
  return text.compare(0, beginning.size(), beginning) == 0;
}

// Into a field that was zero.
template <std::size_t SIZE>
void put_text(char (&field)[SIZE], std::string_view text) {
  std::memcpy(field, text.data(), std::min(text.size(), SIZE - 1));
}

}  // namespace

double seconds_between(clock::time_point from, clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

void caller::OnLoginResult(bool success, const char* reason) {
  note(std::string("OnLoginResult(") + (success ? "true" : "false") + ", \"" + reason + "\")");
}

void caller::OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* quote) {
  const double number = quote->LastPrice;
  if (m_last != 0 && number > m_last + 1)
    m_missing += static_cast<std::uint64_t>(number - m_last - 1);
  if (number <= m_last && number != 1) ++m_out_of_order;
  m_last = number;
  if (!m_quotes_flow.exchange(true)) note("OnQuote");
  ++m_quotes;
  if (in_quote) in_quote();
}

void caller::OnLog(KavKqsLogLevel level, const char* text, int) {
  if (level == LogLevelDebug && !concerns_faults(text)) return;
  note("OnLog(" + std::to_string(level) + ", " + shortened(text) + ")");
}

void caller::OnSymbolRegistered(KavKqsIntrumentType, const char*, bool success) {
  note(std::string("OnSymbolRegistered(") + (success ? "true)" : "false)"));
}

void caller::OnSymbolUnregistered(KavKqsIntrumentType, const char*, bool success) {
  note(std::string("OnSymbolUnregistered(") + (success ? "true)" : "false)"));
}

void caller::OnSymbolList(KavKqsIntrumentType, const char* symbol, bool last) {
  const guard hold{m_lock};
  if (!last && m_first_symbol.empty()) m_first_symbol = symbol;
}

void caller::note(std::string what) {
  m_quotes_flow.store(what == "OnQuote");
  const guard hold{m_lock};
  m_calls.push_back({std::move(what), clock::now()});
}

std::string caller::first_symbol() const {
  const guard hold{m_lock};
  return m_first_symbol;
}

bool caller::wait_call(const std::string& beginning, std::size_t times, milliseconds limit) const {
  return wait_until([&] { return count(beginning) >= times; }, limit);
}

bool caller::wait_quotes(std::uint64_t more, milliseconds limit) const {
  const std::uint64_t before = quotes();
  return wait_until([&] { return quotes() >= before + more; }, limit);
}

std::size_t caller::count(const std::string& beginning) const {
  return all_after({}, beginning).size();
}

std::optional<double> caller::first_after(clock::time_point from,
                                          const std::string& beginning) const {
  const std::vector<double> all = all_after(from, beginning);
  return all.empty() ? std::nullopt : std::optional{all.front()};
}

std::vector<double> caller::all_after(clock::time_point from, const std::string& beginning) const {
  const guard hold{m_lock};
  std::vector<double> times;
  for (const call& c : m_calls) {
    if (c.at >= from && begins(c.what, beginning)) times.push_back(seconds_between(from, c.at));
  }
  return times;
}

std::vector<std::string> caller::calls_since(clock::time_point from) const {
  std::vector<std::pair<std::string, int>> runs;
  {
    const guard hold{m_lock};
    for (const call& c : m_calls) {
      if (c.at < from) continue;
      if (runs.empty() || runs.back().first != c.what) runs.push_back({c.what, 0});
      ++runs.back().second;
    }
  }
  std::vector<std::string> texts;
  texts.reserve(runs.size());
  for (const auto& [what, times] : runs) {
    texts.push_back(times == 1 ? what : what + " x " + std::to_string(times));
  }
  return texts;
}

host::host(const library& from) : m_library(from), m_api(from.create()) {}

host::~host() { destroy(); }

bool host::connect(unsigned short port, const char* ip) {
  KqsTcpInfo server{};
  put_text(server.m_ServerIp, ip);
  server.m_ServerPort = port;
  return m_api->ConnServer(server, &events);
}

bool host::send_login() {
  KqsLoginParam login{};
  put_text(login.m_UserId, "trader");
  put_text(login.m_Password, "secret");
  return m_api->LoginToKqs(login) != 0;
}

bool host::log_in(unsigned short port, const char* ip) {
  const std::size_t before = events.count("OnLoginResult(true");
  return connect(port, ip) && send_login() && events.wait_call("OnLoginResult(true", before + 1);
}

bool host::register_symbol(const std::string& symbol) {
  const std::size_t before = events.count("OnSymbolRegistered(true");
  m_api->RegisterSymbol(k_type, symbol.c_str());
  return events.wait_call("OnSymbolRegistered(true", before + 1);
}

bool host::register_first_symbol() {
  m_api->QuerySymbolList();
  return wait_until([&] { return !events.first_symbol().empty(); }, k_patience) &&
         register_symbol(events.first_symbol());
}

milliseconds host::disconnect() {
  const clock::time_point start = clock::now();
  m_api->DisConnServer();
  return std::chrono::duration_cast<milliseconds>(clock::now() - start);
}

milliseconds host::destroy() {
  const clock::time_point start = clock::now();
  m_library.destroy(m_api);
  m_api = nullptr;
  return std::chrono::duration_cast<milliseconds>(clock::now() - start);
}

}  // namespace kav_faults
