#include "apps/record/options.h"

#include <CLI/CLI.hpp>

#include "apps/watch/command_line.h"
#include "apps/watch/text_safety.h"

namespace kav_record {
namespace {

using kav_watch::bad_option;
using kav_watch::secret;

constexpr char k_program[] = "kav-record";
constexpr std::size_t k_default_queue = 131'072;
constexpr std::size_t k_least_queue = 1, k_most_queue = 16'777'216;

constexpr char k_footer[] = R"(Files:
  DIR/TEXT-YYYYMMDD.csv.gz holds the quotes that name this trading day, so an evening's quotes lie
  with those of the day that follows. It is comma-separated text packed with gzip, its columns are
  the fields of the quote record, and kav-sim --ticks replays it. A file that is there is never
  touched: a further run on the same day makes TEXT-YYYYMMDD-2.csv.gz, and so on.
  Quotes that name no trading day, and those that a replay would refuse (no time of day, a number
  that is none), go to DIR/TEXT-YYYYMMDD-odd.csv.gz; where they name no day it is that of the clock
  of China, the next one from 18:00 on, Monday on weekends, whatever the holidays.
  Files are whole while they are written, for every reader, and stay so when kav-record is killed:
  what came within the last second may be missing.

Examples:
  export KAV_PASSWORD                                      # then the process list never shows it
  kav-record --server 127.0.0.1:9000 --user me             # all symbols, into this folder
  kav-record --server 127.0.0.1:9000 --user me --output /data/ticks IF2509 'Au(T+D)'
  kav-record --server 127.0.0.1:9000 --user me --receive-time --seconds 3600
  kav-record --multicast 239.255.10.1:30001:SHFE@127.0.0.1 --name shfe

Exit statuses:
  0  ended as asked: --count, --seconds, Ctrl-C, SIGTERM
  1  unexpected error               5  no symbol list
  2  bad option                     6  unknown symbol
  3  connection refused, host unreachable
  4  login refused                  7  session ended for good
  8  no answer in time              9  a file could not be written, such as on a full disk
  10 multicast group could not be received
  11 ended as asked, but quotes were lost because the disk was too slow)";

struct raw_options {
  kav_watch::raw_source source;
  std::string folder = ".", name = "quotes";
  bool receive_time = false;
  std::size_t queue = k_default_queue;
  std::string progress = "10";
};

std::string progress_complaint(const std::string& text) {
  return text == "0" ? "" : kav_watch::seconds_complaint(text);
}

std::string name_complaint(const std::string& name) {
  const bool good = !name.empty() && name.find('/') == std::string::npos && name.front() != '.' &&
                    kav_watch::printable_text(name) == name;
  return good ? ""
              : "'" + kav_watch::printable_text(name) +
                    "' is no beginning of a file name; leave out "
                    "slashes, control characters and a leading dot";
}

void declare_file_options(CLI::App& app, raw_options& raw) {
  app.add_option("-o,--output", raw.folder, "Folder of the files; it has to exist")
      ->type_name("DIR")
      ->capture_default_str();
  app.add_option("--name", raw.name, "What the names of the files begin with")
      ->type_name("TEXT")
      ->check(CLI::Validator{name_complaint, ""})
      ->capture_default_str();
  app.add_flag("--receive-time", raw.receive_time,
               "One more column, ReceiveTimeNs: when the quote came, in nanoseconds since 1970 UTC "
               "by this machine's clock; a replay ignores it");
  app.add_option("--progress", raw.progress, "Seconds between two lines of progress, 0 for none")
      ->type_name("SECONDS")
      ->check(CLI::Validator{progress_complaint, ""})
      ->capture_default_str();
  app.add_option("--queue", raw.queue,
                 "Quotes that may wait for the disk, 706 bytes of memory each; further ones are "
                 "lost, and counted")
      ->type_name("N")
      ->check(CLI::Range(k_least_queue, k_most_queue).description(""))
      ->capture_default_str();
}

parsed_options judge(const CLI::App& app, const raw_options& raw,
                     const std::optional<secret>& password) {
  record_options options;
  options.program = k_program;
  const std::string wrong = accept_source(app, raw.source, password, options);
  if (!wrong.empty()) return bad_option(k_program, wrong);
  options.files = {raw.folder, raw.name, raw.receive_time};
  options.queue = raw.queue;
  if (raw.progress != "0") options.progress = kav_watch::to_milliseconds(std::stod(raw.progress));
  return options;
}

}  // namespace

parsed_options parse_options(int argc, const char* const* argv,
                             const std::optional<secret>& password) {
  raw_options raw;
  CLI::App app{"Records the quotes of a quote server, of multicast groups, or of both.", k_program};
  app.footer(k_footer);
  app.set_version_flag("--version", "kav-record " KAV_RECORD_VERSION);
  kav_watch::declare_source_options(app, raw.source);
  kav_watch::declare_choice_options(app, raw.source, "record");
  declare_file_options(app, raw);
  const auto end = kav_watch::end_of_parsing<parsed_options>(
      app, argc, argv, [](const std::string& text) { return bad_option(k_program, text); });
  if (end) return *end;
  return judge(app, raw, password);
}

}  // namespace kav_record
