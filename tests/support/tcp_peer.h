// The other end of a TCP connection, for tests that need to decide about each byte and each close.
#pragma once

#include <chrono>   // std::chrono::milliseconds
#include <cstddef>  // std::size_t
#include <string>   // std::string
#include <vector>   // std::vector

namespace kav_test {

inline constexpr const char* k_host = "127.0.0.1";  // of every peer

// A descriptor that is closed at the end of its block. One thread at a time.
class owned_fd {
 public:
  owned_fd() = default;
  explicit owned_fd(int fd) : m_fd(fd) {}
  owned_fd(owned_fd&& other) noexcept : m_fd(other.release()) {}
  owned_fd& operator=(owned_fd&& other) noexcept;
  ~owned_fd() { reset(); }
  int get() const { return m_fd; }
  int release();
  void reset();

 private:
  int m_fd = -1;
};

// How the other side ended the connection.
enum connection_end { END_BY_FIN, END_BY_RESET, END_NOT_SEEN };

// The peer's side of one accepted connection. One thread at a time.
class tcp_connection {
 public:
  explicit tcp_connection(int fd) : m_fd(fd) {}
  bool is_open() const { return m_fd.get() >= 0; }
  int fd() const { return m_fd.get(); }
  // `length` bytes; fewer when the connection ends or nothing arrives for 10 s.
  std::string read_exactly(std::size_t length);
  // What arrives until nothing has come for `pause` or the connection has ended.
  std::string read_until_quiet(std::chrono::milliseconds pause);
  // All of it, waiting for room; false when the connection has ended meanwhile.
  bool write(const std::string& bytes);
  // Writes until the other side has ended the connection or `limit` has passed.
  void flood(std::chrono::milliseconds limit);
  // Reads on until the other side has ended the connection, 10 s at most.
  connection_end wait_end();
  void close_with_fin();
  void close_with_reset();

 private:
  owned_fd m_fd;
};

// A listening socket of 127.0.0.1 on a port of the system's choice. One thread at a time.
class tcp_peer {
 public:
  explicit tcp_peer(int backlog = 16);
  unsigned short port() const { return m_port; }
  // Waits 10 s at most; not open when nobody came.
  tcp_connection accept();
  bool has_waiting(std::chrono::milliseconds limit) const;
  // From now on a connect() to this port gets no answer, neither yes nor no. For a peer that was
  // made with a backlog of 0.
  bool stop_answering();
  // Is somebody waiting for an answer to his connect()?
  bool is_asked() const;

 private:
  unsigned short m_port = 0;  // before the socket, which finds it out
  owned_fd m_listener;
  std::vector<owned_fd> m_fillers;
};

// A port of 127.0.0.1 that refuses connections as long as this lives.
class refusing_port {
 public:
  refusing_port();
  unsigned short port() const { return m_port; }

 private:
  unsigned short m_port = 0;  // before the socket, which finds it out
  owned_fd m_bound;
};

}  // namespace kav_test
