#include "watch_multicast.h"

#include <arpa/inet.h>   // inet_ntop
#include <fmt/format.h>  // fmt::format
#include <sys/socket.h>  // socket
#include <unistd.h>      // getpid

#include <cstdio>     // std::snprintf
#include <fstream>    // std::ifstream
#include <iterator>   // std::istream_iterator
#include <sstream>    // std::istringstream
#include <stdexcept>  // std::runtime_error
#include <vector>     // std::vector

#include "watch_process.h"

namespace kav_watch_test {
namespace {

constexpr unsigned k_first_port = 20'000;  // below those that the system hands out
constexpr unsigned k_ports = 10'000;

// Different in each process and for each sender in it.
in_addr next_group() {
  static unsigned s_count = 0;
  const auto pid = static_cast<unsigned>(::getpid());
  in_addr group{};
  group.s_addr = htonl(0xEF000000u | (++s_count % 4) << 22 | (pid & 0x3FFFFFu));
  return group;
}

bool set_option(int fd, int level, int name, int value) {
  return ::setsockopt(fd, level, name, &value, sizeof(value)) == 0;
}

sockaddr_in any_address(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  return address;
}

bool bind_to(int fd, std::uint16_t port) {
  const sockaddr_in address = any_address(port);
  return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

// Whether receivers, which share, could bind it.
bool can_be_shared(std::uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool free = set_option(fd, SOL_SOCKET, SO_REUSEADDR, 1) && bind_to(fd, port);
  ::close(fd);
  return free;
}

std::uint16_t find_port() {
  const auto start = static_cast<unsigned>(::getpid());
  for (unsigned i = 0; i < k_ports; ++i) {
    const auto port = static_cast<std::uint16_t>(k_first_port + (start + i) % k_ports);
    if (can_be_shared(port)) return port;
  }
  throw std::runtime_error("no port for the groups");
}

std::uint16_t shared_port() {
  static const std::uint16_t s_port = find_port();
  return s_port;
}

template <std::size_t N>
void put_text(char (&field)[N], const std::string& text) {
  std::snprintf(field, N, "%s", text.c_str());
}

lumen_udp_head head_of(const std::string& symbol, int flag) {
  lumen_udp_head head{};
  head.Market = 1;
  put_text(head.InstrumentID, symbol);
  put_text(head.UpdateTime, "09:30:01");
  head.UpdateMillisec = 250;
  head.QuoteFlag = static_cast<std::uint8_t>(flag);
  return head;
}

using socket_words = std::vector<std::string>;

// What the system tells of the UDP sockets of a port.
std::vector<socket_words> sockets_of(std::uint16_t port) {
  std::ifstream file{"/proc/net/udp"};
  const std::string wanted = fmt::format(":{:04X}", port);
  std::vector<socket_words> sockets;
  for (std::string line; std::getline(file, line);) {
    std::istringstream stream{line};
    const socket_words words{std::istream_iterator<std::string>{stream}, {}};
    if (words.size() > 1 && words[1].ends_with(wanted)) sockets.push_back(words);
  }
  return sockets;
}

}  // namespace

multicast_sender::multicast_sender() : m_group(any_address(shared_port())) {
  m_group.sin_addr = next_group();
  m_fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  in_addr loopback{};
  loopback.s_addr = htonl(INADDR_LOOPBACK);
  // No hop: nothing leaves this host, whatever its routes say.
  if (::setsockopt(m_fd, IPPROTO_IP, IP_MULTICAST_IF, &loopback, sizeof(loopback)) != 0 ||
      !set_option(m_fd, IPPROTO_IP, IP_MULTICAST_TTL, 0)) {
    throw std::runtime_error("multicast sender");
  }
}

multicast_sender::~multicast_sender() { ::close(m_fd); }

std::uint16_t multicast_sender::port() const { return ntohs(m_group.sin_port); }

std::string multicast_sender::argument(const std::string& exchange) const {
  char text[INET_ADDRSTRLEN] = "";
  ::inet_ntop(AF_INET, &m_group.sin_addr, text, sizeof(text));
  return fmt::format("{}:{}:{}@127.0.0.1", text, port(), exchange);
}

bool multicast_sender::is_joined() const {
  std::ifstream file{"/proc/net/igmp"};
  const std::string wanted = fmt::format("{:08X}", m_group.sin_addr.s_addr);
  for (std::string word; file >> word;) {
    if (word == wanted) return true;
  }
  return false;
}

bool multicast_sender::wait_joined() const {
  return wait_until([this] { return is_joined(); });
}

bool multicast_sender::send_bytes(const void* bytes, std::size_t length) const {
  const auto* group = reinterpret_cast<const sockaddr*>(&m_group);
  return ::sendto(m_fd, bytes, length, 0, group, sizeof(m_group)) == static_cast<ssize_t>(length);
}

unsigned long multicast_sender::system_drops() const {
  unsigned long drops = 0;
  for (const socket_words& words : sockets_of(port())) drops += std::stoul(words.back());
  return drops;
}

unsigned long multicast_sender::waiting_bytes() const {
  constexpr std::size_t k_queues = 4;  // "transmit:receive", both hexadecimal
  unsigned long bytes = 0;
  for (const socket_words& words : sockets_of(port())) {
    bytes += std::stoul(words.at(k_queues).substr(words.at(k_queues).find(':') + 1), nullptr, 16);
  }
  return bytes;
}

taken_port::taken_port(std::uint16_t port) : m_fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  if (!bind_to(m_fd, port)) throw std::runtime_error("bind");
}

taken_port::~taken_port() { ::close(m_fd); }

KQC_CShfeFtdcDepthMarketDataField shfe_record(const std::string& symbol, int volume) {
  KQC_CShfeFtdcDepthMarketDataField record{};
  put_text(record.TradingDay, "20250901");
  put_text(record.InstrumentID, symbol);
  put_text(record.UpdateTime, "21:00:01");
  record.UpdateMillisec = 500;
  record.LastPrice = 3120.5;
  record.PreSettlementPrice = 3100;
  record.Volume = volume;
  return record;
}

lumen_tick tick_of(const std::string& symbol, double last, int trade_volume) {
  lumen_tick tick{head_of(symbol, k_lumen_trade_and_book), {}};
  tick.body.LastPrice = last;
  tick.body.TradeVolume = trade_volume;
  tick.body.BidPrice1 = last - 1;
  tick.body.BidVolume1 = 5;
  return tick;
}

lumen_day day_of(const std::string& symbol, double open) {
  lumen_day day{head_of(symbol, 0), {}};
  day.body.OpenPrice = open;
  return day;
}

}  // namespace kav_watch_test
