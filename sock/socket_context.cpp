#include "sock/socket_context.h"

#include <cerrno>   // errno
#include <csignal>  // pthread_sigmask, sigtimedwait
#include <cstdio>   // printf
#include <cstring>  // strlen

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

}  // namespace

socket_context::~socket_context() = default;

void write_log_text(socket_context* context, const char* text) {
  if (text == nullptr) return;
  if (context != nullptr) {
    context->log_text(text, static_cast<int>(std::strlen(text)));
  } else {
    const pipe_signal_guard guard;
    std::printf("%s", text);
  }
}

}  // namespace SOCK
}  // namespace VORLAN
