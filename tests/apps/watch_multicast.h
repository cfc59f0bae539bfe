// A multicast feed on the loopback interface, as an exchange's sender would be: a plain socket.
#pragma once

#include <netinet/in.h>  // sockaddr_in

#include <cstddef>      // std::size_t
#include <cstdint>      // std::uint16_t
#include <string>       // std::string
#include <type_traits>  // std::is_trivially_copyable

#include "feeds/feed_records.h"

namespace kav_watch_test {

// A group of its own, on a port that the groups of one process share. Other test programs that run
// at the same time have other groups.
class multicast_sender {
 public:
  multicast_sender();
  ~multicast_sender();
  multicast_sender(const multicast_sender&) = delete;
  multicast_sender& operator=(const multicast_sender&) = delete;

  std::uint16_t port() const;
  // "239.x.y.z:port:EXCHANGE@127.0.0.1", as --multicast wants it.
  std::string argument(const std::string& exchange) const;
  // Whether somebody receives the group; whoever has joined has bound the port before.
  bool wait_joined() const;
  template <class T>
  bool send(const T& datagram) const {
    static_assert(std::is_trivially_copyable<T>::value);
    return send_bytes(&datagram, sizeof(datagram));
  }
  // Datagrams that the system has dropped for want of buffer at the receiver of the port.
  unsigned long system_drops() const;
  // Bytes that wait in the system for the receiver of the port.
  unsigned long waiting_bytes() const;

 private:
  bool send_bytes(const void* bytes, std::size_t length) const;
  bool is_joined() const;

  sockaddr_in m_group{};
  int m_fd = -1;
};

// The port of all senders, taken so that nobody else can have it.
class taken_port {
 public:
  explicit taken_port(std::uint16_t port);
  ~taken_port();
  taken_port(const taken_port&) = delete;
  taken_port& operator=(const taken_port&) = delete;

 private:
  int m_fd;
};

#pragma pack(push, 1)
struct lumen_tick {
  lumen_udp_head head;
  lumen_udp_normal body;
};
struct lumen_day {
  lumen_udp_head head;
  lumen_udp_summary body;
};
#pragma pack(pop)
static_assert(sizeof(lumen_tick) == 108 && sizeof(lumen_day) == 120);

KQC_CShfeFtdcDepthMarketDataField shfe_record(const std::string& symbol, int volume);
// A trade and the book of SHFE.
lumen_tick tick_of(const std::string& symbol, double last, int trade_volume);
lumen_day day_of(const std::string& symbol, double open);

}  // namespace kav_watch_test
