#include "sock/vorlan_socket_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>  // pthread_self
#include <unistd.h>   // gettid

#include <atomic>      // std::atomic
#include <chrono>      // std::chrono::milliseconds
#include <csignal>     // SIGPROF
#include <functional>  // std::function
#include <limits>      // std::numeric_limits
#include <memory>      // std::unique_ptr
#include <mutex>       // std::mutex
#include <random>      // std::mt19937
#include <set>         // std::set
#include <thread>      // std::thread

#include "tests/sock/event_recorder.h"
#include "tests/support/process_view.h"
#include "tests/support/system_calls.h"
#include "tests/support/wait_until.h"

namespace {

using namespace VORLAN::SOCK;
using namespace std::chrono_literals;
using kav_test::gate;
using kav_test::k_soon;
using kav_test::record_sleeps;
using kav_test::time_of;
using kav_test::virtual_slot;

constexpr std::chrono::milliseconds k_still_waiting{50};  // shows that something does not end

// A function to be run over and over. The test sets `act` before the thread starts.
class worked_function {
 public:
  static int run(void* self) { return static_cast<worked_function*>(self)->call(); }

  std::function<int(int)> act = [](int) { return 0; };  // gets the number of the call, from 1

  int calls() const { return m_calls.load(); }
  bool wait_calls(int least) const {
    return wait_until([&] { return calls() >= least; }, k_soon);
  }
  bool wait_more_calls() const { return wait_calls(calls() + 2); }
  std::set<pid_t> thread_ids() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_thread_ids;
  }

 private:
  int call() {
    {
      const std::lock_guard<std::mutex> guard(m_lock);
      m_thread_ids.insert(::gettid());
    }
    return act(++m_calls);
  }

  std::atomic<int> m_calls{0};
  mutable std::mutex m_lock;
  std::set<pid_t> m_thread_ids;  // guarded by m_lock
};

class vorlan_socket_thread_test : public testing::Test {
 protected:
  vorlan_socket_thread_test() {
    m_thread.register_function(worked_function::run, &m_function, true);
    m_thread.set_thread_wait_micro_sec(100);
  }
  // Nobody calls the function any more; proven by a thread that is gone. Tests whose function uses
  // their locals end with it.
  bool stop_all() {
    m_thread.stop();
    return no_thread_left();
  }
  static bool no_thread_left() { return kav_test::wait_library_threads({}); }

  worked_function m_function;  // outlives the thread that calls it
  vorlan_socket_thread m_thread;
};

// ---- The free functions

struct created_thread {
  static void* run(void* arg) {
    auto& self = *static_cast<created_thread*>(arg);
    pthread_attr_t attributes;
    int state = -1;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
      pthread_attr_getdetachstate(&attributes, &state);
      pthread_attr_destroy(&attributes);
    }
    self.detached.store(state == PTHREAD_CREATE_DETACHED);
    self.self_id.store(pthread_self());
    self.done.store(true);
    return nullptr;
  }
  std::atomic<bool> detached{false}, done{false};
  std::atomic<unsigned long> self_id{0};
};

TEST(vl_create_thread, the_thread_is_detached_and_its_id_is_returned_and_stored) {
  created_thread created;
  unsigned long id = 77;
  const unsigned long returned = vl_create_thread(created_thread::run, &created, id);
  ASSERT_TRUE(wait_until([&] { return created.done.load(); }, k_soon));
  EXPECT_NE(0u, returned);
  EXPECT_EQ(returned, id);
  EXPECT_EQ(returned, created.self_id.load());
  EXPECT_TRUE(created.detached.load());
}

TEST(vl_create_thread, a_failure_gives_the_id_0_twice) {
  const kav_test::failing_thread_creation failing;
  unsigned long id = 77;
  EXPECT_EQ(0u, vl_create_thread(created_thread::run, nullptr, id));
  EXPECT_EQ(0u, id);
}

struct signal_masks {
  static void* run(void* arg) {
    auto& self = *static_cast<signal_masks*>(arg);
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    for (int signal = 1; signal <= 31; ++signal) {
      if (sigismember(&blocked, signal) == 1) self.blocked.fetch_or(1u << signal);
    }
    self.done.store(true);
    return nullptr;
  }
  bool blocks(int signal) const { return ((blocked.load() >> signal) & 1u) != 0; }
  // In a thread of the library.
  bool load() {
    unsigned long id = 0;
    vl_create_thread(run, this, id);
    return wait_until([this] { return done.load(); }, k_soon);
  }
  std::atomic<std::uint32_t> blocked{0};
  std::atomic<bool> done{false};
};

void expect_mask_of_a_library_thread(const signal_masks& masks) {
  for (const int signal : {SIGINT, SIGTERM, SIGALRM, SIGCHLD, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2,
                           SIGPIPE, SIGWINCH, SIGVTALRM, SIGIO, SIGTSTP}) {
    EXPECT_TRUE(masks.blocks(signal)) << signal;
  }
  for (const int signal : {SIGPROF, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
    EXPECT_FALSE(masks.blocks(signal)) << signal;
  }
}

TEST(vl_create_thread, the_thread_leaves_the_hosts_signals_to_the_host) {
  signal_masks masks;
  ASSERT_TRUE(masks.load());
  expect_mask_of_a_library_thread(masks);
}

// A new thread begins with its creator's mask, and may be interrupted before it has set its own.
TEST(vl_create_thread, no_signal_of_the_hosts_reaches_a_thread_before_it_has_set_its_mask) {
  signal_masks masks;
  ASSERT_TRUE(masks.load());
  const sigset_t at_creation = kav_test::mask_at_last_creation();
  for (const int signal : {SIGINT, SIGTERM, SIGALRM, SIGCHLD, SIGHUP, SIGUSR1, SIGPIPE}) {
    EXPECT_EQ(1, sigismember(&at_creation, signal)) << signal;
  }
}

TEST(vl_create_thread, profilers_and_crash_handlers_work_also_when_the_creator_blocks_everything) {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  signal_masks masks;
  const bool loaded = masks.load();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  ASSERT_TRUE(loaded);
  expect_mask_of_a_library_thread(masks);
}

TEST(vl_create_thread, the_creators_signal_mask_stays_as_it_was) {
  sigset_t mine, before, after;
  sigemptyset(&mine);
  sigaddset(&mine, SIGUSR2);
  pthread_sigmask(SIG_SETMASK, &mine, &before);
  signal_masks masks;
  const bool loaded = masks.load();
  pthread_sigmask(SIG_SETMASK, &before, &after);
  ASSERT_TRUE(loaded);
  for (int signal = 1; signal <= 31; ++signal) {
    EXPECT_EQ(signal == SIGUSR2 ? 1 : 0, sigismember(&after, signal)) << signal;
  }
}

TEST(vl_suspend_and_resume, do_nothing_and_return_0) {
  EXPECT_EQ(0, vl_suspend_thread(0));
  EXPECT_EQ(0, vl_resume_thread(0));
  EXPECT_EQ(0, vl_suspend_thread(pthread_self()));
  EXPECT_EQ(0, vl_resume_thread(pthread_self()));
}

struct cancelled_thread {
  static void mark(void* arg) { static_cast<cancelled_thread*>(arg)->cancelled.store(true); }
  static void* run(void* arg) {
    pthread_cleanup_push(mark, arg);
    static_cast<cancelled_thread*>(arg)->running.store(true);
    for (;;) ::usleep(1000);
    pthread_cleanup_pop(0);
    return nullptr;
  }
  std::atomic<bool> running{false}, cancelled{false};
};

TEST(vl_close_thread, cancels_the_thread_and_returns_0) {
  if (kav_test::k_sanitized) GTEST_SKIP() << "AddressSanitizer fails on cancelled threads";
  cancelled_thread thread;
  unsigned long id = 0;
  vl_create_thread(cancelled_thread::run, &thread, id);
  ASSERT_TRUE(wait_until([&] { return thread.running.load(); }, k_soon));
  EXPECT_EQ(0, vl_close_thread(id));
  EXPECT_TRUE(wait_until([&] { return thread.cancelled.load(); }, k_soon));
}

TEST(vl_close_thread, the_id_of_a_thread_that_could_not_be_created_is_refused) {
  EXPECT_NE(0, vl_close_thread(0));
}

TEST(vl_sleep, sleeps_milliseconds) {
  std::vector<unsigned> sleeps;
  record_sleeps(&sleeps);
  vl_sleep(0);
  vl_sleep(1);
  vl_sleep(2500);
  record_sleeps(nullptr);
  EXPECT_EQ((std::vector<unsigned>{0, 1000, 2'500'000}), sleeps);
  EXPECT_GE(time_of([] { vl_sleep(20); }), 20ms);
}

TEST(vl_sleep, a_time_too_long_to_count_is_held_at_the_longest) {
  std::vector<unsigned> sleeps;
  record_sleeps(&sleeps);
  vl_sleep(0xffffffffu);
  record_sleeps(nullptr);
  EXPECT_EQ((std::vector<unsigned>{4'294'967'000u}), sleeps);
}

// ---- The wrapper

static_assert(sizeof(socket_thread_status) == 4, "a 32-bit enumeration");

TEST(socket_thread_status, names_have_their_numbers) {
  EXPECT_EQ(0, STATUS_INIT);
  EXPECT_EQ(1, STATUS_RUNNING);
  EXPECT_EQ(2, STATUS_PAUSED);
  EXPECT_EQ(3, STATUS_PAUSE_PENDING);
  EXPECT_EQ(4, STATUS_STOPPED);
  EXPECT_EQ(5, STATUS_STOP_PENDING);
  EXPECT_EQ(6, STATUS_DESTROYED);
}

TEST(vorlan_socket_thread, the_thread_name_is_the_third_virtual_slot_after_the_destructors) {
  vorlan_socket_thread thread;
  EXPECT_EQ("", virtual_slot<std::string (*)(vorlan_socket_thread*)>(&thread, 2)(&thread));
  EXPECT_EQ("", thread.get_thread_name());
}

TEST(vorlan_socket_thread, the_second_virtual_slot_deletes) {
  worked_function function;
  auto* thread = new vorlan_socket_thread;
  thread->register_function(worked_function::run, &function, true);
  thread->start();
  ASSERT_TRUE(function.wait_calls(1));
  virtual_slot<void (*)(vorlan_socket_thread*)>(thread, 1)(thread);
  EXPECT_TRUE(kav_test::wait_library_threads({}));
}

TEST_F(vorlan_socket_thread_test, a_new_wrapper_is_in_its_initial_state) {
  EXPECT_EQ(STATUS_INIT, m_thread.get_thread_status());
  EXPECT_EQ(0u, m_thread.get_thread_id());
  EXPECT_FALSE(m_thread.is_same_thread());
}

TEST_F(vorlan_socket_thread_test, stop_of_a_never_started_wrapper_returns_true_without_waiting) {
  std::vector<unsigned> sleeps;
  record_sleeps(&sleeps);
  const bool stopped = m_thread.stop();
  record_sleeps(nullptr);
  EXPECT_TRUE(stopped);
  EXPECT_TRUE(sleeps.empty());
  EXPECT_EQ(STATUS_INIT, m_thread.get_thread_status());
}

TEST_F(vorlan_socket_thread_test, pause_of_a_never_started_wrapper_returns_false) {
  EXPECT_FALSE(m_thread.pause());
  EXPECT_EQ(STATUS_INIT, m_thread.get_thread_status());
}

TEST_F(vorlan_socket_thread_test, start_runs_the_function_over_and_over) {
  EXPECT_TRUE(m_thread.start());
  EXPECT_EQ(STATUS_RUNNING, m_thread.get_thread_status());
  EXPECT_TRUE(m_function.wait_calls(20));
  EXPECT_NE(0u, m_thread.get_thread_id());
}

TEST_F(vorlan_socket_thread_test, the_thread_shows_a_name) {
  m_thread.start();
  EXPECT_TRUE(kav_test::wait_library_threads({"kav-thread"}));
}

class thread_with_a_name : public vorlan_socket_thread {
 public:
  std::string get_thread_name() override { return "kav-own-name"; }
};

TEST(vorlan_socket_thread, a_derived_class_names_its_thread) {
  worked_function function;
  thread_with_a_name thread;
  thread.register_function(worked_function::run, &function, true);
  thread.start();
  EXPECT_TRUE(kav_test::wait_library_threads({"kav-own-name"}));
  thread.stop();
}

TEST_F(vorlan_socket_thread_test, a_second_start_returns_true_and_creates_no_second_thread) {
  m_thread.start();
  ASSERT_TRUE(m_function.wait_calls(1));
  const unsigned long id = m_thread.get_thread_id();
  EXPECT_TRUE(m_thread.start());
  EXPECT_EQ(id, m_thread.get_thread_id());
  EXPECT_TRUE(m_function.wait_more_calls());
  EXPECT_EQ(1u, m_function.thread_ids().size());
  EXPECT_EQ(1u, kav_test::library_threads().size());
}

TEST_F(vorlan_socket_thread_test, after_a_stop_the_function_is_not_called_any_more) {
  m_thread.start();
  ASSERT_TRUE(m_function.wait_calls(1));
  EXPECT_TRUE(m_thread.stop());
  EXPECT_EQ(STATUS_STOPPED, m_thread.get_thread_status());
  const int calls = m_function.calls();
  EXPECT_TRUE(no_thread_left());
  EXPECT_EQ(calls, m_function.calls());
  EXPECT_TRUE(m_thread.stop());
  EXPECT_FALSE(m_thread.pause());
}

TEST_F(vorlan_socket_thread_test, a_start_after_a_stop_creates_a_new_thread) {
  m_thread.start();
  ASSERT_TRUE(m_function.wait_calls(1));
  m_thread.stop();
  ASSERT_TRUE(no_thread_left());
  EXPECT_TRUE(m_thread.start());
  EXPECT_EQ(STATUS_RUNNING, m_thread.get_thread_status());
  EXPECT_TRUE(m_function.wait_more_calls());
  EXPECT_EQ(2u, m_function.thread_ids().size());
}

TEST_F(vorlan_socket_thread_test, a_paused_thread_only_sleeps_until_it_is_started_again) {
  m_thread.start();
  ASSERT_TRUE(m_function.wait_calls(1));
  EXPECT_TRUE(m_thread.pause());
  EXPECT_EQ(STATUS_PAUSED, m_thread.get_thread_status());
  const int calls = m_function.calls();
  std::this_thread::sleep_for(k_still_waiting);
  EXPECT_EQ(calls, m_function.calls());
  EXPECT_TRUE(m_thread.pause());
  EXPECT_TRUE(m_thread.start());
  EXPECT_EQ(STATUS_RUNNING, m_thread.get_thread_status());
  EXPECT_TRUE(m_function.wait_more_calls());
  EXPECT_EQ(1u, m_function.thread_ids().size());
}

TEST_F(vorlan_socket_thread_test, a_paused_thread_can_be_stopped) {
  m_thread.start();
  m_thread.pause();
  EXPECT_TRUE(m_thread.stop());
  EXPECT_EQ(STATUS_STOPPED, m_thread.get_thread_status());
  EXPECT_TRUE(no_thread_left());
}

TEST_F(vorlan_socket_thread_test, pause_and_stop_wait_until_the_function_is_idle) {
  std::atomic<bool> busy{true};
  m_function.act = [&](int) { return busy.load() ? 1 : 0; };
  m_thread.start();
  for (const auto operation : {&vorlan_socket_thread::pause, &vorlan_socket_thread::stop}) {
    busy.store(true);
    m_thread.start();
    ASSERT_TRUE(m_function.wait_more_calls());
    std::atomic<bool> returned{false};
    std::thread controller([&] {
      EXPECT_TRUE((m_thread.*operation)());
      returned.store(true);
    });
    EXPECT_FALSE(wait_until([&] { return returned.load(); }, k_still_waiting));
    busy.store(false);
    EXPECT_TRUE(wait_until([&] { return returned.load(); }, k_soon));
    controller.join();
  }
  EXPECT_TRUE(stop_all());
}

TEST_F(vorlan_socket_thread_test, while_a_stop_is_pending_start_and_pause_return_false) {
  std::atomic<bool> busy{true};
  m_function.act = [&](int) { return busy.load() ? 1 : 0; };
  m_thread.start();
  std::thread stopper([&] { m_thread.stop(); });
  ASSERT_TRUE(
      wait_until([&] { return m_thread.get_thread_status() == STATUS_STOP_PENDING; }, k_soon));
  EXPECT_FALSE(m_thread.start());
  EXPECT_FALSE(m_thread.pause());
  busy.store(false);
  stopper.join();
  EXPECT_EQ(STATUS_STOPPED, m_thread.get_thread_status());
  EXPECT_TRUE(stop_all());
}

TEST_F(vorlan_socket_thread_test, start_takes_back_a_pause_that_is_pending) {
  m_function.act = [](int) { return 1; };  // would never pause
  m_thread.start();
  m_thread.set_thread_status(STATUS_PAUSE_PENDING);
  EXPECT_TRUE(m_thread.start());
  EXPECT_EQ(STATUS_RUNNING, m_thread.get_thread_status());
  EXPECT_TRUE(m_function.wait_more_calls());
  m_thread.set_thread_status(STATUS_STOPPED);
  EXPECT_TRUE(stop_all());
}

TEST_F(vorlan_socket_thread_test, a_start_of_a_destroyed_wrapper_returns_false) {
  m_thread.set_thread_status(STATUS_DESTROYED);
  EXPECT_FALSE(m_thread.start());
}

TEST_F(vorlan_socket_thread_test, the_function_may_stop_its_own_thread) {
  std::atomic<bool> stopped{false}, started{true};
  std::atomic<int> status{-1};
  m_function.act = [&](int) {
    stopped.store(m_thread.stop());
    status.store(m_thread.get_thread_status());
    started.store(m_thread.start());
    return 1;
  };
  m_thread.start();
  EXPECT_TRUE(wait_until([&] { return m_function.calls() == 1; }, k_soon));
  EXPECT_TRUE(no_thread_left());
  EXPECT_EQ(1, m_function.calls());
  EXPECT_TRUE(stopped.load());
  EXPECT_EQ(STATUS_STOPPED, status.load());
  EXPECT_FALSE(started.load());
}

TEST_F(vorlan_socket_thread_test, the_function_may_pause_its_own_thread) {
  std::atomic<bool> paused{false};
  std::atomic<int> status{-1};
  m_function.act = [&](int call) {
    if (call == 1) {
      paused.store(m_thread.pause());
      status.store(m_thread.get_thread_status());
    }
    return 1;
  };
  m_thread.start();
  ASSERT_TRUE(wait_until([&] { return status.load() != -1; }, k_soon));
  EXPECT_TRUE(paused.load());
  EXPECT_EQ(STATUS_PAUSED, status.load());
  std::this_thread::sleep_for(k_still_waiting);
  EXPECT_EQ(1, m_function.calls());
  EXPECT_TRUE(m_thread.start());
  EXPECT_TRUE(m_function.wait_calls(3));
  m_thread.set_thread_status(STATUS_STOPPED);
  EXPECT_TRUE(stop_all());
}

TEST_F(vorlan_socket_thread_test, the_wrapped_thread_knows_itself) {
  std::atomic<bool> same{false};
  m_function.act = [&](int) {
    same.store(m_thread.is_same_thread());
    return 0;
  };
  m_thread.start();
  EXPECT_TRUE(wait_until([&] { return same.load(); }, k_soon));
  EXPECT_FALSE(m_thread.is_same_thread());
  EXPECT_TRUE(stop_all());
}

// A stop of the function's own and one by another thread, as nearly at once as can be.
TEST_F(vorlan_socket_thread_test, two_stops_at_once_end_both) {
  std::atomic<bool> go{false};
  m_function.act = [&](int) {
    if (!go.load()) return 0;
    m_thread.stop();
    return 1;
  };
  m_thread.set_thread_wait_micro_sec(0);
  std::mt19937 random(1);
  for (int i = 0; i < 100; ++i) {
    go.store(false);
    m_thread.start();
    ASSERT_TRUE(m_function.wait_calls(m_function.calls() + 1));
    go.store(true);
    const auto stop_at =
        std::chrono::steady_clock::now() + std::chrono::nanoseconds(random() % 9000);
    while (std::chrono::steady_clock::now() < stop_at) {
    }
    ASSERT_TRUE(m_thread.stop());
    ASSERT_EQ(STATUS_STOPPED, m_thread.get_thread_status());
  }
  EXPECT_TRUE(stop_all());
}

TEST(vorlan_socket_thread, the_destructor_stops_the_thread) {
  worked_function function;
  {
    vorlan_socket_thread thread;
    thread.register_function(worked_function::run, &function, true);
    thread.start();
    ASSERT_TRUE(function.wait_calls(1));
  }
  const int calls = function.calls();
  EXPECT_TRUE(kav_test::wait_library_threads({}));
  EXPECT_EQ(calls, function.calls());
}

TEST(vorlan_socket_thread, the_destructor_waits_for_a_function_that_has_stopped_its_own_thread) {
  gate inside;
  std::atomic<bool> left{false};
  worked_function function;
  auto thread = std::make_unique<vorlan_socket_thread>();
  vorlan_socket_thread& wrapper = *thread;
  function.act = [&](int) {
    wrapper.stop();
    inside.pass();
    left.store(true);
    return 1;
  };
  thread->register_function(worked_function::run, &function, true);
  thread->start();
  ASSERT_TRUE(inside.wait_reached());
  std::thread opener([&] {
    std::this_thread::sleep_for(k_still_waiting);
    inside.open();
  });
  thread.reset();
  EXPECT_TRUE(left.load());
  opener.join();
}

TEST(vorlan_socket_thread, a_thread_without_a_function_can_still_be_paused_and_stopped) {
  vorlan_socket_thread thread;
  EXPECT_TRUE(thread.start());
  EXPECT_TRUE(thread.pause());
  EXPECT_TRUE(thread.start());
  EXPECT_TRUE(thread.stop());
}

TEST_F(vorlan_socket_thread_test, the_threads_body_leaves_at_once_when_stopped_or_destroyed) {
  EXPECT_EQ(nullptr, vorlan_socket_thread::run_thread(nullptr));
  for (const socket_thread_status status : {STATUS_STOPPED, STATUS_DESTROYED}) {
    m_thread.set_thread_status(status);
    EXPECT_EQ(nullptr, vorlan_socket_thread::run_thread(&m_thread));
  }
  EXPECT_EQ(0, m_function.calls());
}

TEST_F(vorlan_socket_thread_test, the_threads_body_calls_the_function_until_it_is_stopped) {
  m_thread.set_thread_status(STATUS_RUNNING);
  m_function.act = [&](int call) {
    if (call == 3) m_thread.set_thread_status(STATUS_STOP_PENDING);
    return 0;
  };
  EXPECT_EQ(nullptr, vorlan_socket_thread::run_thread(&m_thread));
  EXPECT_EQ(3, m_function.calls());
  EXPECT_EQ(STATUS_STOPPED, m_thread.get_thread_status());
}

TEST_F(vorlan_socket_thread_test, a_pause_or_stop_request_is_answered_at_an_idle_return_only) {
  m_thread.set_thread_status(STATUS_STOP_PENDING);
  m_function.act = [&](int call) { return call < 5 ? 1 : 0; };
  vorlan_socket_thread::run_thread(&m_thread);
  EXPECT_EQ(5, m_function.calls());
}

TEST_F(vorlan_socket_thread_test, a_failure_to_create_the_thread_is_not_detected) {
  {
    const kav_test::failing_thread_creation failing;
    EXPECT_TRUE(m_thread.start());
  }
  EXPECT_EQ(STATUS_RUNNING, m_thread.get_thread_status());
  EXPECT_EQ(0u, m_thread.get_thread_id());
  EXPECT_EQ(0, m_function.calls());
}

TEST_F(vorlan_socket_thread_test, a_wrapper_without_a_thread_can_be_paused_stopped_and_restarted) {
  {
    const kav_test::failing_thread_creation failing;
    m_thread.start();
  }
  EXPECT_TRUE(m_thread.pause());
  EXPECT_TRUE(m_thread.stop());
  EXPECT_TRUE(m_thread.start());
  EXPECT_TRUE(m_function.wait_calls(1));
}

// ---- Sleeping

std::vector<unsigned> slices_of(vorlan_socket_thread& thread, int us) {
  std::vector<unsigned> sleeps;
  record_sleeps(&sleeps);
  thread.break_sleep(us);
  record_sleeps(nullptr);
  return sleeps;
}

TEST(break_sleep, up_to_999_us_are_slept_exactly) {
  vorlan_socket_thread thread;
  EXPECT_EQ((std::vector<unsigned>{1}), slices_of(thread, 1));
  EXPECT_EQ((std::vector<unsigned>{999}), slices_of(thread, 999));
}

TEST(break_sleep, up_to_10_ms_are_slept_in_whole_milliseconds) {
  vorlan_socket_thread thread;
  EXPECT_EQ((std::vector<unsigned>{1000}), slices_of(thread, 1000));
  EXPECT_EQ((std::vector<unsigned>{1000}), slices_of(thread, 1500));
  EXPECT_EQ((std::vector<unsigned>{9000}), slices_of(thread, 9999));
  EXPECT_EQ((std::vector<unsigned>{10'000}), slices_of(thread, 10'000));
}

TEST(break_sleep, more_is_slept_in_slices_of_10_ms) {
  vorlan_socket_thread thread;
  EXPECT_EQ(std::vector<unsigned>(2, 10'000), slices_of(thread, 10'001));
  EXPECT_EQ(std::vector<unsigned>(500, 10'000), slices_of(thread, 5'000'000));
}

TEST(break_sleep, a_negative_time_is_none) {
  vorlan_socket_thread thread;
  for (const int us : {-1, -1'000'000, std::numeric_limits<int>::min()}) {
    for (const unsigned slept : slices_of(thread, us)) EXPECT_EQ(0u, slept);
  }
}

TEST(break_sleep, long_sleeps_end_in_the_states_that_ask_for_it) {
  vorlan_socket_thread thread;
  for (const auto status : {STATUS_RUNNING, STATUS_PAUSED, STATUS_INIT}) {
    thread.set_thread_status(status);
    EXPECT_EQ(3u, slices_of(thread, 30'000).size()) << status;
  }
  for (const auto status :
       {STATUS_PAUSE_PENDING, STATUS_STOP_PENDING, STATUS_STOPPED, STATUS_DESTROYED}) {
    thread.set_thread_status(status);
    EXPECT_TRUE(slices_of(thread, 30'000).empty()) << status;
    EXPECT_EQ(1u, slices_of(thread, 900).size()) << status;
  }
  thread.set_thread_status(STATUS_STOPPED);
}

TEST(thread_sleep, sleeps_the_set_wait_only_when_asked_to_sleep_when_idle) {
  vorlan_socket_thread thread;
  std::vector<unsigned> sleeps;
  record_sleeps(&sleeps);
  thread.thread_sleep();  // no function registered: the flag is false
  thread.register_function(nullptr, nullptr, true);
  thread.thread_sleep();  // 1 us until something else is set
  thread.set_thread_wait_micro_sec(700);
  thread.thread_sleep();
  thread.register_function(nullptr, nullptr, false);
  thread.thread_sleep();
  record_sleeps(nullptr);
  EXPECT_EQ((std::vector<unsigned>{1, 700}), sleeps);
}

// What the loop sleeps between the first and the fourth call of its function.
std::vector<unsigned> sleeps_of_the_loop(bool sleep_when_idle, int result) {
  std::vector<unsigned> sleeps;
  std::atomic<bool> done{false};
  worked_function function;
  vorlan_socket_thread thread;
  function.act = [&](int call) {
    if (call == 1) record_sleeps(&sleeps);
    if (call < 4) return result;
    record_sleeps(nullptr);
    thread.stop();
    done.store(true);
    return 0;
  };
  thread.register_function(worked_function::run, &function, sleep_when_idle);
  thread.set_thread_wait_micro_sec(600);
  thread.start();
  EXPECT_TRUE(wait_until([&] { return done.load(); }, k_soon));
  return sleeps;
}

TEST(vorlan_socket_thread, sleeps_after_each_idle_return) {
  EXPECT_EQ((std::vector<unsigned>{600, 600, 600}), sleeps_of_the_loop(true, 0));
}

TEST(vorlan_socket_thread, does_not_sleep_while_there_is_work_or_when_told_not_to) {
  EXPECT_TRUE(sleeps_of_the_loop(true, 1).empty());
  EXPECT_TRUE(sleeps_of_the_loop(true, -1).empty());
  EXPECT_TRUE(sleeps_of_the_loop(false, 0).empty());
}

class long_wait_test : public vorlan_socket_thread_test {
 protected:
  // The function returns idle, and its thread goes to sleep for a minute.
  void fall_asleep() {
    m_function.act = [this](int) {
      m_thread.set_thread_wait_micro_sec(60'000'000);
      return 0;
    };
    m_thread.start();
    ASSERT_TRUE(m_function.wait_calls(1));
  }
};

TEST_F(long_wait_test, is_cut_short_by_a_stop) {
  fall_asleep();
  EXPECT_LT(time_of([&] { m_thread.stop(); }), 5s);
}

TEST_F(long_wait_test, is_cut_short_by_a_pause_and_in_the_pause_by_a_stop) {
  fall_asleep();
  EXPECT_LT(time_of([&] { m_thread.pause(); }), 5s);
  EXPECT_LT(time_of([&] { m_thread.stop(); }), 5s);
}

// ---- Waking instead of polling

class waking_thread_test : public vorlan_socket_thread_test {
 protected:
  waking_thread_test() { m_thread.set_idle_mode(IDLE_WAKE); }
};

TEST_F(waking_thread_test, an_idle_thread_sleeps_until_it_is_woken) {
  m_thread.start();
  ASSERT_TRUE(m_function.wait_calls(1));
  std::this_thread::sleep_for(k_still_waiting);
  const int calls = m_function.calls();
  std::this_thread::sleep_for(k_still_waiting);
  EXPECT_EQ(calls, m_function.calls());
  m_thread.wake();
  EXPECT_TRUE(m_function.wait_calls(calls + 1));
}

TEST_F(waking_thread_test, no_wake_is_lost) {
  std::atomic<int> announced{0}, seen{0};
  m_function.act = [&](int) {
    seen.store(announced.load());
    return 0;
  };
  m_thread.start();
  for (int i = 1; i <= 2000; ++i) {
    announced.store(i);
    m_thread.wake();
    ASSERT_TRUE(wait_until([&] { return seen.load() >= i; }, k_soon)) << i;
  }
  EXPECT_TRUE(stop_all());
}

TEST_F(waking_thread_test, pause_start_and_stop_wake_a_sleeping_thread) {
  m_thread.start();
  ASSERT_TRUE(m_function.wait_calls(1));
  EXPECT_LT(time_of([&] { m_thread.pause(); }), 5s);
  const int calls = m_function.calls();
  m_thread.start();
  EXPECT_TRUE(m_function.wait_calls(calls + 1));
  EXPECT_LT(time_of([&] { m_thread.stop(); }), 5s);
}

TEST_F(waking_thread_test, the_function_limits_its_next_sleep) {
  m_function.act = [&](int call) {
    if (call < 10) m_thread.limit_next_idle_sleep(500);
    return 0;
  };
  m_thread.start();
  EXPECT_TRUE(m_function.wait_calls(10));
  std::this_thread::sleep_for(k_still_waiting);
  EXPECT_GE(11, m_function.calls());
}

TEST_F(waking_thread_test, a_thread_that_wakes_or_waits_does_both) {
  m_thread.set_idle_mode(IDLE_WAKE_OR_WAIT);
  m_thread.set_thread_wait_micro_sec(2000);
  m_thread.start();
  EXPECT_TRUE(m_function.wait_calls(5));
  const int calls = m_function.calls();
  m_thread.set_thread_wait_micro_sec(60'000'000);
  m_thread.wake();
  EXPECT_TRUE(m_function.wait_calls(calls + 1));
  EXPECT_LT(time_of([&] { m_thread.stop(); }), 5s);
}

TEST_F(waking_thread_test, an_idle_thread_costs_next_to_nothing) {
  m_thread.start();
  ASSERT_TRUE(m_function.wait_calls(1));
  const auto before = kav_test::processor_time();
  std::this_thread::sleep_for(1s);
  EXPECT_LT(kav_test::processor_time() - before, kav_test::k_sanitized ? 200ms : 30ms);
}

}  // namespace
