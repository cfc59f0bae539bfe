// The worker thread: confirms a login, sends, keeps the session alive, mends a loss.
#include <ctime>    // time
#include <new>      // std::bad_alloc
#include <utility>  // std::exchange, std::move

#include "client/ckqc_tcp.h"
#include "sock/vorlan_socket_thread.h"

using VORLAN::TOOLS::mutex_locker;
using VORLAN::TOOLS::sleep_vl;
using VORLAN::TOOLS::snprintf_vl;

namespace {

constexpr std::chrono::milliseconds k_login_wait{5000};       // for the answer to a re-login
constexpr std::chrono::milliseconds k_reconnect_wait{2000};   // before each reconnection
constexpr std::chrono::milliseconds k_heartbeat_pause{1000};  // leaves the second of the heartbeat
constexpr unsigned k_closed_pause_ms = 10;  // between closing a connection and freeing it
constexpr int k_reconnect_tries = 10;       // failed re-logins for each loss
constexpr int k_heartbeat_divisor = 5;
constexpr unsigned k_send_failed = 0xFFFFFFFF;

// 0: of whichever is held.
std::uint32_t serial_of(const std::shared_ptr<kqc_connection>& connection) {
  return connection == nullptr ? 0 : connection->serial();
}

}  // namespace

void Ckqc_tcp::item_deleter::operator()(kqc_data_and_event* item) const {
  delete[] item->data;
  delete item;
}

void* Ckqc_tcp::worker_entry(void* client) {
  auto* const self = static_cast<Ckqc_tcp*>(client);
  VORLAN::SOCK::vl_name_thread("kav-worker");
  const client_life::visit visit(self->m_life, client_life::visitor::library,
                                 client_life::visit::expected{});
  return kqc_send_and_reconn_thread(client);
}

void* Ckqc_tcp::kqc_send_and_reconn_thread(void* client) {
  static_cast<Ckqc_tcp*>(client)->_th_kqc_send_and_reconn();
  return nullptr;
}

void Ckqc_tcp::_th_kqc_send_and_reconn() {
  m_thread_running.store(true, std::memory_order_release);
  write_log(LogLevelDebug, "[QuoteClient] _th_kqc_send_and_reconn begin");
  if (!_th_confirm_login()) return;  // has reported the failure and reset the client
  const std::int64_t start = std::time(nullptr);
  bool goes_on = true;
  while (goes_on && !is_stopping()) goes_on = _th_step(start);
  _th_finish();
}

// False: the session is over.
bool Ckqc_tcp::_th_step(std::int64_t start) try {
  if (const item_ptr item = take_front_item()) return _th_handle_item(*item);
  if (const auto loss = take_unqueued_loss()) return _th_handle_loss(*loss);
  _th_idle_step(start);
  return true;
} catch (const std::bad_alloc&) {
  _th_give_connection_up();
  return true;
}

// The caller had no memory in one of his callbacks: nobody knows what he has missed.
void Ckqc_tcp::_th_give_connection_up() {
  write_log(LogLevelError, "[QuoteClient] out of memory, connection given up.");
  queue_loss(kqc_event_reconnect, serial_of(held_connection()));
}

bool Ckqc_tcp::_th_confirm_login() {
  if (!_th_try_query_symbol_list()) {
    _th_reset();
    char reason[256];
    snprintf_vl(reason, sizeof(reason), "query symbol error");
    write_log(LogLevelError, "[QuoteClient] %s", reason);
    tell([&](KAVQuoteEvent& event) { event.OnLoginResult(false, reason); });
    m_thread_running.store(false, std::memory_order_release);
    return false;
  }
  m_status.store(KqcStatusLogon, std::memory_order_release);
  const bool told = tell([](KAVQuoteEvent& event) { event.OnLoginResult(true, ""); });
  const KqsTcpInfo server = endpoint();
  write_log(LogLevelInfo, "[QuoteClient] login success. server ip: %s, port: %d.",
            server.m_ServerIp, int{server.m_ServerPort});
  if (!told) _th_give_connection_up();
  return true;
}

// False: the session is over.
bool Ckqc_tcp::_th_handle_item(const kqc_data_and_event& item) {
  switch (item.kind) {
    case kqc_event_send:
      if (item.data != nullptr && item.length > 0 && item.data[0] == k_kqs_symbol_list_req) {
        _th_replay_symbol_list();
      } else {
        _th_send_item(item);
      }
      return true;
    case kqc_event_reconnect:
    case kqc_event_bad_stream:
      return _th_handle_loss(item);
    default:
      return true;
  }
}

void Ckqc_tcp::_th_send_item(const kqc_data_and_event& item) {
  if (item.data != nullptr && send_whole(item.data, item.length) < 0) {
    write_log(LogLevelError, "[QuoteClient] tcp client send data error.");
  }
}

bool Ckqc_tcp::_th_handle_loss(const kqc_data_and_event& item) {
  const std::uint32_t held = serial_of(held_connection());
  const bool left_over = item.connection != 0 && held != 0 && item.connection != held;
  if (left_over) return true;
  _th_clear_deque();
  if (item.kind == kqc_event_bad_stream) {
    _th_close_connection();
    _th_clear_deque();
  }
  _th_forget_registered();  // every wanted symbol is to be registered again
  const loss_outcome outcome = _th_mend_loss();
  _th_clear_deque();
  if (outcome == loss_outcome::gave_up) return false;
  _th_requeue_fresh_loss();
  return true;
}

Ckqc_tcp::loss_outcome Ckqc_tcp::_th_mend_loss() {
  for (int tries = 0; tries < k_reconnect_tries; ++tries) {
    const int result = _th_reconn_and_logon_and_query_symbol();
    if (result == 1) return loss_outcome::mended;
    if (result == -1) {
      m_stop.store(true, std::memory_order_release);
      break;
    }
  }
  return loss_outcome::gave_up;
}

// The queue has been emptied; a loss of the new connection must not go with it.
void Ckqc_tcp::_th_requeue_fresh_loss() {
  const connection_ptr held = held_connection();
  if (held != nullptr && held->is_lost()) queue_loss(kqc_event_reconnect, held->serial());
}

void Ckqc_tcp::_th_idle_step(std::int64_t start) {
  const connection_ptr held = held_connection();
  const unsigned pause_ms = _th_check_and_register_symbol();
  if (pause_ms == k_send_failed) {
    // Treated like a loss of that connection: a send may also have failed because of a stop, and
    // the queue lives on.
    queue_loss(kqc_event_reconnect, serial_of(held));
    return;
  }
  // The sum, not the difference: the heartbeat goes out in a second whose sum with the start's is
  // a multiple of five, and the pause behind it leads out of that second.
  if ((start + std::time(nullptr)) % k_heartbeat_divisor == 0) {
    send_heartbeat();
    _th_sleep(k_heartbeat_pause);
  }
  _th_sleep(std::chrono::milliseconds(pause_ms));
}

void Ckqc_tcp::_th_finish() {
  _th_reset();
  m_thread_running.store(false, std::memory_order_release);
  write_log(LogLevelDebug, "[QuoteClient] _th_kqc_send_and_reconn end");
}

int Ckqc_tcp::send_heartbeat() {
  const kqs_heartbeat msg = make_heartbeat(std::time(nullptr));
  return send_now(&msg, sizeof(msg));
}

int Ckqc_tcp::_th_reconn_and_logon_and_query_symbol() {
  if (!_th_try_reconn()) return -1;
  m_relogin_result.store(0, std::memory_order_release);
  if (!send_logon_req()) return 0;
  const auto answered = [this] { return m_relogin_result.load(std::memory_order_acquire) != 0; };
  const bool in_time = _th_wait(answered, k_login_wait);
  if (is_stopping()) return -1;
  if (!in_time) {
    write_log(LogLevelError, "[QuoteClient] wait for login response timeout.");
    return is_stopping() ? -1 : 0;
  }
  if (m_relogin_result.load(std::memory_order_acquire) < 0) return -1;
  return _th_try_query_symbol_list() ? 1 : 0;
}

bool Ckqc_tcp::_th_try_reconn() {
  while (!is_stopping()) {
    _th_sleep(k_reconnect_wait);
    if (is_stopping()) return false;
    _th_close_connection();
    _th_forget_registered();  // answers that were still to be read have come in between
    if (is_stopping()) return false;
    const KqsTcpInfo server = endpoint();
    if (open_connection(server, kqc_connection::k_announced) != nullptr) return true;
    write_log(LogLevelError, "[QuoteClient] connect server failed. server ip: %s, port: %d.",
              server.m_ServerIp, int{server.m_ServerPort});
  }
  return false;
}

void Ckqc_tcp::_th_close_connection() {
  const connection_ptr connection = take_connection();
  if (connection == nullptr) return;
  connection->tcp().sock_close();
  sleep_vl(k_closed_pause_ms);
}

void Ckqc_tcp::_th_forget_registered() {
  const mutex_locker guard(m_symbol_list_lock);
  m_registered.clear();
}

void Ckqc_tcp::_th_reset() {
  _th_close_connection();
  m_status.store(KqcStatusNone, std::memory_order_release);
  {
    const mutex_locker guard(m_session_lock);
    m_endpoint.m_Label[0] = '\0';
    m_endpoint.m_ServerIp[0] = '\0';
    m_endpoint.m_ServerPort = 0;
    wipe_credentials();
  }
  reset_register_symbol();
}

void Ckqc_tcp::queue_item(item_ptr item) {
  const mutex_locker guard(m_queue_lock);
  m_queue.push_back(std::move(item));
}

void Ckqc_tcp::queue_loss(kqc_event_kind kind, std::uint32_t from) {
  const kqc_data_and_event loss{kind, nullptr, 0, from};
  try {
    queue_item(item_ptr(new kqc_data_and_event(loss)));
  } catch (const std::bad_alloc&) {
    const mutex_locker guard(m_queue_lock);
    const bool newer = !m_unqueued_loss || loss.connection >= m_unqueued_loss->connection;
    if (newer) m_unqueued_loss = loss;
  }
}

std::optional<kqc_data_and_event> Ckqc_tcp::take_unqueued_loss() {
  const mutex_locker guard(m_queue_lock);
  return std::exchange(m_unqueued_loss, std::nullopt);
}

Ckqc_tcp::item_ptr Ckqc_tcp::take_front_item() {
  const mutex_locker guard(m_queue_lock);
  if (m_queue.empty()) return nullptr;
  item_ptr item = std::move(m_queue.front());
  m_queue.pop_front();
  return item;
}

void Ckqc_tcp::_th_clear_deque() {
  std::deque<item_ptr> dropped;  // freed after the lock has been given back
  const mutex_locker guard(m_queue_lock);
  dropped.swap(m_queue);
  m_unqueued_loss.reset();
}

void Ckqc_tcp::_th_sleep(std::chrono::milliseconds time) {
  _th_wait([] { return false; }, time);
}
