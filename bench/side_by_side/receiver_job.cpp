#include "bench/side_by_side/receiver_job.h"

#include <fmt/format.h>
#include <netinet/in.h>   // sockaddr_in
#include <netinet/tcp.h>  // TCP_NODELAY
#include <sys/prctl.h>    // prctl
#include <sys/socket.h>   // connect
#include <unistd.h>       // write, pause

#include <cerrno>   // errno
#include <csignal>  // SIGKILL
#include <cstring>  // strerror
#include <memory>   // std::unique_ptr
#include <vector>   // std::vector

#include "apps/sim/quote_server.h"
#include "bench/side_by_side/library_client.h"
#include "bench/side_by_side/processors.h"
#include "bench/side_by_side/receivers.h"
#include "client/kqs_messages.h"

namespace kav_bench {

namespace {

constexpr std::int64_t k_stream_limit_ns = 120'000'000'000;
constexpr const char* k_no_password = "00000000000000000000000000000000";  // its digest

using client_list = std::vector<std::unique_ptr<library_client>>;

int complain(const receiver_job& job, const std::string& what) {
  fmt::print(stderr, "kav-side-by-side: receiver {}: {}\n", job.receiver, what);
  return 1;
}

bool write_whole(int fd, const void* data, std::size_t left) {
  const char* bytes = static_cast<const char*>(data);
  while (left > 0) {
    const ssize_t written = ::write(fd, bytes, left);
    if (written <= 0) return false;
    bytes += written;
    left -= static_cast<std::size_t>(written);
  }
  return true;
}

void append(std::vector<std::int64_t>& all, const std::vector<std::int64_t>& more) {
  all.insert(all.end(), more.begin(), more.end());
}

int write_result(const receiver_job& job, const measured& figures,
                 const std::vector<std::int64_t>& latencies,
                 const std::vector<std::int64_t>& last_latencies) {
  const receiver_result result{figures, latencies.size(), last_latencies.size()};
  const bool written =
      write_whole(job.result_fd, &result, sizeof result) &&
      write_whole(job.result_fd, latencies.data(), latencies.size() * sizeof latencies[0]) &&
      write_whole(job.result_fd, last_latencies.data(),
                  last_latencies.size() * sizeof last_latencies[0]);
  return written ? 0 : complain(job, "cannot hand over the figures");
}

void add_event(const measuring_event& event, measured& figures) {
  figures.counted += event.counted();
  figures.received += event.received();
  figures.out_of_order += event.out_of_order();
}

void add_process(const measurement& whole, measured& figures) {
  figures.begin = whole.begin();
  figures.end = whole.end();
  figures.peak_kib = status_field(::getpid(), "VmHWM");
  figures.threads = status_field(::getpid(), "Threads");
}

// A connected socket on which login and registration have gone out; -1 with errno on a failure.
int open_session(unsigned short port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int on = 1;
  const kqs_login_req login = make_login_req("bench", k_no_password);
  const kqs_symbol_req registration =
      make_symbol_req(k_kqs_reg_symbol_req, k_symbol_type, symbol_name(0).c_str());
  const bool done = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0 &&
                    write_whole(fd, &login, sizeof login) &&
                    write_whole(fd, &registration, sizeof registration);
  if (done) return fd;
  ::close(fd);
  return -1;
}

// Both the stream and the idle task of the receivers other than the library's client.
int run_peer(const receiver_job& job, receive_function receive) {
  measurement whole{1};
  measuring_event event{whole, job.samples};
  const int fd = open_session(job.port);
  if (fd < 0) return complain(job, fmt::format("cannot connect: {}", std::strerror(errno)));
  if (!receive(fd, event) || !whole.wait_for_end(0)) {
    return complain(job, "the stream broke before its end");
  }
  measured figures;
  add_event(event, figures);
  add_process(whole, figures);
  return write_result(job, figures, event.latencies(), event.last_latencies());
}

bool log_in_all(const receiver_job& job, client_list& clients, measured& figures) {
  const std::int64_t begin = monotonic_ns();
  for (const auto& client : clients) {
    if (!client->connect(job.port)) return false;
  }
  for (const auto& client : clients) {
    if (!client->wait_for_login()) return false;
  }
  figures.login_ns = monotonic_ns() - begin;
  return true;
}

bool register_all(const receiver_job& job, client_list& clients, measured& figures) {
  const std::int64_t begin = monotonic_ns();
  for (const auto& client : clients) client->register_symbols(job.symbols);
  for (const auto& client : clients) {
    if (!client->wait_for_registrations(job.symbols)) return false;
  }
  figures.register_ns = monotonic_ns() - begin;
  return true;
}

int run_library_client(const receiver_job& job) {
  measurement whole{job.clients};
  measured figures;
  client_list clients;
  for (std::size_t i = 0; i < job.clients; ++i) {
    clients.push_back(std::make_unique<library_client>(whole, job.samples));
  }
  if (!log_in_all(job, clients, figures)) return complain(job, "no login");
  if (!register_all(job, clients, figures)) return complain(job, "no registration");
  if (job.task == k_task_idle) {
    for (;;) ::pause();  // until it is killed
  }
  if (!whole.wait_for_end(k_stream_limit_ns)) return complain(job, "the stream had no end");
  add_process(whole, figures);
  std::vector<std::int64_t> latencies, last_latencies;
  for (const auto& client : clients) {
    add_event(client->event(), figures);
    append(latencies, client->event().latencies());
    append(last_latencies, client->event().last_latencies());
  }
  return write_result(job, figures, latencies, last_latencies);
}

// ConnServer() to OnLoginResult(true), so many times, against a server in this process.
int run_starts(const receiver_job& job) {
  kav_sim::server_options options;
  for (std::size_t i = 0; i < job.symbols; ++i) options.symbols.push_back({symbol_name(i)});
  kav_sim::quote_server server{options};
  if (!server.start()) return complain(job, server.start_error());
  std::vector<std::int64_t> durations;
  while (durations.size() < job.samples) {
    measurement whole{1};
    library_client client{whole, 0};
    const std::int64_t begin = monotonic_ns();
    if (!client.connect(server.port()) || !client.wait_for_login()) {
      return complain(job, "no login");
    }
    durations.push_back(monotonic_ns() - begin);
  }
  return write_result(job, {}, durations, {});
}

}  // namespace

int run_receiver(const receiver_job& job) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // no receiver outlives the program
  stay_off(job.not_on);
  const receiver* const which = find_receiver(job.receiver);
  if (which == nullptr || !which->built) return complain(job, "not built in");
  if (job.task == k_task_start) return run_starts(job);
  return which->function == nullptr ? run_library_client(job) : run_peer(job, which->function);
}

}  // namespace kav_bench
