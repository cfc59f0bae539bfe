#include "apps/sim/server_connection.h"

#include <sys/socket.h>  // sendmsg, recv, setsockopt
#include <sys/uio.h>     // iovec
#include <unistd.h>      // close

#include <algorithm>  // std::min
#include <cerrno>     // errno

namespace kav_sim {

namespace {

constexpr std::size_t k_read_bytes = 16384;
constexpr int k_reads_per_turn = 8;  // then the other connections have their turn
constexpr std::size_t k_messages_per_write = 64;

bool would_block() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

}  // namespace

bool server_connection::writable_now(steady_time now) const {
  return open() && !queue.empty() && !never_read && !stalled && now >= pause_until;
}

read_result server_connection::read_some() {
  char buffer[k_read_bytes];
  read_result result = read_result::nothing;
  for (int turn = 0; turn < k_reads_per_turn; ++turn) {
    const ssize_t got = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (got == 0 || (got < 0 && !would_block())) return read_result::ended;
    if (got < 0) return result;
    input.append(buffer, static_cast<std::size_t>(got));
    result = read_result::data;
  }
  return result;
}

read_result server_connection::discard_some() const {
  char buffer[k_read_bytes];
  for (int turn = 0; turn < k_reads_per_turn; ++turn) {
    const ssize_t got = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (got == 0 || (got < 0 && !would_block())) return read_result::ended;
    if (got < 0) return read_result::nothing;
  }
  return read_result::data;
}

std::size_t server_connection::next_write_limit(const std::vector<std::size_t>& chunk_sizes) {
  if (chunk_sizes.empty()) {
    chunk_left = 0;
    return queued_bytes;
  }
  if (chunk_left == 0) {
    chunk_left = std::max<std::size_t>(1, chunk_sizes[chunk_index++ % chunk_sizes.size()]);
  }
  return std::min(chunk_left, queued_bytes);
}

void server_connection::book_written(std::size_t bytes, server_counters& sums) {
  queued_bytes -= bytes;
  front_offset += bytes;
  while (!queue.empty() && front_offset >= queue.front().bytes.size()) {
    front_offset -= queue.front().bytes.size();
    ++sums.messages_sent;
    if (queue.front().quote) {
      ++sums.quotes_sent;
      ++quotes_sent;
    }
    queue.pop_front();
  }
}

bool server_connection::write_some(const std::vector<std::size_t>& chunk_sizes,
                                   std::chrono::milliseconds pause, server_counters& sums) {
  while (!queue.empty()) {
    iovec parts[k_messages_per_write];
    std::size_t count = 0, total = 0, offset = front_offset;
    const std::size_t limit = next_write_limit(chunk_sizes);
    for (auto it = queue.begin(); it != queue.end() && count < k_messages_per_write; ++it) {
      if (total == limit) break;
      const std::size_t part = std::min(it->bytes.size() - offset, limit - total);
      parts[count++] = {it->bytes.data() + offset, part};
      total += part;
      offset = 0;
    }
    msghdr header{};
    header.msg_iov = parts;
    header.msg_iovlen = count;
    const ssize_t sent = ::sendmsg(fd, &header, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) return would_block();
    last_write = std::chrono::steady_clock::now();
    book_written(static_cast<std::size_t>(sent), sums);
    if (chunk_left != 0) {
      chunk_left -= static_cast<std::size_t>(sent);
      if (chunk_left == 0 || queue.empty()) {
        pause_until = std::chrono::steady_clock::now() + pause;
        return true;
      }
    }
    if (static_cast<std::size_t>(sent) < total) return true;  // the socket is full
  }
  return true;
}

void server_connection::close_socket() {
  if (fd >= 0) ::close(fd);
  fd = -1;
  lingering = false;
  watched = 0;
}

void server_connection::reset_socket() {
  if (fd < 0) return;
  const linger hard{1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  close_socket();
}

}  // namespace kav_sim
