// The receivers that are measured side by side.
#pragma once

#include <cstddef>  // std::size_t
#include <string>   // std::string
#include <vector>   // std::vector

#include "api/kav_quote_api.h"

namespace kav_bench {

// Takes a connected socket in blocking mode, on which login and registration have gone out, and
// hands each quote to the event's OnQuote() until the server ends the stream. False: it ended
// otherwise.
using receive_function = bool (*)(int socket, KAVQuoteEvent& event);

struct receiver {
  const char* name;
  const char* what;           // one line for the tables
  receive_function function;  // null: the library's client, which makes its session by itself
  bool built;                 // false: what it is written with was not there
};

constexpr const char* k_library = "kavquote";

// All of them, the library's client first.
const std::vector<receiver>& all_receivers();
// Null for an unknown name.
const receiver* find_receiver(const std::string& name);

constexpr std::size_t k_small_read_bytes = 8192;   // what the library's client reads at once
constexpr std::size_t k_large_read_bytes = 65536;  // what users of the libraries choose

// One thread, a blocking read() of 8 KiB, nothing else: no receiver can be much closer to the wire.
bool receive_with_reader(int socket, KAVQuoteEvent& event);
// Two threads: the first waits in epoll_wait(), reads 8 KiB and queues a copy; the second looks at
// the queue and sleeps 1 us while it is empty.
bool receive_with_polling(int socket, KAVQuoteEvent& event);
// One thread, epoll_wait() and read() of 8 KiB.
bool receive_with_epoll(int socket, KAVQuoteEvent& event);
// One thread each, the library's own loop, reads of up to 64 KiB.
bool receive_with_asio(int socket, KAVQuoteEvent& event);
bool receive_with_libevent(int socket, KAVQuoteEvent& event);
bool receive_with_libuv(int socket, KAVQuoteEvent& event);

}  // namespace kav_bench
