#include "client/kqc_connection.h"

#include <new>       // placement new
#include <optional>  // std::optional
#include <utility>   // std::move

#include "client/ckqc_tcp.h"
#include "sock/vorlan_socket_thread.h"
#include "tools/helpers.h"
#include "tools/locks.h"

using VORLAN::SOCK::socket_param;
using VORLAN::TOOLS::mutex_lock;
using VORLAN::TOOLS::mutex_locker;
using VORLAN::TOOLS::sleep_vl;

namespace {

constexpr unsigned k_stream_bytes = 8192;
constexpr unsigned k_phase_poll_ms = 1;
constexpr unsigned k_close_delay_ms = 10;  // lets the callback that noticed the break return first
constexpr std::chrono::seconds k_announcement_limit{1};

// Never destroyed, since threads may run until the very end of the process, and made without
// memory from elsewhere, which may have run out.
template <class T>
T& immortal() {
  alignas(T) static unsigned char memory[sizeof(T)];
  static T* const instance = ::new (memory) T;
  return *instance;
}

}  // namespace

// Connections that nobody else owns, linked through themselves: putting one in cannot fail.
class kqc_connection::ownerless {
 public:
  void add(std::shared_ptr<kqc_connection> connection) {
    const mutex_locker guard(m_lock);
    connection->m_next = std::move(m_first);
    m_first = std::move(connection);
  }
  // The first that `fits` says yes to, taken out; null: there is none.
  template <class CONDITION>
  std::shared_ptr<kqc_connection> take(CONDITION fits) {
    const mutex_locker guard(m_lock);
    std::shared_ptr<kqc_connection>* link = &m_first;
    while (*link != nullptr && !fits(**link)) link = &(*link)->m_next;
    std::shared_ptr<kqc_connection> taken = std::move(*link);
    if (taken != nullptr) *link = std::move(taken->m_next);
    return taken;
  }

 private:
  mutex_lock m_lock;
  std::shared_ptr<kqc_connection> m_first KAV_GUARDED_BY(m_lock);
};

// Connections that outlive their clients.
kqc_connection::ownerless& kqc_connection::kept() {
  struct kept_connections : ownerless {};
  return immortal<kept_connections>();
}

// Connections that are to be closed, but by no thread so far.
kqc_connection::ownerless& kqc_connection::unclosed() {
  struct unclosed_connections : ownerless {};
  return immortal<unclosed_connections>();
}

bool kqc_connection::take_from_kept(const kqc_connection* which) {
  return kept().take([which](const kqc_connection& kept) { return &kept == which; }) != nullptr;
}

kqc_connection::kqc_connection(std::shared_ptr<client_life> life, Ckqc_tcp* client,
                               std::uint32_t serial)
    : m_life(std::move(life)), m_client(client), m_serial(serial), m_tcp(k_stream_bytes) {}

kqc_connection::~kqc_connection() { set_phase(k_announced); }

bool kqc_connection::open(const char* ip, unsigned short port) {
  return m_tcp.sock_init(ip, port, on_socket_event, this, false);
}

void kqc_connection::wait_phase(setup_phase phase) const {
  using clock = std::chrono::steady_clock;
  if (m_phase.load(std::memory_order_acquire) >= phase) return;
  const clock::time_point limit = clock::now() + k_announcement_limit;
  while (m_phase.load(std::memory_order_acquire) < phase) {
    if (phase == k_announced && clock::now() >= limit) return;
    sleep_vl(k_phase_poll_ms);
  }
}

int kqc_connection::on_socket_event(socket_param& param, void* connection) {
  if (param.get_event_type() == VORLAN::SOCK::EVENT_SEND) return 0;
  auto* const self = static_cast<kqc_connection*>(connection);
  const bool lost = param.get_event_type() == VORLAN::SOCK::EVENT_REMOTE_DISCONNECT;
  if (lost) self->set_lost();
  const client_life::visit visit(self->m_life, client_life::visitor::library);
  if (!visit) {
    self->on_event_without_client(param);
    return 0;
  }
  if (lost || param.get_event_type() == VORLAN::SOCK::EVENT_RECEIVE) self->wait_phase(k_connected);
  if (lost) self->wait_phase(k_announced);
  return self->m_client->on_connection_event(param, *self);
}

void kqc_connection::on_event_without_client(socket_param& param) {
  param.set_proc_len(param.get_buff_size());
  if (param.get_event_type() != VORLAN::SOCK::EVENT_REMOTE_DISCONNECT) return;
  std::shared_ptr<kqc_connection> self = shared_from_this();
  if (!take_from_kept(this)) return;  // its owner closes it, or will find that it is lost
  start_closing_thread(std::move(self), closes_for::nobody);
}

void kqc_connection::close_later(std::shared_ptr<kqc_connection> connection) {
  connection->m_life->expect_visitor();
  start_closing_thread(std::move(connection), closes_for::client);
}

void kqc_connection::keep_without_client(std::shared_ptr<kqc_connection> connection) {
  kept().add(connection);
  // A loss is flagged before the list is searched: either the event thread finds the connection
  // there, or the flag is seen here.
  if (!connection->is_lost() || !take_from_kept(connection.get())) return;
  start_closing_thread(std::move(connection), closes_for::nobody);
}

void kqc_connection::retry_closing() {
  std::shared_ptr<kqc_connection> any = unclosed().take([](const kqc_connection&) { return true; });
  if (any != nullptr) start_closing_thread(std::move(any), closes_for::nobody);
}

void kqc_connection::close_unclosed(const client_life* of) {
  const auto fits = [of](const kqc_connection& it) {
    return of == nullptr || it.m_life.get() == of;
  };
  while (const std::shared_ptr<kqc_connection> connection = unclosed().take(fits)) {
    connection->m_tcp.sock_close();
  }
}

void kqc_connection::start_closing_thread(std::shared_ptr<kqc_connection> connection,
                                          closes_for whom) {
  kqc_connection* const closing = connection.get();
  closing->m_closes_for = whom;
  closing->m_closing = std::move(connection);
  unsigned long id = 0;
  if (VORLAN::SOCK::vl_create_thread(closing_thread, closing, id) != 0) return;
  // Without a thread it cannot be closed here, on one of its own threads. The server is told all
  // the same, and the event thread gives the descriptors back; the rest waits for the next chance.
  connection = std::move(closing->m_closing);
  connection->m_tcp.break_connection();
  const std::shared_ptr<client_life> life = connection->m_life;
  unclosed().add(std::move(connection));
  if (whom == closes_for::client) life->forget_expected_visitor();
}

void* kqc_connection::closing_thread(void* closing) {
  VORLAN::SOCK::vl_name_thread("kav-close");
  std::shared_ptr<kqc_connection> connection =
      std::move(static_cast<kqc_connection*>(closing)->m_closing);
  const std::shared_ptr<client_life> life = connection->m_life;
  std::optional<client_life::visit> visit;
  if (connection->m_closes_for == closes_for::client) {
    visit.emplace(life, client_life::visitor::library, client_life::visit::expected{});
  }
  sleep_vl(k_close_delay_ms);
  connection->tcp().sock_close();
  connection.reset();
  visit.reset();
  close_unclosed(nullptr);
  return nullptr;
}
