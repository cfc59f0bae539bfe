#include "bench/side_by_side/report.h"

#include <fmt/format.h>

#include <algorithm>   // std::find
#include <filesystem>  // create_directories
#include <fstream>     // std::ofstream

#include "bench/side_by_side/growth.h"
#include "bench/side_by_side/receivers.h"
#include "bench/side_by_side/statistics.h"

namespace kav_bench {

namespace {

constexpr int k_quantiles = 500;

// One column: a figure, or its ratio to another row's.
struct column {
  const char* figure;
  const char* head;
  double factor = 1;
  int digits = 1;
  const char* ratio_to = nullptr;
};

std::vector<column> latency_columns() {
  return {{"p50_us", "p50 us"},
          {"p90_us", "p90"},
          {"p99_us", "p99"},
          {"p99_9_us", "p99.9"},
          {"max_us", "max"},
          {"p50_us", "p50/reader", 1, 2, "reader"},
          {"p99_us", "p99/reader", 1, 2, "reader"},
          {"p50_us", "p50/polling", 1, 2, "polling"},
          {"cpu_s_per_s", "CPU %", 100},
          {"voluntary_per_s", "waits/s", 1, 0},
          {"involuntary_per_s", "preempt./s", 1, 0},
          {"resident_peak_kib", "peak KiB", 1, 0},
          {"allocations", "allocs", 1, 0}};
}

std::vector<column> burst_columns() {
  std::vector<column> columns = latency_columns();
  columns.insert(columns.begin(), {{"last_p50_us", "last us"},
                                   {"last_p50_us", "last/reader", 1, 2, "reader"},
                                   {"last_p50_us", "last/polling", 1, 2, "polling"}});
  return columns;
}

std::vector<column> flood_columns() {
  return {{"messages_per_s", "Mmsg/s", 1e-6, 2},
          {"messages_per_s", "/reader", 1, 2, "reader"},
          {"messages_per_s", "/polling", 1, 2, "polling"},
          {"cpu_ns_per_message", "CPU ns/msg", 1, 0},
          {"voluntary_per_s", "waits/s", 1, 0},
          {"involuntary_per_s", "preempt./s", 1, 0},
          {"resident_peak_kib", "peak KiB", 1, 0},
          {"allocations", "allocs", 1, 0}};
}

std::vector<column> idle_columns() {
  return {{"cpu_s_per_s", "CPU %", 100, 3},
          {"voluntary_per_s", "wake-ups/s", 1, 1},
          {"involuntary_per_s", "preempt./s", 1, 1},
          {"threads", "threads", 1, 0},
          {"resident_kib", "KiB", 1, 0}};
}

std::vector<column> memory_columns() {
  return {{"messages_per_s", "Mmsg/s", 1e-6, 2},
          {"resident_begin_kib", "KiB before", 1, 0},
          {"resident_end_kib", "KiB after", 1, 0},
          {"resident_peak_kib", "peak KiB", 1, 0},
          {"allocations", "allocs", 1, 0},
          {"allocations_per_1000_chunks", "/1000 chunks", 1, 3}};
}

std::vector<column> start_columns() {
  return {{"p50_ms", "p50 ms", 1, 2},
          {"p90_ms", "p90", 1, 2},
          {"max_ms", "max", 1, 2},
          {"times", "times", 1, 0}};
}

std::vector<column> growth_columns() {
  return {{"p50_us", "p50 us"},
          {"p99_us", "p99"},
          {"login_ms", "login ms"},
          {"register_ms", "register ms"},
          {"threads", "threads", 1, 0},
          {"resident_end_kib", "KiB", 1, 0},
          {"cpu_s_per_s", "CPU %", 100, 2}};
}

std::vector<column> client_growth_columns() {
  std::vector<column> columns = growth_columns();
  columns.push_back({"idle_cpu_s_per_s", "idle CPU %", 100, 3});
  columns.push_back({"idle_voluntary_per_s", "idle w./s", 1, 1});
  return columns;
}

struct table {
  const char* scenario;  // its name in the book
  const char* title;
  std::vector<column> columns;
};

std::vector<table> all_tables() {
  return {{"rate-1000", "1,000 messages a second", latency_columns()},
          {"rate-20000", "20,000 messages a second", latency_columns()},
          {"burst", "Bursts of 200 messages every 10 ms", burst_columns()},
          {"flood", "As fast as it goes, writes of 64 KiB", flood_columns()},
          {"idle", "Logged in, nothing but heartbeats", idle_columns()},
          {"memory", "20 million messages, the first million as warm-up", memory_columns()},
          {"start", "ConnServer to OnLoginResult(true)", start_columns()},
          {k_growth_clients, "Clients in one process, 1,000 messages a second in all",
           client_growth_columns()},
          {k_growth_symbols, "Symbols of one client, 1,000 messages a second in all",
           growth_columns()}};
}

std::string cell(const column& c, const std::string& scenario, const std::string& row,
                 const result_book& book) {
  const double value = book.median_of(scenario, row, c.figure) * c.factor;
  if (c.ratio_to == nullptr) return fmt::format("{:.{}f}", value, c.digits);
  const double other = book.median_of(scenario, c.ratio_to, c.figure) * c.factor;
  return other > 0 ? fmt::format("{:.{}f}", value / other, c.digits) : "-";
}

void print_table(const table& t, const result_book& book) {
  const result_book::rows* const rows = book.find(t.scenario);
  if (rows == nullptr) return;
  fmt::print("\n{}\n{:<10}", t.title, "");
  for (const column& c : t.columns) fmt::print(" {:>12}", c.head);
  fmt::print("\n");
  for (const auto& [row, rounds] : *rows) {
    fmt::print("{:<10}", row);
    for (const column& c : t.columns) fmt::print(" {:>12}", cell(c, t.scenario, row, book));
    fmt::print("\n");
  }
}

void print_receivers(const program_options& options) {
  for (const receiver& r : all_receivers()) {
    const bool asked = std::find(options.receivers.begin(), options.receivers.end(), r.name) !=
                       options.receivers.end();
    if (asked) fmt::print("  {:<10}{}\n", r.name, r.what);
    if (!r.built) fmt::print("  {:<10}{}: not built, its package is missing\n", r.name, r.what);
  }
}

std::string json_text(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    if (static_cast<unsigned char>(c) >= ' ') quoted += c;
  }
  return quoted + '"';
}

std::string json_of(const figure_set& figures) {
  std::string text;
  for (const auto& [name, value] : figures) {
    text += fmt::format("{}{}: {:.6g}", text.empty() ? "" : ", ", json_text(name), value);
  }
  return "{" + text + "}";
}

std::string json_of(const result_book::rows& rows) {
  std::string text;
  for (const auto& [row, rounds] : rows) {
    text += fmt::format("{}\n      {}: [", text.empty() ? "" : ",", json_text(row));
    for (std::size_t i = 0; i < rounds.size(); ++i) {
      text += (i == 0 ? "\n        " : ",\n        ") + json_of(rounds[i]);
    }
    text += "]";
  }
  return "{" + text + "}";
}

std::string json_of(const machine& m) {
  return fmt::format(
      "{{\"cpu\": {}, \"cores\": {}, \"memory_kib\": {}, \"kernel\": {}, \"date\": {}, "
      "\"load\": {}}}",
      json_text(m.cpu), m.cores, m.memory_kib, json_text(m.kernel), json_text(m.date), m.load);
}

std::string json_of(const program_options& options, const machine& m, const result_book& book) {
  std::string text = fmt::format(
      "{{\n  \"program\": \"kav-side-by-side\",\n  \"machine\": {},\n  \"options\": "
      "{{\"rounds\": {}, \"seconds\": {}, \"scale\": {}}},\n  \"scenarios\": {{",
      json_of(m), options.rounds, options.seconds, options.scale);
  const char* separator = "";
  for (const auto& [name, rows] : book.scenarios()) {
    text += fmt::format("{}\n    {}: {}", separator, json_text(name), json_of(rows));
    separator = ",";
  }
  return text + "\n  }\n}\n";
}

std::string write_file(const std::filesystem::path& path, const std::string& text) {
  std::ofstream file{path};
  file << text;
  file.close();
  return file ? "" : fmt::format("cannot write {}", path.string());
}

// Two columns: the part of all messages, and the latency in us that so many do not exceed.
std::string quantiles_of(std::vector<std::int64_t> latencies) {
  std::sort(latencies.begin(), latencies.end());
  std::string text;
  for (int i = 1; i <= k_quantiles; ++i) {
    const double part = static_cast<double>(i) / k_quantiles;
    const std::int64_t ns = sorted_percentile(latencies, part * 100);
    text += fmt::format("{:.4f}\t{:.3f}\n", part, static_cast<double>(ns) * 1e-3);
  }
  return text;
}

}  // namespace

void print_tables(const program_options& options, const machine& m, const result_book& book) {
  fmt::print("{}, {} cores, Linux {}, {} UTC, load {:.2f} before it\n", m.cpu, m.cores, m.kernel,
             m.date, m.load);
  fmt::print("medians over {} rounds of {:g} s\n", options.rounds, options.seconds);
  print_receivers(options);
  for (const table& t : all_tables()) print_table(t, book);
}

std::string write_json(const program_options& options, const machine& m, const result_book& book) {
  return options.json_path.empty() ? "" : write_file(options.json_path, json_of(options, m, book));
}

std::string write_quantiles(const program_options& options, const result_book& book) {
  if (options.cdf_folder.empty()) return "";
  std::error_code error;
  std::filesystem::create_directories(options.cdf_folder, error);
  for (const auto& [name, latencies] : book.latencies()) {
    const std::string file = fmt::format("{}-{}.tsv", name.first, name.second);
    std::string fault =
        write_file(std::filesystem::path{options.cdf_folder} / file, quantiles_of(latencies));
    if (!fault.empty()) return fault;
  }
  return "";
}

}  // namespace kav_bench
