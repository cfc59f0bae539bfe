// kav-decode: captures through its reader and its decoder, and single packets without a file.
#include <vector>  // std::vector

#include "apps/decode/capture_file.h"
#include "apps/decode/packet_decoder.h"
#include "apps/decode/quote_writer.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/memory_file.h"
#include "tests/fuzz/record_check.h"

namespace {

using kav_decode::captured_packet;
using kav_fuzz::fuzz_input;

constexpr std::size_t k_most_packets = 200;
// Of the packets without a file: Ethernet, cooked, raw and loopback, in all kinds.
constexpr int k_link_types[] = {1, 113, 276, 12, 228, 0, 108};

// Writes lines, and sees the records on their way.
class checking_writer : public kav_decode::quote_writer {
 public:
  using quote_writer::quote_writer;

  void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override {
    ++m_delivered;
    kav_fuzz::check_texts_end(*quote);
    quote_writer::OnQuote(type, quote);
  }
  std::uint64_t delivered() const { return m_delivered; }

 private:
  std::uint64_t m_delivered = 0;
};

kav_decode::decode_options take_options(unsigned choice) {
  kav_decode::decode_options options;
  options.groups = kav_decode::group_table::defaults();
  // The zeros of a short input are a destination too.
  KAV_CHECK(options.groups.add("0.0.0.0=CZCE").empty());
  options.format =
      (choice & 1) == 0 ? kav_decode::output_format::csv : kav_decode::output_format::json;
  options.time = (choice & 2) != 0;
  if ((choice & 4) != 0) options.symbols.insert("IF2509");
  return options;
}

class decode_check {
 public:
  decode_check(int link_type, const kav_decode::decode_options& options)
      : m_options(options),
        m_writer(m_options, m_lines),
        m_decoder(link_type, m_options.groups, &m_writer) {}

  void take(const captured_packet& packet) {
    m_writer.set_time(packet.time);
    m_decoder.take(packet);
    ++m_packets;
  }

  void check_end() {
    const kav_decode::decode_counts& counts = m_decoder.counts();
    std::uint64_t ignored = 0;
    for (std::size_t i = 0; i < kav_decode::k_ignore_reasons; ++i) {
      ignored += counts.ignored(static_cast<kav_decode::ignore_reason>(i));
    }
    KAV_CHECK(counts.packets() == m_packets);
    KAV_CHECK(counts.quotes() == m_writer.delivered());
    KAV_CHECK(counts.quotes() + ignored == m_packets);
    KAV_CHECK(!counts.summary(m_writer.quotes()).empty());
    check_lines();
  }

 private:
  // One line for each quote, whatever its texts hold. CSV quotes a line end in a text, so that only
  // JSON lines can be counted.
  void check_lines() const {
    const std::string text(m_lines.data(), m_lines.size());
    KAV_CHECK(text.empty() == (m_writer.quotes() == 0));
    KAV_CHECK(text.empty() || text.back() == '\n');
    if (m_options.format != kav_decode::output_format::json) return;
    std::uint64_t lines = 0;
    for (const char c : text) {
      KAV_CHECK(static_cast<unsigned char>(c) >= ' ' || c == '\n');
      lines += c == '\n' ? 1 : 0;
    }
    KAV_CHECK(lines == m_writer.quotes());
  }

  const kav_decode::decode_options m_options;
  fmt::memory_buffer m_lines;
  checking_writer m_writer;
  kav_decode::packet_decoder m_decoder;
  std::uint64_t m_packets = 0;
};

void check_problem(const kav_decode::outcome& problem) {
  KAV_CHECK(problem.status != kav_decode::exit_status::ended_well);
  KAV_CHECK(!problem.message.empty());
  for (const char c : problem.message) KAV_CHECK(static_cast<unsigned char>(c) >= ' ');
}

void check_file(fuzz_input& input, const kav_decode::decode_options& options) {
  const kav_fuzz::memory_file file(input.take_rest());
  kav_decode::outcome problem;
  const auto capture = kav_decode::capture_file::open(file.path(), &problem);
  if (capture == nullptr) return check_problem(problem);
  decode_check check(capture->link_type(), options);
  captured_packet packet;
  for (std::size_t i = 0; i < k_most_packets; ++i) {
    const kav_decode::read_result result = capture->next(packet);
    if (result == kav_decode::read_result::failed) check_problem(capture->failure());
    if (result != kav_decode::read_result::packet) break;
    check.take(packet);
  }
  check.check_end();
}

// Each packet in a block of its own size: nothing behind it may be read.
void check_packets(fuzz_input& input, const kav_decode::decode_options& options) {
  const int link_type = k_link_types[input.take_byte() % std::size(k_link_types)];
  KAV_CHECK(kav_decode::is_link_type_known(link_type));
  decode_check check(link_type, options);
  for (std::size_t i = 0; i < k_most_packets && !input.is_empty(); ++i) {
    const std::size_t cut_off = input.take_byte() % 4 == 3 ? 1 : 0;
    const std::string bytes = input.take_padded(input.take_word() % 600);
    kav_fuzz::heap_bytes copy(bytes);
    const auto* const start = copy.as<const unsigned char>();
    const kav_decode::parsed_packet parsed =
        kav_decode::parse_packet(link_type, start, bytes.size());
    if (parsed.content == kav_decode::packet_content::datagram) {
      KAV_CHECK(parsed.payload >= start && parsed.payload + parsed.length <= start + bytes.size());
    }
    check.take({{0, static_cast<std::int64_t>(i)}, start, bytes.size(), bytes.size() + cut_off});
  }
  check.check_end();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  const unsigned choice = input.take_byte();
  const kav_decode::decode_options options = take_options(choice);
  if ((choice & 8) == 0) {
    check_file(input, options);
  } else {
    check_packets(input, options);
  }
  return 0;
}
