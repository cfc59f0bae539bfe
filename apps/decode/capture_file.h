// The packets of a capture file, as tcpdump and tshark write it.
#pragma once

#include <cstddef>  // std::size_t
#include <cstdint>  // std::int64_t
#include <memory>   // std::unique_ptr
#include <string>   // std::string

#include "apps/decode/outcome.h"

struct pcap;

namespace kav_decode {

// Since 1970-01-01 UTC.
struct capture_time {
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;
};

struct captured_packet {
  capture_time time;
  const unsigned char* bytes = nullptr;  // valid until the next packet is read
  std::size_t captured_bytes = 0;
  std::size_t packet_bytes = 0;  // on the wire: more, where the capture cut the packet short
};

enum class read_result {
  packet,  // one more
  end,     // the capture is complete
  failed,  // failure() tells why
};

// pcap and pcapng, micro- and nanoseconds, both byte orders. One thread at a time.
class capture_file {
 public:
  // "-" is standard input. Null, with *problem set, when it is no capture that can be decoded.
  static std::unique_ptr<capture_file> open(const std::string& path, outcome* problem);
  ~capture_file();
  capture_file(const capture_file&) = delete;
  capture_file& operator=(const capture_file&) = delete;

  int link_type() const;  // a DLT_ number of libpcap
  // Would next() have to wait for somebody to write more? Then it is time to show what there is.
  bool is_drained() const;
  read_result next(captured_packet& packet);
  const outcome& failure() const { return m_failure; }

 private:
  capture_file(pcap* handle, std::string name) : m_handle(handle), m_name(std::move(name)) {}
  outcome explain_failure() const;

  pcap* const m_handle;
  const std::string m_name;  // for messages
  std::uint64_t m_packets = 0;
  outcome m_failure;
};

}  // namespace kav_decode
