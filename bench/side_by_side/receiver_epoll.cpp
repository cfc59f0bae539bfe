#include <fcntl.h>      // fcntl
#include <sys/epoll.h>  // epoll_wait
#include <unistd.h>     // read, close

#include <cerrno>  // errno

#include "bench/side_by_side/receivers.h"
#include "bench/side_by_side/stream_cutter.h"

namespace kav_bench {

bool receive_with_epoll(int socket, KAVQuoteEvent& event) {
  stream_cutter cutter{event, k_small_read_bytes};
  const int handle = ::epoll_create1(EPOLL_CLOEXEC);
  epoll_event watched{};
  watched.events = EPOLLIN;
  if (::fcntl(socket, F_SETFL, O_NONBLOCK) != 0 ||
      ::epoll_ctl(handle, EPOLL_CTL_ADD, socket, &watched) != 0) {
    return false;
  }
  ssize_t got = 1;
  bool good = true;
  while (good && got != 0) {
    epoll_event ready{};
    if (::epoll_wait(handle, &ready, 1, -1) != 1) continue;
    got = ::read(socket, cutter.room(), k_small_read_bytes);
    if (got > 0) good = cutter.received(static_cast<std::size_t>(got));
    if (got < 0) good = errno == EAGAIN || errno == EINTR;
  }
  ::close(handle);
  return good;
}

}  // namespace kav_bench
