#include <unistd.h>  // read

#include "bench/side_by_side/receivers.h"
#include "bench/side_by_side/stream_cutter.h"

namespace kav_bench {

bool receive_with_reader(int socket, KAVQuoteEvent& event) {
  stream_cutter cutter{event, k_small_read_bytes};
  for (;;) {
    const ssize_t got = ::read(socket, cutter.room(), k_small_read_bytes);
    if (got == 0) return true;
    if (got < 0 || !cutter.received(static_cast<std::size_t>(got))) return false;
  }
}

}  // namespace kav_bench
