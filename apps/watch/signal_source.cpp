#include "apps/watch/signal_source.h"

#include <pthread.h>       // pthread_sigmask
#include <signal.h>        // sigaction
#include <sys/signalfd.h>  // signalfd
#include <unistd.h>        // read, close

#include <cerrno>        // errno
#include <system_error>  // std::system_error
#include <utility>       // std::exchange

namespace kav_watch {
namespace {

bool is_ignored(int number) {
  struct sigaction current {};
  return ::sigaction(number, nullptr, &current) == 0 && current.sa_handler == SIG_IGN;
}

}  // namespace

signal_source::signal_source() : m_fd(-1) {
  sigset_t wanted;
  sigemptyset(&wanted);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGWINCH}) {
    if (!is_ignored(number)) sigaddset(&wanted, number);  // nohup and "&" keep their meaning
  }
  ::pthread_sigmask(SIG_BLOCK, &wanted, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  m_fd = ::signalfd(-1, &wanted, SFD_NONBLOCK | SFD_CLOEXEC);
  if (m_fd < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
}

signal_source::~signal_source() { ::close(m_fd); }

void signal_source::read_all() {
  signalfd_siginfo info{};
  while (::read(m_fd, &info, sizeof(info)) == sizeof(info)) {
    if (info.ssi_signo == SIGWINCH) {
      m_resized = true;
    } else {
      m_end_asked = true;
    }
  }
}

bool signal_source::take_resize() { return std::exchange(m_resized, false); }

}  // namespace kav_watch
