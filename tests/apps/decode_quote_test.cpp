// Packets to counts and lines.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "apps/decode/packet_decoder.h"
#include "apps/decode/quote_writer.h"
#include "feeds/exchange_id.h"
#include "tests/apps/decode_lines.h"

namespace kav_decode_test {
namespace {

using kav_decode::decode_options;
using kav_decode::ignore_reason;
using kav_decode::output_format;
using testing::HasSubstr;
using testing::Not;

constexpr std::uint32_t k_first_group = 0xEFFF0A01;
constexpr std::uint16_t k_first_port = 30001;

// The default groups: 0 SHFE, 1 CFFEX, 2 CZCE, 3 GFEX, 4 LUMEN, 5 INE.
bytes to_group(unsigned number, const bytes& payload) {
  return ethernet(
      datagram(payload, k_first_group + number, static_cast<std::uint16_t>(k_first_port + number)));
}

class decode_quote_test : public testing::Test {
 protected:
  decode_quote_test() { m_options.groups = kav_decode::group_table::defaults(); }

  void take(const bytes& packet, kav_decode::capture_time time = {}, std::size_t cut_off = 0) {
    m_writer.set_time(time);
    m_decoder.take({time, packet.data(), packet.size(), packet.size() + cut_off});
  }
  std::uint64_t ignored(ignore_reason reason) const { return m_decoder.counts().ignored(reason); }
  std::uint64_t quotes(int exchange, multicast_record kind) const {
    return m_decoder.counts().quotes(exchange, kind);
  }
  std::string summary() const { return m_decoder.counts().summary(m_writer.quotes()); }
  std::string lines() const { return fmt::to_string(m_lines); }

  decode_options m_options;
  fmt::memory_buffer m_lines;
  kav_decode::quote_writer m_writer{m_options, m_lines};
  kav_decode::packet_decoder m_decoder{DLT_EN10MB, m_options.groups, &m_writer};
};

const std::vector<sent_record> k_records{
    {k_exchange_number_shfe, shfe_record("rb2510", 1)},
    {k_exchange_number_cffex, cffex_record("IF2509", 2)},
    {k_exchange_number_czce, czce_record("SR509", 3)},
    {k_exchange_number_gfex, gfex_record("si2509", 4)},
    {0, lumen_summary("IC2509", 6000.5)},
    {k_exchange_number_ine, shfe_record("sc2509", 5)},
    {0, lumen_tick("IC2509", 6001.5, 3)},
    {k_exchange_number_cffex, lumen_tick("IC2509", 6002.5, 4)},
};
const unsigned k_groups_of_records[] = {0, 1, 2, 3, 4, 5, 4, 1};

TEST_F(decode_quote_test, csv_lines_are_those_of_the_viewer) {
  m_writer.begin();
  for (std::size_t i = 0; i < k_records.size(); ++i) {
    take(to_group(k_groups_of_records[i], k_records[i].payload));
  }
  EXPECT_EQ(csv_header() + joined(lines_of(k_records, false)), lines());
  EXPECT_THAT(lines(), HasSubstr("20250801,IF2509,CFFEX,3502.2,"));
  EXPECT_THAT(lines(), HasSubstr(",IC2509,CFFEX,6002.5,0,0,0,6000.5,0,0,7,"));  // merged
}

TEST_F(decode_quote_test, json_lines_are_those_of_the_viewer) {
  m_options.format = output_format::json;
  m_writer.begin();
  for (std::size_t i = 0; i < k_records.size(); ++i) {
    take(to_group(k_groups_of_records[i], k_records[i].payload));
  }
  EXPECT_EQ(joined(lines_of(k_records, true)), lines());
}

TEST_F(decode_quote_test, quotes_are_counted_by_exchange_and_record) {
  for (std::size_t i = 0; i < k_records.size(); ++i) {
    take(to_group(k_groups_of_records[i], k_records[i].payload));
  }
  EXPECT_EQ(8u, m_decoder.counts().packets());
  EXPECT_EQ(8u, m_decoder.counts().quotes());
  EXPECT_EQ(1u, quotes(k_exchange_number_shfe, multicast_record::shfe));
  EXPECT_EQ(1u, quotes(k_exchange_number_ine, multicast_record::shfe));
  EXPECT_EQ(1u, quotes(k_exchange_number_cffex, multicast_record::cffex));
  EXPECT_EQ(1u, quotes(k_exchange_number_cffex, multicast_record::lumen_tick));
  EXPECT_EQ(1u, quotes(k_exchange_number_czce, multicast_record::czce));
  EXPECT_EQ(1u, quotes(k_exchange_number_gfex, multicast_record::gfex));
  EXPECT_EQ(1u, quotes(0, multicast_record::lumen_summary));
  EXPECT_EQ(1u, quotes(0, multicast_record::lumen_tick));
  EXPECT_THAT(summary(), HasSubstr("           8  packets\n           8  quotes decoded\n"));
  EXPECT_THAT(summary(), HasSubstr("           1    CFFEX lumen tick\n"));
  EXPECT_THAT(summary(), HasSubstr("           1    INE\n"));
  EXPECT_THAT(summary(), HasSubstr("           0  packets ignored\n"));
}

TEST_F(decode_quote_test, every_reason_for_ignoring_is_counted) {
  const bytes good = cffex_record("IF2509");
  take(ethernet(bytes(46), 0x0806));
  take(ethernet(bytes(46), 0x86DD));
  take(ethernet(ipv4(bytes(20), {.protocol = 6, .options = {}})));
  take(ethernet(ipv4(udp(good), {.flags_and_offset = 0x2000, .options = {}})));
  take(to_group(1, good), {}, 1);
  take(bytes(10));
  take(to_group(0, good));
  take(to_group(1, good + bytes(1)));
  take(to_group(1, good + bytes(1)));
  take(to_group(4, lumen_tick(std::string(31, 'x'), 1, 1)));
  take(ethernet(datagram(good, k_group, 9)));
  EXPECT_EQ(2u, ignored(ignore_reason::not_ipv4));
  EXPECT_EQ(1u, ignored(ignore_reason::not_udp));
  EXPECT_EQ(1u, ignored(ignore_reason::fragmented));
  EXPECT_EQ(1u, ignored(ignore_reason::truncated));
  EXPECT_EQ(1u, ignored(ignore_reason::malformed));
  EXPECT_EQ(3u, ignored(ignore_reason::unknown_length));
  EXPECT_EQ(1u, ignored(ignore_reason::lumen_refused));
  EXPECT_EQ(1u, ignored(ignore_reason::not_mapped));
  EXPECT_EQ(11u, m_decoder.counts().packets());
  EXPECT_EQ(0u, m_decoder.counts().quotes());
  EXPECT_EQ("", lines());
  for (const char* line :
       {"11  packets\n", " 0  quotes decoded\n", "11  packets ignored\n", " 2    not IPv4\n",
        " 1    not UDP\n", " 1    fragmented", " 1    truncated", " 1    malformed headers\n",
        " 3    unknown length for that exchange\n", " 2      CFFEX, 361 bytes\n",
        " 1      SHFE, 360 bytes\n", " 1    lumen record without a valid symbol\n",
        " 1    destination not mapped", " 1      239.255.10.2:9\n"}) {
    EXPECT_THAT(summary(), HasSubstr(line));
  }
}

TEST_F(decode_quote_test, the_twenty_most_frequent_unmapped_destinations_are_listed) {
  for (std::uint32_t group = 1; group <= 30; ++group) {
    for (std::uint32_t i = 0; i < group; ++i) take(ethernet(datagram({}, 0xEA000000 + group, 7)));
  }
  EXPECT_EQ(465u, ignored(ignore_reason::not_mapped));
  EXPECT_THAT(summary(), HasSubstr("          30      234.0.0.30:7\n          29      234.0.0.29"));
  EXPECT_THAT(summary(),
              HasSubstr("          11      234.0.0.11:7\n          55      10 others\n"));
  EXPECT_THAT(summary(), Not(HasSubstr("234.0.0.10:7")));
}

TEST_F(decode_quote_test, only_chosen_symbols_are_written) {
  m_options.symbols = {"IF2509", "IC2509"};
  for (const char* symbol : {"IF2509", "IF2510", "IC2509", "if2509", "IF250"}) {
    take(to_group(1, cffex_record(symbol)));
  }
  EXPECT_EQ(2u, m_writer.quotes());
  EXPECT_EQ(5u, m_decoder.counts().quotes());
  EXPECT_EQ(joined(lines_of({{k_exchange_number_cffex, cffex_record("IF2509")},
                             {k_exchange_number_cffex, cffex_record("IC2509")}},
                            false)),
            lines());
  EXPECT_THAT(summary(), HasSubstr("           2  quotes selected\n"));
}

TEST_F(decode_quote_test, enough_is_enough) {
  m_options.count = 2;
  take(to_group(1, cffex_record("IF2509")));
  EXPECT_FALSE(m_writer.is_done());
  take(to_group(1, cffex_record("IF2509")));
  EXPECT_TRUE(m_writer.is_done());
}

TEST_F(decode_quote_test, the_capture_time_begins_the_line_on_demand) {
  m_options.time = true;
  const sent_record record{k_exchange_number_cffex, cffex_record("IF2509")};
  m_writer.begin();
  take(to_group(1, record.payload), {1'700'000'000, 42});
  EXPECT_EQ("CaptureTime," + csv_header() + "1700000000.000000042," + lines_of({record}, false)[0],
            lines());
}

TEST_F(decode_quote_test, the_capture_time_is_the_first_field_of_the_object) {
  m_options.time = true;
  m_options.format = output_format::json;
  const sent_record record{k_exchange_number_cffex, cffex_record("IF2509")};
  take(to_group(1, record.payload), {1'700'000'000, 123'456'789});
  EXPECT_EQ("{\"CaptureTime\":1700000000.123456789," + lines_of({record}, true)[0].substr(1),
            lines());
}

TEST_F(decode_quote_test, a_damaged_time_stays_a_number) {
  m_options.time = true;
  take(to_group(1, cffex_record("IF2509")), {5, 4'000'000'000});
  EXPECT_EQ(0u, lines().find("5.999999999,"));
}

TEST_F(decode_quote_test, no_line_is_written_when_only_the_summary_is_wanted) {
  m_options.summary_only = true;
  m_writer.begin();
  take(to_group(1, cffex_record("IF2509")));
  EXPECT_EQ("", lines());
  EXPECT_EQ(1u, m_writer.quotes());
}

}  // namespace
}  // namespace kav_decode_test
