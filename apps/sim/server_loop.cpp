// Sockets, time and endings of the quote server.
#include <arpa/inet.h>  // inet_pton
#include <fmt/format.h>
#include <netinet/in.h>   // sockaddr_in
#include <netinet/tcp.h>  // TCP_NODELAY
#include <pthread.h>      // pthread_setname_np
#include <sys/epoll.h>    // epoll_wait
#include <sys/eventfd.h>  // eventfd
#include <sys/socket.h>   // accept4
#include <unistd.h>       // close, read, write

#include <cerrno>   // errno
#include <cstring>  // strerror
#include <ctime>    // time

#include "apps/sim/quote_server_impl.h"

namespace kav_sim {

namespace {

using std::chrono::milliseconds;

constexpr std::uint64_t k_listener_id = ~std::uint64_t{0};
constexpr std::uint64_t k_wake_id = k_listener_id - 1;
constexpr int k_backlog = 128;
constexpr int k_events_per_wait = 64;
constexpr std::chrono::seconds k_linger{2};    // longest wait for the peer's own end
constexpr milliseconds k_accept_pause{100};    // after accept() has failed
constexpr milliseconds k_come_back_pause{10};  // until listening is tried again
constexpr std::chrono::hours k_far{24};        // no deed in sight

steady_time now_time() { return std::chrono::steady_clock::now(); }

void add_to_epoll(int epoll_fd, int fd, std::uint64_t id, unsigned events, int operation) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  ::epoll_ctl(epoll_fd, operation, fd, &event);
}

int new_socket() { return ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }

void close_fd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

}  // namespace

void quote_server::impl::wake() const {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(wake_fd, &one, sizeof one);
}

bool quote_server::impl::bind_and_maybe_listen(int fd, bool listen_too, std::string& error) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  const int on = 1;
  if (::inet_pton(AF_INET, options.bind_address.c_str(), &address.sin_addr) != 1) {
    error = "not a dotted IPv4 address";
    return false;
  }
  if (fd >= 0 && ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
      ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      (!listen_too || ::listen(fd, k_backlog) == 0)) {
    return true;
  }
  error = std::strerror(errno);
  return false;
}

// Two sockets are bound to the port and one of them listens: whoever closes the listener for an
// outage finds the port still free for it, and refused to everyone, afterwards.
bool quote_server::impl::open_sockets() {
  epoll_fd = ::epoll_create1(EPOLL_CLOEXEC);
  wake_fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  reservation_fd = new_socket();
  port = options.port;
  std::string error;
  bool good = epoll_fd >= 0 && wake_fd >= 0 && bind_and_maybe_listen(reservation_fd, false, error);
  if (good) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(reservation_fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    listen_fd = new_socket();
    good = bind_and_maybe_listen(listen_fd, true, error);
  }
  if (good) {
    add_to_epoll(epoll_fd, listen_fd, k_listener_id, EPOLLIN, EPOLL_CTL_ADD);
    add_to_epoll(epoll_fd, wake_fd, k_wake_id, EPOLLIN, EPOLL_CTL_ADD);
    return true;
  }
  start_error = fmt::format("cannot listen on {}:{}: {}", options.bind_address,
                            port != 0 ? port : options.port, error);
  close_sockets();
  return false;
}

void quote_server::impl::close_sockets() {
  for (auto& [number, c] : connections) c.close_socket();
  close_fd(listen_fd);
  close_fd(reservation_fd);
  close_fd(epoll_fd);
  close_fd(wake_fd);
}

bool quote_server::impl::listen_again() {
  if (listen_fd >= 0) return true;
  std::string error;
  int fd = new_socket();
  if (!bind_and_maybe_listen(fd, true, error)) {
    close_fd(fd);
    return false;
  }
  listen_fd = fd;
  come_back_at.reset();
  add_to_epoll(epoll_fd, listen_fd, k_listener_id, EPOLLIN, EPOLL_CTL_ADD);
  if (options.log) log_lines.push_back("listening again");
  return true;
}

void quote_server::impl::go_down() {
  close_fd(listen_fd);
  for (auto& [number, c] : connections) end_with_fin(c, "server down");
}

void quote_server::impl::run() {
  ::pthread_setname_np(::pthread_self(), "sim-server");
  std::vector<std::string> lines;
  std::unique_lock guard{lock};
  while (!stop) {
    const int wait_ms = on_time();
    lines.swap(log_lines);
    guard.unlock();
    for (const std::string& line : lines) options.log(line);
    lines.clear();
    epoll_event events[k_events_per_wait];
    const int count = ::epoll_wait(epoll_fd, events, k_events_per_wait, wait_ms);
    guard.lock();
    for (int i = 0; i < count; ++i) handle_event(events[i].data.u64, events[i].events);
  }
}

void quote_server::impl::handle_event(std::uint64_t id, unsigned events) {
  if (id == k_wake_id) {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(wake_fd, &count, sizeof count);
    return;
  }
  if (id == k_listener_id) return accept_all();
  const auto found = connections.find(id);
  if (found == connections.end() || found->second.fd < 0) return;  // ended meanwhile
  server_connection& c = found->second;
  if (c.watched == 0) return;  // stalled meanwhile
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) on_readable(c);
  flush(c);
}

void quote_server::impl::accept_all() {
  while (listen_fd >= 0) {
    const int fd = ::accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      take_connection(fd);
      continue;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) return;
    if (errno == EINTR || errno == ECONNABORTED) continue;
    if (options.log) log_lines.push_back(fmt::format("cannot accept: {}", std::strerror(errno)));
    ::epoll_ctl(epoll_fd, EPOLL_CTL_DEL, listen_fd, nullptr);
    accept_paused = true;
    accept_again_at = now_time() + k_accept_pause;
    return;
  }
}

void quote_server::impl::take_connection(int fd) {
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (options.send_buffer_bytes > 0) {
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &options.send_buffer_bytes, sizeof(int));
  }
  server_connection& c = connections[accepted];
  c.number = accepted++;
  c.fd = fd;
  c.accepted_at = now_time();
  c.never_read = how.on_accept == accept_answer::never_read;
  c.stalled = stall_all;
  tell(c, "connected");
  if (how.on_accept == accept_answer::close) return end_with_fin(c, "closed at accept");
  if (how.on_accept == accept_answer::reset) return end_with_reset(c, "reset at accept");
  check_loss(c, c.accepted_at);
  flush(c);
}

void quote_server::impl::on_readable(server_connection& c) {
  if (c.lingering) {
    if (c.discard_some() == read_result::ended) c.close_socket();
    return;
  }
  const read_result result = c.read_some();
  cut_input(c);  // also when the end follows: what came before it counts
  if (result == read_result::ended && c.open()) gone(c, "connection ended by the client");
}

// Writes what can be written now, carries out an ending that waited for it, and sees to it that
// epoll watches for the right things.
void quote_server::impl::flush(server_connection& c) {
  if (!c.open()) return;
  const std::size_t before = c.queued_bytes;
  if (c.writable_now(now_time()) && !c.write_some(how.chunk_sizes, how.chunk_pause, sums)) {
    return gone(c, "connection broken by the client");
  }
  if (c.queued_bytes != before) room.notify_all();
  if (c.queue.empty() && c.ending != loss_kind::none) return carry_out_ending(c);
  if (now_time() < c.pause_until) wake();  // the loop takes the pause's end into its wait
  watch(c);
}

void quote_server::impl::watch(server_connection& c) {
  if (c.fd < 0) return;
  unsigned events = 0;
  if (c.lingering) {
    events = EPOLLIN;
  } else if (!c.stalled && !c.never_read) {
    const bool paused = now_time() < c.pause_until;
    if (c.queued_bytes <= options.queue_limit_bytes) events |= EPOLLIN;
    if (!c.queue.empty() && !paused) events |= EPOLLOUT;
    if (events == 0) events = EPOLLERR;  // full queue and a pause: only a breakage counts
  }
  if (events == c.watched) return;
  const int operation = c.watched == 0 ? EPOLL_CTL_ADD
                        : events == 0  ? EPOLL_CTL_DEL
                                       : EPOLL_CTL_MOD;
  add_to_epoll(epoll_fd, c.fd, c.number, events, operation);
  c.watched = events;
}

int quote_server::impl::on_time() {
  const steady_time now = now_time();
  steady_time next = now + k_far;
  if (accept_paused) {
    if (now >= accept_again_at) {
      accept_paused = false;
      if (listen_fd >= 0) {
        add_to_epoll(epoll_fd, listen_fd, k_listener_id, EPOLLIN, EPOLL_CTL_ADD);
      }
    } else {
      next = std::min(next, accept_again_at);
    }
  }
  if (come_back_at && now >= *come_back_at && !listen_again()) {
    come_back_at = now + k_come_back_pause;
  }
  if (come_back_at) next = std::min(next, *come_back_at);
  for (auto& [number, c] : connections) {
    if (c.fd >= 0) connection_on_time(c, now, next);
  }
  forget_if_unrecorded();
  const auto wait = std::chrono::ceil<milliseconds>(next - now_time());
  return log_lines.empty() ? std::max(0, static_cast<int>(wait.count())) : 0;
}

void quote_server::impl::connection_on_time(server_connection& c, steady_time now,
                                            steady_time& next) {
  if (c.lingering) {
    if (now >= c.linger_until) return c.close_socket();
    next = std::min(next, c.linger_until);
    return;
  }
  send_delayed(c, now, next);
  send_heartbeat(c, now, next);
  check_loss(c, now);
  if (how.loss != loss_kind::none && how.loss_after_time && !c.loss_done) {
    next = std::min(next, c.accepted_at + *how.loss_after_time);
  }
  flush(c);
  if (c.open() && !c.queue.empty() && c.pause_until > now) next = std::min(next, c.pause_until);
}

void quote_server::impl::send_delayed(server_connection& c, steady_time now, steady_time& next) {
  for (std::size_t i = 0; i < c.delays.size();) {
    if (c.delays[i].due > now) {
      next = std::min(next, c.delays[i++].due);
      continue;
    }
    queue(c, std::move(c.delays[i].bytes));
    c.delays.erase(c.delays.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

// Only on an idle line: between quotes it would be split across two reads sooner or later, which
// makes the client throw quotes away.
void quote_server::impl::send_heartbeat(server_connection& c, steady_time now, steady_time& next) {
  if (!c.logged_in || options.heartbeat.count() <= 0) return;
  if (!c.open() || c.stalled || !c.queue.empty()) return;  // not idle, or not to be written to
  if (now >= c.last_write + options.heartbeat) {
    c.last_write = now;
    queue(c, heartbeat_message(static_cast<std::int64_t>(std::time(nullptr))));
    ++sums.heartbeats_sent;
  }
  next = std::min(next, c.last_write + options.heartbeat);
}

// Marks the loss that is due. One after messages comes when these are written; one after a time
// comes at once, whatever still waits.
void quote_server::impl::check_loss(server_connection& c, steady_time now) {
  if (how.loss == loss_kind::none || c.loss_done || c.ending != loss_kind::none) return;
  if (!c.open() || sums.losses_caused >= how.loss_limit) return;
  const bool by_count = how.loss != loss_kind::truncate && how.loss_after_messages &&
                        c.queued_messages >= *how.loss_after_messages;
  const bool by_time = how.loss_after_time && now >= c.accepted_at + *how.loss_after_time;
  if (!by_count && !by_time) return;
  c.loss_done = true;
  c.ending = how.loss;
  ++sums.losses_caused;
  if (by_time) carry_out_ending(c);
}

void quote_server::impl::carry_out_ending(server_connection& c) {
  const loss_kind kind = c.ending;
  c.ending = loss_kind::none;
  if (kind == loss_kind::reset) return end_with_reset(c, "reset as ordered");
  if (kind == loss_kind::stall) {
    c.stalled = true;
    tell(c, "stalled as ordered");
    return watch(c);
  }
  end_with_fin(c, "closed as ordered");
}

void quote_server::impl::forget_queue(server_connection& c) {
  std::uint64_t lost = 0;
  for (const server_connection::outgoing& message : c.queue) lost += message.quote ? 1 : 0;
  c.quotes_dropped += lost;
  sums.quotes_dropped += lost;
  if (lost != 0) tell(c, fmt::format("{} queued quotes never sent", lost));
  c.queue.clear();
  c.delays.clear();
  c.queued_bytes = c.front_offset = 0;
  c.input.clear();
  room.notify_all();
}

// A close() with unread bytes would turn into a reset: the socket stays, reading and discarding,
// until the client has closed its side.
void quote_server::impl::end_with_fin(server_connection& c, const char* why) {
  if (!c.open()) return;
  if (!c.stalled && !c.never_read) c.write_some({}, milliseconds{0}, sums);
  tell(c, why);
  forget_queue(c);
  ::shutdown(c.fd, SHUT_WR);
  c.lingering = true;
  c.linger_until = now_time() + k_linger;
  watch(c);
  wake();
}

void quote_server::impl::end_with_reset(server_connection& c, const char* why) {
  if (!c.open()) return;
  tell(c, why);
  forget_queue(c);
  c.reset_socket();
}

void quote_server::impl::gone(server_connection& c, const char* why) {
  if (!c.input.empty()) tell(c, fmt::format("{} bytes of an unfinished message", c.input.size()));
  tell(c, why);
  forget_queue(c);
  c.close_socket();
}

// A server that runs for months does not keep a record of each client that ever came.
void quote_server::impl::forget_if_unrecorded() {
  if (options.record_received) return;
  std::erase_if(connections, [](const auto& entry) { return entry.second.fd < 0; });
}

}  // namespace kav_sim
