// The host forks while its client lives.
#include <spawn.h>     // posix_spawn
#include <sys/wait.h>  // waitpid
#include <unistd.h>    // fork, execl, pipe

#include <csignal>  // kill
#include <cstdlib>  // exit

#include "tests/faults/stage.h"
#include "tests/support/wait_until.h"

namespace kav_faults {

namespace {

constexpr int k_children = 10;  // of each kind
constexpr milliseconds k_child_life{2000};

enum class child_end { exec, quick_exit, normal_exit };

bool g_is_child = false;

[[noreturn]] void live_as_child(child_end end) {
  g_is_child = true;
  if (end == child_end::exec) ::execl("/bin/true", "true", nullptr);
  if (end == child_end::normal_exit) std::exit(0);  // atexit functions and static destructors run
  ::_exit(end == child_end::exec ? 1 : 0);
}

// The child's exit status, -1 when it did not exit by itself.
int fork_and_wait(child_end end) {
  const pid_t child = ::fork();
  if (child == 0) live_as_child(end);
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

bool fork_children(child_end end) {
  bool all_well = true;
  for (int i = 0; i < k_children; ++i) all_well = fork_and_wait(end) == 0 && all_well;
  return all_well;
}

bool server_sees_the_end(const kav_sim::quote_server& server, milliseconds limit) {
  return wait_until([&] { return server.connections().current == 0; }, limit);
}

}  // namespace
}  // namespace kav_faults

// The stacks of the parent's other threads are nobody's in a child: what they point to would look
// leaked there. Called by LeakSanitizer, where that is at work.
extern "C" int __lsan_is_turned_off() { return kav_faults::g_is_child ? 1 : 0; }

namespace kav_faults {

fault_result forks() {
  fault_result r;
  r.note = "10 children of each kind, 10,000 quotes/s meanwhile";
  stage s;
  if (!s.open(r)) return r;
  quote_feed feed{s.server, 10'000};
  r.expect(s.client.events.wait_quotes(1000), "quotes flow at first");
  const clock::time_point at = clock::now();
  r.expect(fork_children(child_end::exec), "a child that execs is well");
  r.expect(fork_children(child_end::quick_exit), "a child that _exits is well");
  r.expect(fork_children(child_end::normal_exit), "a child that exits normally is well");
  feed.stop();
  const caller& events = s.client.events;
  r.expect(wait_until([&] { return events.quotes() == feed.sent(); }, k_patience) &&
               events.missing() == 0,
           "the parent loses no quote");
  r.expect(s.server.connections().ever == 1, "the parent keeps its connection");
  r.calls = events.calls_since(at);
  r.expect(r.calls.empty(), "the parent is told nothing");
  r.add("children", 3 * k_children, "");
  r.add("quotes lost", static_cast<double>(events.missing()), "");
  return r;
}

// It has a copy of every descriptor: what the parent closes stays open until the child ends.
fault_result child_that_lives_on() {
  fault_result r;
  r.note = "the child keeps the parent's descriptors for 2 s";
  stage s;
  if (!s.open(r)) return r;
  const clock::time_point at = clock::now();
  const pid_t child = ::fork();
  if (child == 0) {
    const timespec life{k_child_life.count() / 1000, 0};
    ::nanosleep(&life, nullptr);
    ::_exit(0);
  }
  const auto took = s.client.disconnect();
  r.add("`DisConnServer`", static_cast<double>(took.count()), "ms");
  const bool at_once = server_sees_the_end(s.server, k_child_life / 2);
  const bool in_the_end = server_sees_the_end(s.server, k_patience);
  r.add("until the server sees the end of the connection", seconds_between(at, clock::now()), "s");
  r.add("seen while the child lives (1: yes)", at_once ? 1 : 0, "");
  r.expect(in_the_end, "the server sees the end at the latest when the child has gone");
  r.expect(s.client.log_in(s.server.port()), "a new session can be had");
  r.calls = s.client.events.calls_since(at);
  ::waitpid(child, nullptr, 0);
  return r;
}

}  // namespace kav_faults
