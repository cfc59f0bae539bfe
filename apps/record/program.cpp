#include "apps/record/program.h"

#include <fmt/format.h>  // fmt::format
#include <unistd.h>      // access, _exit

#include <cerrno>      // errno
#include <csignal>     // std::signal
#include <cstdio>      // std::fflush
#include <cstring>     // std::strerror
#include <exception>   // std::exception
#include <filesystem>  // std::filesystem::is_directory
#include <string>      // std::string
#include <variant>     // std::get_if

#include "apps/record/options.h"
#include "apps/record/quote_queue.h"
#include "apps/record/recorder.h"
#include "apps/watch/multicast_feed.h"
#include "apps/watch/output_stream.h"
#include "apps/watch/quote_session.h"
#include "apps/watch/signal_source.h"
#include "apps/watch/standard_output.h"

namespace kav_record {
namespace {

using kav_watch::exit_status;
using kav_watch::outcome;

int finish(const outcome& end) {
  if (!end.message.empty()) note(end.message);
  return static_cast<int>(end.status);
}

// Told before a session begins; empty when files can be made there.
std::string folder_complaint(const std::string& folder) {
  std::error_code error;
  if (std::filesystem::is_directory(folder, error) && ::access(folder.c_str(), W_OK | X_OK) == 0) {
    return "";
  }
  const std::string why = error        ? error.message()
                          : errno != 0 ? std::strerror(errno)
                                       : "not a folder";
  return fmt::format("cannot make files in {}: {}; give --output a folder that can be written to",
                     folder, why);
}

int record(record_options& options, kav_watch::standard_output& output,
           kav_watch::signal_source& signals) {
  errno = 0;
  const std::string complaint = folder_complaint(options.files.folder);
  if (!complaint.empty()) return finish({exit_status::write_failed, complaint});
  if (options.verbose) output.lead_strays_to_stderr();
  quote_queue queue{options.queue, options.count};
  kav_watch::quote_session session{options, signals, queue};
  kav_watch::multicast_feed feed{session.client(), session.inbox(), options.groups,
                                 options.symbols};
  const outcome end = recorder{options, queue, session, feed, signals}.run();
  feed.close();
  if (!session.close()) {
    finish(end);
    std::fflush(nullptr);
    ::_exit(static_cast<int>(end.status));
  }
  return finish(end);
}

int run(int argc, char** argv) {
  parsed_options parsed = parse_options(argc, argv, kav_watch::take_password(argc, argv));
  kav_watch::signal_source signals;
  kav_watch::standard_output output;
  std::signal(SIGXFSZ, SIG_IGN);  // a write tells that the file may not grow
  if (const auto* end = std::get_if<outcome>(&parsed)) return finish(*end);
  if (const auto* text = std::get_if<kav_watch::information>(&parsed)) {
    return finish(kav_watch::print_text(text->text, output.fd(), signals.fd()));
  }
  return record(std::get<record_options>(parsed), output, signals);
}

}  // namespace

int run_program(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    return finish({exit_status::unexpected, std::string{"unexpected error: "} + error.what()});
  }
}

}  // namespace kav_record
