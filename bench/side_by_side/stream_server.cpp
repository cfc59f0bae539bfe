#include "bench/side_by_side/stream_server.h"

#include <netinet/in.h>   // sockaddr_in
#include <netinet/tcp.h>  // TCP_NODELAY
#include <poll.h>         // poll
#include <pthread.h>      // pthread_setname_np
#include <sys/eventfd.h>  // eventfd
#include <sys/socket.h>   // accept4
#include <unistd.h>       // close

#include <cstdint>  // std::uint64_t

#include "apps/sim/wire.h"
#include "bench/side_by_side/stamped_quote.h"

namespace kav_bench {

namespace {

constexpr int k_backlog = 256;
constexpr std::chrono::milliseconds k_look{1};  // between two looks at the registrations
constexpr std::size_t k_read_bytes = 65536;

bool send_whole(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t sent = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    done += static_cast<std::size_t>(sent);
  }
  return true;
}

}  // namespace

stream_server::stream_server(std::size_t symbols) : m_symbols(symbols) {
  for (std::size_t i = 0; i < m_symbols; ++i) {
    m_list_answer +=
        kav_sim::list_entry_message(k_symbol_type, symbol_name(i), kav_sim::text_fill::zero);
  }
  m_list_answer += kav_sim::list_end_message();
}

stream_server::~stream_server() { stop(); }

bool stream_server::start() {
  m_wake = ::eventfd(0, EFD_CLOEXEC);
  m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  if (m_wake < 0 || m_listener < 0 || ::bind(m_listener, any, length) != 0 ||
      ::listen(m_listener, k_backlog) != 0 || ::getsockname(m_listener, any, &length) != 0) {
    return false;
  }
  m_port = ntohs(address.sin_port);
  m_thread = std::thread{[this] { run(); }};
  return true;
}

void stream_server::stop() {
  if (m_thread.joinable()) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_wake, &one, sizeof one);
    m_thread.join();
  }
  for (const int fd : m_order) ::close(fd);
  m_order.clear();
  m_connections.clear();
  if (m_listener >= 0) ::close(m_listener);
  if (m_wake >= 0) ::close(m_wake);
  m_listener = m_wake = -1;
}

std::vector<int> stream_server::wait_for_clients(std::size_t clients, std::size_t symbols,
                                                 std::chrono::milliseconds limit) {
  const auto until = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < until) {
    {
      const std::lock_guard<std::mutex> hold{m_lock};
      std::size_t ready = 0;
      for (const auto& [fd, c] : m_connections) ready += c.registered >= symbols ? 1 : 0;
      if (ready >= clients) return m_order;
    }
    std::this_thread::sleep_for(k_look);
  }
  return {};
}

void stream_server::run() {
  ::pthread_setname_np(::pthread_self(), "session");
  std::vector<pollfd> watched{{m_wake, POLLIN, 0}, {m_listener, POLLIN, 0}};
  for (;;) {
    if (::poll(watched.data(), watched.size(), -1) < 0) continue;
    if (watched[0].revents != 0) return;
    for (std::size_t i = 2; i < watched.size(); ++i) {
      if (watched[i].revents != 0 && !serve(watched[i].fd)) watched[i].fd = -1;
    }
    if (watched[1].revents == 0) continue;
    accept_one();
    const std::lock_guard<std::mutex> hold{m_lock};
    if (m_order.size() + 2 > watched.size()) watched.push_back({m_order.back(), POLLIN, 0});
  }
}

void stream_server::accept_one() {
  const int fd = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return;
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const std::lock_guard<std::mutex> hold{m_lock};
  m_order.push_back(fd);
  m_connections[fd];
}

bool stream_server::serve(int fd) {
  char bytes[k_read_bytes];
  const ssize_t got = ::recv(fd, bytes, sizeof bytes, MSG_DONTWAIT);
  if (got <= 0) return false;
  std::string answers;
  std::unique_lock<std::mutex> hold{m_lock};
  connection c = m_connections[fd];
  hold.unlock();
  c.input.append(bytes, static_cast<std::size_t>(got));
  while (!c.input.empty()) {
    const std::size_t length = kav_sim::client_message_bytes(c.input[0]);
    if (length == 0) return false;
    if (c.input.size() < length) break;
    answers += answer_to(c, c.input.substr(0, length));
    c.input.erase(0, length);
  }
  if (!send_whole(fd, answers)) return false;
  hold.lock();
  m_connections[fd] = c;  // only now may the sender have the socket
  return true;
}

std::string stream_server::answer_to(connection& c, const std::string& message) const {
  if (message[0] == 'L') {
    return kav_sim::login_answer_message('Y', "", kav_sim::text_fill::zero);
  }
  if (message[0] == 'S') return m_list_answer;
  if (message[0] != 'N') return "";
  ++c.registered;
  return kav_sim::symbol_answer_message('I', '0', kav_sim::request_type(message),
                                        kav_sim::request_symbol(message), kav_sim::text_fill::zero);
}

}  // namespace kav_bench
