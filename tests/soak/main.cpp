// kav-soak: one client, many reconnections, and a look at it every second.
#include <fmt/format.h>
#include <unistd.h>  // isatty

#include <memory>  // std::unique_ptr
#include <thread>  // sleep_until

#include "apps/sim/stop_signal.h"
#include "tests/soak/options.h"
#include "tests/soak/server_process.h"
#include "tests/soak/soak_client.h"
#include "tests/soak/verdict.h"
#include "tests/support/wait_until.h"

namespace {

using namespace kav_soak;
using std::chrono::milliseconds;
using clock_type = std::chrono::steady_clock;

constexpr milliseconds k_login_limit{20'000};
constexpr milliseconds k_end_limit{5000};  // for threads that are on their way out
constexpr milliseconds k_change_pause{200};
constexpr int k_changes_per_sample = 5;  // so one sample a second
constexpr std::size_t k_samples_per_line = 30;

int complain(const std::string& what) {
  fmt::print(stderr, "kav-soak: {}\n", what);
  return k_exit_bad;
}

std::string minutes_text(double seconds) {
  const auto whole = static_cast<long>(seconds);
  return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

// In a terminal one line that is always up to date, else a line now and then.
void show_progress(const soak_options& options, const soak_record& record) {
  const bool terminal = ::isatty(STDERR_FILENO) != 0;
  if (!terminal && record.samples.size() % k_samples_per_line != 0) return;
  const sample& s = record.samples.back();
  fmt::print(
      stderr, "{}{} of {}: {} quotes, {} reconnections, {} descriptors, {} threads, {} KiB{}",
      terminal ? "\r" : "", minutes_text(s.seconds), minutes_text(options.minutes * 60), s.quotes,
      s.reconnections, s.descriptors, s.threads, s.resident_kib, terminal ? "  " : "\n");
}

sample sample_of(const soak_client& client, clock_type::time_point begin) {
  sample s = look_at_process();
  s.seconds = std::chrono::duration<double>(clock_type::now() - begin).count();
  s.quotes = client.events().quotes.load();
  const std::uint64_t sessions = client.events().sessions.load();
  s.reconnections = sessions == 0 ? 0 : sessions - 1;
  return s;
}

void note_counts(const soak_client& client, soak_record& record) {
  record.sessions = client.events().sessions.load();
  record.silent_sessions = client.events().silent_sessions.load();
  record.out_of_order = client.events().out_of_order.load();
  record.login_gave_up = client.events().gave_up.load();
}

// Empty: the time is over; else what has ended the run before.
std::string watch(const soak_options& options, server_process& server, soak_client& client,
                  sample_file& file, soak_record& record) {
  const clock_type::time_point begin = clock_type::now();
  const auto length = std::chrono::duration<double>(options.minutes * 60);
  int changes = 0;
  for (auto at = begin + k_change_pause; at - begin <= length; at += k_change_pause) {
    std::this_thread::sleep_until(at);
    if (kav_sim::is_stop_asked()) return "";
    if (!server.is_alive()) return "the server has died";
    client.change_registrations();
    if (++changes % k_changes_per_sample != 0) continue;
    record.samples.push_back(sample_of(client, begin));
    if (!file.write(record.samples.back())) return file.error();
    show_progress(options, record);
  }
  return "";
}

void look_after_the_end(soak_record& record) {
  const auto same = [&] {
    record.after = look_at_process();
    return record.after.descriptors == record.before.descriptors &&
           record.after.threads == record.before.threads;
  };
  wait_until(same, k_end_limit);
}

int tell_verdict(const soak_record& record) {
  const std::vector<std::string> faults = faults_of(record);
  if (!record.samples.empty()) {
    const sample& last = record.samples.back();
    fmt::print(
        "{}: {} quotes, {} reconnections; resident memory {} KiB, in the second half rising "
        "by {:.1f} KiB a minute\n",
        minutes_text(last.seconds), last.quotes, last.reconnections, last.resident_kib,
        resident_slope(record.samples));
  }
  for (const std::string& fault : faults) fmt::print("not well: {}\n", fault);
  if (faults.empty()) fmt::print("all is well\n");
  return faults.empty() ? k_exit_good : k_exit_bad;
}

int run(const soak_options& options) {
  server_process server;
  if (!server.start({options.seed, 10'000})) return complain(server.error());
  kav_sim::catch_stop_signals();
  sample_file file;
  if (!file.open(options.samples)) return complain(file.error());
  soak_record record;
  record.before = look_at_process();
  auto client = std::make_unique<soak_client>(options.seed);
  if (!client->log_in(server.port(), k_login_limit)) return complain("the login failed");
  const std::string broken = watch(options, server, *client, file, record);
  note_counts(*client, record);
  client.reset();
  look_after_the_end(record);
  if (::isatty(STDERR_FILENO) != 0) fmt::print(stderr, "\n");
  if (!broken.empty()) return complain(broken);
  return tell_verdict(record);
}

}  // namespace

int main(int argc, char** argv) {
  soak_options options;
  if (const std::optional<int> status = parse_command_line(argc, argv, options)) return *status;
  return run(options);
}
