#include "apps/decode/capture_file.h"

#include <fmt/format.h>  // fmt::format
#include <pcap/pcap.h>   // pcap_next_ex
#include <poll.h>        // poll

#include <cerrno>        // errno
#include <cstdio>        // std::fopen
#include <system_error>  // std::generic_category

#include "apps/decode/packet.h"
#include "apps/watch/text_safety.h"

namespace kav_decode {
namespace {

using kav_watch::printable_text;

outcome not_readable(const std::string& name, const std::string& why) {
  return {exit_status::no_capture,
          fmt::format("cannot read {}: {}; give a capture that tcpdump -w or tshark -w wrote", name,
                      printable_text(why))};
}

outcome unknown_link_type(const std::string& name, int link_type) {
  const char* known = ::pcap_datalink_val_to_description_or_dlt(link_type);
  return {exit_status::no_capture,
          fmt::format("{} has packets of link type {} ({}), which are not decoded; capture on an "
                      "Ethernet or loopback interface, or with tcpdump -i any",
                      name, link_type, printable_text(known))};
}

// Null when it cannot be opened: errno tells why.
std::FILE* open_stream(const std::string& path) {
  return path == "-" ? stdin : std::fopen(path.c_str(), "rbe");
}

void close_stream(std::FILE* stream) {
  if (stream != stdin) std::fclose(stream);
}

std::string name_for_messages(const std::string& path) {
  return path == "-" ? "standard input" : fmt::format("'{}'", printable_text(path));
}

}  // namespace

std::unique_ptr<capture_file> capture_file::open(const std::string& path, outcome* problem) {
  std::string name = name_for_messages(path);
  std::FILE* const stream = open_stream(path);
  if (stream == nullptr) {
    *problem = not_readable(name, std::generic_category().message(errno));
    return nullptr;
  }
  char error[PCAP_ERRBUF_SIZE] = "";
  pcap_t* const handle =
      ::pcap_fopen_offline_with_tstamp_precision(stream, PCAP_TSTAMP_PRECISION_NANO, error);
  if (handle == nullptr) {
    close_stream(stream);
    *problem = not_readable(name, error);
    return nullptr;
  }
  std::unique_ptr<capture_file> file{new capture_file(handle, std::move(name))};
  if (is_link_type_known(file->link_type())) return file;
  *problem = unknown_link_type(file->m_name, file->link_type());
  return nullptr;
}

capture_file::~capture_file() { ::pcap_close(m_handle); }

int capture_file::link_type() const { return ::pcap_datalink(m_handle); }

bool capture_file::is_drained() const {
  // Of a regular file this is never true. What libpcap has read ahead is not seen: then this is
  // true a little early, which costs a write and nothing else.
  pollfd input{::fileno(::pcap_file(m_handle)), POLLIN, 0};
  return ::poll(&input, 1, 0) == 0;
}

read_result capture_file::next(captured_packet& packet) {
  pcap_pkthdr* head = nullptr;
  const u_char* bytes = nullptr;
  const int result = ::pcap_next_ex(m_handle, &head, &bytes);
  if (result == PCAP_ERROR_BREAK) return read_result::end;
  if (result != 1) {
    m_failure = explain_failure();
    return read_result::failed;
  }
  ++m_packets;
  packet = {{head->ts.tv_sec, head->ts.tv_usec}, bytes, head->caplen, head->len};
  return read_result::packet;
}

outcome capture_file::explain_failure() const {
  std::FILE* const stream = ::pcap_file(m_handle);
  const std::string why = printable_text(::pcap_geterr(m_handle));
  if (std::ferror(stream) != 0) return not_readable(m_name, why);
  if (std::feof(stream) != 0) {
    return {exit_status::cut_off,
            fmt::format("{} ends in the middle of packet {}; all before it was decoded, copy or "
                        "capture the file again for the rest",
                        m_name, m_packets + 1)};
  }
  return {exit_status::cut_off,
          fmt::format("{} cannot be read from packet {} on: {}; all before it was decoded, "
                      "copy or capture the file again for the rest",
                      m_name, m_packets + 1, why)};
}

}  // namespace kav_decode
