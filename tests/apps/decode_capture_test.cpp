// Capture files of every kind, whole and broken.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pcap/pcap.h>  // pcap_dump
#include <unistd.h>     // pipe, write

#include "apps/decode/capture_file.h"
#include "tests/apps/decode_files.h"

namespace kav_decode_test {
namespace {

using kav_decode::capture_file;
using kav_decode::captured_packet;
using kav_decode::exit_status;
using kav_decode::outcome;
using kav_decode::read_result;
using testing::HasSubstr;

struct read_packet {
  bytes content;
  std::int64_t seconds, nanoseconds;
  std::size_t packet_bytes;
};

struct whole_capture {
  int link_type = -1;
  std::vector<read_packet> packets;
  outcome end;
};

whole_capture read_all(const std::string& path) {
  whole_capture capture;
  const std::unique_ptr<capture_file> file = capture_file::open(path, &capture.end);
  if (!file) return capture;
  capture.link_type = file->link_type();
  captured_packet packet;
  read_result result = file->next(packet);
  for (; result == read_result::packet; result = file->next(packet)) {
    capture.packets.push_back({bytes(packet.bytes, packet.bytes + packet.captured_bytes),
                               packet.time.seconds, packet.time.nanoseconds, packet.packet_bytes});
  }
  if (result == read_result::failed) capture.end = file->failure();
  return capture;
}

whole_capture read_all(const bytes& content) {
  const temporary_file file{content};
  return read_all(file.path());
}

const std::vector<file_packet> k_packets{
    {.content = ethernet(datagram(text_bytes("one"))), .fraction = 123'456},
    {.content = ethernet(datagram(text_bytes("two!"))), .seconds = 1'700'000'001},
    {.content = text_bytes("three"), .fraction = 999'999, .cut_off = 7},
};

void expect_packets(const whole_capture& capture, std::int64_t nanoseconds_per_unit) {
  EXPECT_EQ("", capture.end.message);
  EXPECT_EQ(DLT_EN10MB, capture.link_type);
  ASSERT_EQ(k_packets.size(), capture.packets.size());
  for (std::size_t i = 0; i < k_packets.size(); ++i) {
    EXPECT_EQ(k_packets[i].content, capture.packets[i].content);
    EXPECT_EQ(k_packets[i].seconds, capture.packets[i].seconds);
    EXPECT_EQ(k_packets[i].fraction * nanoseconds_per_unit, capture.packets[i].nanoseconds);
    EXPECT_EQ(k_packets[i].content.size() + k_packets[i].cut_off, capture.packets[i].packet_bytes);
  }
}

TEST(decode_capture_test, pcap_of_both_byte_orders_and_units_is_read) {
  for (const byte_order order : {byte_order::little, byte_order::big}) {
    expect_packets(read_all(pcap_file(k_packets, DLT_EN10MB, order, false)), 1000);
    expect_packets(read_all(pcap_file(k_packets, DLT_EN10MB, order, true)), 1);
  }
}

TEST(decode_capture_test, pcapng_of_both_byte_orders_and_units_is_read) {
  for (const byte_order order : {byte_order::little, byte_order::big}) {
    expect_packets(read_all(pcapng_file(k_packets, {{}}, order)), 1000);
    expect_packets(read_all(pcapng_file(k_packets, {{.digits = 9}}, order)), 1);
  }
}

TEST(decode_capture_test, pcapng_interfaces_keep_their_own_clocks) {
  const bytes content = text_bytes("tick");
  const whole_capture capture =
      read_all(pcapng_file({{.content = content, .fraction = 5},
                            {.content = content, .fraction = 5, .interface = 1},
                            {.content = content, .fraction = 5, .interface = 2}},
                           {{.digits = 6}, {.digits = 9}, {.digits = 3}}));
  ASSERT_EQ(3u, capture.packets.size());
  EXPECT_EQ(5000, capture.packets[0].nanoseconds);
  EXPECT_EQ(5, capture.packets[1].nanoseconds);
  EXPECT_EQ(5'000'000, capture.packets[2].nanoseconds);
}

TEST(decode_capture_test, what_libpcap_writes_is_read) {
  const temporary_file file;
  pcap_t* const handle =
      ::pcap_open_dead_with_tstamp_precision(DLT_EN10MB, 65535, PCAP_TSTAMP_PRECISION_NANO);
  pcap_dumper_t* const dumper = ::pcap_dump_open(handle, file.path().c_str());
  ASSERT_NE(nullptr, dumper);
  for (const file_packet& packet : k_packets) {
    pcap_pkthdr head{};
    head.ts = {packet.seconds, packet.fraction};
    head.caplen = static_cast<bpf_u_int32>(packet.content.size());
    head.len = head.caplen + packet.cut_off;
    ::pcap_dump(reinterpret_cast<u_char*>(dumper), &head, packet.content.data());
  }
  ::pcap_dump_close(dumper);
  ::pcap_close(handle);
  expect_packets(read_all(file.path()), 1);
}

TEST(decode_capture_test, every_known_link_type_is_accepted) {
  // Raw IP has a number of its own in files.
  for (const int in_file : {1, 0, 108, 101, 228, 113, 276}) {
    const whole_capture capture = read_all(pcap_file(k_packets, in_file));
    EXPECT_EQ("", capture.end.message) << in_file;
    EXPECT_EQ(k_packets.size(), capture.packets.size());
  }
}

TEST(decode_capture_test, another_link_type_is_named) {
  for (const bytes& content :
       {pcap_file(k_packets, DLT_PPP), pcapng_file(k_packets, {{.link_type = DLT_PPP}})}) {
    const outcome end = read_all(content).end;
    EXPECT_EQ(exit_status::no_capture, end.status);
    EXPECT_THAT(end.message, HasSubstr("link type 9 (PPP)"));
    EXPECT_THAT(end.message, HasSubstr("tcpdump -i any"));
  }
}

TEST(decode_capture_test, interfaces_of_different_link_types_are_refused_where_they_begin) {
  const outcome end = read_all(pcapng_file(k_packets, {{}, {.link_type = DLT_RAW}})).end;
  EXPECT_EQ(exit_status::cut_off, end.status);
  EXPECT_THAT(end.message, HasSubstr("different from the type of the first interface"));
}

TEST(decode_capture_test, what_is_no_capture_is_refused) {
  for (const bytes& content :
       {bytes{}, bytes(3), bytes(5000), text_bytes("symbol,price\nIF,1\n")}) {
    const outcome end = read_all(content).end;
    EXPECT_EQ(exit_status::no_capture, end.status);
    EXPECT_THAT(end.message, HasSubstr("cannot read '"));
    EXPECT_THAT(end.message, HasSubstr("tcpdump -w"));
  }
}

TEST(decode_capture_test, a_file_that_cannot_be_read_is_told_with_the_reason) {
  EXPECT_THAT(read_all(std::string{"/nowhere/x.pcap"}).end.message,
              HasSubstr("cannot read '/nowhere/x.pcap': No such file or directory; "));
  EXPECT_THAT(read_all(std::string{"/"}).end.message, HasSubstr("Is a directory"));
  EXPECT_EQ(exit_status::no_capture, read_all(std::string{"/"}).end.status);
}

TEST(decode_capture_test, names_cannot_reach_the_terminal) {
  EXPECT_THAT(read_all(std::string{"/nowhere/\x1b[2J\n"}).end.message,
              HasSubstr("'/nowhere/?[2J?'"));
}

// Cut at every length: either a whole number of packets, or the message says where it ends.
void expect_cut(const bytes& content, const std::vector<std::size_t>& packet_ends,
                std::size_t head_bytes) {
  for (std::size_t length = head_bytes; length < content.size(); ++length) {
    const whole_capture capture =
        read_all(bytes(content.begin(), content.begin() + static_cast<long>(length)));
    std::size_t whole = 0;
    while (packet_ends[whole] <= length) ++whole;
    ASSERT_EQ(whole, capture.packets.size()) << length;
    const bool clean = length == (whole == 0 ? head_bytes : packet_ends[whole - 1]);
    ASSERT_EQ(clean ? exit_status::ended_well : exit_status::cut_off, capture.end.status);
    if (clean) continue;
    ASSERT_THAT(capture.end.message,
                HasSubstr(fmt::format("ends in the middle of packet {};", whole + 1)));
  }
}

TEST(decode_capture_test, a_capture_cut_anywhere_gives_what_is_whole) {
  std::vector<std::size_t> pcap_ends, pcapng_ends;
  std::vector<file_packet> packets;
  for (const file_packet& packet : k_packets) {
    packets.push_back(packet);
    pcap_ends.push_back(pcap_file(packets).size());
    pcapng_ends.push_back(pcapng_file(packets).size());
  }
  expect_cut(pcap_file(packets), pcap_ends, pcap_file({}).size());
  expect_cut(pcapng_file(packets), pcapng_ends, pcapng_file({}).size());
}

TEST(decode_capture_test, a_damaged_length_ends_the_capture_there) {
  bytes content = pcap_file(k_packets);
  const std::size_t second_head = pcap_file({k_packets[0]}).size();
  for (std::size_t i = 8; i < 12; ++i) content.at(second_head + i) = 0xFF;
  const whole_capture capture = read_all(content);
  EXPECT_EQ(1u, capture.packets.size());
  EXPECT_EQ(exit_status::cut_off, capture.end.status);
  EXPECT_THAT(capture.end.message, HasSubstr("cannot be read from packet 2 on: "));
}

TEST(decode_capture_test, a_pipe_is_drained_when_its_writer_pauses) {
  int ends[2];
  ASSERT_EQ(0, ::pipe(ends));
  const bytes content = pcap_file({k_packets[0]});
  ASSERT_EQ(static_cast<ssize_t>(content.size()), ::write(ends[1], content.data(), content.size()));
  outcome problem;
  const auto file = capture_file::open(fmt::format("/proc/self/fd/{}", ends[0]), &problem);
  ASSERT_NE(nullptr, file) << problem.message;
  captured_packet packet;
  EXPECT_EQ(read_result::packet, file->next(packet));
  EXPECT_TRUE(file->is_drained());
  ::close(ends[1]);
  EXPECT_FALSE(file->is_drained());
  EXPECT_EQ(read_result::end, file->next(packet));
  ::close(ends[0]);
}

TEST(decode_capture_test, a_regular_file_is_never_drained) {
  const temporary_file content{pcap_file({k_packets[0]})};
  outcome problem;
  const auto file = capture_file::open(content.path(), &problem);
  ASSERT_NE(nullptr, file);
  captured_packet packet;
  EXPECT_EQ(read_result::packet, file->next(packet));
  EXPECT_FALSE(file->is_drained());
}

}  // namespace
}  // namespace kav_decode_test
