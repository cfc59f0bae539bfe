#include "apps/decode/quote_writer.h"

#include <algorithm>    // std::clamp
#include <cstddef>      // std::size_t
#include <iterator>     // std::back_inserter
#include <string_view>  // std::string_view

#include "apps/watch/quote_format.h"

namespace kav_decode {
namespace {

constexpr std::string_view k_time_name = "CaptureTime";
constexpr std::int64_t k_last_nanosecond = 999'999'999;

}  // namespace

quote_writer::quote_writer(const decode_options& options, fmt::memory_buffer& lines)
    : m_options(options), m_lines(lines) {}

void quote_writer::begin() {
  if (m_options.summary_only || m_options.format != output_format::csv) return;
  if (m_options.time) fmt::format_to(std::back_inserter(m_lines), "{},", k_time_name);
  kav_watch::append_csv_header(m_lines);
}

void quote_writer::OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* quote) {
  if (!is_wanted(*quote)) return;
  ++m_quotes;
  if (!m_options.summary_only) append_line(*quote);
}

bool quote_writer::is_wanted(const KAVMarketDepthQuoteData& quote) const {
  return m_options.symbols.empty() ||
         m_options.symbols.contains(kav_watch::field_text(quote.InstrumentID));
}

void quote_writer::append_line(const KAVMarketDepthQuoteData& quote) {
  if (m_options.format == output_format::csv) {
    if (m_options.time) {
      append_time();
      m_lines.push_back(',');
    }
    return kav_watch::append_csv(m_lines, quote);
  }
  if (!m_options.time) return kav_watch::append_json(m_lines, quote);
  fmt::format_to(std::back_inserter(m_lines), "{{\"{}\":", k_time_name);
  append_time();
  const std::size_t brace = m_lines.size();
  kav_watch::append_json(m_lines, quote);
  m_lines[brace] = ',';  // the object has begun already
}

void quote_writer::append_time() {
  // A damaged capture may have more nanoseconds than a second does.
  fmt::format_to(std::back_inserter(m_lines), "{}.{:09}", m_time.seconds,
                 std::clamp<std::int64_t>(m_time.nanoseconds, 0, k_last_nanosecond));
}

}  // namespace kav_decode
