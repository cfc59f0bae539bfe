#include "apps/watch/program.h"

#include <fmt/format.h>  // fmt::print
#include <unistd.h>      // _exit

#include <cstdio>     // stderr
#include <exception>  // std::exception
#include <string>     // std::string
#include <variant>    // std::get_if

#include "apps/standard_error.h"
#include "apps/watch/multicast_feed.h"
#include "apps/watch/options.h"
#include "apps/watch/secrets.h"
#include "apps/watch/signal_source.h"
#include "apps/watch/standard_output.h"
#include "apps/watch/viewer.h"

namespace kav_watch {
namespace {

int finish(const outcome& end) {
  if (!end.message.empty()) kav_apps::tell(fmt::format("kav-watch: {}\n", end.message));
  return static_cast<int>(end.status);
}

output_format chosen_format(const watch_options& options, const standard_output& output) {
  if (options.format != output_format::automatic) return options.format;
  return output.is_terminal() && !options.list_only ? output_format::table : output_format::plain;
}

int watch(watch_options& options, standard_output& output, signal_source& signals) {
  const output_format format = chosen_format(options, output);
  if (format == output_format::table && !options.list_only && !output.is_terminal()) {
    return finish({exit_status::bad_option,
                   "--format table needs a terminal; give plain, csv or json to write elsewhere"});
  }
  const bool table = format == output_format::table;
  if (options.verbose && !table) output.lead_strays_to_stderr();
  quote_session session{options, signals, table ? keep_quotes::latest : keep_quotes::every};
  multicast_feed feed{session.client(), session.inbox(), options.groups, options.symbols};
  const outcome end = viewer{options, format, session, feed, signals, output}.run();
  feed.close();
  if (!session.close()) {
    finish(end);
    std::fflush(nullptr);
    ::_exit(static_cast<int>(end.status));
  }
  return finish(end);
}

int run(int argc, char** argv) {
  parsed_options parsed = parse_options(argc, argv, take_password(argc, argv));
  signal_source signals;
  standard_output output;
  if (const auto* end = std::get_if<outcome>(&parsed)) return finish(*end);
  if (const auto* text = std::get_if<information>(&parsed)) {
    return finish(print_text(text->text, output.fd(), signals.fd()));
  }
  return watch(std::get<watch_options>(parsed), output, signals);
}

}  // namespace

int run_program(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    return finish({exit_status::unexpected, std::string{"unexpected error: "} + error.what()});
  }
}

}  // namespace kav_watch
