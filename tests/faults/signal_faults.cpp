// Signals while the client connects, logs in, receives and mends a loss.
#include <dirent.h>       // opendir
#include <sys/prctl.h>    // prctl
#include <sys/syscall.h>  // SYS_tgkill
#include <sys/time.h>     // setitimer
#include <unistd.h>       // syscall, getpid

#include <csignal>  // sigaction
#include <cstdlib>  // atol
#include <cstring>  // memcmp

#include "tests/faults/stage.h"
#include "tests/support/process_view.h"
#include "tests/support/wait_until.h"

namespace kav_faults {

namespace {

constexpr int k_host_signals[] = {SIGINT, SIGPIPE, SIGALRM};
constexpr milliseconds k_volley_pause{1};
constexpr milliseconds k_phase{1500};
constexpr milliseconds k_connected_again{10'000};

std::atomic<std::uint64_t> g_in_host{0}, g_in_library{0}, g_profiling{0};

char g_program_name[16] = "";  // of every thread that has given itself no other

// prctl() is a bare system call, fit for a handler.
bool on_library_thread() {
  char name[16] = "";
  ::prctl(PR_GET_NAME, name);
  return std::memcmp(name, "kav-", 4) == 0 && std::memcmp(name, g_program_name, 16) != 0;
}

void on_host_signal(int) { ++(on_library_thread() ? g_in_library : g_in_host); }
void on_profiling_signal(int) { ++g_profiling; }

// Without SA_RESTART: every call that a signal interrupts fails with EINTR.
void handle(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  ::sigaction(signal, &action, nullptr);
}

void set_timer(long us) {
  const itimerval every{{0, us}, {0, us}};
  ::setitimer(ITIMER_REAL, &every, nullptr);
}

// Aims every signal at every thread but itself, a thousand times a second.
class storm {
 public:
  storm() {
    ::prctl(PR_GET_NAME, g_program_name);
    for (const int signal : k_host_signals) handle(signal, on_host_signal);
    handle(SIGPROF, on_profiling_signal);
    set_timer(500);
    m_thread = std::thread{[this] { run(); }};
  }
  storm(const storm&) = delete;
  storm& operator=(const storm&) = delete;
  ~storm() {
    set_timer(0);
    m_stop.store(true);
    m_thread.join();
    for (const int signal : k_host_signals) handle(signal, SIG_IGN);  // some may be pending
    handle(SIGPROF, SIG_IGN);
  }

 private:
  void run() {
    const auto own = ::syscall(SYS_gettid);
    while (!m_stop.load()) {
      DIR* const tasks = ::opendir("/proc/self/task");
      while (const dirent* const task = tasks == nullptr ? nullptr : ::readdir(tasks)) {
        const long id = std::atol(task->d_name);
        if (id <= 0 || id == own) continue;
        for (const int signal : k_host_signals) ::syscall(SYS_tgkill, ::getpid(), id, signal);
        ::syscall(SYS_tgkill, ::getpid(), id, SIGPROF);
      }
      if (tasks != nullptr) ::closedir(tasks);
      std::this_thread::sleep_for(k_volley_pause);
    }
  }

  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

}  // namespace

fault_result signal_storm() {
  fault_result r;
  r.note =
      "SIGINT, SIGPIPE, SIGALRM, SIGPROF at every thread about 1,000 times a second, and "
      "setitimer at 2 kHz";
  stage s;
  const storm all_the_time;
  if (!s.open(r)) return r;  // connect and login
  quote_feed feed{s.server, 10'000};
  r.expect(s.client.events.wait_quotes(1), "quotes flow");
  std::this_thread::sleep_for(k_phase);
  feed.stop();
  const caller& events = s.client.events;
  r.expect(wait_until([&] { return events.quotes() == feed.sent(); }, k_patience) &&
               events.missing() == 0 && events.out_of_order() == 0,
           "no quote is lost or out of order");
  const clock::time_point at = clock::now();
  s.server.reset_all();
  r.expect(wait_until([&] { return s.server.registered(k_symbol); }, k_connected_again),
           "the loss is mended");
  s.server.push_quote(numbered_quote(1), '1');
  measure_return(r, events, at, k_loss);
  r.expect(r.quotes_s && *r.quotes_s < 6, "as quickly as without signals");
  r.expect(events.all_after(at, k_loss).size() == 1, "no other connection is lost");
  r.expect(g_in_library.load() == 0, "no library thread handles a signal of the host");
  r.expect(g_in_host.load() > 0 && g_profiling.load() > 0, "the signals came");
  r.add("handled by threads of the host", static_cast<double>(g_in_host.load()), "");
  r.add("handled by threads of the library", static_cast<double>(g_in_library.load()), "");
  r.add("SIGPROF, in all threads", static_cast<double>(g_profiling.load()), "");
  const auto took = s.client.destroy();
  r.add("`DestroyKAVQuoteApi` meanwhile", static_cast<double>(took.count()), "ms");
  r.expect(took < milliseconds{3000}, "DestroyKAVQuoteApi() returns");
  return r;
}

}  // namespace kav_faults
