// A client made of a socket and bytes: nothing of the client library is in it.
#pragma once

#include <arpa/inet.h>   // inet_pton
#include <netinet/in.h>  // sockaddr_in
#include <poll.h>        // poll
#include <sys/socket.h>  // socket, connect
#include <unistd.h>      // close

#include <cerrno>   // errno
#include <chrono>   // std::chrono::milliseconds
#include <cstring>  // memcpy
#include <string>   // std::string
#include <utility>  // std::exchange
#include <vector>   // std::vector

namespace kav_sim_test {

using namespace std::chrono_literals;

// Ends any wait of these tests that does not end by itself; generous, for a busy machine.
constexpr std::chrono::seconds k_patience{20};

enum class end_kind { none, fin, reset };

class raw_client {
 public:
  explicit raw_client(unsigned short port, int receive_buffer_bytes = 0) {
    m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (receive_buffer_bytes > 0) {
      ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer_bytes, sizeof(int));
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ::inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    m_connected = ::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    m_connect_error = m_connected ? 0 : errno;
  }
  ~raw_client() { close(); }
  raw_client(const raw_client&) = delete;
  raw_client& operator=(const raw_client&) = delete;

  bool connected() const { return m_connected; }
  int connect_error() const { return m_connect_error; }
  void close() {
    if (m_fd >= 0) ::close(std::exchange(m_fd, -1));
  }

  bool send(const std::string& bytes) {
    return ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }

  // One read: what has come, at most `most` bytes; empty at the end of patience or of the stream.
  std::string read_once(std::size_t most = 65536, std::chrono::milliseconds limit = k_patience) {
    std::string bytes(most, '\0');
    pollfd waiting{m_fd, POLLIN, 0};
    if (::poll(&waiting, 1, static_cast<int>(limit.count())) <= 0) return "";
    const ssize_t got = ::recv(m_fd, bytes.data(), most, 0);
    if (got == 0) m_end = end_kind::fin;
    if (got < 0) m_end = end_kind::reset;
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
  }

  // Exactly so many bytes, fewer only at the end of patience or of the stream.
  std::string read_exactly(std::size_t count) {
    std::string bytes;
    while (bytes.size() < count) {
      const std::string more = read_once(count - bytes.size());
      if (more.empty()) break;
      bytes += more;
    }
    return bytes;
  }

  // How the server ended the stream; reads and keeps nothing until then.
  end_kind wait_for_end() {
    while (m_end == end_kind::none && !read_once().empty()) {
    }
    return m_end;
  }

  // True when nothing comes for a while. Only for what must not come.
  bool silent_for(std::chrono::milliseconds length) {
    return read_once(1, length).empty() && m_end == end_kind::none;
  }

 private:
  int m_fd = -1;
  bool m_connected = false;
  int m_connect_error = 0;
  end_kind m_end = end_kind::none;
};

// The client's messages, written byte by byte.
inline std::string login_bytes(const std::string& user, const std::string& digest) {
  std::string message(56, '\0');
  message.replace(0, 3, "L10");
  message.replace(3, user.size(), user);
  message.replace(19, digest.size(), digest);
  message[54] = '\x0d';
  message[55] = '\x0a';
  return message;
}

// The digest of "abc", a value of RFC 1321.
inline const std::string k_abc_digest = "900150983CD24FB0D6963F7D28E17F72";

inline std::string list_query_bytes() { return std::string("S0\0\0\0\0\x0d\x0a", 8); }

inline std::string symbol_request_bytes(char kind, char type, const std::string& symbol) {
  std::string message(32, '\x5a');  // bytes behind the text's NUL hold anything
  message[0] = kind;
  message[1] = '0';
  message[2] = type;
  message.replace(3, symbol.size(), symbol);
  message[3 + symbol.size()] = '\0';
  message[30] = '\x0d';
  message[31] = '\x0a';
  return message;
}

inline std::string heartbeat_bytes() {
  return std::string("H\0\0\x01\x02\x03\x04\0\0\0\0\x0d\x0a", 13);
}

inline std::string padded(const std::string& text, std::size_t width) {
  return text + std::string(width - text.size(), '\0');
}

}  // namespace kav_sim_test
