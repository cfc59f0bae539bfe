#include "client/kqc_connection.h"

#include <set>      // std::set
#include <utility>  // std::move

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

// Connections that outlive their clients. Never destroyed: their threads may run until the very
// end of the process.
struct kept_connections {
  mutex_lock lock;
  std::set<std::shared_ptr<kqc_connection>> connections KAV_GUARDED_BY(lock);
};

kept_connections& kept() {
  static auto* const instance = new kept_connections;
  return *instance;
}

bool take_from_kept(const std::shared_ptr<kqc_connection>& connection) {
  kept_connections& all = kept();
  const mutex_locker guard(all.lock);
  return all.connections.erase(connection) != 0;
}

}  // namespace

struct kqc_connection::closing_job {
  std::shared_ptr<kqc_connection> connection;
  std::shared_ptr<client_life> visited;  // null: no client is concerned any more
};

kqc_connection::kqc_connection(std::shared_ptr<client_life> life, Ckqc_tcp* client,
                               std::uint32_t serial)
    : m_life(std::move(life)), m_client(client), m_serial(serial), m_tcp(k_stream_bytes) {}

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
  if (lost) {
    self->wait_phase(k_announced);
  } else if (param.get_event_type() == VORLAN::SOCK::EVENT_RECEIVE) {
    self->wait_phase(k_connected);
  }
  return self->m_client->on_connection_event(param, *self);
}

void kqc_connection::on_event_without_client(socket_param& param) {
  param.set_proc_len(param.get_buff_size());
  if (param.get_event_type() != VORLAN::SOCK::EVENT_REMOTE_DISCONNECT) return;
  std::shared_ptr<kqc_connection> self = shared_from_this();
  if (!take_from_kept(self)) return;  // its owner closes it, or will find that it is lost
  start_closing_thread(std::make_unique<closing_job>(closing_job{std::move(self), nullptr}));
}

void kqc_connection::close_later(std::shared_ptr<kqc_connection> connection) {
  auto life = connection->m_life;
  life->expect_visitor();
  start_closing_thread(
      std::make_unique<closing_job>(closing_job{std::move(connection), std::move(life)}));
}

void kqc_connection::keep_without_client(std::shared_ptr<kqc_connection> connection) {
  {
    kept_connections& all = kept();
    const mutex_locker guard(all.lock);
    all.connections.insert(connection);
  }
  // A loss is flagged before the set is searched: either the event thread finds the connection
  // there, or the flag is seen here.
  if (!connection->is_lost() || !take_from_kept(connection)) return;
  start_closing_thread(std::make_unique<closing_job>(closing_job{std::move(connection), nullptr}));
}

void kqc_connection::start_closing_thread(std::unique_ptr<closing_job> job) {
  unsigned long id = 0;
  if (VORLAN::SOCK::vl_create_thread(closing_thread, job.get(), id) != 0) {
    static_cast<void>(job.release());  // the thread's now
    return;
  }
  // Without a thread it cannot be closed here, on one of its own threads: it stays, calling nobody.
  kept_connections& all = kept();
  {
    const mutex_locker guard(all.lock);
    all.connections.insert(job->connection);
  }
  if (job->visited != nullptr) job->visited->forget_expected_visitor();
}

void* kqc_connection::closing_thread(void* job) {
  const std::unique_ptr<closing_job> owned(static_cast<closing_job*>(job));
  VORLAN::SOCK::vl_name_thread("kav-close");
  const auto life = owned->visited != nullptr ? owned->visited : std::make_shared<client_life>();
  if (owned->visited == nullptr) life->expect_visitor();
  const client_life::visit visit(life, client_life::visitor::library,
                                 client_life::visit::expected{});
  sleep_vl(k_close_delay_ms);
  owned->connection->tcp().sock_close();
  owned->connection.reset();
  return nullptr;
}
