#include "tests/chaos/run.h"

#include <fmt/format.h>
#include <sys/prctl.h>     // prctl
#include <sys/resource.h>  // setrlimit
#include <unistd.h>        // dup

#include <algorithm>  // std::min
#include <cstdio>     // fdopen
#include <deque>      // std::deque
#include <thread>     // std::thread

#include "tests/chaos/life.h"
#include "tests/chaos/remains.h"
#include "tests/chaos/watchdog.h"
#include "tests/support/process_view.h"

namespace kav_chaos {
namespace {

using std::chrono::milliseconds;

constexpr std::chrono::seconds k_life_limit{300 * k_slow};
constexpr std::chrono::seconds k_progress_pause{10};
constexpr milliseconds k_census_pause{200};
// A life is kept for so long after its end: callbacks that come too late find it.
constexpr std::chrono::seconds k_afterlife{3};
constexpr milliseconds k_departure{5000 * k_slow};  // of threads that are on their way out
// A worker's thread has left the client before DestroyKAVQuoteApi() returns, but needs another turn
// to end.
constexpr std::chrono::seconds k_last_turn{10};

// The library prints lines of its own to standard output, thousands in a run like this. They go
// nowhere meanwhile, what the run prints goes where standard output went; with `all` everything
// does.
class report_stream {
 public:
  explicit report_stream(bool all) : m_stream(::fdopen(::dup(STDOUT_FILENO), "w")) {
    if (!all && std::freopen("/dev/null", "w", stdout) == nullptr) std::perror("/dev/null");
  }
  ~report_stream() {
    if (m_stream != nullptr) std::fclose(m_stream);
  }
  report_stream(const report_stream&) = delete;
  report_stream& operator=(const report_stream&) = delete;

  template <class... ARGUMENTS>
  void print(fmt::format_string<ARGUMENTS...> format, ARGUMENTS&&... arguments) const {
    FILE* const to = m_stream != nullptr ? m_stream : stderr;
    fmt::print(to, format, std::forward<ARGUMENTS>(arguments)...);
    std::fflush(to);
  }

 private:
  FILE* const m_stream;
};

void allow_many_descriptors() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

// Threads:   begin() and end() by the threads that run the lives; look() by one other thread.
class run_state {
 public:
  run_state(const chaos_options& options, const report_stream& report)
      : m_options(options), m_report(report) {}

  // The next life; none when all have begun or something was broken.
  std::unique_ptr<life> begin(const load_meter& load);
  void end(std::unique_ptr<life> ended, bool started);
  // Lets go of lives that have been over for long enough, counts workers, tells how far it is.
  void look();
  // After the last life: waits until all can be let go of.
  void finish(const remains& before);
  void print_sums(const load_meter& load, const remains& before) const;
  exit_status status() const { return m_status; }
  bool is_done();

 private:
  struct past_life {
    std::unique_ptr<life> what;
    clock::time_point over_at;
  };

  unsigned count() const { return m_options.life ? 1 : m_options.lives; }
  unsigned number_of(unsigned index) const { return m_options.life.value_or(index); }
  void let_go(const life& past);
  void report(const life& broken, const std::vector<std::string>& lines);
  void count_workers();
  void fail(exit_status status);

  const chaos_options& m_options;
  const report_stream& m_report;
  const clock::time_point m_start = clock::now();
  std::mutex m_lock;
  // Protected by m_lock.
  unsigned m_begun = 0, m_ended = 0;
  std::size_t m_clients = 0;  // of the lives that go on
  std::deque<past_life> m_past;
  exit_status m_status = exit_status::kept;
  experience m_sums;
  std::size_t m_come_back = 0, m_begun_anew = 0;
  std::size_t m_most_workers = 0;
  clock::time_point m_told_at = m_start;
};

std::unique_ptr<life> run_state::begin(const load_meter& load) {
  unsigned number = 0;
  {
    const std::lock_guard<std::mutex> hold{m_lock};
    if (m_begun == count() || m_status != exit_status::kept) return nullptr;
    number = number_of(m_begun++);
  }
  auto begun = std::make_unique<life>(make_script(m_options.seed, number), load);
  const std::lock_guard<std::mutex> hold{m_lock};
  m_clients += begun->script().clients.size();
  if (m_options.verbose) m_report.print("life {} begins\n", number);
  return begun;
}

void run_state::end(std::unique_ptr<life> ended, bool started) {
  const std::lock_guard<std::mutex> hold{m_lock};
  ++m_ended;
  m_clients -= ended->script().clients.size();
  if (m_options.verbose) m_report.print("life {} ends\n", ended->script().number);
  if (!started) {
    fmt::print(stderr, "kav-chaos: life {} cannot run: {}; run fewer at once (--parallel)\n",
               ended->script().number, ended->start_error());
    fail(exit_status::cannot_run);
  }
  m_past.push_back({std::move(ended), clock::now()});
}

void run_state::fail(exit_status status) {
  if (m_status == exit_status::kept) m_status = status;
}

void run_state::look() {
  const std::lock_guard<std::mutex> hold{m_lock};
  const clock::time_point now = clock::now();
  while (!m_past.empty() && now - m_past.front().over_at >= k_afterlife) {
    let_go(*m_past.front().what);
    m_past.pop_front();
  }
  count_workers();
  if (now - m_told_at < k_progress_pause) return;
  m_told_at = now;
  fmt::print(stderr, "{} of {} lives, {} going on, {} kB resident\n", m_ended, count(),
             m_begun - m_ended, look_at_process().resident_kb);
}

// Each client is watched by its checker; this is for workers that never call back. Under m_lock.
void run_state::count_workers() {
  const std::size_t workers = kav_test::threads_named("kav-worker").size();
  m_most_workers = std::max(m_most_workers, workers);
  std::size_t most = m_clients;
  for (const past_life& past : m_past) {
    if (clock::now() - past.over_at < k_last_turn) most += past.what->script().clients.size();
  }
  if (workers <= most) return;
  m_report.print("BROKEN: {} workers run for {} clients\n", workers, most);
  fail(exit_status::broken);
}

void run_state::let_go(const life& past) {
  m_sums.add(past.sums());
  m_come_back += past.come_back();
  m_begun_anew += past.begun_anew();
  const std::vector<std::string> lines = past.report();
  if (!lines.empty()) report(past, lines);
}

void run_state::report(const life& broken, const std::vector<std::string>& lines) {
  fail(exit_status::broken);
  const life_script& script = broken.script();
  m_report.print("BROKEN: life {} of seed {}\n", script.number, script.seed);
  for (const std::string& text : lines) m_report.print("  {}\n", text);
  m_report.print("{}repeat it with: kav-chaos --seed {} --life {}\n", text_of(script), script.seed,
                 script.number);
}

bool run_state::is_done() {
  const std::lock_guard<std::mutex> hold{m_lock};
  return m_past.empty();
}

void run_state::finish(const remains& before) {
  for (; !is_done(); look()) std::this_thread::sleep_for(k_census_pause);
  for (const std::string& text : left_behind(before, m_ended, k_departure)) {
    m_report.print("BROKEN: {}\nrepeat it with: kav-chaos --seed {} --lives {} --parallel {}\n",
                   text, m_options.seed, m_options.lives, m_options.parallel);
    fail(exit_status::broken);
  }
}

void run_state::print_sums(const load_meter& load, const remains& before) const {
  const auto longest = [this](operation what) {
    const auto found = m_sums.longest.find(what);
    return found == m_sums.longest.end() ? 0 : found->second.count();
  };
  const remains now = look_at_process();
  m_report.print("{} lives in {} s: {} logins, {} refused, {} quotes, {} losses, {} relogins\n",
                 m_ended, std::chrono::ceil<std::chrono::seconds>(clock::now() - m_start).count(),
                 m_sums.logins, m_sums.refusals, m_sums.quotes, m_sums.losses, m_sums.relogins);
  m_report.print(
      "{} clients came back by themselves, {} began anew, {} were destroyed inside, "
      "{} callbacks, {} workers at most\n",
      m_come_back, m_begun_anew, m_sums.destroyed_inside, m_sums.callbacks, m_most_workers);
  m_report.print(
      "longest: disconnect {} ms, destroy {} ms, inside {} ms, connect {} ms, stopped "
      "connect {} ms; machine late by {} ms at most\n",
      longest(operation::disconnect), longest(operation::destroy),
      longest(operation::destroy_inside), longest(operation::connect),
      longest(operation::cancel_connect), load.worst().count());
  m_report.print("heap in use: {} bytes before, {} after; resident: {} kB before, {} kB after\n",
                 before.heap_bytes, now.heap_bytes, before.resident_kb, now.resident_kb);
}

}  // namespace

exit_status run_lives(const chaos_options& options) {
  ::prctl(PR_SET_NAME, "chaos");  // "kav-..." is the library's; threads begin with the same name
  allow_many_descriptors();
  const report_stream report(options.verbose);
  const unsigned lives = options.life ? 1 : options.lives;
  report.print("kav-chaos --seed {} {} {} --parallel {}\n", options.seed,
               options.life ? "--life" : "--lives", options.life.value_or(options.lives),
               options.parallel);
  run_state state(options, report);
  const load_meter load;
  watchdog dog(k_life_limit);
  const remains before = look_at_process();
  std::atomic<unsigned> busy{std::min(lives, options.parallel)};
  std::vector<std::thread> threads(busy);
  for (std::thread& thread : threads) {
    thread = std::thread([&] {
      while (std::unique_ptr<life> next = state.begin(load)) {
        bool started = false;
        {
          const watchdog::watch watched(dog, next->script());
          started = next->run();
        }
        state.end(std::move(next), started);
      }
      --busy;
    });
  }
  while (busy != 0) {
    std::this_thread::sleep_for(k_census_pause);
    state.look();
  }
  for (std::thread& thread : threads) thread.join();
  state.finish(before);
  state.print_sums(load, before);
  report.print("{}\n", state.status() == exit_status::kept ? "everything was kept" : "BROKEN");
  return state.status();
}

}  // namespace kav_chaos
