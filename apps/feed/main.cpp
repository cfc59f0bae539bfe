// kav-feed: the multicast feeds as a program.
#include <fmt/format.h>

#include <cstdio>     // fflush
#include <exception>  // std::exception
#include <memory>     // std::unique_ptr
#include <thread>     // std::this_thread::sleep_until

#include "apps/feed/program_options.h"
#include "apps/sim/stop_signal.h"
#include "apps/standard_error.h"

namespace {

using namespace kav_feed;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::chrono::seconds k_progress_pause{10};
constexpr milliseconds k_idle_slice{20};  // between two looks at the stop flag

steady_clock::duration time_of(double seconds) {
  return std::chrono::ceil<steady_clock::duration>(std::chrono::duration<double>{seconds});
}

int complain(int status, const std::string& what) {
  kav_apps::tell(fmt::format("kav-feed: {}\n", what));
  return status;
}

void print_line(const std::string& line) {
  std::fputs((line + "\n").c_str(), stdout);
  std::fflush(stdout);
}

void print_sums(const char* head, const program_options& options, const publisher& feeds) {
  const publisher_counts sums = feeds.counts();
  std::string line = fmt::format("{}: ", head);
  for (const feed_group& group : options.publishing.groups) {
    const feed_counts& of = sums.of(group.which);
    line += fmt::format("{} {} sent, {} left out, {} swapped; ", name_of(group.which), of.sent,
                        of.left_out, of.swapped);
  }
  kav_apps::tell(
      fmt::format("{}{} ticks, {} without record\n", line, sums.ticks, sums.without_record));
}

// False: told to end meanwhile.
bool wait_for_receivers(const program_options& options) {
  const auto end = steady_clock::now() + time_of(options.wait_seconds);
  while (!kav_sim::is_stop_asked() && steady_clock::now() < end) {
    std::this_thread::sleep_until(std::min(end, steady_clock::now() + k_idle_slice));
  }
  return !kav_sim::is_stop_asked();
}

int publish(const program_options& options, kav_sim::tick_source& source, publisher& feeds) {
  run_options how;
  how.speed = options.speed;
  how.rate = options.rate;
  how.count = options.count;
  how.limit = time_of(options.seconds);
  auto progress_at = steady_clock::now() + k_progress_pause;
  how.keep_going = [&] {
    if (!options.quiet && steady_clock::now() >= progress_at) {
      progress_at += k_progress_pause;
      print_sums("progress", options, feeds);
    }
    return !kav_sim::is_stop_asked();
  };
  std::string error;
  const run_end end = feeds.run(source, how, error);
  print_sums("end", options, feeds);
  return end == run_end::failed ? complain(k_exit_failed, error) : k_exit_good;
}

int run(const program_options& options) {
  std::string error;
  const std::unique_ptr<kav_sim::tick_source> source = make_source(options.source, error);
  if (!source) return complain(k_exit_bad_input, error);
  kav_sim::catch_stop_signals();
  publisher feeds{options.publishing};
  if (!feeds.open(error)) return complain(k_exit_failed, error);
  for (const feed_group& group : options.publishing.groups) print_line(text_of(group));
  if (wait_for_receivers(options)) {
    print_line("publishing");
    return publish(options, *source, feeds);
  }
  print_sums("end", options, feeds);
  return k_exit_good;
}

}  // namespace

int main(int argc, char** argv) {
  program_options options;
  try {
    if (const std::optional<int> status = parse_command_line(argc, argv, options)) return *status;
    return run(options);
  } catch (const std::exception& error) {
    return complain(k_exit_failed, std::string{"unexpected error: "} + error.what());
  }
}
