// Sends datagrams to the groups of the feeds.
#pragma once

#include <array>   // std::array
#include <string>  // std::string
#include <vector>  // std::vector

#include "apps/feed/datagram.h"
#include "apps/feed/feed_list.h"
#include "sock/socket_context.h"
#include "sock/socket_multicast.h"

namespace kav_feed {

// A socket for each feed, bound to the interface's address, by which the system also chooses the
// interface: no route to the groups is needed. One thread at a time.
class sender {
 public:
  // False: no feed can be sent to, and `error` tells cause and way out in one line.
  bool open(const std::vector<feed_group>& groups, const std::string& interface,
            std::string& error);
  // False: not sent, `error` as above. A feed that open() was not given cannot be sent to.
  bool send(feed which, const datagram& what, std::string& error);

 private:
  // Failures are told by results; the library's own lines would go to standard output.
  class silence : public VORLAN::SOCK::socket_context {
   public:
    void log_text(const char*, int) override {}
  };

  std::string m_interface;
  std::array<std::string, k_feed_count> m_texts;  // of the groups
  std::array<int, k_feed_count> m_units{-1, -1, -1, -1, -1, -1};
  silence m_silence;  // outlives the sockets
  VORLAN::SOCK::socket_multicast m_sockets;
};

}  // namespace kav_feed
