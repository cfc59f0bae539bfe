// Log lines that go to standard output, since nobody has given a context.
#include "sock/socket_context.h"

#include <fcntl.h>  // O_CLOEXEC
#include <gtest/gtest.h>
#include <unistd.h>  // pipe2, alarm

#include <csignal>  // SIGPIPE
#include <cstdio>   // setvbuf
#include <cstdlib>  // _Exit
#include <string>   // std::string
#include <thread>   // std::thread

#include "sock/socket_client.h"
#include "tests/sock/event_recorder.h"

namespace {

using namespace VORLAN::SOCK;
using kav_test::event_recorder;

// What the tests below do in a child process, since it would be the end of this one.

// From now on whatever reaches standard output is written at once, to a pipe that nobody reads.
bool break_standard_output() {
  int ends[2] = {-1, -1};
  if (std::setvbuf(stdout, nullptr, _IONBF, 0) != 0 || ::pipe2(ends, O_CLOEXEC) != 0) return false;
  ::close(ends[0]);
  return ::dup2(ends[1], STDOUT_FILENO) >= 0 && ::signal(SIGPIPE, SIG_DFL) != SIG_ERR;
}

// From now on standard output is a pipe that somebody holds open, but does not read, and that is
// full.
bool block_standard_output() {
  int ends[2] = {-1, -1};
  if (std::setvbuf(stdout, nullptr, _IONBF, 0) != 0) return false;
  if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  while (::write(ends[1], "x", 1) == 1) continue;
  const bool waits = ::fcntl(ends[1], F_SETFL, 0) == 0;
  return waits && ::dup2(ends[1], STDOUT_FILENO) >= 0;
}

sigset_t blocked_signals() {
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  return blocked;
}

bool is_pipe_signal_pending() {
  sigset_t pending;
  return ::sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
}

enum outcome { SURVIVED, NOT_BROKEN, CONNECTED, STILL_BLOCKED, STILL_PENDING, LOST_PENDING };

outcome fail_to_bind() {
  event_recorder events;
  socket_client client;
  // Tells on the calling thread that there is no such local address.
  return client.sock_init("127.0.0.1", 9, "192.0.2.1", 0, event_recorder::callback, &events)
             ? CONNECTED
             : SURVIVED;
}

[[noreturn]] void write_to_nobody() {
  outcome result = break_standard_output() ? fail_to_bind() : NOT_BROKEN;
  const sigset_t blocked = blocked_signals();
  if (result == SURVIVED && sigismember(&blocked, SIGPIPE) == 1) result = STILL_BLOCKED;
  if (result == SURVIVED && is_pipe_signal_pending()) result = STILL_PENDING;
  std::_Exit(result);
}

// The host has blocked the signal and has one waiting that it is going to look at.
[[noreturn]] void write_to_nobody_with_a_signal_that_waits() {
  sigset_t pipe_signal;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
  ::raise(SIGPIPE);
  outcome result = break_standard_output() ? fail_to_bind() : NOT_BROKEN;
  if (result == SURVIVED && !is_pipe_signal_pending()) result = LOST_PENDING;
  std::_Exit(result);
}

constexpr unsigned k_patience_s = 20;

[[noreturn]] void write_to_a_full_pipe() {
  ::alarm(k_patience_s);  // ends a line that waits
  std::_Exit(block_standard_output() ? fail_to_bind() : NOT_BROKEN);
}

// The host has collected more than the pipe has room for.
[[noreturn]] void write_behind_a_full_buffer() {
  static char buffer[65536];
  ::alarm(k_patience_s);
  int ends[2] = {-1, -1};
  const bool made = std::setvbuf(stdout, buffer, _IOFBF, sizeof(buffer)) == 0 &&
                    ::pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0;
  if (!made) std::_Exit(NOT_BROKEN);
  std::string page(4096, 'x');
  while (::write(ends[1], page.data(), page.size()) > 0) continue;
  if (::read(ends[0], page.data(), page.size()) != 4096) std::_Exit(NOT_BROKEN);
  ::fcntl(ends[1], F_SETFL, 0);
  ::dup2(ends[1], STDOUT_FILENO);
  std::fputs(std::string(sizeof(buffer) - 10, 'y').c_str(), stdout);
  std::_Exit(fail_to_bind());
}

TEST(socket_log_lines, a_buffer_of_the_hosts_that_would_have_to_wait_holds_nobody_up) {
  EXPECT_EXIT(write_behind_a_full_buffer(), testing::ExitedWithCode(SURVIVED), "");
}

// A thread of the host waits in its own output, with the lock of the stream.
[[noreturn]] void write_beside_a_host_that_waits() {
  ::alarm(k_patience_s);
  if (!block_standard_output()) std::_Exit(NOT_BROKEN);
  std::thread host([] { std::printf("a line of the host's\n"); });
  const auto stream_is_locked = [] {
    if (ftrylockfile(stdout) != 0) return true;
    funlockfile(stdout);
    return false;
  };
  if (!wait_until(stream_is_locked, kav_test::k_soon)) std::_Exit(NOT_BROKEN);
  std::_Exit(fail_to_bind());
}

TEST(socket_log_lines, a_standard_output_that_is_full_holds_nobody_up) {
  EXPECT_EXIT(write_to_a_full_pipe(), testing::ExitedWithCode(SURVIVED), "");
}

TEST(socket_log_lines, a_host_that_waits_in_its_own_output_holds_nobody_up) {
  EXPECT_EXIT(write_beside_a_host_that_waits(), testing::ExitedWithCode(SURVIVED), "");
}

TEST(socket_log_lines, a_standard_output_that_nobody_reads_raises_no_signal) {
  EXPECT_EXIT(write_to_nobody(), testing::ExitedWithCode(SURVIVED), "");
}

TEST(socket_log_lines, a_broken_pipe_signal_of_the_hosts_own_stays_his) {
  EXPECT_EXIT(write_to_nobody_with_a_signal_that_waits(), testing::ExitedWithCode(SURVIVED), "");
}

}  // namespace
