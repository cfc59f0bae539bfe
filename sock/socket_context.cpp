#include "sock/socket_context.h"

#include <limits.h>     // PIPE_BUF
#include <poll.h>       // poll
#include <stdio_ext.h>  // __fpending
#include <unistd.h>     // STDOUT_FILENO

#include <cerrno>   // errno
#include <csignal>  // pthread_sigmask, sigtimedwait
#include <cstdio>   // printf
#include <cstring>  // strlen

#include "sock/vorlan_socket_thread.h"

namespace VORLAN {
namespace SOCK {
namespace {

// While it lives, writing to a pipe that nobody reads raises no signal. One that waited before is
// the host's and stays; it was blocked anyway.
class pipe_signal_guard {
 public:
  pipe_signal_guard() {
    sigset_t pending;
    if (::sigpending(&pending) != 0 || sigismember(&pending, SIGPIPE) == 1) return;
    sigemptyset(&m_pipe);
    sigaddset(&m_pipe, SIGPIPE);
    m_active = ::pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before) == 0;
  }
  pipe_signal_guard(const pipe_signal_guard&) = delete;
  pipe_signal_guard& operator=(const pipe_signal_guard&) = delete;
  ~pipe_signal_guard() {
    if (!m_active) return;
    const timespec at_once{};
    while (::sigtimedwait(&m_pipe, nullptr, &at_once) < 0 && errno == EINTR) continue;
    ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
  }

 private:
  bool m_active = false;
  sigset_t m_pipe{}, m_before{};
};

constexpr int k_stream_polls = 100;  // for somebody else's line, 1 ms each

// The lock of standard output, which a thread of the host may have for as long as nobody reads what
// that writes.
class stream_lock {
 public:
  stream_lock() {
    for (int polls = 0; !m_held && polls < k_stream_polls; ++polls) {
      m_held = ::ftrylockfile(stdout) == 0;
      if (!m_held) vl_sleep(1);
    }
  }
  stream_lock(const stream_lock&) = delete;
  stream_lock& operator=(const stream_lock&) = delete;
  ~stream_lock() {
    if (m_held) ::funlockfile(stdout);
  }
  bool is_held() const { return m_held; }

 private:
  bool m_held = false;
};

// What waits in the host's buffer would go out with the line, and a descriptor that is ready is so
// for a page.
bool output_takes(const char* text) {
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  const std::size_t bytes = ::__fpending(stdout) + std::strlen(text);
  return ::poll(&output, 1, 0) == 1 && (bytes <= PIPE_BUF || bytes <= ::__fbufsize(stdout));
}

// A line that nobody takes is left out: who waits for its writer would wait for ever.
void print(const char* text) {
  const pipe_signal_guard guard;
  const stream_lock stream;
  if (stream.is_held() && output_takes(text)) std::printf("%s", text);
}

}  // namespace

socket_context::~socket_context() = default;

void write_log_text(socket_context* context, const char* text) {
  if (text == nullptr) return;
  if (context != nullptr) {
    context->log_text(text, static_cast<int>(std::strlen(text)));
  } else {
    print(text);
  }
}

}  // namespace SOCK
}  // namespace VORLAN
