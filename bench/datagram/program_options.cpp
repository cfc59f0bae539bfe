#include "bench/datagram/program_options.h"

#include <CLI/CLI.hpp>

namespace kav_bench {

namespace {

constexpr const char* k_description =
    "Measures what a multicast datagram costs from its socket to OnQuote(): through the library, "
    "and "
    "beside it through the shortest loops that receive, convert and call the same.";

constexpr const char* k_footer = R"(
All is measured in one run, interleaved, medians over the rounds. "Drained": a group's buffer is
filled while a callback is held, and then emptied; the time of the receiving thread alone. The rates:
a sender beside the receiver stamps each record. Ratios are to the recv() loop.

Everything stays on the loopback interface; with the rights for it, in a network namespace of the
program's own. About 30 s, with --quick 4 s.

Exit status:
  0  measured; or --help
  1  cannot receive groups here, or cannot write FILE
  2  a bad option)";

}  // namespace

std::optional<int> parse_command_line(int argc, char** argv, program_options& out) {
  CLI::App app{k_description, "kav-bench-datagram"};
  app.footer(k_footer);
  app.add_flag("--quick", out.quick, "Fewer rounds: to see that it works");
  app.add_option("--json", out.json_file, "Writes the figures to FILE as well")
      ->option_text("FILE");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  return std::nullopt;
}

}  // namespace kav_bench
