// One reception of multicast groups for a client, from its start to its stop.
#pragma once

#include <atomic>   // std::atomic
#include <cstdint>  // std::uint64_t
#include <memory>   // std::shared_ptr
#include <string>   // std::string
#include <vector>   // std::vector

#include "api/kav_multicast.h"
#include "client/client_life.h"
#include "feeds/multicast_decoder.h"
#include "sock/socket_multicast.h"
#include "tools/locks.h"

class Ckqc_tcp;

// What a datagram needs to find its decoder, for each group.
struct McQuoteContext {
  Ckqc_tcp* client;
  int ignored;
  int exchange;  // a number of get_int_exchange_id(), 0 for a group of lumen records only
};

// Threads:   open() once, by the thread that made this; everything else on any thread, in callbacks
//            too. Datagrams come on the one thread of the receiver, "kav-multicast", which is a
//            visitor of the client meanwhile and writes the counts.
// Shutdown:  close() is a barrier, except inside a callback of this very reception, which is then
//            the last. Nothing is deleted before it has been closed and its callbacks have
//            returned.
// Ownership: the event object stays the caller's, until close() has returned.
class kqc_multicast {
 public:
  kqc_multicast(Ckqc_tcp& client, std::shared_ptr<client_life> life, KAVQuoteEvent& event,
                std::size_t groups);
  ~kqc_multicast();
  kqc_multicast(const kqc_multicast&) = delete;
  kqc_multicast& operator=(const kqc_multicast&) = delete;

  // All groups, as many as announced, or none. A KAVMulticastResult, and one in `results` for each
  // group.
  int open(const KqsMulticastInfo* groups, int* results);
  // Logs why `request` has failed. The client may receive other groups by then.
  void explain(int request, const int* results);
  bool is_open() const { return m_open.load(std::memory_order_acquire); }
  // After open(), or in a callback.
  void close();
  bool is_closed() const { return m_closed.load(std::memory_order_acquire); }
  // Is this thread inside a callback of this reception?
  bool in_callback() const;
  // False: not open, or no such group.
  bool statistics(std::size_t index, KAVMulticastStatistics& out) const;

 private:
  class feed_receiver;

  // One group of the list; its place is its unit's id.
  struct group {
    std::string ip, local_ip;
    unsigned short port = 0;
    std::string exchange;
    McQuoteContext context{};
    // Written by the receiving thread, read by any.
    std::atomic<std::uint64_t> quotes{0}, ignored{0}, refused{0};
  };

  static int receive_callback(VORLAN::SOCK::socket_param& param, void* reception);
  void receive(VORLAN::SOCK::socket_param& param);

  void read_group(const KqsMulticastInfo& info, group& out) const;
  int check(std::size_t index) const;
  bool open_all();
  void find_failures(int* results);
  int judge(const VORLAN::SOCK::socket_multicast::open_failure& failure);
  void add_unit(feed_receiver& receiver, const group& which) const;
  void write_log(KavKqsLogLevel level, const std::string& line);

  Ckqc_tcp& m_client;
  const std::shared_ptr<client_life> m_life;
  KAVQuoteEvent& m_event;
  std::vector<group> m_groups;  // filled by open(), constant while datagrams come
  int m_system_error = 0;       // open() only: errno of a failure that has no result of its own
  const std::unique_ptr<feed_receiver> m_receiver;
  std::atomic<bool> m_open{false}, m_closed{false};
  VORLAN::TOOLS::mutex_lock m_close_lock;  // one thread at a time closes
};
