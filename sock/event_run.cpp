#include "sock/event_run.h"

#include <sys/epoll.h>  // epoll_ctl

namespace VORLAN {
namespace SOCK {

const std::uint32_t event_run::k_watched_events = EPOLLIN | EPOLLERR | EPOLLHUP;

bool event_run::watch(std::uint32_t events) {
  const shared_descriptor::lease watcher(epoll);
  const shared_descriptor::lease watched(socket);
  epoll_event event{};
  event.events = events;
  event.data.fd = watched.get();
  return ::epoll_ctl(watcher.get(), EPOLL_CTL_MOD, watched.get(), &event) == 0;
}

void event_run::leave_callback() {
  event_thread_place from = k_place_in_callback;
  if (!place.compare_exchange_strong(from, k_place_in_object)) throw abandoned_run{};
}

}  // namespace SOCK
}  // namespace VORLAN
