#include "bench/side_by_side/scenarios.h"

#include <fmt/format.h>

#include <algorithm>  // std::find
#include <chrono>     // std::chrono::nanoseconds

#include "bench/side_by_side/growth.h"
#include "bench/side_by_side/idle_measurement.h"
#include "bench/side_by_side/receivers.h"
#include "bench/side_by_side/start_measurement.h"
#include "bench/side_by_side/stream_measurement.h"

namespace kav_bench {

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr double k_warm_up_seconds = 0.15;
constexpr std::size_t k_burst_messages = 200;
constexpr double k_flood_messages_per_second = 4e6;  // of --seconds: about as fast as it goes
constexpr std::size_t k_flood_warm_up = 100'000;
constexpr double k_memory_warm_up = 1e6, k_memory_counted = 19e6;
constexpr double k_start_times = 50;
constexpr double k_idle_lengths = 3;  // of --seconds: little happens, and it should be seen

bool has(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// The receivers, beginning with another one in each round.
std::vector<std::string> receivers_of_round(const program_options& options, unsigned round) {
  std::vector<std::string> names = options.receivers;
  std::rotate(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(round % names.size()),
              names.end());
  return names;
}

stream_plan paced_plan(const program_options& o, nanoseconds gap, std::size_t burst) {
  const double sends_per_second = 1e9 / static_cast<double>(gap.count());
  const auto messages = [&](double length) {
    return static_cast<std::size_t>(sends_per_second * length + 1) * burst;
  };
  stream_plan plan;
  plan.gap = gap;
  plan.burst = burst;
  plan.spin_up_to = std::chrono::microseconds{o.spin_up_to_us};
  plan.processor = o.processor;
  plan.warm_up = messages(std::min(k_warm_up_seconds, o.seconds));
  plan.counted = messages(o.seconds);
  return plan;
}

std::string measure_each(const scenario& which, const program_options& options, unsigned round,
                         const stream_plan& plan, bool timed, result_book& book) {
  for (const std::string& name : receivers_of_round(options, round)) {
    const stream_figures result = measure_stream({name, plan, timed});
    if (!result.error.empty()) return result.error;
    book.add(which.name, name, result.figures);
    if (timed) book.add_latencies(which.name, name, result.latencies);
  }
  return "";
}

std::string run_rate_1000(const scenario& which, const program_options& o, unsigned round,
                          result_book& book) {
  return measure_each(which, o, round, paced_plan(o, milliseconds{1}, 1), true, book);
}

std::string run_rate_20000(const scenario& which, const program_options& o, unsigned round,
                           result_book& book) {
  return measure_each(which, o, round, paced_plan(o, std::chrono::microseconds{50}, 1), true, book);
}

std::string run_burst(const scenario& which, const program_options& o, unsigned round,
                      result_book& book) {
  return measure_each(which, o, round, paced_plan(o, milliseconds{10}, k_burst_messages), true,
                      book);
}

std::string run_flood(const scenario& which, const program_options& o, unsigned round,
                      result_book& book) {
  stream_plan plan;
  plan.processor = o.processor;
  plan.warm_up = k_flood_warm_up;
  plan.counted = static_cast<std::size_t>(k_flood_messages_per_second * o.seconds);
  return measure_each(which, o, round, plan, false, book);
}

// All at once: they have nothing to do, and one wait serves them all.
std::string run_idle(const scenario& which, const program_options& o, unsigned round,
                     result_book& book) {
  std::vector<idle_request> requests;
  for (const std::string& name : receivers_of_round(o, round)) requests.push_back({name});
  const idle_figures result = measure_idle(requests, k_idle_lengths * o.seconds);
  for (std::size_t i = 0; i < result.figures.size(); ++i) {
    book.add(which.name, requests[i].receiver, result.figures[i]);
  }
  return result.error;
}

// 20 million messages through the library's client: the figures of the counted 19 million.
std::string run_memory(const scenario& which, const program_options& o, unsigned,
                       result_book& book) {
  stream_plan plan;
  plan.processor = o.processor;
  plan.warm_up = static_cast<std::size_t>(k_memory_warm_up * o.scale);
  plan.counted = static_cast<std::size_t>(k_memory_counted * o.scale);
  const stream_figures result = measure_stream({k_library, plan, false});
  if (result.error.empty()) book.add(which.name, k_library, result.figures);
  return result.error;
}

std::string run_start(const scenario& which, const program_options& o, unsigned,
                      result_book& book) {
  const auto times = static_cast<std::size_t>(k_start_times * o.scale);
  const start_figures result = measure_starts(k_library, times);
  if (result.error.empty()) book.add(which.name, k_library, result.figures);
  return result.error;
}

std::string run_growth(const scenario&, const program_options& o, unsigned, result_book& book) {
  return measure_growth(o, book);
}

bool is_wanted(const scenario& which, const program_options& o, unsigned round) {
  if (!has(o.scenarios, which.name)) return false;
  return !which.library_once || (round == 0 && has(o.receivers, k_library));
}

}  // namespace

const std::vector<scenario>& all_scenarios() {
  static const std::vector<scenario> scenarios{
      {"rate-1000", run_rate_1000}, {"rate-20000", run_rate_20000},
      {"burst", run_burst},         {"flood", run_flood},
      {"idle", run_idle},           {"memory", run_memory, true},
      {"start", run_start, true},   {"growth", run_growth, true},
  };
  return scenarios;
}

std::string run_scenarios(const program_options& options, result_book& book) {
  for (unsigned round = 0; round < options.rounds; ++round) {
    for (const scenario& which : all_scenarios()) {
      if (!is_wanted(which, options, round)) continue;
      fmt::print(stderr, "round {} of {}: {}\n", round + 1, options.rounds, which.name);
      const std::string error = which.run_round(which, options, round, book);
      if (!error.empty()) return fmt::format("{}: {}", which.name, error);
    }
  }
  return "";
}

}  // namespace kav_bench
