// One client's connection inside the quote server: its socket, its queues, its bookkeeping.
#pragma once

#include <chrono>   // std::chrono::milliseconds
#include <cstddef>  // std::size_t
#include <cstdint>  // std::uint64_t
#include <deque>    // std::deque
#include <map>      // std::map
#include <set>      // std::set
#include <string>   // std::string
#include <vector>   // std::vector

#include "apps/sim/quote_server.h"

namespace kav_sim {

enum class read_result { nothing, data, ended };

// A plain record with its socket work. Not safe by itself: the server's lock guards all of it.
struct server_connection {
  struct outgoing {
    std::string bytes;
    bool quote = false;
  };
  struct delayed {
    steady_time due;
    std::string bytes;
  };

  // Life.
  std::size_t number = 0;
  int fd = -1;             // -1: gone
  bool lingering = false;  // FIN is out; reads and discards until the peer closes too
  steady_time linger_until{};
  steady_time accepted_at{};
  bool never_read = false;
  bool stalled = false;
  unsigned watched = 0;  // the epoll events it is registered for; 0: not in the epoll set

  // Session.
  bool logged_in = false;
  std::string user;
  std::set<std::string, std::less<>> registered;
  steady_time last_write{};  // also set by the login, from which heartbeats are counted

  // From the client.
  std::string input;
  std::vector<received_message> received;
  std::map<char, std::size_t> received_by_type;

  // To the client.
  std::deque<outgoing> queue;
  std::size_t front_offset = 0;  // bytes of the front message that are written already
  std::size_t queued_bytes = 0;
  std::size_t queued_messages = 0;     // ever queued, the count that loss_after_messages looks at
  std::vector<delayed> delays;         // in the order of their making
  loss_kind ending = loss_kind::none;  // comes when the queue is empty; nothing is queued after it
  bool loss_done = false;
  std::size_t chunk_index = 0, chunk_left = 0;
  steady_time pause_until{};
  std::uint64_t quotes_sent = 0, quotes_dropped = 0;
  steady_time drop_told_at{};

  bool open() const { return fd >= 0 && !lingering; }
  bool writable_now(steady_time now) const;

  // Appends what the socket holds to `input`.
  read_result read_some();
  // Reads and throws away; ended when the peer has closed.
  read_result discard_some() const;
  // Writes what the socket takes, in chunks when sizes are given, and books whole messages into
  // `sums`. False: the connection is broken.
  bool write_some(const std::vector<std::size_t>& chunk_sizes, std::chrono::milliseconds pause,
                  server_counters& sums);
  void close_socket();
  void reset_socket();

 private:
  std::size_t next_write_limit(const std::vector<std::size_t>& chunk_sizes);
  void book_written(std::size_t bytes, server_counters& sums);
};

}  // namespace kav_sim
