// Feed datagrams and who sends them, for tests of the multicast path.
#pragma once

#include <cstdint>  // std::int32_t
#include <cstring>  // memcpy
#include <string>   // std::string

#include "api/kav_multicast.h"
#include "sock/socket_multicast.h"
#include "tests/support/multicast_port.h"
#include "tools/helpers.h"

namespace kav_session {

template <class T>
void put_at(std::string& bytes, std::size_t offset, T value) {
  std::memcpy(bytes.data() + offset, &value, sizeof(value));
}

// Records with nothing but a symbol and a last price.
inline std::string exchange_datagram(std::size_t length, std::size_t symbol_at,
                                     std::size_t price_at, const std::string& symbol, double last) {
  std::string bytes(length, '\0');
  bytes.replace(symbol_at, symbol.size(), symbol);
  put_at(bytes, price_at, last);
  return bytes;
}
inline std::string shfe_datagram(const std::string& symbol, double last) {
  return exchange_datagram(368, 168, 24, symbol, last);
}
inline std::string cffex_datagram(const std::string& symbol, double last) {
  return exchange_datagram(360, 168, 24, symbol, last);
}
inline std::string czce_datagram(const std::string& symbol, double last) {
  return exchange_datagram(239, 0, 75, symbol, last);
}
inline std::string gfex_datagram(const std::string& symbol, double last) {
  return exchange_datagram(239, 9, 80, symbol, last);
}
inline std::string lumen_trade(const std::string& symbol, double last, std::int32_t volume) {
  std::string bytes = exchange_datagram(108, 11, 56, symbol, last);
  bytes[55] = 1;
  put_at(bytes, 64, volume);
  return bytes;
}
inline std::string lumen_summary(const std::string& symbol, double open) {
  return exchange_datagram(120, 11, 56, symbol, open);
}

inline KqsMulticastInfo group_info(const std::string& group_ip, unsigned short port,
                                   const std::string& exchange,
                                   const std::string& local_ip = kav_test::k_local) {
  KqsMulticastInfo info{};
  VORLAN::TOOLS::strncpy_vl(info.m_GroupIp, sizeof(info.m_GroupIp), group_ip.c_str());
  info.m_GroupPort = port;
  VORLAN::TOOLS::strncpy_vl(info.m_LocalIp, sizeof(info.m_LocalIp), local_ip.c_str());
  VORLAN::TOOLS::strncpy_vl(info.m_ExchangeId, sizeof(info.m_ExchangeId), exchange.c_str());
  return info;
}

// Sends to one group from 127.0.0.1. Any thread.
class group_sender {
 public:
  group_sender(const std::string& group_ip, unsigned short port)
      : m_id(m_sender.add_multicast_param(group_ip, port, kav_test::k_local, 0, "")) {
    EXPECT_TRUE(m_sender.sock_init(VORLAN::SOCK::MULTICAST_SEND, nullptr, nullptr));
  }
  bool send(const std::string& bytes) {
    const int length = static_cast<int>(bytes.size());
    return m_sender.sock_send(bytes.data(), length, m_id) == length;
  }

 private:
  VORLAN::SOCK::socket_multicast m_sender;
  const int m_id;
};

}  // namespace kav_session
