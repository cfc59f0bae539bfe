#include "tests/faults/options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include "tests/faults/fault.h"
#include "tests/support/command_line.h"

namespace kav_faults {

namespace {

constexpr const char* k_description =
    "Runs the library's client against servers, links and hosts that fail, and measures how it "
    "reacts.";

constexpr const char* k_footer = R"(
For each fault: how long until the client notices, how long until quotes flow again, what the
caller is told meanwhile, and figures of its own. Each fault has a process of its own, one after the
other; all traffic is on this machine. Cutting a link needs the right to make network namespaces and
the program ip; without them that row is skipped, with the reason. All of it takes about two minutes.

Progress goes to standard error, the table to standard output.

Examples:
  kav-faults
  kav-faults --only flood,slow-callback
  kav-faults --json faults.json

Exit status:
  0  measured, and all that must hold does; or --help
  1  something does not hold, and the table says what; or a file was not written
  2  a bad option; nothing was measured)";

std::vector<std::string> fault_names() {
  std::vector<std::string> names;
  for (const fault& f : all_faults()) names.push_back(f.name);
  return names;
}

void add_options(CLI::App& app, program_options& o) {
  app.add_option("--only", o.only, fmt::format("which: {}", fmt::join(fault_names(), ", ")))
      ->delimiter(',')
      ->type_name("NAMES")
      ->check(CLI::IsMember(fault_names()));
  app.add_option("--json", o.json, "file for all results")->type_name("FILE");
}

}  // namespace

std::optional<int> parse_command_line(int argc, char** argv, program_options& options) {
  CLI::App app{k_description, "kav-faults"};
  app.footer(k_footer);
  add_options(app, options);
  return kav_test::end_of_parsing(app, argc, argv, k_exit_usage);
}

}  // namespace kav_faults
