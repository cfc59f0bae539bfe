#include "tests/soak/server_process.h"

#include <fcntl.h>  // O_CLOEXEC
#include <fmt/format.h>
#include <sys/prctl.h>  // prctl
#include <sys/wait.h>   // waitpid
#include <unistd.h>     // fork, pipe2

#include <algorithm>  // std::generate
#include <cerrno>     // errno
#include <chrono>     // std::chrono::milliseconds
#include <csignal>    // kill
#include <cstring>    // memcpy, strerror
#include <random>     // std::mt19937_64
#include <thread>     // sleep_until

#include "apps/sim/quote_server.h"

namespace kav_soak {

namespace {

using std::chrono::milliseconds;
using clock = std::chrono::steady_clock;

constexpr milliseconds k_batch_pause{2};
constexpr unsigned k_batches_per_look = 5;                           // at the connections
constexpr milliseconds k_shortest_flow{1000}, k_longest_flow{4000};  // of quotes, before a loss
constexpr milliseconds k_garbage_lead{100};                          // before the loss behind it
constexpr std::size_t k_most_garbage_bytes = 300;

// One connection after the other is lost, each in another way.
class losses {
 public:
  losses(kav_sim::quote_server& server, std::uint64_t seed) : m_server(server), m_random(seed) {}

  void look() {
    const clock::time_point now = clock::now();
    const std::size_t accepted = m_server.connections().ever;
    if (accepted == 0 || accepted == m_lost) return;
    const std::size_t number = accepted - 1;
    if (!m_due) {
      if (m_server.connection(number).quotes_sent == 0) return;
      m_due = now + between(k_shortest_flow, k_longest_flow);
      m_kind = static_cast<loss>(accepted % 3);
      m_garbage_sent = false;
    }
    if (m_kind == loss::garbage && !m_garbage_sent && now >= *m_due - k_garbage_lead) {
      m_server.send_raw(number, garbage());
      m_garbage_sent = true;
    }
    if (now < *m_due) return;
    m_kind == loss::reset ? m_server.reset(number) : m_server.drop(number);
    m_lost = accepted;
    m_due.reset();
  }

 private:
  enum class loss { close, reset, garbage };

  milliseconds between(milliseconds low, milliseconds high) {
    return milliseconds{std::uniform_int_distribution<long>{low.count(), high.count()}(m_random)};
  }
  std::string garbage() {
    std::string bytes(std::uniform_int_distribution<std::size_t>{1, k_most_garbage_bytes}(m_random),
                      '\0');
    std::uniform_int_distribution<int> any{0, 255};
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(any(m_random)); });
    return bytes;
  }

  kav_sim::quote_server& m_server;
  std::mt19937_64 m_random;
  std::size_t m_lost = 0;  // connections dealt with so far
  std::optional<clock::time_point> m_due;
  loss m_kind = loss::close;
  bool m_garbage_sent = false;
};

// Quotes in small batches, most for symbols that are always registered.
class quotes {
 public:
  quotes(kav_sim::quote_server& server, const server_plan& plan)
      : m_server(server), m_per_second(plan.quotes_per_second), m_random(plan.seed + 1) {}

  void send_due() {
    const auto passed = std::chrono::duration<double>(clock::now() - m_begin).count();
    const auto due = static_cast<std::uint64_t>(passed * m_per_second);
    for (; m_sent < due; ++m_sent) send_one();
  }

 private:
  void send_one() {
    const int kind = std::uniform_int_distribution<int>{0, 9}(m_random);
    const int highest = kind == 0 ? k_symbols - 1 : k_steady_symbols - 1;
    const int number = std::uniform_int_distribution<int>{0, highest}(m_random);
    KAVMarketDepthQuoteData quote{};
    const std::string name = symbol_name(number);
    std::memcpy(quote.InstrumentID, name.data(), name.size());
    std::memcpy(quote.ExchangeID, k_exchange, sizeof k_exchange);
    quote.LastPrice = static_cast<double>(++m_counts[static_cast<std::size_t>(number)]);
    m_server.push_quote(quote, '1');
  }

  kav_sim::quote_server& m_server;
  const double m_per_second;
  std::mt19937_64 m_random;
  const clock::time_point m_begin = clock::now();
  std::uint64_t m_sent = 0;
  std::uint64_t m_counts[k_symbols] = {};
};

// The child's whole life; the parent kills it.
[[noreturn]] void serve(const server_plan& plan, int port_pipe) {
  kav_sim::server_options options;
  options.record_received = false;
  for (int i = 0; i < k_symbols; ++i) options.symbols.push_back({symbol_name(i), '1'});
  kav_sim::quote_server server{options};
  const unsigned short port = server.start() ? server.port() : 0;
  if (port == 0) fmt::print(stderr, "kav-soak: {}\n", server.start_error());
  if (::write(port_pipe, &port, sizeof port) != sizeof port || port == 0) ::_exit(1);
  ::close(port_pipe);
  losses loss{server, plan.seed};
  quotes quote{server, plan};
  clock::time_point at = clock::now();
  for (unsigned batch = 0;; ++batch, at += k_batch_pause) {
    std::this_thread::sleep_until(at);
    quote.send_due();
    if (batch % k_batches_per_look == 0) loss.look();
  }
}

}  // namespace

std::string symbol_name(int number) { return fmt::format("S{:03}", number); }

int symbol_number(const char* name) {
  int number = -1, length = 0;
  const bool whole = std::sscanf(name, "S%3d%n", &number, &length) == 1 && length == 4;
  return whole && name[4] == '\0' && number >= 0 && number < k_symbols ? number : -1;
}

server_process::~server_process() {
  if (m_child <= 0) return;
  ::kill(m_child, SIGKILL);
  ::waitpid(m_child, nullptr, 0);
}

bool server_process::start(const server_plan& plan) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return fail("pipe");
  const pid_t parent = ::getpid();
  m_child = ::fork();
  if (m_child == 0) {
    ::close(ends[0]);
    std::signal(SIGINT, SIG_IGN);  // Ctrl-C is for the parent
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(1);  // it has gone already
    serve(plan, ends[1]);
  }
  ::close(ends[1]);
  const bool told = m_child > 0 && ::read(ends[0], &m_port, sizeof m_port) == sizeof m_port;
  ::close(ends[0]);
  if (m_child < 0) return fail("fork");
  if (told && m_port != 0) return true;
  m_error = "the server did not start";
  return false;
}

bool server_process::is_alive() { return m_child > 0 && ::waitpid(m_child, nullptr, WNOHANG) == 0; }

bool server_process::fail(const char* what) {
  m_error = fmt::format("{}: {}", what, std::strerror(errno));
  return false;
}

}  // namespace kav_soak
