#include "tests/soak/options.h"

#include <CLI/CLI.hpp>

#include "tests/support/command_line.h"

namespace kav_soak {

namespace {

constexpr const char* k_description =
    "Lets one client live through reconnections for a long time and looks whether anything piles "
    "up.";

constexpr const char* k_footer = R"(
A server in a process of its own sends about 10,000 quotes a second and ends each connection after
1 to 4 seconds of them: with FIN, with RST, and with random bytes before a FIN, in turn. The caller
keeps registering and unregistering symbols. Once a second the quotes and reconnections so far, the
open descriptors, the threads and the resident memory of the client's process are noted.

All is well when descriptors and threads are back at the end and, at most times of the second half, no
more than at any time of the first, when resident memory rose by at most 256 KiB or 32 KiB a minute
over the second half (the larger of the two), when every session had quotes, each in order, and the
client never gave up.

Progress goes to standard error, the verdict to standard output. Ctrl-C ends the run early; it is
judged by what it has seen.

Examples:
  kav-soak --minutes 30 --samples soak.csv
  kav-soak --minutes 0.5 --seed 7

Exit status:
  0  all was well; or --help
  1  something was not, or the run could not be made: standard output or standard error says what
  2  a bad option; nothing was run)";

void add_options(CLI::App& app, soak_options& o) {
  app.add_option("--minutes", o.minutes, "length of the run")
      ->check(CLI::Range(0.2, 100'000.0))
      ->capture_default_str();
  app.add_option("--samples", o.samples, "CSV file for one sample a second")->type_name("FILE");
  app.add_option("--seed", o.seed, "of the registrations, the losses and the random bytes")
      ->capture_default_str();
}

}  // namespace

std::optional<int> parse_command_line(int argc, char** argv, soak_options& options) {
  CLI::App app{k_description, "kav-soak"};
  app.footer(k_footer);
  add_options(app, options);
  return kav_test::end_of_parsing(app, argc, argv, k_exit_usage);
}

}  // namespace kav_soak
