// kav-bench-datagram: what a multicast datagram costs on its way to the caller.
#include <fmt/format.h>

#include <cerrno>   // errno
#include <cstring>  // strerror

#include "bench/datagram/program_options.h"
#include "bench/datagram/report.h"

namespace {

using namespace kav_bench;

constexpr unsigned k_decode_rounds = 500;

int fail(const std::string& line) {
  fmt::print(stderr, "kav-bench-datagram: {}\n", line);
  return 1;
}

plan quick_plan() {
  return {.drain_rounds = 1000, .steady_rounds = 1, .steady_datagrams = {300, 5'000}};
}

int run(const program_options& options) {
  enter_own_network();
  measurement rounds;
  std::string error;
  if (!rounds.open(error)) return fail(error);
  results measured;
  measured.roads = rounds.run(options.quick ? quick_plan() : plan{});
  measured.decode = time_decoder(k_decode_rounds);
  measured.discarded = rounds.discarded();
  print_table(measured);
  if (options.json_file.empty() || write_json(measured, options.json_file)) return 0;
  return fail("cannot write " + options.json_file + ": " + std::strerror(errno));
}

}  // namespace

int main(int argc, char** argv) {
  program_options options;
  if (const std::optional<int> status = parse_command_line(argc, argv, options)) return *status;
  return run(options);
}
