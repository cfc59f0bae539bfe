#include <event2/buffer.h>       // evbuffer_pullup
#include <event2/bufferevent.h>  // bufferevent_socket_new
#include <event2/event.h>        // event_base_dispatch

#include "bench/side_by_side/receivers.h"
#include "bench/side_by_side/stream_cutter.h"

namespace kav_bench {

namespace {

struct libevent_receiver {
  event_base* base;
  KAVQuoteEvent& event;
  bool good = false;
};

void on_readable(bufferevent* stream, void* context) {
  auto& receiver = *static_cast<libevent_receiver*>(context);
  evbuffer* const input = bufferevent_get_input(stream);
  const std::size_t length = evbuffer_get_length(input);
  char* const data = reinterpret_cast<char*>(evbuffer_pullup(input, -1));
  const std::size_t used = cut_messages(data, length, receiver.event);
  if (used == k_malformed) {
    event_base_loopbreak(receiver.base);
    return;
  }
  evbuffer_drain(input, used);
}

void on_end(bufferevent*, short what, void* context) {
  auto& receiver = *static_cast<libevent_receiver*>(context);
  receiver.good = (what & BEV_EVENT_EOF) != 0;
  event_base_loopbreak(receiver.base);
}

}  // namespace

bool receive_with_libevent(int socket, KAVQuoteEvent& event) {
  libevent_receiver receiver{event_base_new(), event};
  if (receiver.base == nullptr || evutil_make_socket_nonblocking(socket) != 0) return false;
  bufferevent* const stream = bufferevent_socket_new(receiver.base, socket, 0);
  bufferevent_set_max_single_read(stream, k_large_read_bytes);
  bufferevent_setcb(stream, on_readable, nullptr, on_end, &receiver);
  bufferevent_enable(stream, EV_READ);
  event_base_dispatch(receiver.base);
  bufferevent_free(stream);
  event_base_free(receiver.base);
  return receiver.good;
}

}  // namespace kav_bench
