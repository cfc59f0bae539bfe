// kav-side-by-side: the library's client beside other receivers of the same stream.
#include <fmt/format.h>

#include "bench/side_by_side/program_options.h"
#include "bench/side_by_side/report.h"
#include "bench/side_by_side/scenarios.h"

namespace {

using namespace kav_bench;

constexpr double k_busy_load = 0.5;

int complain(const std::string& what) {
  fmt::print(stderr, "kav-side-by-side: {}\n", what);
  return k_exit_failed;
}

// Others' work is in every figure then.
void warn_if_busy(const machine& m) {
  if (m.load < k_busy_load) return;
  fmt::print(stderr, "kav-side-by-side: the machine is busy (load {:.2f}): expect noise\n", m.load);
}

int run(const program_options& options) {
  result_book book;
  const machine m = kav_test::this_machine();
  warn_if_busy(m);
  std::string error = run_scenarios(options, book);
  if (!error.empty()) return complain(error);
  print_tables(options, m, book);
  error = write_json(options, m, book);
  if (error.empty()) error = write_quantiles(options, book);
  return error.empty() ? k_exit_good : complain(error);
}

}  // namespace

int main(int argc, char** argv) {
  program_options options;
  if (const std::optional<int> status = parse_command_line(argc, argv, options)) return *status;
  return options.job.receiver.empty() ? run(options) : run_receiver(options.job);
}
