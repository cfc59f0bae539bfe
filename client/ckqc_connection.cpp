// Connecting, logging in and disconnecting.
#include <strings.h>  // explicit_bzero

#include <algorithm>  // std::max
#include <cstring>    // strnlen
#include <memory>     // std::unique_ptr
#include <new>        // std::bad_alloc
#include <thread>     // std::this_thread::sleep_for
#include <utility>    // std::move

#include "client/ckqc_tcp.h"
#include "sock/vorlan_socket_thread.h"
#include "tools/md5.h"

using VORLAN::TOOLS::encrypt_md5;
using VORLAN::TOOLS::mutex_locker;
using VORLAN::TOOLS::sleep_vl;
using VORLAN::TOOLS::strncpy_vl;

namespace {

constexpr unsigned k_close_delay_ms = 10;   // lets the callback that noticed the break return first
constexpr unsigned k_refused_pause_ms = 5;  // between OnLoginResult and OnServerDisconnected
constexpr int k_stop_polls = 1000;
constexpr std::chrono::milliseconds k_stop_poll{10};
constexpr std::chrono::milliseconds k_send_wait{10};  // longest wait for room until a stop is seen

// Clears the flag at the end of the block, or before.
class flag_guard {
 public:
  explicit flag_guard(std::atomic<bool>& flag) : m_flag(flag) {}
  flag_guard(const flag_guard&) = delete;
  flag_guard& operator=(const flag_guard&) = delete;
  ~flag_guard() {
    if (!m_cleared) clear();
  }
  void clear() {
    m_cleared = true;
    m_flag.store(false, std::memory_order_release);
  }

 private:
  std::atomic<bool>& m_flag;
  bool m_cleared = false;
};

}  // namespace

bool Ckqc_tcp::ConnServer(std::vector<KqsTcpInfo>& servers, KAVQuoteEvent* event) {
  const client_life::visit visit(m_life, client_life::visitor::caller);
  if (!visit) return false;
  if (is_busy()) return true;
  flag_guard connecting(m_connecting);
  kqc_connection::retry_closing();
  if (servers.empty() || event == nullptr) {
    connecting.clear();
    return refuse_connect_params();
  }
  reset_register_symbol();
  set_endpoint(servers.front());
  m_event.store(event, std::memory_order_release);
  const KqsTcpInfo server = endpoint();
  const connection_ptr established = establish(server);
  connecting.clear();
  return announce(established, server);
}

bool Ckqc_tcp::ConnServer(KqsTcpInfo& info, KAVQuoteEvent* event) {
  const client_life::visit visit(m_life, client_life::visitor::caller);
  if (!visit) return false;
  if (is_busy()) return true;
  flag_guard connecting(m_connecting);
  kqc_connection::retry_closing();
  reset_register_symbol();
  set_endpoint(info);
  m_event.store(event, std::memory_order_release);
  if (event == nullptr) {
    connecting.clear();
    return refuse_connect_params();
  }
  const KqsTcpInfo server = endpoint();
  const connection_ptr established = establish(server);
  connecting.clear();
  return announce(established, server);
}

int Ckqc_tcp::InitMulticast(std::vector<KqsMulticastInfo>&, KAVQuoteEvent*) { return 0; }

// False: free, and m_connecting is the caller's to clear.
bool Ckqc_tcp::is_busy() {
  {
    const mutex_locker guard(m_connection_lock);  // no other such call, and no worker that starts
    if (m_status.load(std::memory_order_acquire) == KqcStatusNone &&
        !m_thread_running.load(std::memory_order_acquire) &&
        !m_connecting.exchange(true, std::memory_order_acq_rel)) {
      return false;
    }
  }
  write_log(LogLevelInfo, "[QuoteClient] cannot connserver while already logon.");
  return true;
}

bool Ckqc_tcp::refuse_connect_params() {
  write_log(LogLevelError, "[QuoteClient] invalid params.");
  return false;
}

void Ckqc_tcp::set_endpoint(const KqsTcpInfo& server) {
  const mutex_locker guard(m_session_lock);
  strncpy_vl(m_endpoint.m_Label, sizeof(m_endpoint.m_Label), server.m_Label);
  strncpy_vl(m_endpoint.m_ServerIp, sizeof(m_endpoint.m_ServerIp), server.m_ServerIp);
  m_endpoint.m_ServerPort = server.m_ServerPort;
}

KqsTcpInfo Ckqc_tcp::endpoint() {
  const mutex_locker guard(m_session_lock);
  return m_endpoint;
}

bool Ckqc_tcp::init_tcp_client() {
  const KqsTcpInfo server = endpoint();
  return announce(establish(server), server);
}

// A connection that stands, with the status that says so; null when there is none.
Ckqc_tcp::connection_ptr Ckqc_tcp::establish(const KqsTcpInfo& server) {
  close_connection_before();
  connection_ptr connection = open_connection(server, kqc_connection::k_setting_up);
  if (connection == nullptr) {
    take_connection();
  } else {
    m_status.store(KqcStatusConnected, std::memory_order_release);
  }
  return connection;
}

// Tells the caller what came of it. Meanwhile the connection may be lost again, and he may connect
// anew, in here or on another thread.
bool Ckqc_tcp::announce(const connection_ptr& established, const KqsTcpInfo& server) {
  if (established == nullptr) {
    write_log(LogLevelError, "[QuoteClient] init connect server failed. server ip: %s, port: %d.",
              server.m_ServerIp, int{server.m_ServerPort});
    return false;
  }
  established->set_phase(kqc_connection::k_connected);
  if (const event_call receiver{*this}) receiver->OnServerConnected();
  established->set_phase(kqc_connection::k_announced);
  return true;
}

void Ckqc_tcp::close_connection_before() {
  connection_ptr before = take_connection();
  if (before == nullptr) return;
  if (m_life->visited_by_this_library_thread()) {
    kqc_connection::close_later(std::move(before));  // this may be one of its own threads
  } else {
    before->tcp().sock_close();
  }
}

// A new connection, held from now on whether it succeeds or not; null when it failed.
Ckqc_tcp::connection_ptr Ckqc_tcp::open_connection(const KqsTcpInfo& server,
                                                   kqc_connection::setup_phase phase) {
  try {
    connection_ptr connection = make_connection();
    connection->set_phase(phase);
    if (connection->open(server.m_ServerIp, server.m_ServerPort)) return connection;
  } catch (const std::bad_alloc&) {
    // Fails like a refused connection.
  }
  return nullptr;
}

int Ckqc_tcp::LoginToKqs(KqsLoginParam& param) {
  const client_life::visit visit(m_life, client_life::visitor::caller);
  if (!visit) return 0;
  const int status = m_status.load(std::memory_order_acquire);
  if (status != KqcStatusConnected || m_thread_running.load(std::memory_order_acquire)) {
    return write_log(LogLevelError, "[QuoteClient] login_to_kqs failed. wrong kqc tcp status: %d.",
                     status);
  }
  set_logon_info(param);
  return send_logon_req() ? 1 : 0;
}

void Ckqc_tcp::set_logon_info(KqsLoginParam& param) {
  const mutex_locker guard(m_session_lock);
  strncpy_vl(m_user, sizeof(m_user), param.m_UserId);
  const std::size_t length = ::strnlen(param.m_Password, sizeof(param.m_Password) - 1);
  encrypt_md5(param.m_Password, static_cast<int>(length), m_digest);
}

kqs_login_req Ckqc_tcp::login_request() {
  const mutex_locker guard(m_session_lock);
  return make_login_req(m_user, m_digest);
}

bool Ckqc_tcp::send_logon_req() {
  kqs_login_req msg = login_request();
  const int sent = send_now(&msg, sizeof(msg));
  ::explicit_bzero(&msg, sizeof(msg));  // whoever has the digest can log in
  if (sent == int{sizeof(msg)}) return true;
  write_log(LogLevelError, "[QuoteClient] send login msg failed.");
  return false;
}

unsigned int Ckqc_tcp::on_login_resp(const char* data, unsigned int length) {
  return handle_login_resp(data, length, 0);
}

unsigned int Ckqc_tcp::handle_login_resp(const char* data, unsigned int length,
                                         std::uint32_t from) {
  kqs_login_resp msg;
  if (data == nullptr || length < sizeof(msg)) return 0;
  std::memcpy(&msg, data, sizeof(msg));
  const KqsTcpInfo server = endpoint();
  const bool running = m_thread_running.load(std::memory_order_acquire);
  write_log(LogLevelDebug,
            "[QuoteClient] on_login_resp,thread_is_running:%d, result: %c,  server ip: %s, port: "
            "%d.",
            int{running}, msg.result, server.m_ServerIp, int{server.m_ServerPort});
  if (is_left_over(from)) return sizeof(msg);  // the caller has connected anew meanwhile
  if (running) {
    on_relogin_resp(msg.result);
  } else if (msg.result == k_kqs_login_accepted) {
    start_worker(from);
  } else {
    char reason[sizeof(msg.reason) + 1] = {};
    std::memcpy(reason, msg.reason, sizeof(msg.reason));
    refuse_login(msg.result, reason, from);
  }
  return sizeof(msg);
}

void Ckqc_tcp::on_relogin_resp(char result) {
  const bool accepted = result == k_kqs_login_accepted;
  m_relogin_result.store(accepted ? 1 : -1, std::memory_order_release);
  m_wake.notify();
  const KqsTcpInfo server = endpoint();
  write_log(LogLevelDebug, "[QuoteClient] relogin %s, server ip: %s, port: %d.",
            accepted ? "success" : "failed", server.m_ServerIp, int{server.m_ServerPort});
}

void Ckqc_tcp::start_worker(std::uint32_t from) {
  {
    const mutex_locker guard(m_connection_lock);
    if (!is_held(from)) return;  // lost meanwhile, and the caller has been told
    if (m_connecting.load(std::memory_order_acquire)) return;  // which closes this connection
    if (m_thread_running.load(std::memory_order_acquire)) return;
    m_stop.store(false, std::memory_order_release);  // before the flag, or a stop might be lost
    // Whatever the server sends next finds a worker running.
    m_thread_running.store(true, std::memory_order_release);
  }
  m_life->expect_visitor();
  unsigned long id = 0;
  if (VORLAN::SOCK::vl_create_thread(worker_entry, this, id) != 0) return;
  m_life->forget_expected_visitor();
  m_thread_running.store(false, std::memory_order_release);
  write_log(LogLevelError, "[QuoteClient] start worker thread failed.");
  end_without_worker("no thread available", drop_connection(from));
}

void Ckqc_tcp::refuse_login(char result, const char* reason, std::uint32_t from) {
  const KqsTcpInfo server = endpoint();
  const bool dropped = drop_connection(from);
  write_log(LogLevelError, "[QuoteClient] login failed, result: %c,  server ip: %s, port: %d.",
            result, server.m_ServerIp, int{server.m_ServerPort});
  end_without_worker(reason, dropped);
}

// A loss that was noticed before the answer could be read has dropped the connection already, and
// told so.
void Ckqc_tcp::end_without_worker(const char* reason, bool dropped) {
  tell([&](KAVQuoteEvent& event) { event.OnLoginResult(false, reason); });
  if (!dropped) return;
  sleep_vl(k_refused_pause_ms);
  tell_disconnected();
}

void Ckqc_tcp::DisConnServer() {
  const client_life::visit visit(m_life, client_life::visitor::caller);
  if (visit) stop_worker();
}

void Ckqc_tcp::stop_worker() {
  const bool own_thread = m_life->visited_by_this_library_thread();
  for (int polls = 0; polls < k_stop_polls; ++polls) {
    // Again each time: a login accepted meanwhile clears it as it starts the worker.
    m_stop.store(true, std::memory_order_release);
    m_wake.notify();
    cancel_connecting();
    if (!m_thread_running.load(std::memory_order_acquire)) {
      m_status.store(KqcStatusNone, std::memory_order_release);
      return;
    }
    if (own_thread) return;  // the worker may be waiting for this very thread, or be it
    std::this_thread::sleep_for(k_stop_poll);  // not shortened by the host's signals
  }
  write_log(LogLevelError, "[QuoteClient]stop thread timeout");
}

void Ckqc_tcp::async_close_tcp_client() { drop_connection(0); }

bool Ckqc_tcp::is_held(std::uint32_t which) const {
  return which == 0 || (m_connection != nullptr && m_connection->serial() == which);
}

// Takes the connection away if it is the one held; false else, and nothing happens.
bool Ckqc_tcp::take_out(std::uint32_t which, connection_ptr& out) {
  if (!is_held(which)) return false;
  out.swap(m_connection);
  m_status.store(KqcStatusNone, std::memory_order_release);
  return true;
}

// The same, and gives it to a closing thread.
bool Ckqc_tcp::drop_connection(std::uint32_t which) {
  connection_ptr dropped;
  {
    const mutex_locker guard(m_connection_lock);
    if (!take_out(which, dropped)) return false;
  }
  if (dropped != nullptr) kqc_connection::close_later(std::move(dropped));
  return true;
}

void* Ckqc_tcp::lazy_recycle_tcp_cleint(void* tcp) {
  const std::unique_ptr<VORLAN::SOCK::socket_cache_client> owned(
      static_cast<VORLAN::SOCK::socket_cache_client*>(tcp));
  sleep_vl(k_close_delay_ms);
  if (owned != nullptr) owned->sock_close();
  return nullptr;
}

// A new connection, which is the held one from now on.
Ckqc_tcp::connection_ptr Ckqc_tcp::make_connection() {
  connection_ptr made;
  {
    const mutex_locker guard(m_connection_lock);
    const std::uint32_t serial = std::max(m_last_serial.load(std::memory_order_relaxed) + 1, 1u);
    m_last_serial.store(serial, std::memory_order_release);
    made = std::make_shared<kqc_connection>(m_life, this, serial);
    m_connection = made;
  }
  // Whoever closed the client before has found no connection to cancel.
  if (m_life->is_closed()) made->tcp().cancel_connect();
  return made;
}

// Has a newer connection been made since `from`? One that is merely closed still has its say: a
// close may overtake the answer that was sent before it.
bool Ckqc_tcp::is_left_over(std::uint32_t from) const {
  return from != 0 && from != m_last_serial.load(std::memory_order_acquire);
}

Ckqc_tcp::connection_ptr Ckqc_tcp::held_connection() {
  const mutex_locker guard(m_connection_lock);
  return m_connection;
}

Ckqc_tcp::connection_ptr Ckqc_tcp::take_connection() {
  connection_ptr taken;
  const mutex_locker guard(m_connection_lock);
  taken.swap(m_connection);
  return taken;
}

void Ckqc_tcp::cancel_connecting() {
  if (const connection_ptr connection = held_connection()) connection->tcp().cancel_connect();
}

// One send; without a connection it has failed.
int Ckqc_tcp::send_now(const void* data, int length) {
  const connection_ptr connection = held_connection();
  if (connection == nullptr) return -1;
  return connection->tcp().sock_send(static_cast<const char*>(data), length);
}

// Sends until everything is taken: `length`. Negative: the send failed, or the client is to stop
// while the connection does not take it all.
int Ckqc_tcp::send_whole(const void* data, int length) {
  const connection_ptr connection = held_connection();
  if (connection == nullptr) return -1;
  const char* const bytes = static_cast<const char*>(data);
  for (int sent = 0; sent < length;) {
    const int taken = connection->tcp().sock_send(bytes + sent, length - sent);
    if (taken < 0) return -1;
    sent += taken;
    if (sent < length && is_stopping()) return -1;
    if (taken == 0) connection->tcp().wait_sendable(k_send_wait);
  }
  return length;
}
