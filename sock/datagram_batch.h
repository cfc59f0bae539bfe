// The datagrams that one system call has brought.
#pragma once

#include <netinet/in.h>  // in_addr
#include <sys/socket.h>  // mmsghdr

#include <cstddef>  // std::size_t
#include <cstdlib>  // free
#include <memory>   // std::unique_ptr

namespace VORLAN {
namespace SOCK {

// Datagrams of one socket that wait for their delivery, in order. Each lies in a place of its own
// that is large enough for any, with zeros behind; nothing but what has been received is ever
// copied or cleared.
//
// Threads: one at a time.
class datagram_batch {
 public:
  struct datagram {
    const char* data;     // until the next receive()
    unsigned length;      // 0 for an empty one
    in_addr destination;  // INADDR_ANY when the system does not tell it
  };

  // std::bad_alloc. Memory is taken up only by what is received.
  explicit datagram_batch(unsigned most);
  datagram_batch(const datagram_batch&) = delete;
  datagram_batch& operator=(const datagram_batch&) = delete;
  ~datagram_batch();

  // recvmmsg() into the batch, which is to be empty: what is waiting, but never for it. Its result.
  int receive(int sock);

  bool is_empty() const { return m_next == m_count; }
  // Has it been full? Then more may be waiting in the socket.
  bool is_used_up() const { return m_next == m_most; }
  datagram take() {
    const unsigned i = m_next++;
    return {data(i), m_headers[i].msg_len, destination(i)};
  }
  void drop_rest() { m_next = m_count; }

 private:
  struct slot;
  struct give_back {
    void operator()(char* bytes) const { std::free(bytes); }
  };

  char* data(unsigned i) const { return m_bytes.get() + i * k_slot_bytes; }
  in_addr destination(unsigned i) const;
  void attach(unsigned i);
  void prepare(unsigned i);
  void clear_behind(unsigned i);

  static constexpr std::size_t k_datagram_bytes = 65'535;  // more than any UDP datagram carries
  // A decoder may look at a whole record of a short one.
  static constexpr std::size_t k_zeros_behind = 264;
  // A multiple of a cache line, but of no page: what is read first of each would share its place
  // in the cache otherwise.
  static constexpr std::size_t k_slot_bytes = (k_datagram_bytes + k_zeros_behind + 63) / 64 * 64;

  const unsigned m_most;
  unsigned m_next = 0, m_count = 0;
  const std::unique_ptr<char, give_back> m_bytes;
  const std::unique_ptr<slot[]> m_slots;
  const std::unique_ptr<mmsghdr[]> m_headers;
};

}  // namespace SOCK
}  // namespace VORLAN
