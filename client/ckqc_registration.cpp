// Which symbols the caller wants, which the server has confirmed, and the requests between them.
#include <cstring>  // memcpy, strncpy
#include <new>      // std::bad_alloc

#include "client/ckqc_tcp.h"
#include "feeds/sge_symbol.h"

using VORLAN::TOOLS::mutex_locker;
using VORLAN::TOOLS::snprintf_vl;
using VORLAN::TOOLS::strncpy_vl;

namespace {

constexpr unsigned k_quiet_pause_ms = 100;  // until the next pass when there was nothing to send
constexpr unsigned k_busy_pause_ms = 500;   // until the next pass when requests went out
constexpr unsigned k_send_failed = 0xFFFFFFFF;

// A field's text with a NUL behind it, whatever the server sent.
template <std::size_t N>
struct terminated_text {
  explicit terminated_text(const char (&field)[N]) { std::memcpy(text, field, N); }
  char text[N + 1] = {};
};

const char* caller_name(const char* symbol) {
  const char* const gold_name = vex_symbol_to_sge_symbol(symbol);
  return gold_name != nullptr ? gold_name : symbol;
}

}  // namespace

kqs_symbol_info Ckqc_tcp::symbol_info(KavKqsIntrumentType type, const char* symbol) const {
  kqs_symbol_info info{};
  info.type = static_cast<signed char>(type);
  const char* const code = sge_symbol_to_vex_symbol(symbol);
  strncpy_vl(info.symbol, sizeof(info.symbol), code != nullptr ? code : symbol);
  return info;
}

int Ckqc_tcp::RegisterSymbol(KavKqsIntrumentType type, const char* symbol) {
  const client_life::visit visit(m_life, client_life::visitor::caller);
  if (!visit || symbol == nullptr) return 0;
  const kqs_symbol_info info = symbol_info(type, symbol);
  if (!want_symbol(info)) {
    write_log(LogLevelError, "[QuoteClient] out of memory, symbol:%s dropped.", info.symbol);
  }
  return 0;
}

// False: no memory for it, and nothing has changed.
bool Ckqc_tcp::want_symbol(const kqs_symbol_info& info) {
  const mutex_locker guard(m_symbol_list_lock);
  try {
    if (m_symbol_list.is_exist(info.symbol)) m_to_register.set(info.symbol, info);
    return true;
  } catch (const std::bad_alloc&) {
    return m_to_register.is_exist(info.symbol);  // then only the table could not grow
  }
}

int Ckqc_tcp::UnregisterSymbol(KavKqsIntrumentType type, const char* symbol) {
  const client_life::visit visit(m_life, client_life::visitor::caller);
  if (!visit || symbol == nullptr) return 0;
  const kqs_symbol_info info = symbol_info(type, symbol);
  const mutex_locker guard(m_symbol_list_lock);
  if (m_symbol_list.is_exist(info.symbol)) m_to_register.erase(info.symbol);
  return 0;
}

void Ckqc_tcp::reset_register_symbol() {
  const mutex_locker guard(m_symbol_list_lock);
  m_registered.clear();
  m_to_register.clear();
}

unsigned int Ckqc_tcp::_th_check_and_register_symbol() {
  pending_requests pending;
  if (!collect_requests(pending)) {
    write_log(LogLevelError, "[QuoteClient] out of memory, registration put off.");
    return k_busy_pause_ms;
  }
  if (pending.registrations.empty() && pending.unregistrations.empty()) {
    if (m_registration_pending) write_log(LogLevelDebug, "[QuoteClient] nothing to reg or unreg");
    m_registration_pending = false;
    return k_quiet_pause_ms;
  }
  write_log(LogLevelDebug, "[QuoteClient] valid:%u,registed:%u, need:%u", pending.valid,
            pending.registered, pending.wanted);
  m_registration_pending = true;
  if (!send_requests(pending.registrations,
                     "[QuoteClient] tcp client send reg symbol req error.") ||
      !send_requests(pending.unregistrations,
                     "[QuoteClient] tcp client send unreg symbol req error.")) {
    return k_send_failed;
  }
  write_log(LogLevelDebug, "[QuoteClient] send %u reg req, %u unreg req",
            static_cast<unsigned>(pending.registrations.size()),
            static_cast<unsigned>(pending.unregistrations.size()));
  return k_busy_pause_ms;
}

// False: no memory for them, but the next pass collects them anew.
bool Ckqc_tcp::collect_requests(pending_requests& out) try {
  const mutex_locker guard(m_symbol_list_lock);
  out.valid = static_cast<unsigned>(m_symbol_list.size());
  out.registered = static_cast<unsigned>(m_registered.size());
  out.wanted = static_cast<unsigned>(m_to_register.size());
  if (out.registered == 0 && out.wanted == 0) return true;
  // The analysis does not see that the lock is held inside the lambda.
  const auto visit_symbol = [&](const char* symbol, int type) KAV_NO_THREAD_SAFETY_ANALYSIS {
    const bool registered = m_registered.is_exist(symbol);
    if (registered == m_to_register.is_exist(symbol)) return;
    auto& requests = registered ? out.unregistrations : out.registrations;
    requests.push_back(make_symbol_req(registered ? k_kqs_unreg_symbol_req : k_kqs_reg_symbol_req,
                                       static_cast<char>(type), symbol));
  };
  m_symbol_list.for_each(visit_symbol);
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

bool Ckqc_tcp::send_requests(const std::vector<kqs_symbol_req>& requests, const char* failure) {
  for (const kqs_symbol_req& request : requests) {
    if (send_whole(&request, sizeof(request)) >= 0) continue;
    write_log(LogLevelError, "%s", failure);
    return false;
  }
  return true;
}

unsigned int Ckqc_tcp::on_reg_symbol_resp(const char* data, unsigned int length) {
  kqs_symbol_resp msg;
  if (data == nullptr || length < sizeof(msg)) return 0;
  std::memcpy(&msg, data, sizeof(msg));
  const terminated_text<sizeof(msg.symbol)> symbol(msg.symbol);
  kqs_symbol_info info{};
  info.type = msg.instrument_type;
  std::memcpy(info.symbol, symbol.text, ::strnlen(symbol.text, sizeof(info.symbol)));
  const terminated_text<sizeof(info.symbol)> key(info.symbol);
  const bool registered = msg.result == k_kqs_registered || msg.result == k_kqs_registered_already;
  if (registered) {
    const mutex_locker guard(m_symbol_list_lock);
    if (m_registered.size() < k_most_symbols) m_registered.set(key.text, info);
  } else {
    char text[256];
    snprintf_vl(text, sizeof(text), "%c:%s", msg.instrument_type, key.text);
    write_log(LogLevelError, "[QuoteClient] register symbol:%s failed.", text);
  }
  if (const event_call receiver{*this}) {
    receiver->OnSymbolRegistered(static_cast<KavKqsIntrumentType>(msg.instrument_type),
                                 caller_name(symbol.text), registered);
  }
  return sizeof(msg);
}

unsigned int Ckqc_tcp::on_unreg_symbol_resp(const char* data, unsigned int length) {
  kqs_symbol_resp msg;
  if (data == nullptr || length < sizeof(msg)) return 0;
  std::memcpy(&msg, data, sizeof(msg));
  const terminated_text<sizeof(msg.symbol)> symbol(msg.symbol);
  const bool unregistered = msg.result == k_kqs_registered;
  if (unregistered) {
    const mutex_locker guard(m_symbol_list_lock);
    m_registered.erase(symbol.text);
  } else {
    write_log(LogLevelError, "[QuoteClient] unregister symbol:%s failed.", symbol.text);
  }
  if (const event_call receiver{*this}) {
    receiver->OnSymbolUnregistered(static_cast<KavKqsIntrumentType>(msg.instrument_type),
                                   caller_name(symbol.text), unregistered);
  }
  return sizeof(msg);
}
