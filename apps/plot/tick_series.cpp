#include "apps/plot/tick_series.h"

#include <fmt/format.h>
#include <zlib.h>  // gzopen: reads plain files too

#include <algorithm>    // std::find, std::max
#include <array>        // std::array
#include <cerrno>       // errno
#include <charconv>     // std::from_chars
#include <cmath>        // std::isfinite, std::fabs
#include <cstring>      // std::strerror
#include <memory>       // std::unique_ptr
#include <string_view>  // std::string_view

#include "apps/watch/text_safety.h"

namespace kav_plot {
namespace {

constexpr std::int64_t k_day_ms = 24 * 3600 * 1000;
constexpr std::int64_t k_disorder_ms = 3600 * 1000;  // one symbol's quotes go back no further
constexpr double k_largest_value = 1e300;        // beyond it some servers mean that there is none
constexpr std::size_t k_longest_line = 1 << 16;  // bytes; a quote's is far shorter
constexpr unsigned k_chunk_bytes = 1u << 18;

namespace place {
enum of : std::size_t { symbol, time, millisec, last, day, exchange, bid, ask, volume, interest };
}
constexpr std::array<std::string_view, 10> k_names{
    "InstrumentID", "UpdateTime", "UpdateMillisec", "LastPrice", "TradingDay",
    "ExchangeID",   "BidPrice1",  "AskPrice1",      "Volume",    "OpenInterest"};
constexpr std::size_t k_needed = 4;  // so many of them

using values = std::array<std::string_view, k_names.size()>;

template <class F>
void for_each_value(std::string_view line, F f) {
  for (std::size_t number = 0;; ++number) {
    const std::size_t comma = line.find(',');
    f(number, line.substr(0, comma));
    if (comma == std::string_view::npos) return;
    line.remove_prefix(comma + 1);
  }
}

// Takes the lines of a file one after the other.
class line_reader {
 public:
  line_reader(const std::vector<std::string>& symbols, tick_contents& contents)
      : m_contents(contents) {
    for (const std::string& name : symbols) m_contents.series.push_back({name, "", "", {}});
  }

  // What is wrong with the line; empty when nothing is.
  std::string take(std::string_view line) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    return ++m_lines == 1 ? take_header(line) : take_row(line);
  }
  std::size_t lines() const { return m_lines; }

 private:
  std::string take_header(std::string_view line) {
    for_each_value(line, [&](std::size_t, std::string_view name) {
      std::size_t known = 0;
      while (known < k_names.size() && k_names[known] != name) ++known;
      m_column_of.push_back(known);
    });
    for (std::size_t needed = 0; needed < k_needed; ++needed) {
      if (std::find(m_column_of.begin(), m_column_of.end(), needed) == m_column_of.end()) {
        return fmt::format("no column {}; is it a tick file, such as kav-record writes?",
                           k_names[needed]);
      }
    }
    return "";
  }

  std::string take_row(std::string_view line) {
    values row{};
    std::size_t count = 0;
    for_each_value(line, [&](std::size_t number, std::string_view value) {
      count = number + 1;
      if (number < m_column_of.size() && m_column_of[number] < row.size()) {
        row[m_column_of[number]] = value;
      }
    });
    if (count != m_column_of.size()) {
      return fmt::format("{} values for {} columns", count, m_column_of.size());
    }
    m_name.assign(row[place::symbol]);
    ++m_contents.counts[m_name];
    for (tick_series& series : m_contents.series) {
      if (series.symbol == m_name) return add_point(series, row);
    }
    return "";
  }

  static std::string add_point(tick_series& series, const values& row) {
    quote_point point{};
    std::int64_t time_of_day = 0;
    const bool good = read_time(row, time_of_day) && read(row[place::last], point.last) &&
                      read(row[place::bid], point.bid) && read(row[place::ask], point.ask) &&
                      read(row[place::interest], point.open_interest) &&
                      read(row[place::volume], point.volume);
    if (!good) return "a value of a quote of " + series.symbol + " is no number or no time";
    if (series.points.empty()) {
      series.exchange = row[place::exchange];
      series.trading_day = row[place::day];
    }
    const std::int64_t before = series.points.empty() ? 0 : series.points.back().ms;
    std::int64_t step = time_of_day - before % k_day_ms;
    if (step < -k_disorder_ms) step += k_day_ms;  // midnight
    point.ms = before + std::max<std::int64_t>(0, step);
    series.points.push_back(point);
    return "";
  }

  template <class Number>
  static bool read(std::string_view text, Number& number) {
    if (text.empty()) return true;
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool good = code == std::errc{} && end == text.data() + text.size() &&
                      std::isfinite(static_cast<double>(number));
    if (good && std::fabs(static_cast<double>(number)) > k_largest_value) number = 0;
    return good;
  }

  static bool read_time(const values& row, std::int64_t& ms) {
    const std::string_view t = row[place::time];
    int hours = 0, minutes = 0, seconds = 0, fraction = 0;
    if (t.size() != 8 || t[2] != ':' || t[5] != ':') return false;
    if (!read(t.substr(0, 2), hours) || !read(t.substr(3, 2), minutes) ||
        !read(t.substr(6), seconds) || !read(row[place::millisec], fraction)) {
      return false;
    }
    ms = ((hours * 60 + minutes) * 60 + seconds) * 1000LL + fraction;
    return hours >= 0 && hours < 24 && minutes >= 0 && minutes < 60 && seconds >= 0 &&
           seconds < 60 && fraction >= 0 && fraction < 1000;
  }

  tick_contents& m_contents;
  std::vector<std::size_t> m_column_of;  // of each place in a line; k_names.size(): not needed
  std::string m_name;
  std::size_t m_lines = 0;
};

// Hands each whole line of `text` to the reader and leaves the rest. Empty: go on.
std::string take_lines(line_reader& reader, std::string& text, bool at_end) {
  std::string_view rest{text};
  while (!rest.empty()) {
    const std::size_t end = rest.find('\n');
    if (end == std::string_view::npos && !at_end) break;
    std::string fault = reader.take(rest.substr(0, end));
    if (!fault.empty()) return fault;
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
  text.erase(0, text.size() - rest.size());
  return text.size() > k_longest_line ? "a line without end; is it a tick file?" : "";
}

}  // namespace

bool read_series(const std::string& path, const std::vector<std::string>& symbols,
                 tick_contents& contents, std::string& error) {
  errno = 0;
  const std::unique_ptr<gzFile_s, int (*)(gzFile)> file{::gzopen(path.c_str(), "rb"), ::gzclose};
  if (!file) {
    error = fmt::format("{}: {}", path, std::strerror(errno != 0 ? errno : ENOMEM));
    return false;
  }
  contents = {};
  line_reader reader{symbols, contents};
  std::string text, fault;
  int got = 1;
  while (got > 0 && fault.empty()) {
    const std::size_t before = text.size();
    text.resize(before + k_chunk_bytes);
    got = ::gzread(file.get(), &text[before], k_chunk_bytes);
    text.resize(before + static_cast<std::size_t>(std::max(0, got)));
    int code = Z_OK;
    const char* const what = ::gzerror(file.get(), &code);
    contents.cut_off = code == Z_BUF_ERROR;
    if (got < 0 && !contents.cut_off) {
      error = fmt::format("{}: {}", path, code == Z_ERRNO ? std::strerror(errno) : what);
      return false;
    }
    fault = take_lines(reader, text, got == 0 && !contents.cut_off);
  }
  if (fault.empty() && reader.lines() == 0) fault = "the file is empty";
  if (fault.empty() && contents.counts.empty()) fault = "no quotes behind the header line";
  if (fault.empty()) return true;
  error = fmt::format("{}:{}: {}", path, reader.lines(), kav_watch::printable_text(fault));
  return false;
}

}  // namespace kav_plot
