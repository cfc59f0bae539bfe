#include "bench/datagram/report.h"

#include <fmt/format.h>

#include <cstdio>    // fopen
#include <iterator>  // std::back_inserter

namespace kav_bench {

namespace {

double ratio(double value, double to) { return to > 0 ? value / to : 0; }

void print_drain(const results& what) {
  const road_figures& bare = what.roads.front();
  fmt::print("A full buffer drained, {} datagrams of 368 bytes; nanoseconds for each\n", k_drained);
  fmt::print("  {:<38}{:>9}{:>8}{:>9}{:>8}\n", "", "CPU", "ratio", "elapsed", "ratio");
  for (const road_figures& it : what.roads) {
    fmt::print("  {:<38}{:>9.0f}{:>8.2f}{:>9.0f}{:>8.2f}\n", it.name, it.drain_cpu_ns,
               ratio(it.drain_cpu_ns, bare.drain_cpu_ns), it.drain_wall_ns,
               ratio(it.drain_wall_ns, bare.drain_wall_ns));
  }
}

void print_steady(const results& what, std::size_t rate) {
  const steady_figures& bare = what.roads.front().steady[rate];
  fmt::print("\n{} datagrams a second; microseconds from the stamp to the callback\n",
             k_rates[rate]);
  fmt::print("  {:<38}{:>7}{:>7}{:>8}{:>7}{:>8}{:>7}{:>6}\n", "", "p50", "ratio", "p99", "ratio",
             "CPU ns", "ratio", "lost");
  for (const road_figures& it : what.roads) {
    const steady_figures& at = it.steady[rate];
    fmt::print("  {:<38}{:>7.1f}{:>7.2f}{:>8.1f}{:>7.2f}{:>8.0f}{:>7.2f}{:>6}\n", it.name,
               at.p50_us, ratio(at.p50_us, bare.p50_us), at.p99_us, ratio(at.p99_us, bare.p99_us),
               at.cpu_ns, ratio(at.cpu_ns, bare.cpu_ns), at.lost);
  }
}

std::string steady_json(const steady_figures& at) {
  return fmt::format(R"({{"p50_us": {:.2f}, "p99_us": {:.2f}, "cpu_ns": {:.0f}, "lost": {}}})",
                     at.p50_us, at.p99_us, at.cpu_ns, at.lost);
}

std::string road_json(const road_figures& it) {
  std::string json = fmt::format(R"("{}": {{"drain_cpu_ns": {:.1f}, "drain_wall_ns": {:.1f})",
                                 it.key, it.drain_cpu_ns, it.drain_wall_ns);
  for (std::size_t rate = 0; rate < k_rates.size(); ++rate) {
    json += fmt::format(R"(, "steady_{}": {})", k_rates[rate], steady_json(it.steady[rate]));
  }
  return json + "}";
}

std::string ratio_json(const road_figures& it, const road_figures& bare) {
  std::string json = fmt::format(R"("{}": {{"drain_cpu": {:.3f}, "drain_wall": {:.3f})", it.key,
                                 ratio(it.drain_cpu_ns, bare.drain_cpu_ns),
                                 ratio(it.drain_wall_ns, bare.drain_wall_ns));
  for (std::size_t rate = 0; rate < k_rates.size(); ++rate) {
    const steady_figures &at = it.steady[rate], &to = bare.steady[rate];
    json += fmt::format(
        R"(, "steady_{0}_p50": {1:.3f}, "steady_{0}_p99": {2:.3f}, "steady_{0}_cpu": {3:.3f})",
        k_rates[rate], ratio(at.p50_us, to.p50_us), ratio(at.p99_us, to.p99_us),
        ratio(at.cpu_ns, to.cpu_ns));
  }
  return json + "}";
}

// One line for each road.
std::string list_json(const results& what, std::string (*one)(const results&, std::size_t)) {
  std::string json;
  for (std::size_t i = 0; i < what.roads.size(); ++i) {
    json += (i == 0 ? "\n    " : ",\n    ") + one(what, i);
  }
  return json;
}

std::string as_json(const results& what) {
  const std::string roads =
      list_json(what, [](const results& of, std::size_t i) { return road_json(of.roads[i]); });
  const std::string ratios = list_json(what, [](const results& of, std::size_t i) {
    return ratio_json(of.roads[i], of.roads.front());
  });
  return fmt::format(
      "{{\n  \"benchmark\": \"datagram\",\n  \"drained\": {},\n  \"discarded_rounds\": {},\n"
      "  \"decode\": {{\"by_hand_ns\": {:.1f}, \"decoder_ns\": {:.1f}, \"ratio\": {:.3f}}},\n"
      "  \"roads\": {{{}\n  }},\n  \"ratios\": {{{}\n  }}\n}}\n",
      k_drained, what.discarded, what.decode.by_hand_ns, what.decode.decoder_ns,
      ratio(what.decode.decoder_ns, what.decode.by_hand_ns), roads, ratios);
}

}  // namespace

void print_table(const results& what) {
  print_drain(what);
  for (std::size_t rate = 0; rate < k_rates.size(); ++rate) print_steady(what, rate);
  fmt::print("\nThe decoder alone: {:.1f} ns a datagram, by hand {:.1f} ns, ratio {:.2f}\n",
             what.decode.decoder_ns, what.decode.by_hand_ns,
             ratio(what.decode.decoder_ns, what.decode.by_hand_ns));
  if (what.discarded > 0) fmt::print("{} rounds were incomplete and left out\n", what.discarded);
}

bool write_json(const results& what, const std::string& file) {
  std::FILE* const out = std::fopen(file.c_str(), "w");
  if (out == nullptr) return false;
  const std::string json = as_json(what);
  const bool written = std::fwrite(json.data(), 1, json.size(), out) == json.size();
  return std::fclose(out) == 0 && written;
}

}  // namespace kav_bench
