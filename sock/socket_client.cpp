#include "sock/socket_client.h"

#include <arpa/inet.h>    // inet_pton
#include <fcntl.h>        // fcntl
#include <netinet/in.h>   // sockaddr_in
#include <netinet/tcp.h>  // TCP_NODELAY, TCP_USER_TIMEOUT
#include <poll.h>         // poll
#include <sys/epoll.h>    // epoll_wait
#include <sys/socket.h>   // socket, connect, send
#include <unistd.h>       // read

#include <cerrno>   // errno
#include <cstring>  // memcpy, strerror_r
#include <new>      // std::bad_alloc
#include <thread>   // std::this_thread::sleep_for
#include <utility>  // std::exchange, std::move

#include "sock/event_run.h"
#include "sock/local_address.h"
#include "sock/vorlan_socket_thread.h"
#include "tools/helpers.h"

namespace VORLAN {
namespace SOCK {
namespace {

using VORLAN::TOOLS::format_str;
using VORLAN::TOOLS::mutex_locker;

constexpr int k_epoll_wait_ms = 50;    // longest delay until the event thread sees a stop
constexpr int k_absence_wait_ms = 2;   // a borrower that is busy for longer loses its turn
constexpr int k_connect_poll_ms = 10;  // longest delay until sock_init() sees a close
// How often a closer looks whether the thread has ended.
constexpr std::chrono::milliseconds k_thread_poll{1};
constexpr int k_thread_polls = 5000;       // after that many it no longer waits for a callback
constexpr unsigned k_error_pause_ms = 10;  // a broken epoll instance must not occupy a core

// A peer that no longer answers, though bytes or probes were sent, is given up after so long. At
// the worst bytes are sent just before an idle connection is given up, and twice this has to pass.
constexpr int k_vanished_ms = 9000;
// So long a connect() waits for an answer. The system's own limit is minutes, and in the end it
// asks once a minute: whoever is back would be found that late.
constexpr int k_unanswered_ms = 20000;
constexpr int k_probe_after_s = 4;  // of silence
constexpr int k_probe_every_s = 1;
constexpr int k_probes = 5;  // for a system that does not know k_vanished_ms

// The event thread's own connection, and the object that it belongs to.
thread_local std::shared_ptr<event_run> t_run;
thread_local const socket_client* t_run_owner = nullptr;

std::string error_text(int error) {
  char buffer[128] = "";
  return ::strerror_r(error, buffer, sizeof(buffer));
}

bool parse_ip(const std::string& text, in_addr& address) {
  // Dotted text of four numbers only: other spellings that the system accepts name other hosts
  // than their reader may think. A text with a NUL inside is none.
  return text.find('\0') == std::string::npos && ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool set_nonblocking(int sock) {
  const int flags = ::fcntl(sock, F_GETFL);
  return flags >= 0 && ::fcntl(sock, F_SETFL, flags | O_NONBLOCK) >= 0;
}

bool set_option(int sock, int level, int name, int value) {
  return ::setsockopt(sock, level, name, &value, sizeof(value)) == 0;
}

// Has the system find out that the peer is gone without a word, which ends the connection with an
// error. Where it cannot do that, such a loss is noticed when it would have been anyway.
void notice_vanished_peer(int sock) {
  set_option(sock, IPPROTO_TCP, TCP_KEEPIDLE, k_probe_after_s);
  set_option(sock, IPPROTO_TCP, TCP_KEEPINTVL, k_probe_every_s);
  set_option(sock, IPPROTO_TCP, TCP_KEEPCNT, k_probes);
  set_option(sock, IPPROTO_TCP, TCP_USER_TIMEOUT, k_vanished_ms);
  set_option(sock, SOL_SOCKET, SO_KEEPALIVE, 1);
}

// What read() returns, or would have if a borrower had not come upon the error first.
ssize_t read_some(event_run& run, int& error) {
  error = std::exchange(run.read_error, 0);
  if (error != 0) return -1;
  const shared_descriptor::lease sock(run.socket);
  const ssize_t received = ::read(sock.get(), run.receive_buffer, sizeof(run.receive_buffer));
  error = errno;
  return received;
}

// Gives the turn to read back at the end of a block.
class turn_guard {
 public:
  explicit turn_guard(event_run* run) : m_run(run) {}
  turn_guard(const turn_guard&) = delete;
  turn_guard& operator=(const turn_guard&) = delete;
  ~turn_guard() {
    if (m_run != nullptr) m_run->turn.end_event_read();
  }

 private:
  event_run* const m_run;
};

// Closes a connection whose setting up ends early.
class setup_guard {
 public:
  explicit setup_guard(event_run& run) : m_run(&run) {}
  setup_guard(const setup_guard&) = delete;
  setup_guard& operator=(const setup_guard&) = delete;
  ~setup_guard() {
    if (m_run == nullptr) return;
    m_run->epoll.close();
    m_run->socket.close();
  }
  void succeed() { m_run = nullptr; }

 private:
  event_run* m_run;
};

sockaddr_in to_sockaddr(in_addr address, unsigned short port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_addr = address;
  result.sin_port = htons(port);
  return result;
}

}  // namespace

struct socket_client::local_endpoint {
  in_addr address;
  bool valid;
  unsigned short port;
};

struct socket_client::event_thread_start {
  socket_client* client;
  std::shared_ptr<event_run> run;
};

socket_client::socket_client() = default;

socket_client::~socket_client() { detach_event_thread(); }

bool socket_client::is_connected() { return m_connected.load(std::memory_order_acquire); }

bool socket_client::sock_init(const std::string& ip, unsigned short port, socket_callback cb,
                              void* user) {
  return init_connection(ip, port, nullptr, cb, user);
}

bool socket_client::sock_init(const std::string& ip, unsigned short port,
                              const std::string& local_ip, unsigned short local_port,
                              socket_callback cb, void* user) {
  local_endpoint local{};
  local.valid = parse_ip(local_ip, local.address);
  local.port = local_port;
  return init_connection(ip, port, &local, cb, user);
}

bool socket_client::init_connection(const std::string& ip, unsigned short port,
                                    const local_endpoint* local, socket_callback cb,
                                    void* user) try {
  sock_close();
  if (cb == nullptr) return false;
  m_user.store(user, std::memory_order_release);
  m_callback.store(cb, std::memory_order_release);
  m_server_ip = ip;
  m_server_port = port;
  m_connected.store(false, std::memory_order_release);
  m_closing.store(false, std::memory_order_release);
  const auto run = std::make_shared<event_run>();
  const int sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (sock < 0) return false;
  run->socket.open(sock);
  setup_guard setup(*run);
  m_socket.store(sock, std::memory_order_release);
  set_current_run(run);
  if (!set_up_connection(*run, local) || !start_client_event_thread()) return false;
  setup.succeed();
  return true;
} catch (const std::bad_alloc&) {
  return false;  // like a refused connection
}

bool socket_client::set_up_connection(event_run& run, const local_endpoint* local) {
  const shared_descriptor::lease sock(run.socket);
  if (local != nullptr && !bind_local(sock.get(), *local)) return false;
  if (!connect_to_server(sock.get())) return false;
  m_connected.store(true, std::memory_order_release);
  return set_sock_options(sock.get()) && watch_socket(run, sock.get());
}

bool socket_client::bind_local(int sock, const local_endpoint& local) {
  const sockaddr_in address = to_sockaddr(local.address, local.port);
  if (!local.valid) {
    errno = EADDRNOTAVAIL;
  } else if (::bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    return true;
  }
  const int error = errno;
  log_msg((format_str("*****socket client local_addr error!***** error code:%d error message:(%s) "
                      "%s ",
                      error, error_text(error).c_str(), m_server_ip.c_str()) +
           format_str(" %d  %d", int{m_server_port}, static_cast<int>(address.sin_addr.s_addr)) +
           format_str(" %d \n ", int{address.sin_port}))
              .c_str());
  return false;
}

// Waits like a blocking connect(), but lets a close or a cancellation end the wait.
bool socket_client::connect_to_server(int sock) {
  in_addr ip{};
  if (!parse_ip(m_server_ip, ip) || !set_nonblocking(sock)) return false;
  const sockaddr_in server = to_sockaddr(ip, m_server_port);
  set_option(sock, IPPROTO_TCP, TCP_USER_TIMEOUT, k_unanswered_ms);
  if (::connect(sock, reinterpret_cast<const sockaddr*>(&server), sizeof(server)) == 0) return true;
  return (errno == EINPROGRESS || errno == EINTR) && wait_connected(sock);
}

bool socket_client::wait_connected(int sock) const {
  pollfd wait{sock, POLLOUT, 0};
  while (!m_closing.load(std::memory_order_acquire) &&
         !m_abort_connecting.load(std::memory_order_acquire) &&
         !m_connect_cancelled.load(std::memory_order_acquire)) {
    const int ready = ::poll(&wait, 1, k_connect_poll_ms);
    if (ready < 0 && errno != EINTR) return false;
    if (ready <= 0) continue;
    int error = 0;
    socklen_t size = sizeof(error);
    return ::getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
  }
  return false;
}

bool socket_client::set_sock_options(const int& sock) {
  // Closing resets the connection at once: unsent bytes are of no use to anybody.
  const linger reset{1, 0};
  if (!set_option(sock, IPPROTO_TCP, TCP_NODELAY, 1)) return false;
  if (::setsockopt(sock, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset)) != 0) return false;
  notice_vanished_peer(sock);
  return true;
}

bool socket_client::watch_socket(event_run& run, int sock) {
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll < 0) return false;
  run.epoll.open(epoll);
  epoll_event event{};
  event.events = event_run::k_watched_events;
  event.data.fd = sock;
  return ::epoll_ctl(epoll, EPOLL_CTL_ADD, sock, &event) == 0;
}

bool socket_client::start_client_event_thread() try {
  const std::shared_ptr<event_run> run = current_run();
  if (run == nullptr) return false;
  auto start = std::make_unique<event_thread_start>(event_thread_start{this, run});
  run->stop.store(false, std::memory_order_release);
  // Before the thread exists, so that a close right after this waits for it.
  run->ended.store(false, std::memory_order_release);
  unsigned long id = 0;
  if (vl_create_thread(event_thread_entry, start.get(), id) == 0) {
    run->ended.store(true, std::memory_order_release);
    return false;
  }
  static_cast<void>(start.release());  // the thread's now
  return true;
} catch (const std::bad_alloc&) {
  return false;  // before anything has been changed
}

bool socket_client::sock_close() {
  const bool was_connected = is_connected();
  stop_client_event_thread();
  if (was_connected) event_client_disconnect(true);
  return true;
}

void socket_client::cancel_connect() { m_connect_cancelled.store(true, std::memory_order_release); }

bool socket_client::stop_client_event_thread() {
  m_closing.store(true, std::memory_order_release);
  if (t_run_owner != this) end_earlier_runs();  // else it might wait for the caller of its caller
  const std::shared_ptr<event_run> run = current_run();
  if (run == nullptr) return true;
  run->stop.store(true, std::memory_order_release);
  if (run == t_run) return true;
  if (!end_run(*run)) set_current_run(nullptr);
  return true;
}

// Waits for the event thread. False: abandoned inside a callback, it leaves when that returns.
bool socket_client::end_run(event_run& run) {
  wait_thread_ended(run);
  if (run.ended.load(std::memory_order_acquire)) return true;
  end_loan(run);
  run.epoll.close();  // nobody needs them
  run.socket.close();
  return false;
}

// The threads of connections that a callback on that very thread has replaced.
void socket_client::end_earlier_runs() {
  while (const std::shared_ptr<event_run> run = earlier_run()) end_run(*run);
}

// Returns when the thread has ended or, after about 5 s inside a callback, is abandoned.
void socket_client::wait_thread_ended(event_run& run) {
  for (int polls = 0; !run.ended.load(std::memory_order_acquire); ++polls) {
    if (polls >= k_thread_polls) {
      for (event_thread_place place : {k_place_in_callback, k_place_not_started}) {
        if (run.place.compare_exchange_strong(place, k_place_abandoned)) return;
      }
    }
    std::this_thread::sleep_for(k_thread_poll);  // not shortened by the host's signals
  }
}

void socket_client::abort_connecting(bool abort) {
  m_abort_connecting.store(abort, std::memory_order_release);
}

void socket_client::break_connection() {
  const std::shared_ptr<event_run> run = current_run();
  if (run == nullptr) return;
  const shared_descriptor::lease sock(run->socket);
  if (sock.get() >= 0) ::shutdown(sock.get(), SHUT_RDWR);
}

void socket_client::detach_event_thread() {
  const std::shared_ptr<event_run> run = current_run();
  if (run != nullptr && !run->ended.load(std::memory_order_acquire)) {
    // A connection that a callback has closed is closed, though its thread is still on the way out.
    const bool closed = run->stop.load(std::memory_order_acquire);
    if (!closed) run->keep_open.store(true, std::memory_order_release);
    run->stop.store(true, std::memory_order_release);
    if (run != t_run) wait_thread_ended(*run);
  }
  end_earlier_runs();
  if (t_run_owner == this) {  // destroyed by the callback that this thread is in
    t_run->place.store(k_place_abandoned);
    t_run_owner = nullptr;  // the next object may get the same address
  }
  set_current_run(nullptr);
}

void* socket_client::event_thread_entry(void* start) {
  const std::unique_ptr<event_thread_start> owned(static_cast<event_thread_start*>(start));
  vl_name_thread("kav-event");
  event_run& run = *owned->run;
  t_run = owned->run;
  t_run_owner = owned->client;
  event_thread_place place = k_place_not_started;
  if (run.place.compare_exchange_strong(place, k_place_in_object)) {
    try {
      owned->client->on_event_client_thread();
      return nullptr;
    } catch (const abandoned_run&) {
      // The object may be gone; the run is still ours.
    }
  }
  if (!run.keep_open.load(std::memory_order_acquire)) {
    run.epoll.close();
    run.socket.close();
  }
  run.ended.store(true, std::memory_order_release);
  return nullptr;
}

void* socket_client::event_client_thread(void* client) {
  if (client != nullptr) static_cast<socket_client*>(client)->on_event_client_thread();
  return nullptr;
}

void socket_client::on_event_client_thread() {
  std::shared_ptr<event_run> run = run_of_caller();
  if (run == nullptr) {
    run = std::make_shared<event_run>();
    set_current_run(run);
  }
  run->ended.store(false, std::memory_order_release);
  try {
    event_client_connect();
    run->turn.end_event_read();  // now that the connection is announced
    // A close by the callback or right after the opening: nothing is reported any more.
    bool stays = !run->stop.load(std::memory_order_acquire);
    while (stays) stays = event_loop_step(*run);
  } catch (const std::bad_alloc&) {
    run->stop.store(true, std::memory_order_release);
    lose_connection();  // bytes are lost, so the stream is of no more use
  }
  if (!run->keep_open.load(std::memory_order_acquire)) event_client_close();
  run->ended.store(true, std::memory_order_release);  // last touch: the owner may delete us
}

// The user may be the one who has no memory, also for this.
void socket_client::lose_connection() try {
  event_client_disconnect(false);
} catch (const std::bad_alloc&) {
  m_connected.store(false, std::memory_order_release);
}

bool socket_client::event_loop_step(event_run& run) {
  epoll_event event{};
  int ready = 0, error = 0;
  const bool looks_again = run.seen_absence != 0;
  {
    const shared_descriptor::lease epoll(run.epoll);
    ready = ::epoll_wait(epoll.get(), &event, 1, looks_again ? k_absence_wait_ms : k_epoll_wait_ms);
    error = errno;
  }
  if (run.turn.is_lent()) {
    look_after_loan(run, ready > 0 && (event.events & ~std::uint32_t{EPOLLIN}) != 0);
  } else {
    run.seen_absence = 0;
    if (ready > 0 && !proc_event(&event, ready)) {
      run.stop.store(true, std::memory_order_release);
      return false;
    }
  }
  if (ready < 0) {
    proc_thread_error(error);
    if (error != EINTR) vl_sleep(k_error_pause_ms);
  }
  return !run.stop.load(std::memory_order_acquire);
}

// While somebody else reads: an end or an error is for this thread, and will be reported again.
// Bytes that were reported before the loan are not; but this thread goes on with the reading when
// the other one has been kept from it since the last look.
void socket_client::look_after_loan(event_run& run, bool at_end) {
  const std::uint32_t seen = std::exchange(run.seen_absence, 0);
  const std::uint32_t absence = run.turn.absence();
  if (at_end) run.at_end.store(true, std::memory_order_release);
  if (at_end || (seen != 0 && seen == absence)) {
    end_loan(run);
  } else if (seen == 0) {
    run.seen_absence = absence;  // looked at again soon
  }
}

void socket_client::end_loan(event_run& run) {
  if (!run.turn.take_back()) return;
  run.watch(event_run::k_watched_events);
  run.borrower->notify();
  run.turn.end_event_read();
}

bool socket_client::proc_event(epoll_event* events, int count) {
  bool go_on = true;
  for (int i = 0; i < count; ++i) {
    if (events[i].data.fd != m_socket.load(std::memory_order_acquire)) {
      go_on = true;
      continue;
    }
    if ((events[i].events & EPOLLIN) != 0) {
      go_on = event_client_receive();
    } else if ((events[i].events & EPOLLOUT) != 0) {
      go_on = event_client_send();
    } else {
      event_client_error();
      go_on = false;
    }
    if (!go_on) event_client_disconnect(false);
  }
  return go_on;
}

bool socket_client::event_client_connect() {
  m_connected.store(true, std::memory_order_release);
  return report_user(EVENT_CONNECT, 0, nullptr, 0, m_socket.load(std::memory_order_acquire));
}

bool socket_client::event_client_disconnect(bool local) {
  m_connected.store(false, std::memory_order_release);
  report_user(local ? EVENT_LOCALE_DISCONNECT : EVENT_REMOTE_DISCONNECT, 0, nullptr, 0,
              m_socket.load(std::memory_order_acquire));
  return true;
}

bool socket_client::event_client_receive() {
  const std::shared_ptr<event_run> run = run_of_caller();
  if (run != nullptr && !run->turn.begin_event_read()) return true;  // somebody else has begun to
  const turn_guard turn(run.get());
  int error = EBADF;
  const ssize_t received = run == nullptr ? -1 : read_some(*run, error);
  if (received < 0) {
    log_msg(format_str("client readline error(n_recved=%d errno=%d error message=%s )\n",
                       static_cast<int>(received), error, error_text(error).c_str())
                .c_str());
    event_client_error();
    return false;
  }
  if (received == 0) return false;
  report_user(EVENT_RECEIVE, 0, run->receive_buffer, static_cast<unsigned>(received),
              m_socket.load(std::memory_order_acquire));
  return true;
}

bool socket_client::event_client_send() {
  const std::shared_ptr<event_run> run = run_of_caller();
  if (run == nullptr) return false;
  if (!run->watch(event_run::k_watched_events)) return false;
  report_user(EVENT_SEND, 0, nullptr, 0, m_socket.load(std::memory_order_acquire));
  return true;
}

bool socket_client::event_client_error() {
  log_msg("event_client_error, will close this socket\n");
  return true;
}

bool socket_client::event_client_close() {
  const std::shared_ptr<event_run> run = run_of_caller();
  if (run == nullptr) return true;
  end_loan(*run);  // whoever waits for bytes keeps the descriptors open
  run->epoll.close();
  run->socket.close();
  return true;
}

bool socket_client::report_user(SOCKET_EVENT event, int id, const char* data, unsigned size,
                                int sock) {
  const socket_callback callback = m_callback.load(std::memory_order_acquire);
  if (callback == nullptr) return false;
  void* const user = m_user.load(std::memory_order_acquire);
  socket_param param(event, id, &data, size, sock);
  if (m_callback_is_internal) {
    callback(param, user);
  } else {
    call_user(callback, param, user);
  }
  return true;
}

void socket_client::call_user(socket_callback cb, socket_param& param, void* user) {
  const bool on_event_thread = t_run != nullptr && t_run_owner == this &&
                               t_run->place.load(std::memory_order_relaxed) == k_place_in_object;
  if (!on_event_thread) {
    cb(param, user);
    return;
  }
  event_run& run = *t_run;
  run.place.store(k_place_in_callback);
  try {
    cb(param, user);
  } catch (const std::bad_alloc&) {
    run.leave_callback();
    throw;
  }
  run.leave_callback();
}

int socket_client::sock_send(const char* data, int len) {
  const std::shared_ptr<event_run> run = current_run();
  if (run == nullptr || len < 0 || (len > 0 && data == nullptr)) return -1;
  ssize_t sent = -1;
  {
    const shared_descriptor::lease sock(run->socket);
    if (sock.get() < 0) return -1;
    sent = ::send(sock.get(), data, static_cast<std::size_t>(len), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) return errno == EAGAIN || errno == EINTR ? 0 : -1;
  }
  if (sent > 0) {
    report_user(EVENT_SEND, 0, data, static_cast<unsigned>(sent),
                m_socket.load(std::memory_order_acquire));
  }
  return static_cast<int>(sent);
}

void socket_client::wait_sendable(std::chrono::milliseconds limit) {
  const std::shared_ptr<event_run> run = current_run();
  if (run == nullptr) return;
  const shared_descriptor::lease sock(run->socket);
  if (sock.get() < 0) return;
  pollfd wait{sock.get(), POLLOUT, 0};
  ::poll(&wait, 1, static_cast<int>(limit.count()));
}

bool socket_client::get_local_ip(unsigned char* out4) {
  if (out4 == nullptr || m_socket.load(std::memory_order_acquire) == -1) return false;
  sockaddr_in address{};
  if (const std::shared_ptr<event_run> run = current_run(); run != nullptr) {
    const shared_descriptor::lease sock(run->socket);
    socklen_t size = sizeof(address);
    ::getsockname(sock.get(), reinterpret_cast<sockaddr*>(&address), &size);
  }
  std::memcpy(out4, &address.sin_addr, sizeof(address.sin_addr));
  return true;
}

bool socket_client::get_local_mac(unsigned char* out6) {
  unsigned char ip[4] = {};
  if (out6 == nullptr || !get_local_ip(ip)) return false;
  ip_and_mac table[k_ip_and_mac_entries] = {};
  const int count = load_ip_and_mac(table, k_ip_and_mac_entries);
  for (int i = 0; i < count; ++i) {
    if (std::memcmp(table[i].ip, ip, sizeof(ip)) != 0) continue;
    std::memcpy(out6, table[i].mac, sizeof(table[i].mac));
    return true;
  }
  return false;
}

void socket_client::proc_thread_error(int error) {
  switch (error) {
    case EINTR:
      if (m_errors.interrupted++ == 0) {
        log_msg(
            "epoll_waite error! the call was interrupted by a signal handler before any of the "
            "requested events occurred or timeout expired. error times(0)\n");
      }
      break;
    case EBADF:
      if (m_errors.bad_descriptor++ == 0) {
        const std::shared_ptr<event_run> run = run_of_caller();
        const int epoll = run == nullptr ? -1 : run->epoll.number();
        log_msg(format_str("epoll_waite error! epoll_handle:%d  is not a valid file descriptor. "
                           "error times(0)\n",
                           epoll)
                    .c_str());
      }
      break;
    case EFAULT:
      if (m_errors.bad_address++ == 0) {
        log_msg("epoll_waite error! epoll_event is not accessible with write. error times(0)");
      }
      break;
    case EINVAL:
      if (m_errors.invalid_argument++ == 0) {
        log_msg(
            "epoll_waite error! m_epoll_handle is not an epoll file descriptor, or maxevents is "
            "less than or equal to zero. error times(0)\n");
      }
      break;
    default:
      if (m_errors.other++ == 0) {
        log_msg("epoll_waite error! undefine wait error. error times(0)\n");
      }
      break;
  }
}

void socket_client::sock_set_context(socket_context* context) {
  m_context.store(context, std::memory_order_release);
}

void socket_client::log_msg(const char* text) {
  write_log_text(m_context.load(std::memory_order_acquire), text);
}

std::shared_ptr<event_run> socket_client::current_run() {
  const mutex_locker guard(m_run_lock);
  return m_run;
}

// The connection whose event thread the caller is, else the present one.
std::shared_ptr<event_run> socket_client::run_of_caller() {
  return t_run != nullptr && t_run_owner == this ? t_run : current_run();
}

void socket_client::set_current_run(std::shared_ptr<event_run> run) {
  const mutex_locker guard(m_run_lock);
  std::erase_if(m_earlier_runs, [](const std::shared_ptr<event_run>& earlier) {
    return earlier->ended.load(std::memory_order_acquire);
  });
  // Nobody waits for it any more when there is no next one.
  if (run != nullptr && m_run != nullptr && m_run == t_run) m_earlier_runs.push_back(m_run);
  m_run = std::move(run);
}

// One whose event thread is another than the caller, and still to be waited for; null: there is
// none.
std::shared_ptr<event_run> socket_client::earlier_run() {
  const mutex_locker guard(m_run_lock);
  for (const std::shared_ptr<event_run>& run : m_earlier_runs) {
    const bool waits = !run->ended.load(std::memory_order_acquire) &&
                       run->place.load(std::memory_order_acquire) != k_place_abandoned;
    if (waits && run != t_run) return run;
  }
  return nullptr;
}

}  // namespace SOCK
}  // namespace VORLAN
