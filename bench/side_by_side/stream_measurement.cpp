#include "bench/side_by_side/stream_measurement.h"

#include <fmt/format.h>

#include <algorithm>  // std::sort
#include <thread>     // std::thread

#include "apps/sim/wire.h"
#include "bench/side_by_side/receiver_process.h"
#include "bench/side_by_side/receivers.h"
#include "bench/side_by_side/statistics.h"
#include "bench/side_by_side/stream_server.h"

namespace kav_bench {

namespace {

constexpr std::chrono::milliseconds k_session_limit{30000};
constexpr std::chrono::milliseconds k_stream_limit{90000};

double us_of(std::int64_t ns) { return static_cast<double>(ns) * 1e-3; }
double ms_of(std::int64_t ns) { return static_cast<double>(ns) * 1e-6; }

void add_latencies(std::vector<std::int64_t>& latencies, figure_set& figures) {
  if (latencies.empty()) return;
  std::sort(latencies.begin(), latencies.end());
  figures["p50_us"] = us_of(sorted_percentile(latencies, 50));
  figures["p90_us"] = us_of(sorted_percentile(latencies, 90));
  figures["p99_us"] = us_of(sorted_percentile(latencies, 99));
  figures["p99_9_us"] = us_of(sorted_percentile(latencies, 99.9));
  figures["max_us"] = us_of(latencies.back());
}

void add_usage(const measured& m, figure_set& figures) {
  const double seconds = static_cast<double>(m.end.at_ns - m.begin.at_ns) * 1e-9;
  const auto messages = static_cast<double>(m.counted);
  const auto per_second = [&](std::uint64_t from, std::uint64_t to) {
    return static_cast<double>(to - from) / seconds;
  };
  const double cpu = m.end.cpu_seconds - m.begin.cpu_seconds;
  const auto allocations = static_cast<double>(m.end.allocations - m.begin.allocations);
  figures["seconds"] = seconds;
  figures["messages"] = messages;
  figures["messages_per_s"] = messages / seconds;
  figures["cpu_s_per_s"] = cpu / seconds;
  figures["cpu_ns_per_message"] = cpu * 1e9 / messages;
  figures["voluntary_per_s"] = per_second(m.begin.voluntary, m.end.voluntary);
  figures["involuntary_per_s"] = per_second(m.begin.involuntary, m.end.involuntary);
  figures["allocations"] = allocations;
  figures["allocations_per_1000_messages"] = allocations * 1000 / messages;
  // No chunk is larger than what the library's client reads at once.
  figures["allocations_per_1000_chunks"] =
      allocations * 1000 / (messages * kav_sim::k_quote_bytes / k_small_read_bytes);
  figures["resident_begin_kib"] = static_cast<double>(m.begin.resident_kib);
  figures["resident_end_kib"] = static_cast<double>(m.end.resident_kib);
  figures["resident_peak_kib"] = static_cast<double>(m.peak_kib);
  figures["threads"] = static_cast<double>(m.threads);
}

void add_session(const measured& m, figure_set& figures) {
  if (m.login_ns == 0) return;  // not the library's client
  figures["login_ms"] = ms_of(m.login_ns);
  figures["register_ms"] = ms_of(m.register_ns);
}

receiver_job job_of(const stream_request& request, unsigned short port) {
  receiver_job job;
  job.receiver = request.receiver;
  job.task = k_task_stream;
  job.port = port;
  job.clients = request.clients;
  job.symbols = request.plan.symbols;
  job.not_on = request.plan.processor;
  if (request.timed) job.samples = request.plan.counted / request.clients + request.plan.burst;
  return job;
}

std::string fault_of(const stream_request& request, const sent_stream& sent,
                     const std::optional<receiver_outcome>& outcome) {
  if (!outcome) return "the receiver gave no figures or did not end well";
  if (!sent.whole) return "the connection broke while sending";
  const measured& m = outcome->figures;
  const std::uint64_t sent_messages =
      request.plan.warm_up + request.plan.counted + request.clients;  // an end mark for each
  if (m.out_of_order == 0 && m.counted == request.plan.counted && m.received == sent_messages) {
    return "";
  }
  return fmt::format("{} of {} messages received, {} out of order", m.received, sent_messages,
                     m.out_of_order);
}

stream_figures figures_of(receiver_outcome& outcome, const sent_stream& sent) {
  stream_figures result;
  add_latencies(outcome.latencies, result.figures);
  if (!outcome.last_latencies.empty()) {
    result.figures["last_p50_us"] = us_of(percentile(outcome.last_latencies, 50));
  }
  add_usage(outcome.figures, result.figures);
  add_session(outcome.figures, result.figures);
  result.figures["sender_late_p50_us"] = sent.late_p50_us;
  result.latencies = std::move(outcome.latencies);
  return result;
}

stream_figures failed(const stream_request& request, const std::string& why) {
  stream_figures result;
  result.error = fmt::format("{}: {}", request.receiver, why);
  return result;
}

}  // namespace

stream_figures measure_stream(const stream_request& request) {
  stream_server server{request.plan.symbols};
  if (!server.start()) return failed(request, "cannot listen on 127.0.0.1");
  receiver_process process;
  if (!process.start(job_of(request, server.port()))) {
    return failed(request, "the receiver's process could not be started");
  }
  const std::vector<int> sockets =
      server.wait_for_clients(request.clients, request.plan.symbols, k_session_limit);
  if (sockets.empty()) return failed(request, "no session with the receiver");
  sent_stream sent;
  std::thread sender{[&] { sent = send_stream(sockets, request.plan); }};
  std::optional<receiver_outcome> outcome = process.wait_for_outcome(k_stream_limit);
  process.kill();  // also frees a sender that nobody reads from any more
  sender.join();
  const std::string fault = fault_of(request, sent, outcome);
  return fault.empty() ? figures_of(*outcome, sent) : failed(request, fault);
}

}  // namespace kav_bench
