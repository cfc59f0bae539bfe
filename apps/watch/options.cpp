#include "apps/watch/options.h"

#include <CLI/CLI.hpp>
#include <map>  // std::map

#include "apps/watch/command_line.h"

namespace kav_watch {
namespace {

constexpr char k_program[] = "kav-watch";

constexpr char k_footer[] = R"(Examples:
  export KAV_PASSWORD                                    # then the process list never shows it
  kav-watch --server 127.0.0.1:9000 --user me            # a table of all symbols
  kav-watch --server 127.0.0.1:9000 --user me IF2509 'Au(T+D)'
  kav-watch --server 127.0.0.1:9000 --user me --list     # symbols and their types
  kav-watch --server 127.0.0.1:9000 --user me --format csv --seconds 60 > minute.csv
  kav-watch --server 127.0.0.1:9000 --user me --format json | jq .LastPrice
  kav-watch --multicast 239.255.10.1:30001:SHFE@127.0.0.1    # no session, no login
  kav-watch --server 127.0.0.1:9000 --user me --multicast 239.255.10.2:30002:LUMEN rb2510

Multicast:
  Each --multicast joins one group; EXCHANGE is SHFE, INE, CFFEX, CZCE, GFEX, DCE, SGE, SHZ or
  LUMEN, and tells which records are expected there. LOCALIP is the address of the interface that
  the feed comes in on; without it the system's routes choose one. Symbols that are named are
  picked out of what arrives. With --server too, both sources fill the same rows and lines, and
  the groups go on when the session has ended for good. What was not understood, or lost because
  the output is slower than the feed, is counted and told on standard error.

Formats:
  table  updates in place; the default when standard output is a terminal
  plain  one aligned line per quote; the default otherwise
  csv    a header line, then one line per quote, all fields; no quote is left out
  json   one object per line, all fields; no quote is left out
  In csv and json, 0 and empty texts mean that the source gave no value.

Keys of the table:
  Up Down PgUp PgDn Home End   scroll the rows        Left Right   scroll the columns
  Ctrl-L                       draw anew              q            quit
  The change is red when the price rose and green when it fell, as Chinese screens show it;
  --green-up swaps them, the environment variable NO_COLOR turns colour off.

Exit statuses:
  0  ended as asked: --count, --seconds, q, Ctrl-C, SIGTERM, reader of the output gone
  1  unexpected error               5  no symbol list
  2  bad option                     6  unknown symbol
  3  connection refused, host unreachable
  4  login refused                  7  session ended for good
  8  no answer in time              9  output could not be written
  10 multicast group could not be received)";

// What CLI11 fills before it is checked further.
struct raw_options {
  raw_source source;
  std::string format;
  bool list = false, green_up = false;
};

const std::map<std::string, output_format> k_formats{{"table", output_format::table},
                                                     {"plain", output_format::plain},
                                                     {"csv", output_format::csv},
                                                     {"json", output_format::json}};

void declare_output_options(CLI::App& app, raw_options& raw) {
  app.add_flag("--list", raw.list, "Print the server's symbols and their types, then end");
  app.add_option("--format", raw.format, "table, plain, csv or json")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"table", "plain", "csv", "json"}).description(""));
  app.add_flag("--green-up", raw.green_up, "Show rising prices in green, falling ones in red");
}

parsed_options judge(const CLI::App& app, const raw_options& raw,
                     const std::optional<secret>& password) {
  watch_options options;
  options.program = k_program;
  const std::string wrong = accept_source(app, raw.source, password, options);
  if (!wrong.empty()) return bad_option(k_program, wrong);
  if (!raw.format.empty()) options.format = k_formats.at(raw.format);
  options.list_only = raw.list;
  options.green_up = raw.green_up;
  return options;
}

}  // namespace

parsed_options parse_options(int argc, const char* const* argv,
                             const std::optional<secret>& password) {
  raw_options raw;
  CLI::App app{"Shows the quotes of a quote server, of multicast groups, or of both.", k_program};
  app.footer(k_footer);
  app.set_version_flag("--version", "kav-watch " KAV_WATCH_VERSION);
  declare_source_options(app, raw.source);
  declare_choice_options(app, raw.source, "watch");
  declare_output_options(app, raw);
  const auto end = end_of_parsing<parsed_options>(
      app, argc, argv, [](const std::string& text) { return bad_option(k_program, text); });
  if (end) return *end;
  return judge(app, raw, password);
}

}  // namespace kav_watch
