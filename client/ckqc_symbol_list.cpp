// The server's list of symbols: asked for once a login, kept, replayed on request.
#include <cstring>  // memcpy, strnlen
#include <new>      // std::bad_alloc
#include <utility>  // std::pair

#include "client/ckqc_tcp.h"
#include "feeds/sge_symbol.h"

using VORLAN::TOOLS::mutex_locker;

namespace {

constexpr std::size_t k_longest_symbol = 128;
constexpr char k_query_dropped[] = "[QuoteClient] out of memory, symbol list query dropped.";
constexpr std::chrono::milliseconds k_list_wait{5000};  // from the query to the end of the list

}  // namespace

int Ckqc_tcp::QuerySymbolList() {
  const client_life::visit visit(m_life, client_life::visitor::caller);
  if (!visit) return 0;
  const kqs_symbol_list_req msg = make_symbol_list_req();
  try {
    item_ptr item(new kqc_data_and_event{kqc_event_send, nullptr, 0, 0});
    item->data = new char[sizeof(msg)];
    item->length = sizeof(msg);
    std::memcpy(item->data, &msg, sizeof(msg));
    queue_item(std::move(item));
  } catch (const std::bad_alloc&) {
    write_log(LogLevelError, "%s", k_query_dropped);
  }
  return 0;
}

unsigned int Ckqc_tcp::on_symbol_list_resp(const char* data, unsigned int length) {
  kqs_symbol_list_resp msg;
  if (data == nullptr || length < sizeof(msg)) return 0;
  std::memcpy(&msg, data, sizeof(msg));
  if (msg.end_mark == k_kqs_list_end) {
    m_symbol_list_ready.store(true, std::memory_order_release);
    m_wake.notify();
    return sizeof(msg);
  }
  const char* const text = data + offsetof(kqs_symbol_list_resp, symbol);
  const std::size_t available = length - offsetof(kqs_symbol_list_resp, symbol);
  const std::size_t size = ::strnlen(text, std::min(available, k_longest_symbol + 1));
  if (size > k_longest_symbol) return sizeof(msg);
  char symbol[k_longest_symbol + 1] = {};
  std::memcpy(symbol, text, size);
  if (!add_to_symbol_list(symbol, msg.instrument_type)) {
    write_log(LogLevelError, "[QuoteClient] symbol list full, symbol:%s dropped.", symbol);
  }
  return sizeof(msg);
}

// False: a server that never stops listing symbols is not followed for ever.
bool Ckqc_tcp::add_to_symbol_list(const char* symbol, int type) {
  const mutex_locker guard(m_symbol_list_lock);
  if (m_symbol_list.size() >= k_most_symbols && !m_symbol_list.is_exist(symbol)) return false;
  m_symbol_list.set(symbol, type);
  return true;
}

bool Ckqc_tcp::_th_try_query_symbol_list() {
  m_symbol_list_ready.store(false, std::memory_order_release);
  const kqs_symbol_list_req msg = make_symbol_list_req();
  if (send_now(&msg, sizeof(msg)) != int{sizeof(msg)}) return false;
  const auto ready = [this] { return m_symbol_list_ready.load(std::memory_order_acquire); };
  if (!_th_wait(ready, k_list_wait)) return false;
  std::size_t size = 0;
  {
    const mutex_locker guard(m_symbol_list_lock);
    size = m_symbol_list.size();
  }
  write_log(LogLevelDebug, "Ckqc_tcp::_th_try_query_symbol_list,size:%d", static_cast<int>(size));
  return true;
}

// False: no memory for it.
bool Ckqc_tcp::copy_symbol_list(std::vector<std::pair<std::string, int>>& out) try {
  const mutex_locker guard(m_symbol_list_lock);
  out.reserve(m_symbol_list.size());
  m_symbol_list.for_each([&out](const char* symbol, int type) { out.emplace_back(symbol, type); });
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

// Answers QuerySymbolList() from a copy of the table: a list that arrives meanwhile changes
// nothing.
void Ckqc_tcp::_th_replay_symbol_list() {
  if (!has_event()) return;
  std::vector<std::pair<std::string, int>> symbols;
  if (!copy_symbol_list(symbols)) {
    write_log(LogLevelError, "%s", k_query_dropped);
    return;
  }
  for (const auto& [symbol, type] : symbols) {
    const event_call receiver{*this};
    if (!receiver) return;
    const char* const gold_name = vex_symbol_to_sge_symbol(symbol.c_str());
    receiver->OnSymbolList(static_cast<KavKqsIntrumentType>(type),
                           gold_name != nullptr ? gold_name : symbol.c_str(), false);
  }
  if (const event_call receiver{*this}) {
    receiver->OnSymbolList(KavKqsIntrumentTypeNone, "", true);
  }
}
