#include "apps/watch/program.h"

#include <fmt/format.h>  // fmt::print
#include <unistd.h>      // _exit

#include <chrono>     // std::chrono_literals
#include <cstdio>     // stderr
#include <exception>  // std::exception
#include <optional>   // std::optional
#include <string>     // std::string
#include <variant>    // std::get_if

#include "apps/watch/multicast_feed.h"
#include "apps/watch/options.h"
#include "apps/watch/secrets.h"
#include "apps/watch/signal_source.h"
#include "apps/watch/standard_output.h"
#include "apps/watch/viewer.h"

namespace kav_watch {
namespace {

int finish(const outcome& end) {
  if (!end.message.empty()) fmt::print(stderr, "kav-watch: {}\n", end.message);
  return static_cast<int>(end.status);
}

int print_information(const std::string& text, standard_output& output, signal_source& signals) {
  using namespace std::chrono_literals;
  output_stream stream{output.fd(), signals.fd()};
  stream.buffer().append(text);
  if (stream.flush_for(2s) != write_result::failed) return 0;
  return finish({exit_status::write_failed, "cannot write the output: " + stream.error_text()});
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

// The password is taken from both places whichever counts, which is the argument's.
parsed_options take_options(int argc, char** argv) {
  const std::optional<secret> from_environment = take_password_from_environment();
  const std::optional<secret> from_arguments = take_password_from_arguments(argc, argv);
  return parse_options(argc, argv, from_arguments ? from_arguments : from_environment);
}

int run(int argc, char** argv) {
  parsed_options parsed = take_options(argc, argv);
  signal_source signals;
  standard_output output;
  if (const auto* end = std::get_if<outcome>(&parsed)) return finish(*end);
  if (const auto* text = std::get_if<information>(&parsed)) {
    return print_information(text->text, output, signals);
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
