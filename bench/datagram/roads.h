// The ways of a datagram from its socket to the caller's object that are compared.
#pragma once

#include <memory>  // std::unique_ptr
#include <string>  // std::string
#include <vector>  // std::vector

#include "api/kav_quote_api.h"
#include "bench/datagram/group_socket.h"

namespace kav_bench {

// One group, one thread that delivers its quotes from open() to the destructor. One thread at a
// time uses it; the event object outlives it.
class road {
 public:
  virtual ~road() = default;
  virtual const char* name() const = 0;  // in tables
  virtual const char* key() const = 0;   // in JSON
  // False: errno or a line on standard error tells why.
  virtual bool open(const group_address& group, KAVQuoteEvent& event) = 0;
};

// A blocking recv() loop, an epoll_wait() and recv() loop, socket_multicast with multicast_decoder,
// and the whole reception of a client, in this order.
std::vector<std::unique_ptr<road>> make_roads();

}  // namespace kav_bench
