#include "bench/side_by_side/receivers.h"

#ifdef KAV_BENCH_ASIO
#define KAV_BENCH_WITH_ASIO receive_with_asio, true
#else
#define KAV_BENCH_WITH_ASIO nullptr, false
#endif
#ifdef KAV_BENCH_LIBEVENT
#define KAV_BENCH_WITH_LIBEVENT receive_with_libevent, true
#else
#define KAV_BENCH_WITH_LIBEVENT nullptr, false
#endif
#ifdef KAV_BENCH_LIBUV
#define KAV_BENCH_WITH_LIBUV receive_with_libuv, true
#else
#define KAV_BENCH_WITH_LIBUV nullptr, false
#endif

namespace kav_bench {

const std::vector<receiver>& all_receivers() {
  static const std::vector<receiver> receivers{
      {k_library, "this library's client, 64 KiB reads", nullptr, true},
      {"reader", "one blocking thread, 8 KiB reads", receive_with_reader, true},
      {"polling", "two threads, the second polls with a 1 us sleep", receive_with_polling, true},
      {"epoll", "one thread, bare epoll, 8 KiB reads", receive_with_epoll, true},
      {"asio", "Boost.Asio, 64 KiB reads", KAV_BENCH_WITH_ASIO},
      {"libevent", "libevent's bufferevent, 64 KiB reads", KAV_BENCH_WITH_LIBEVENT},
      {"libuv", "libuv's stream, 64 KiB reads", KAV_BENCH_WITH_LIBUV},
  };
  return receivers;
}

const receiver* find_receiver(const std::string& name) {
  for (const receiver& r : all_receivers()) {
    if (name == r.name) return &r;
  }
  return nullptr;
}

}  // namespace kav_bench
