#include "bench/side_by_side/idle_measurement.h"

#include <fmt/format.h>

#include <chrono>    // std::chrono::milliseconds
#include <deque>     // std::deque
#include <optional>  // std::optional
#include <thread>    // std::this_thread::sleep_for

#include "apps/sim/quote_server.h"
#include "bench/side_by_side/receiver_process.h"
#include "bench/side_by_side/stamped_quote.h"

namespace kav_bench {

namespace {

using std::chrono::milliseconds;

constexpr std::chrono::seconds k_session_limit{30};
constexpr milliseconds k_settle{600};           // longer than a client's longest pause
constexpr std::chrono::seconds k_heartbeat{5};  // the simulator's own choice

bool wait_for_registrations(const kav_sim::quote_server& server, std::size_t count) {
  const auto until = std::chrono::steady_clock::now() + k_session_limit;
  while (server.counters().register_requests < count) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(milliseconds{1});
  }
  std::this_thread::sleep_for(k_settle);
  return true;
}

kav_sim::server_options options_of_server() {
  kav_sim::server_options options;
  options.symbols = {{symbol_name(0), k_symbol_type}};
  options.heartbeat = k_heartbeat;
  return options;
}

receiver_job job_of(const idle_request& request, unsigned short port) {
  receiver_job job;
  job.receiver = request.receiver;
  job.task = k_task_idle;
  job.port = port;
  job.clients = request.clients;
  return job;
}

figure_set figures_of(pid_t process, const process_usage& begin, const process_usage& end) {
  const double seconds = static_cast<double>(end.at_ns - begin.at_ns) * 1e-9;
  const auto per_second = [&](std::uint64_t from, std::uint64_t to) {
    return (static_cast<double>(to) - static_cast<double>(from)) / seconds;
  };
  return {{"seconds", seconds},
          {"cpu_s_per_s", (end.cpu_seconds - begin.cpu_seconds) / seconds},
          {"voluntary_per_s", per_second(begin.voluntary, end.voluntary)},
          {"involuntary_per_s", per_second(begin.involuntary, end.involuntary)},
          {"resident_kib", static_cast<double>(end.resident_kib)},
          {"threads", static_cast<double>(status_field(process, "Threads"))}};
}

idle_figures failed(const std::string& why) { return {why, {}}; }

}  // namespace

idle_figures measure_idle(const std::vector<idle_request>& requests, double seconds) {
  kav_sim::quote_server server{options_of_server()};
  if (!server.start()) return failed(server.start_error());
  std::deque<receiver_process> processes;
  std::size_t clients = 0;
  for (const idle_request& request : requests) {
    clients += request.clients;
    if (!processes.emplace_back().start(job_of(request, server.port()))) {
      return failed(request.receiver + ": the process could not be started");
    }
  }
  if (!wait_for_registrations(server, clients)) return failed("a receiver did not register");
  std::vector<std::optional<process_usage>> begin;
  begin.reserve(processes.size());
  for (const receiver_process& process : processes) begin.push_back(usage_of(process.pid()));
  std::this_thread::sleep_for(std::chrono::duration<double>{seconds});
  idle_figures result;
  for (std::size_t i = 0; i < processes.size(); ++i) {
    const std::optional<process_usage> end = usage_of(processes[i].pid());
    if (!begin[i] || !end) return failed(requests[i].receiver + ": the process has ended");
    result.figures.push_back(figures_of(processes[i].pid(), *begin[i], *end));
  }
  return result;
}

}  // namespace kav_bench
