#include "bench/side_by_side/growth.h"

#include <algorithm>  // std::max
#include <chrono>     // std::chrono::milliseconds

#include "bench/side_by_side/idle_measurement.h"
#include "bench/side_by_side/receivers.h"
#include "bench/side_by_side/stream_measurement.h"

namespace kav_bench {

namespace {

constexpr std::chrono::milliseconds k_gap{1};
constexpr double k_messages_per_second = 1000;
constexpr double k_lengths = 3;  // of --seconds
constexpr std::size_t k_clients[] = {1, 10, 100};
constexpr std::size_t k_symbols[] = {10, 100, 1000, 10000};

// At least so many messages that each client gets some.
stream_plan plan_for(const program_options& options, std::size_t clients, std::size_t symbols) {
  const double seconds = k_lengths * options.seconds;
  stream_plan plan;
  plan.gap = k_gap;
  plan.processor = options.processor;
  plan.symbols = symbols;
  plan.warm_up = 2 * clients;
  plan.counted = static_cast<std::size_t>(k_messages_per_second * seconds / 100) * 100;
  plan.counted = std::max(plan.counted, 2 * clients);
  return plan;
}

std::string measure_clients(const program_options& options, std::size_t clients,
                            result_book& book) {
  stream_figures stream = measure_stream({k_library, plan_for(options, clients, 1), true, clients});
  if (!stream.error.empty()) return stream.error;
  const idle_figures idle = measure_idle({{k_library, clients}}, k_lengths * options.seconds);
  if (!idle.error.empty()) return idle.error;
  stream.figures["idle_cpu_s_per_s"] = idle.figures[0].at("cpu_s_per_s");
  stream.figures["idle_voluntary_per_s"] = idle.figures[0].at("voluntary_per_s");
  stream.figures["idle_resident_kib"] = idle.figures[0].at("resident_kib");
  book.add(k_growth_clients, std::to_string(clients), stream.figures);
  return "";
}

std::string measure_symbols(const program_options& options, std::size_t symbols,
                            result_book& book) {
  const stream_figures stream = measure_stream({k_library, plan_for(options, 1, symbols)});
  if (stream.error.empty()) book.add(k_growth_symbols, std::to_string(symbols), stream.figures);
  return stream.error;
}

}  // namespace

std::string measure_growth(const program_options& options, result_book& book) {
  for (const std::size_t clients : k_clients) {
    const std::string error = measure_clients(options, clients, book);
    if (!error.empty()) return std::to_string(clients) + " clients: " + error;
  }
  for (const std::size_t symbols : k_symbols) {
    const std::string error = measure_symbols(options, symbols, book);
    if (!error.empty()) return std::to_string(symbols) + " symbols: " + error;
  }
  return "";
}

}  // namespace kav_bench
