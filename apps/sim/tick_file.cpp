#include "apps/sim/tick_file.h"

#include <fmt/format.h>
#include <zlib.h>  // gzopen: reads plain files too

#include <array>         // std::array
#include <cerrno>        // errno
#include <charconv>      // std::from_chars
#include <cmath>         // std::isfinite
#include <cstddef>       // offsetof
#include <cstring>       // memcpy, strerror
#include <map>           // std::map
#include <memory>        // std::unique_ptr
#include <string_view>   // std::string_view
#include <system_error>  // std::errc

#include "apps/sim/wire.h"

namespace kav_sim {

namespace {

constexpr std::size_t k_longest_symbol = k_request_symbol_bytes - 1;  // longer: not registrable
constexpr std::size_t k_most_shown = 60;                              // of a value that is wrong
constexpr std::int64_t k_day_ms = 24 * 3600 * 1000;
constexpr unsigned k_chunk_bytes = 1u << 16;

enum class column_kind { text, day, symbol, time, millisec, integer, price, ignored };

struct column {
  std::string_view name;
  column_kind kind;
  std::size_t offset;
  std::size_t width;
  bool needed;
};

#define KAV_COLUMN(field, kind, needed)                                  \
  column {                                                               \
#field, column_kind::kind, offsetof(KAVMarketDepthQuoteData, field), \
        sizeof(KAVMarketDepthQuoteData::field), needed                   \
  }
#define KAV_LEVEL(n)                                                               \
  KAV_COLUMN(BidPrice##n, price, false), KAV_COLUMN(BidVolume##n, integer, false), \
      KAV_COLUMN(AskPrice##n, price, false), KAV_COLUMN(AskVolume##n, integer, false)

constexpr column k_columns[] = {
    KAV_COLUMN(TradingDay, day, true),
    KAV_COLUMN(InstrumentID, symbol, true),
    KAV_COLUMN(ExchangeID, text, true),
    KAV_COLUMN(ExchangeInstID, text, false),
    KAV_COLUMN(LastPrice, price, true),
    KAV_COLUMN(PreSettlementPrice, price, false),
    KAV_COLUMN(PreClosePrice, price, false),
    KAV_COLUMN(PreOpenInterest, price, false),
    KAV_COLUMN(OpenPrice, price, false),
    KAV_COLUMN(HighestPrice, price, false),
    KAV_COLUMN(LowestPrice, price, false),
    KAV_COLUMN(Volume, integer, false),
    KAV_COLUMN(Turnover, price, false),
    KAV_COLUMN(OpenInterest, price, false),
    KAV_COLUMN(ClosePrice, price, false),
    KAV_COLUMN(SettlementPrice, price, false),
    KAV_COLUMN(UpperLimitPrice, price, false),
    KAV_COLUMN(LowerLimitPrice, price, false),
    KAV_COLUMN(PreDelta, price, false),
    KAV_COLUMN(CurrDelta, price, false),
    KAV_COLUMN(UpdateTime, time, true),
    KAV_COLUMN(UpdateMillisec, millisec, true),
    KAV_LEVEL(1),
    KAV_LEVEL(2),
    KAV_LEVEL(3),
    KAV_LEVEL(4),
    KAV_LEVEL(5),
    KAV_COLUMN(AveragePrice, price, false),
    {"ReceiveTimeNs", column_kind::ignored, 0, 0, false},  // when a recorder got the quote
};
#undef KAV_LEVEL
#undef KAV_COLUMN

bool is_digit(char c) { return c >= '0' && c <= '9'; }

bool all_digits(std::string_view text) {
  for (const char c : text) {
    if (!is_digit(c)) return false;
  }
  return true;
}

int two_digits(std::string_view text) { return (text[0] - '0') * 10 + (text[1] - '0'); }

bool valid_time(std::string_view t) {
  return t.size() == 8 && t[2] == ':' && t[5] == ':' && all_digits(t.substr(0, 2)) &&
         all_digits(t.substr(3, 2)) && all_digits(t.substr(6, 2)) && two_digits(t) < 24 &&
         two_digits(t.substr(3)) < 60 && two_digits(t.substr(6)) < 60;
}

// A value as an error line shows it: nothing in it can move the cursor, however damaged the file
// is.
std::string shown(std::string_view value) {
  std::string text{value.substr(0, k_most_shown)};
  for (char& c : text) {
    if (c < ' ' || c > '~') c = '?';
  }
  return value.size() > k_most_shown ? text + "..." : text;
}

// What is wrong with a text value; empty when nothing is.
std::string text_fault(const column& c, std::string_view value) {
  if (c.kind == column_kind::day && !value.empty() && (value.size() != 8 || !all_digits(value))) {
    return fmt::format("{} \"{}\" is not YYYYMMDD", c.name, shown(value));
  }
  if (c.kind == column_kind::time && !valid_time(value)) {
    return fmt::format("{} \"{}\" is not HH:MM:SS", c.name, shown(value));
  }
  if (c.kind == column_kind::symbol && value.empty()) return fmt::format("{} is empty", c.name);
  if (value.find('\0') != std::string_view::npos) {
    return fmt::format("{} \"{}\" holds a NUL", c.name, shown(value));
  }
  const std::size_t most = c.kind == column_kind::symbol ? k_longest_symbol : c.width - 1;
  if (value.size() <= most) return "";
  return fmt::format("{} \"{}\" is longer than {} characters", c.name, shown(value), most);
}

template <class Number>
std::string number_fault(const column& c, std::string_view value, Number& number) {
  const auto [end, code] = std::from_chars(value.data(), value.data() + value.size(), number);
  if (code == std::errc::result_out_of_range) {
    return fmt::format("{} \"{}\" is too large or too small", c.name, shown(value));
  }
  if (code == std::errc{} && end == value.data() + value.size()) return "";
  return fmt::format("{} \"{}\" is no {}", c.name, shown(value),
                     std::is_integral_v<Number> ? "whole number" : "number");
}

std::string put_price(const column& c, std::string_view value, char* field) {
  double number = 0;
  if (!value.empty()) {
    std::string fault = number_fault(c, value, number);
    if (!fault.empty()) return fault;
    if (!std::isfinite(number)) return fmt::format("{} \"{}\" is no number", c.name, shown(value));
  }
  std::memcpy(field, &number, sizeof number);
  return "";
}

std::string put_integer(const column& c, std::string_view value, char* field) {
  std::int32_t number = 0;
  if (!value.empty()) {
    std::string fault = number_fault(c, value, number);
    if (!fault.empty()) return fault;
  }
  if (c.kind == column_kind::millisec && (number < 0 || number > 999)) {
    return fmt::format("{} {} is not between 0 and 999", c.name, number);
  }
  std::memcpy(field, &number, sizeof number);
  return "";
}

std::string put_value(const column& c, std::string_view value, KAVMarketDepthQuoteData& record) {
  char* const field = reinterpret_cast<char*>(&record) + c.offset;
  switch (c.kind) {
    case column_kind::price:
      return put_price(c, value, field);
    case column_kind::integer:
    case column_kind::millisec:
      return put_integer(c, value, field);
    case column_kind::ignored:
      return "";
    default: {
      std::string fault = text_fault(c, value);
      if (fault.empty()) std::memcpy(field, value.data(), value.size());
      return fault;
    }
  }
}

std::vector<std::string_view> split(std::string_view line) {
  std::vector<std::string_view> values;
  for (;;) {
    const std::size_t comma = line.find(',');
    values.push_back(line.substr(0, comma));
    if (comma == std::string_view::npos) return values;
    line.remove_prefix(comma + 1);
  }
}

std::string read_header(std::string_view line, std::vector<const column*>& columns) {
  for (const std::string_view name : split(line)) {
    const column* found = nullptr;
    for (const column& c : k_columns) {
      if (c.name == name) found = &c;
    }
    if (found == nullptr) return fmt::format("unknown column \"{}\"", shown(name));
    for (const column* earlier : columns) {
      if (earlier == found) return fmt::format("column {} comes twice", name);
    }
    columns.push_back(found);
  }
  for (const column& c : k_columns) {
    bool present = false;
    for (const column* given : columns) present = present || given == &c;
    if (c.needed && !present) return fmt::format("column {} is missing", c.name);
  }
  return "";
}

std::string read_row(std::string_view line, const std::vector<const column*>& columns, tick& out) {
  const std::vector<std::string_view> values = split(line);
  if (line.empty()) return "empty line";
  if (values.size() != columns.size()) {
    return fmt::format("{} values for {} columns", values.size(), columns.size());
  }
  for (std::size_t i = 0; i < values.size(); ++i) {
    std::string fault = put_value(*columns[i], values[i], out.record);
    if (!fault.empty()) return fault;
  }
  return "";
}

std::int64_t time_of_day_ms(const KAVMarketDepthQuoteData& record) {
  const std::string_view t = field_text(record.UpdateTime, sizeof record.UpdateTime);
  const std::int64_t seconds =
      (two_digits(t) * 60 + two_digits(t.substr(3))) * 60 + two_digits(t.substr(6));
  const std::int32_t millisec = record.UpdateMillisec;
  return seconds * 1000 + millisec;
}

// Rows are in calendar order: a jump back by more than half a day is a midnight, a smaller one is
// an exchange's clock behind another's, and time stands still.
std::int64_t later_source_ms(std::int64_t previous, std::int64_t time_of_day) {
  std::int64_t step = time_of_day - previous % k_day_ms;
  if (step < -k_day_ms / 2) step += k_day_ms;
  return previous + std::max<std::int64_t>(0, step);
}

bool read_whole(const std::string& path, std::string& text, std::string& error) {
  errno = 0;
  const std::unique_ptr<gzFile_s, int (*)(gzFile)> file{::gzopen(path.c_str(), "rb"), ::gzclose};
  if (!file) {
    error = fmt::format("{}: {}", path, std::strerror(errno != 0 ? errno : ENOMEM));
    return false;
  }
  for (;;) {
    const std::size_t before = text.size();
    text.resize(before + k_chunk_bytes);
    const int got = ::gzread(file.get(), &text[before], k_chunk_bytes);
    text.resize(before + static_cast<std::size_t>(std::max(0, got)));
    int code = Z_OK;
    const char* what = ::gzerror(file.get(), &code);
    if (got < 0 || code == Z_BUF_ERROR) {
      const bool ended = code == Z_BUF_ERROR;
      error = fmt::format("{}: {}", path,
                          code == Z_ERRNO ? std::strerror(errno)
                          : ended         ? "the packed file ends too early"
                                          : what);
      return false;
    }
    if (got == 0) return true;
  }
}

std::string_view take_line(std::string_view& text) {
  const std::size_t end = text.find('\n');
  std::string_view line = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

std::string read_lines(std::string_view text, std::vector<tick>& ticks, std::size_t& line_number) {
  std::vector<const column*> columns;
  line_number = 1;
  if (text.empty()) return "the file is empty";
  std::string header_fault = read_header(take_line(text), columns);
  if (!header_fault.empty()) return header_fault;
  while (!text.empty()) {
    ++line_number;
    tick row{};
    std::string fault = read_row(take_line(text), columns, row);
    if (!fault.empty()) return fault;
    const std::int64_t time_of_day = time_of_day_ms(row.record);
    row.source_ms =
        ticks.empty() ? time_of_day : later_source_ms(ticks.back().source_ms, time_of_day);
    ticks.push_back(row);
  }
  return ticks.empty() ? "no quotes behind the header line" : "";
}

}  // namespace

bool read_tick_file(const std::string& path, std::vector<tick>& ticks, std::string& error) {
  ticks.clear();
  std::string text;
  if (!read_whole(path, text, error)) return false;
  std::size_t line_number = 0;
  std::string fault = read_lines(text, ticks, line_number);
  if (fault.empty()) return true;
  ticks.clear();
  error = fmt::format("{}:{}: {}", path, line_number, fault);
  return false;
}

tick_replay::tick_replay(std::vector<tick> ticks, bool loop)
    : m_ticks(std::move(ticks)), m_loop(loop) {}

bool tick_replay::next(tick& out, std::chrono::microseconds& due) {
  if (m_next >= m_ticks.size()) return false;
  out = m_ticks[m_next];
  due = m_due;
  if (++m_next < m_ticks.size()) {
    const std::chrono::milliseconds gap{m_ticks[m_next].source_ms - out.source_ms};
    m_due += std::min(gap, k_longest_gap);
  } else if (m_loop) {
    m_next = 0;
    m_due += k_round_gap;
  }
  return true;
}

std::vector<listed_symbol> tick_replay::symbols() const {
  std::map<std::string, bool, std::less<>> seen;
  std::vector<listed_symbol> result;
  for (const tick& t : m_ticks) {
    const std::string_view name = field_text(t.record.InstrumentID, sizeof t.record.InstrumentID);
    if (seen.find(name) != seen.end()) continue;
    seen.emplace(name, true);
    result.push_back({std::string{name}, t.type});
  }
  return result;
}

}  // namespace kav_sim
