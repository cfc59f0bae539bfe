#include "bench/side_by_side/program_options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>  // std::min

#include "bench/side_by_side/processors.h"
#include "bench/side_by_side/receivers.h"
#include "bench/side_by_side/scenarios.h"
#include "tests/support/command_line.h"

namespace kav_bench {

namespace {

constexpr const char* k_description =
    "Measures the library's client beside other receivers of the same stream of quotes, on this "
    "machine's loopback interface.";

constexpr const char* k_footer = R"(
Each receiver runs in a process of its own and gets the same 367-byte quote messages. They are
measured in turn, round after round; the tables show medians over the rounds and ratios to the plain
reader and to the polling design. Latency ends at the first line of the callback and begins at the
stamp that the sender takes right before send(). CPU time, context switches, memory and allocations
are those of all threads of the receiver's process between the first and the last measured message.

The sender sleeps between messages that are more than 200 us apart. For shorter gaps, and so at
20,000 messages a second, it spins and keeps one processor busy; --spin-up-to 0 makes it sleep
there, too, which leaves all processors to the receiver and spaces the messages less evenly.

The system places sender and receiver where it likes. On a machine with two processors it often lets
a woken receiver run where the sender has just gone to sleep, which spares the wake-up of the other
processor; --apart keeps them on different ones, as a wire would.

Progress goes to standard error, the tables to standard output.

Examples:
  kav-side-by-side
  kav-side-by-side --receivers kavquote,reader,polling --scenarios rate-1000,rate-20000
  kav-side-by-side --quick --json quick.json
  kav-side-by-side --json all.json --cdf latencies

Exit status:
  0  measured, and each receiver got each message once and in order; or --help
  1  a measurement failed: a message lost or out of order, a receiver that broke, a file not written
  2  a bad option; nothing was measured)";

constexpr double k_quick = 0.1;
constexpr unsigned k_quick_rounds = 2;

std::string list_of(const std::vector<std::string>& names) {
  return fmt::format("{}", fmt::join(names, ", "));
}

std::vector<std::string> built_receivers() {
  std::vector<std::string> names;
  for (const receiver& r : all_receivers()) {
    if (r.built) names.push_back(r.name);
  }
  return names;
}

std::vector<std::string> scenario_names() {
  std::vector<std::string> names;
  for (const scenario& s : all_scenarios()) names.push_back(s.name);
  return names;
}

void add_options(CLI::App& app, program_options& o, bool& quick, bool& apart) {
  app.add_option("--rounds", o.rounds, "how often everything is measured")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str();
  app.add_option("--seconds", o.seconds, "length of one measurement")
      ->check(CLI::Range(0.02, 600.0))
      ->capture_default_str();
  app.add_option("--receivers", o.receivers, "which: " + list_of(built_receivers()))
      ->delimiter(',')
      ->type_name("NAMES")
      ->check(CLI::IsMember(built_receivers()));
  app.add_option("--scenarios", o.scenarios, "which: " + list_of(scenario_names()))
      ->delimiter(',')
      ->type_name("NAMES")
      ->check(CLI::IsMember(scenario_names()));
  app.add_option("--spin-up-to", o.spin_up_to_us,
                 "us between messages up to which the sender spins; 0: it always sleeps")
      ->check(CLI::Range(0, 1'000'000))
      ->capture_default_str();
  app.add_flag("--apart", apart,
               "the sender has the first processor for itself, receivers all others");
  app.add_flag("--quick", quick, "everything at a tenth, in two rounds: shows that it works");
  app.add_option("--json", o.json_path, "all figures of all rounds go to this file")
      ->type_name("FILE");
  app.add_option("--cdf", o.cdf_folder,
                 "500 quantiles of the latencies of each receiver and scenario go to files here")
      ->type_name("DIR");
}

// For the processes that the program starts.
void add_job_options(CLI::App& app, receiver_job& job) {
  app.add_option("--receiver", job.receiver)->group("");
  app.add_option("--task", job.task)->group("");
  app.add_option("--port", job.port)->group("");
  app.add_option("--clients", job.clients)->group("");
  app.add_option("--symbols", job.symbols)->group("");
  app.add_option("--samples", job.samples)->group("");
  app.add_option("--not-on", job.not_on)->group("");
  app.add_option("--result-fd", job.result_fd)->group("");
}

}  // namespace

std::optional<int> parse_command_line(int argc, char** argv, program_options& options) {
  CLI::App app{k_description, "kav-side-by-side"};
  bool quick = false, apart = false;
  app.footer(k_footer);
  add_options(app, options, quick, apart);
  add_job_options(app, options.job);
  if (const auto status = kav_test::end_of_parsing(app, argc, argv, k_exit_bad_input))
    return status;
  if (options.receivers.empty()) options.receivers = built_receivers();
  if (options.scenarios.empty()) options.scenarios = scenario_names();
  if (apart) options.processor = sender_processor();
  if (quick) {
    options.scale = k_quick;
    options.seconds *= k_quick;
    options.rounds = std::min(options.rounds, k_quick_rounds);
  }
  return std::nullopt;
}

}  // namespace kav_bench
