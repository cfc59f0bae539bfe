#include "sock/datagram_batch.h"

#include <cstring>  // memset, memcpy
#include <new>      // std::bad_alloc

namespace VORLAN {
namespace SOCK {

struct datagram_batch::slot {
  iovec bytes;
  std::size_t used;  // behind it everything is zero
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))];
};

datagram_batch::datagram_batch(unsigned most)
    : m_most(most),
      m_bytes(static_cast<char*>(std::calloc(most, k_slot_bytes))),
      m_slots(std::make_unique<slot[]>(most)),
      m_headers(std::make_unique<mmsghdr[]>(most)) {
  if (m_bytes == nullptr) throw std::bad_alloc();
  for (unsigned i = 0; i < most; ++i) attach(i);
}

datagram_batch::~datagram_batch() = default;

int datagram_batch::receive(int sock) {
  for (unsigned i = 0; i < m_count; ++i) prepare(i);
  m_next = m_count = 0;
  // A stop must not wait for a datagram that turned out to be none, also on blocking sockets.
  const int received = ::recvmmsg(sock, m_headers.get(), m_most, MSG_DONTWAIT, nullptr);
  if (received > 0) m_count = static_cast<unsigned>(received);
  for (unsigned i = 0; i < m_count; ++i) clear_behind(i);
  return received;
}

void datagram_batch::attach(unsigned i) {
  m_slots[i].bytes = {data(i), k_datagram_bytes};
  m_headers[i].msg_hdr.msg_iov = &m_slots[i].bytes;
  m_headers[i].msg_hdr.msg_iovlen = 1;
  m_headers[i].msg_hdr.msg_control = m_slots[i].control;
  prepare(i);
}

// The system has written how much of it is used.
void datagram_batch::prepare(unsigned i) {
  m_headers[i].msg_hdr.msg_controllen = sizeof(slot::control);
}

void datagram_batch::clear_behind(unsigned i) {
  std::size_t& used = m_slots[i].used;
  const std::size_t length = m_headers[i].msg_len;
  if (length < used) std::memset(data(i) + length, 0, used - length);
  used = length;
}

in_addr datagram_batch::destination(unsigned i) const {
  msghdr& header = m_headers[i].msg_hdr;
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level != IPPROTO_IP || part->cmsg_type != IP_PKTINFO) continue;
    in_pktinfo info;
    std::memcpy(&info, CMSG_DATA(part), sizeof(info));
    return info.ipi_addr;
  }
  return {};
}

}  // namespace SOCK
}  // namespace VORLAN
