#include "tests/support/recording_event.h"

#include <pthread.h>  // pthread_getname_np

#include <algorithm>  // std::count_if, std::find_if
#include <ostream>    // std::ostream
#include <utility>    // std::move

#include "tests/support/wait_until.h"

namespace kav_test {
namespace {

std::string this_thread_name() {
  char name[16] = "";
  ::pthread_getname_np(::pthread_self(), name, sizeof(name));
  return name;
}

recorded_call call_of(callback_kind kind) {
  recorded_call call;
  call.kind = kind;
  return call;
}

}  // namespace

const char* name_of(callback_kind kind) {
  switch (kind) {
    case callback_kind::server_connected:
      return "OnServerConnected";
    case callback_kind::server_disconnected:
      return "OnServerDisconnected";
    case callback_kind::login_result:
      return "OnLoginResult";
    case callback_kind::quote:
      return "OnQuote";
    case callback_kind::log:
      return "OnLog";
    case callback_kind::symbol_registered:
      return "OnSymbolRegistered";
    case callback_kind::symbol_unregistered:
      return "OnSymbolUnregistered";
    case callback_kind::symbol_list:
      return "OnSymbolList";
  }
  return "?";
}

recording_event::recording_event() = default;
recording_event::~recording_event() = default;

void recording_event::OnServerConnected() { record(call_of(callback_kind::server_connected)); }

void recording_event::OnServerDisconnected() {
  record(call_of(callback_kind::server_disconnected));
}

void recording_event::OnLoginResult(bool success, const char* reason) {
  recorded_call call = call_of(callback_kind::login_result);
  call.success = success;
  call.text = reason;
  record(std::move(call));
}

void recording_event::OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) {
  recorded_call call = call_of(callback_kind::quote);
  call.type = type;
  call.quote = *quote;
  call.quote_address = quote;
  record(std::move(call));
}

void recording_event::OnLog(KavKqsLogLevel level, const char* text, int length) {
  recorded_call call = call_of(callback_kind::log);
  call.level = level;
  call.text = text;
  call.length = length;
  record(std::move(call));
}

void recording_event::OnSymbolRegistered(KavKqsIntrumentType type, const char* symbol,
                                         bool success) {
  recorded_call call = call_of(callback_kind::symbol_registered);
  call.type = type;
  call.text = symbol;
  call.success = success;
  record(std::move(call));
}

void recording_event::OnSymbolUnregistered(KavKqsIntrumentType type, const char* symbol,
                                           bool success) {
  recorded_call call = call_of(callback_kind::symbol_unregistered);
  call.type = type;
  call.text = symbol;
  call.success = success;
  record(std::move(call));
}

void recording_event::OnSymbolList(KavKqsIntrumentType type, const char* symbol, bool last) {
  recorded_call call = call_of(callback_kind::symbol_list);
  call.type = type;
  call.text = symbol;
  call.last = last;
  record(std::move(call));
}

void recording_event::record(recorded_call call) {
  m_running.fetch_add(1, std::memory_order_acq_rel);
  call.thread = std::this_thread::get_id();
  call.thread_name = this_thread_name();
  hook what;
  {
    const std::lock_guard<std::mutex> guard(m_lock);
    call.at = std::chrono::steady_clock::now();  // under the lock: times never run backwards
    m_calls.push_back(call);
    const auto found = m_hooks.find(call.kind);
    if (found != m_hooks.end()) what = found->second;
  }
  if (what) what(call);
  m_running.fetch_sub(1, std::memory_order_acq_rel);
}

void recording_event::on(callback_kind kind, hook what) {
  const std::lock_guard<std::mutex> guard(m_lock);
  m_hooks[kind] = std::move(what);
}

std::vector<recorded_call> recording_event::calls() const {
  const std::lock_guard<std::mutex> guard(m_lock);
  return m_calls;
}

std::vector<recorded_call> recording_event::of(callback_kind kind) const {
  std::vector<recorded_call> found;
  const std::lock_guard<std::mutex> guard(m_lock);
  for (const recorded_call& call : m_calls) {
    if (call.kind == kind) found.push_back(call);
  }
  return found;
}

std::size_t recording_event::count() const {
  const std::lock_guard<std::mutex> guard(m_lock);
  return m_calls.size();
}

std::size_t recording_event::count(callback_kind kind) const {
  const std::lock_guard<std::mutex> guard(m_lock);
  return static_cast<std::size_t>(
      std::count_if(m_calls.begin(), m_calls.end(),
                    [kind](const recorded_call& call) { return call.kind == kind; }));
}

bool recording_event::is_list_complete() const {
  const std::lock_guard<std::mutex> guard(m_lock);
  const auto latest = std::find_if(m_calls.rbegin(), m_calls.rend(), [](const recorded_call& call) {
    return call.kind == callback_kind::symbol_list;
  });
  return latest != m_calls.rend() && latest->last;
}

void recording_event::clear() {
  const std::lock_guard<std::mutex> guard(m_lock);
  m_calls.clear();
}

bool recording_event::has_log(int level, std::string_view text) const {
  const std::lock_guard<std::mutex> guard(m_lock);
  return std::any_of(m_calls.begin(), m_calls.end(), [&](const recorded_call& call) {
    return call.kind == callback_kind::log && call.level == level && call.text == text;
  });
}

std::size_t recording_event::log_count(std::string_view text) const {
  const std::lock_guard<std::mutex> guard(m_lock);
  return static_cast<std::size_t>(
      std::count_if(m_calls.begin(), m_calls.end(), [&](const recorded_call& call) {
        return call.kind == callback_kind::log && call.text == text;
      }));
}

bool recording_event::has_log_with(std::string_view part) const {
  const std::lock_guard<std::mutex> guard(m_lock);
  return std::any_of(m_calls.begin(), m_calls.end(), [&](const recorded_call& call) {
    return call.kind == callback_kind::log && call.text.find(part) != std::string::npos;
  });
}

bool recording_event::wait_for(callback_kind kind, std::size_t at_least,
                               std::chrono::milliseconds limit) const {
  return wait_until([&] { return count(kind) >= at_least; }, limit);
}

bool recording_event::wait_for_log(std::string_view text, std::size_t at_least,
                                   std::chrono::milliseconds limit) const {
  return wait_until([&] { return log_count(text) >= at_least; }, limit);
}

std::ostream& operator<<(std::ostream& out, const recorded_call& call) {
  out << name_of(call.kind) << "(type " << call.type << ", \"" << call.text << "\", success "
      << call.success << ", last " << call.last;
  if (call.kind == callback_kind::log) out << ", level " << call.level;
  return out << ") on " << call.thread_name;
}

}  // namespace kav_test
