// kav-sim: the quote server as a program.
#include <fmt/format.h>

#include <cstdio>     // fflush
#include <exception>  // std::exception
#include <thread>     // std::this_thread::sleep_for

#include "apps/sim/feed.h"
#include "apps/sim/program_options.h"
#include "apps/sim/stop_signal.h"
#include "apps/standard_error.h"
#include "apps/watch/text_safety.h"

namespace {

using namespace kav_sim;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::chrono::seconds k_progress_pause{10};
constexpr milliseconds k_idle_slice{20};  // between two looks at the stop flag

milliseconds ms_of(double seconds) { return milliseconds{static_cast<long long>(seconds * 1000)}; }

server_options server_of(const program_options& o, const tick_source& source) {
  server_options s;
  s.bind_address = o.bind_address;
  s.port = o.port;
  s.user = o.user;
  s.password = o.password;
  s.symbols = source.symbols();
  s.heartbeat = ms_of(o.heartbeat_seconds);
  s.record_received = false;
  if (!o.quiet) {
    s.log = [](const std::string& line) {  // with what clients sent in it
      kav_apps::tell(kav_watch::printable_text(line) + "\n");
    };
  }
  return s;
}

void print_sums(const char* head, const quote_server& server) {
  const server_counters sums = server.counters();
  const connection_counts clients = server.connections();
  kav_apps::tell(fmt::format(
      "{}: {} quotes sent, {} dropped; {} clients now, {} ever; {} malformed messages\n", head,
      sums.quotes_sent, sums.quotes_dropped, clients.current, clients.ever,
      sums.malformed_messages));
}

// What happens beside the quotes: progress lines, the outage, the end. Main thread only.
class side_show {
 public:
  side_show(const program_options& options, quote_server& server)
      : m_options(options), m_server(server) {}

  // False: it is time to end.
  bool keep_going() {
    const auto now = steady_clock::now();
    if (is_stop_asked()) return false;
    if (m_options.seconds > 0 && now - m_start >= ms_of(m_options.seconds)) return false;
    if (!m_options.quiet && now - m_progress_at >= k_progress_pause) {
      m_progress_at = now;
      print_sums("progress", m_server);
    }
    if (!m_outage_done && m_options.outage_after_seconds > 0 &&
        now - m_start >= ms_of(m_options.outage_after_seconds)) {
      m_outage_done = true;
      m_server.outage(ms_of(m_options.outage_seconds));
    }
    return true;
  }

 private:
  const program_options& m_options;
  quote_server& m_server;
  const steady_clock::time_point m_start = steady_clock::now();
  steady_clock::time_point m_progress_at = m_start;
  bool m_outage_done = false;
};

void serve(const program_options& options, tick_source& source, quote_server& server) {
  side_show beside{options, server};
  feed_options feed;
  feed.speed = options.speed;
  feed.wait_for_registration = !options.source.tick_path.empty();
  feed.keep_going = [&beside] { return beside.keep_going(); };
  const feed_result result = run_feed(source, server, feed);
  if (result.at_end && !options.quiet) {
    kav_apps::tell(
        fmt::format("the file has ended after {} quotes; connections stay\n", result.ticks));
  }
  while (beside.keep_going()) std::this_thread::sleep_for(k_idle_slice);
}

int run(const program_options& options) {
  std::string error;
  source_choice choice = options.source;
  choice.gold_codes = true;
  const std::unique_ptr<tick_source> source = make_source(choice, error);
  if (!source) {
    kav_apps::tell(fmt::format("kav-sim: {}\n", error));
    return k_exit_bad_input;
  }
  if (options.list) {
    for (const listed_symbol& s : source->symbols()) fmt::print("{} {}\n", s.type, s.name);
    return std::fflush(stdout) == 0 ? k_exit_good : k_exit_failed;
  }
  catch_stop_signals();
  quote_server server{server_of(options, *source)};
  server.set_behaviour(options.how);
  if (!server.start()) {
    kav_apps::tell(fmt::format("kav-sim: {}\n", server.start_error()));
    return k_exit_failed;
  }
  fmt::print("listening on {}:{}\n", options.bind_address, server.port());
  std::fflush(stdout);
  serve(options, *source, server);
  server.stop();
  print_sums("end", server);
  return k_exit_good;
}

}  // namespace

int main(int argc, char** argv) {
  program_options options;
  try {
    if (const std::optional<int> status = parse_command_line(argc, argv, options)) return *status;
    return run(options);
  } catch (const std::exception& error) {
    kav_apps::tell(fmt::format("kav-sim: unexpected error: {}\n", error.what()));
    return k_exit_failed;
  }
}
