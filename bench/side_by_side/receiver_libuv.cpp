#include <unistd.h>  // dup
#include <uv.h>

#include "bench/side_by_side/receivers.h"
#include "bench/side_by_side/stream_cutter.h"

namespace kav_bench {

namespace {

struct libuv_receiver {
  explicit libuv_receiver(KAVQuoteEvent& event) : cutter(event, k_large_read_bytes) {}

  stream_cutter cutter;
  uv_loop_t loop{};
  uv_tcp_t stream{};
  bool good = false;
};

void on_room_wanted(uv_handle_t* handle, std::size_t, uv_buf_t* room) {
  stream_cutter& cutter = static_cast<libuv_receiver*>(handle->data)->cutter;
  *room = uv_buf_init(cutter.room(), k_large_read_bytes);
}

void on_read(uv_stream_t* stream, ssize_t got, const uv_buf_t*) {
  auto& receiver = *static_cast<libuv_receiver*>(stream->data);
  if (got == 0) return;  // nothing there after all
  receiver.good =
      got == UV_EOF || (got > 0 && receiver.cutter.received(static_cast<std::size_t>(got)));
  if (got < 0 || !receiver.good) uv_close(reinterpret_cast<uv_handle_t*>(stream), nullptr);
}

}  // namespace

bool receive_with_libuv(int socket, KAVQuoteEvent& event) {
  libuv_receiver receiver{event};
  receiver.stream.data = &receiver;
  auto* const stream = reinterpret_cast<uv_stream_t*>(&receiver.stream);
  if (uv_loop_init(&receiver.loop) != 0 || uv_tcp_init(&receiver.loop, &receiver.stream) != 0 ||
      uv_tcp_open(&receiver.stream, ::dup(socket)) != 0 ||
      uv_read_start(stream, on_room_wanted, on_read) != 0) {
    return false;
  }
  uv_run(&receiver.loop, UV_RUN_DEFAULT);
  return uv_loop_close(&receiver.loop) == 0 && receiver.good;
}

}  // namespace kav_bench
