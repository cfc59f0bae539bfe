#include "sock/socket_cache_client.h"

#include <algorithm>  // std::min
#include <chrono>     // std::chrono::steady_clock
#include <limits>     // std::numeric_limits
#include <mutex>      // std::lock_guard, std::unique_lock
#include <new>        // std::bad_alloc
#include <utility>    // std::move

#include "tools/helpers.h"

namespace VORLAN {
namespace SOCK {
namespace {

using VORLAN::TOOLS::format_str;
using VORLAN::TOOLS::mutex_lock;
using VORLAN::TOOLS::mutex_locker;

constexpr unsigned k_pool_capacity = 512;       // free buffers that are kept
constexpr int k_idle_wait_us = 1;               // of the send and receive threads
constexpr int k_reconnect_wait_us = 5'000'000;  // until set_auto_reconn_falg() says other
constexpr int k_second_us = 1'000'000;
constexpr int k_send_retry_us = 1000;                 // pause after a send that failed
constexpr std::chrono::milliseconds k_send_wait{10};  // longest wait for room in the socket
// A receive thread that is to stop still delivers what had arrived, but not for longer than this:
// the peer may be sending without end.
constexpr std::chrono::milliseconds k_drain_limit{300};

// With more chunks than these waiting, a receive thread that is done with each of them so soon
// takes the reading over: it is not a slow callback that they wait for, and the peer may send
// without end.
constexpr std::size_t k_many_chunks = 64;
constexpr std::chrono::milliseconds k_quick_offer{2};
// With more than these waiting, 32 MB, the event thread reads on at 8 MB a second only: it would
// fill all memory while the system keeps the receive thread waiting.
constexpr std::size_t k_very_many_chunks = 4096;
constexpr unsigned k_reading_pause_ms = 1;

constexpr unsigned k_offered_poll_ms = 1;  // how often wait_offered() looks

// Counts a chunk as done at the end of a block.
class done_mark {
 public:
  explicit done_mark(std::atomic<std::uint64_t>& done) : m_done(done) {}
  done_mark(const done_mark&) = delete;
  done_mark& operator=(const done_mark&) = delete;
  ~done_mark() { m_done.fetch_add(1, std::memory_order_release); }

 private:
  std::atomic<std::uint64_t>& m_done;
};

class named_thread : public vorlan_socket_thread {
 public:
  explicit named_thread(const char* name) : m_name(name) {}
  std::string get_thread_name() override { return m_name; }

 private:
  const char* const m_name;
};

std::unique_ptr<vorlan_socket_thread> make_thread(const char* name, int (*fn)(void*), void* arg,
                                                  int wait_us, socket_thread_idle idle) {
  auto thread = std::make_unique<named_thread>(name);
  thread->register_function(fn, arg, true);
  thread->set_thread_wait_micro_sec(wait_us);
  thread->set_idle_mode(idle);
  return thread;
}

}  // namespace

socket_cache_client::socket_cache_client(unsigned stream_size)
    : m_stream(stream_size),
      m_pool(k_pool_capacity),
      m_send_thread(make_thread("kav-send", thread_send_proc, this, k_idle_wait_us, IDLE_WAKE)),
      m_receive_thread(
          make_thread("kav-receive", thread_receive_proc, this, k_idle_wait_us, IDLE_WAKE)),
      m_reconnect_thread(make_thread("kav-reconnect", thread_auto_reconn, this, k_reconnect_wait_us,
                                     IDLE_WAKE_OR_WAIT)),
      m_loan(m_receive_thread->wake_word()) {
  m_receive_thread->set_idle_wait(wait_for_bytes);
  set_internal_callback();
}

socket_cache_client::~socket_cache_client() {
  abort_connecting(true);
  detach_event_thread();
  stop_threads();
  m_send_thread.reset();
  m_receive_thread.reset();
  m_reconnect_thread.reset();
  clear_data();
  drop_in_flight();
}

void socket_cache_client::stop_threads() {
  m_send_thread->stop();
  m_receive_thread->stop();
  m_reconnect_thread->stop();
}

bool socket_cache_client::sock_init(const std::string& ip, unsigned short port, socket_callback cb,
                                    void* user, bool queue_sends) try {
  endpoint target;
  target.ip = ip;
  target.port = port;
  return init_with(target, false, cb, user, queue_sends);
} catch (const std::bad_alloc&) {
  return false;  // before anything was connected
}

bool socket_cache_client::sock_init(const std::string& ip, unsigned short port,
                                    const std::string& local_ip, unsigned short local_port,
                                    socket_callback cb, void* user, bool queue_sends) try {
  endpoint target;
  target.ip = ip;
  target.port = port;
  target.local_ip = local_ip;
  target.local_port = local_port;
  return init_with(target, true, cb, user, queue_sends);
} catch (const std::bad_alloc&) {
  return false;  // before anything was connected
}

bool socket_cache_client::init_with(const endpoint& target, bool local_form, socket_callback cb,
                                    void* user, bool queue_sends) {
  if (!start_thread(*m_receive_thread, "receive", target, local_form) ||
      !start_thread(*m_send_thread, "send", target, local_form)) {
    return false;
  }
  m_callback.store(cb, std::memory_order_release);
  m_user.store(user, std::memory_order_release);
  m_queue_sends.store(queue_sends, std::memory_order_release);
  {
    const mutex_locker guard(m_endpoint_lock);
    m_endpoint = target;
  }
  socket_client::sock_close();  // its report to the user comes before the lock is taken
  bool connected = false;
  {
    const std::lock_guard<mutex_lock> guard(m_connect_lock);
    connected = connect_to(target, local_form);
  }
  m_reconnect_thread->start();  // without one the connection is as good, as long as it lasts
  if (connected) m_send_thread->wake();
  return connected;
}

bool socket_cache_client::start_thread(vorlan_socket_thread& thread, const char* name,
                                       const endpoint& target, bool local_form) {
  if (thread.start() && thread.get_thread_id() != 0) return true;
  std::string line = format_str("start %s thread error, server ip:%s, server port:%d", name,
                                target.ip.c_str(), target.port);
  if (local_form) {
    line += format_str(", local ip:%s, local port:%d", target.local_ip.c_str(), target.local_port);
  }
  log_msg(line.c_str());
  return false;
}

bool socket_cache_client::connect_to(const endpoint& target, bool local_form) {
  const auto port = static_cast<unsigned short>(target.port);
  m_stream_lost.store(false, std::memory_order_release);
  if (!local_form) return socket_client::sock_init(target.ip, port, cache_callback, this);
  return socket_client::sock_init(target.ip, port, target.local_ip,
                                  static_cast<unsigned short>(target.local_port), cache_callback,
                                  this);
}

int socket_cache_client::cache_callback(socket_param& param, void* client) {
  return client == nullptr ? 0
                           : static_cast<socket_cache_client*>(client)->on_cache_callback(param);
}

int socket_cache_client::on_cache_callback(socket_param& param) {
  if (param.get_event_type() != EVENT_RECEIVE) {
    const socket_callback callback = m_callback.load(std::memory_order_acquire);
    if (callback != nullptr) call_user(callback, param, m_user.load(std::memory_order_acquire));
    return 0;
  }
  pooled_buffer chunk = take_buffer();
  if (!chunk->reset_data(param.get_buff_addr(), param.get_buff_size())) {
    throw std::bad_alloc();  // the stream has a hole now; the event thread ends the connection
  }
  m_receive_queue.push(chunk.get());
  static_cast<void>(chunk.release());  // the queue's now
  m_chunks_received.fetch_add(1, std::memory_order_release);
  m_receive_thread->wake();
  if (m_receive_queue.size() > k_very_many_chunks) vl_sleep(k_reading_pause_ms);
  return 0;
}

socket_cache_client::pooled_buffer socket_cache_client::take_buffer() {
  return pooled_buffer(m_pool.get(), give_back{&m_pool});
}

int socket_cache_client::thread_receive_proc(void* client) {
  return static_cast<socket_cache_client*>(client)->on_thread_receive_proc();
}

// Who has no memory for what is in the stream can make nothing of what follows.
int socket_cache_client::on_thread_receive_proc() {
  try {
    return deliver_received();
  } catch (const std::bad_alloc&) {
    m_stream.lock_stream();
    lose_stream();
    m_stream.unlock_stream();
    m_offering.store(false, std::memory_order_release);
    return 1;  // there may be more in the queue, to be thrown away
  }
}

int socket_cache_client::deliver_received() {
  using clock = std::chrono::steady_clock;
  bool draining = false;
  clock::time_point drain_end;
  std::size_t left = 0;
  for (;;) {
    if (receive_ends()) {
      m_loan.give_back();
      if (!draining) {
        draining = true;
        drain_end = clock::now() + k_drain_limit;
        left = m_receive_queue.size() + held_back_chunks();
      }
      if (left == 0 || clock::now() >= drain_end) return 0;
      --left;
    }
    if (!take_held_back() && !take_queued() && !take_from_socket()) return 0;
  }
}

// What the event thread has read. False: nothing.
bool socket_cache_client::take_queued() {
  buffer* chunk = nullptr;
  if (!m_receive_queue.try_pop(chunk)) return false;
  const done_mark done(m_chunks_done);
  m_loan.leave();
  const auto begin = std::chrono::steady_clock::now();
  m_stream.lock_stream();
  if (!m_stream.push_data(chunk->get_data_ptr(), chunk->get_data_len())) lose_stream();
  const stream_content content = offered_content();
  m_stream.unlock_stream();
  m_pool.put(chunk);
  offer(content);
  if (std::chrono::steady_clock::now() - begin < k_quick_offer) take_over_reading();
  return true;
}

void socket_cache_client::take_over_reading() {
  if (m_loan.is_held() || m_receive_queue.size() <= k_many_chunks || receive_ends()) return;
  m_loan.borrow(current_run());
}

// What has arrived while this thread waits in place of the event thread. False: nothing. Much is
// read at once, but offered in chunks as they would have come from the event thread.
bool socket_cache_client::take_from_socket() {
  if (!m_loan.may_read()) return false;
  m_offering.store(true, std::memory_order_release);  // before the turn can change
  if (read_into_stream()) return take_held_back();
  m_offering.store(false, std::memory_order_release);
  return false;
}

bool socket_cache_client::read_into_stream() {
  std::size_t length = 0;
  m_stream.lock_stream();
  m_stream.reset_data_buf();
  if (m_stream.make_room(k_read_bytes) < k_read_bytes) {
    lose_stream();
  } else {
    length = m_loan.read(m_stream.get_reserve_ptr(), k_read_bytes);
    if (length != 0) m_stream.fill_reserve_len(length);
    m_held_back = length;
  }
  m_stream.unlock_stream();
  return length != 0;
}

bool socket_cache_client::take_held_back() {
  if (!m_offering.load(std::memory_order_relaxed)) return false;
  m_stream.lock_stream();
  const bool more = m_held_back != 0;
  m_held_back -= std::min(m_held_back, k_chunk_bytes);
  const stream_content content = offered_content();
  m_stream.unlock_stream();
  if (more) {
    offer(content);
  } else {
    m_offering.store(false, std::memory_order_release);
  }
  return more;
}

std::size_t socket_cache_client::held_back_chunks() {
  m_stream.lock_stream();
  const std::size_t chunks = (m_held_back + k_chunk_bytes - 1) / k_chunk_bytes;
  m_stream.unlock_stream();
  return chunks;
}

void socket_cache_client::wait_for_bytes(void* client, std::uint32_t ticket) {
  auto* const self = static_cast<socket_cache_client*>(client);
  if (!self->m_loan.is_held()) self->m_loan.borrow(self->current_run());
  self->m_loan.wait(ticket);
}

// Has a stop been asked for, or done by a callback on this thread?
bool socket_cache_client::receive_ends() const {
  const socket_thread_status status = m_receive_thread->get_thread_status();
  return status == STATUS_STOP_PENDING || status == STATUS_PAUSE_PENDING ||
         status == STATUS_STOPPED || status == STATUS_DESTROYED;
}

// No memory: there is a hole, so nothing behind it can be understood. Under the stream's lock.
void socket_cache_client::lose_stream() {
  m_stream_lost.store(true, std::memory_order_release);
  m_stream.clear();
  m_held_back = 0;
  break_connection();
}

void socket_cache_client::offer(stream_content content) {
  while (content.length != 0) {
    const socket_callback callback = m_callback.load(std::memory_order_acquire);
    if (callback == nullptr) return;
    const auto size = static_cast<unsigned>(
        std::min<std::size_t>(content.length, std::numeric_limits<unsigned>::max()));
    socket_param param(EVENT_RECEIVE, 0, &content.data, size, 0);
    callback(param, m_user.load(std::memory_order_acquire));
    if (param.get_proc_len() == 0) return;
    m_stream.lock_stream();
    m_stream.pop_data(
        std::min<std::size_t>(param.get_proc_len(), size));  // held at what was offered
    content = offered_content();
    m_stream.unlock_stream();
    if (m_receive_thread->get_thread_status() == STATUS_STOPPED) return;
  }
}

// Under the stream's lock.
socket_cache_client::stream_content socket_cache_client::offered_content() {
  if (m_stream_lost.load(std::memory_order_acquire)) {
    m_stream.clear();
    m_held_back = 0;
  }
  return {m_stream.get_data_ptr(), m_stream.get_data_len() - m_held_back};
}

void socket_cache_client::wait_offered(std::chrono::milliseconds limit) const {
  const auto end = std::chrono::steady_clock::now() + limit;
  const std::uint64_t received = m_chunks_received.load(std::memory_order_acquire);
  while ((m_chunks_done.load(std::memory_order_acquire) < received ||
          m_offering.load(std::memory_order_acquire)) &&
         std::chrono::steady_clock::now() < end) {
    vl_sleep(k_offered_poll_ms);
  }
}

int socket_cache_client::sock_send(const char* data, int len) try {
  if (!m_queue_sends.load(std::memory_order_acquire)) return socket_client::sock_send(data, len);
  if (len < 0 || (len > 0 && data == nullptr)) return -1;
  if (len == 0) return 0;
  pooled_buffer item = take_buffer();
  if (!item->reset_data(data, static_cast<std::size_t>(len))) return -1;
  m_send_queue.push(item.get());
  static_cast<void>(item.release());  // the queue's now
  m_send_thread->wake();
  return len;
} catch (const std::bad_alloc&) {
  return -1;
}

int socket_cache_client::thread_send_proc(void* client) {
  return static_cast<socket_cache_client*>(client)->on_thread_send_proc();
}

int socket_cache_client::on_thread_send_proc() {
  while (take_in_flight()) {
    const std::size_t length = m_in_flight->get_data_len();
    const int sent =
        socket_client::sock_send(m_in_flight->get_data_ptr(), static_cast<int>(length));
    if (sent < 1) {
      if (sent == 0) wait_sendable(k_send_wait);
      m_send_thread->limit_next_idle_sleep(sent == 0 ? 0 : k_send_retry_us);
      return 0;  // a stop is looked at between two tries
    }
    if (static_cast<std::size_t>(sent) >= length) {
      drop_in_flight();
    } else {
      m_in_flight->pop_data(static_cast<std::size_t>(sent));
    }
  }
  return 0;
}

// The buffer to send next: the one begun, else the oldest of the queue. False: there is none.
bool socket_cache_client::take_in_flight() {
  const std::uint32_t generation = m_send_generation.load(std::memory_order_acquire);
  if (m_in_flight != nullptr && m_in_flight_generation != generation) drop_in_flight();
  if (m_in_flight != nullptr) return true;
  m_in_flight_generation = generation;
  return m_send_queue.try_pop(m_in_flight) && m_in_flight != nullptr;
}

void socket_cache_client::drop_in_flight() {
  if (m_in_flight != nullptr) m_pool.put(m_in_flight);
  m_in_flight = nullptr;
}

int socket_cache_client::thread_auto_reconn(void* client) {
  return static_cast<socket_cache_client*>(client)->on_thread_auto_reconn();
}

int socket_cache_client::on_thread_auto_reconn() try {
  if (!m_auto_reconnect.load(std::memory_order_acquire) || is_connected()) return 0;
  const std::unique_lock<mutex_lock> guard(m_connect_lock, std::try_to_lock);
  if (!guard.owns_lock() || is_connected()) return 0;  // a caller is connecting, or has connected
  clear_data();
  endpoint target;
  {
    const mutex_locker endpoint_guard(m_endpoint_lock);
    target = m_endpoint;
  }
  if (connect_to(target, target.has_local())) m_send_thread->wake();
  return 0;
} catch (const std::bad_alloc&) {
  return 0;  // the next look tries again
}

bool socket_cache_client::set_auto_reconn_falg(bool on, int seconds) {
  m_auto_reconnect.store(on, std::memory_order_release);
  const int held = std::min(seconds, std::numeric_limits<int>::max() / k_second_us);
  m_reconnect_thread->set_thread_wait_micro_sec(held < 1 ? k_second_us : held * k_second_us);
  return true;
}

bool socket_cache_client::sock_close() {
  abort_connecting(true);
  stop_threads();
  abort_connecting(false);
  const bool closed = socket_client::sock_close();
  clear_data();
  return closed;
}

void socket_cache_client::clear_data() {
  m_send_generation.fetch_add(1, std::memory_order_acq_rel);
  buffer* item = nullptr;
  while (m_receive_queue.try_pop(item)) {
    m_pool.put(item);
    m_chunks_done.fetch_add(1, std::memory_order_release);
  }
  while (m_send_queue.try_pop(item)) m_pool.put(item);
  m_stream.lock_stream();
  m_stream.clear();
  m_held_back = 0;
  m_stream.unlock_stream();
}

}  // namespace SOCK
}  // namespace VORLAN
