#include "apps/watch/quote_table.h"

#include <algorithm>  // std::max, std::min, std::clamp

#include "apps/watch/text_safety.h"

namespace kav_watch {
namespace {

constexpr std::array<table_column, k_table_columns> k_columns{{
    {"Symbol", true, 8},
    {"Exch", true, 5},
    {"Last", false, 8},
    {"Change", false, 7},
    {"%", false, 7},
    {"Bid", false, 8},
    {"BidVol", false, 6},
    {"Ask", false, 8},
    {"AskVol", false, 6},
    {"Volume", false, 8},
    {"OpenInt", false, 8},
    {"Updated", true, 12},
    {"Age", false, 6},
}};

int direction_of(const price_change& change) {
  if (!change.known || change.absolute == 0) return 0;
  return change.absolute > 0 ? 1 : -1;
}

std::string aligned(const std::string& text, const table_column& column, std::size_t width) {
  return column.left_aligned ? fmt::format("{:<{}}", text, width)
                             : fmt::format("{:>{}}", text, width);
}

}  // namespace

const std::array<table_column, k_table_columns>& table_columns() { return k_columns; }

quote_table::quote_table(const std::vector<std::string>& symbols, new_symbols fresh)
    : m_fresh(fresh) {
  for (const std::string& symbol : symbols) {
    if (m_index.try_emplace(symbol, m_rows.size()).second) m_rows.emplace_back().symbol = symbol;
  }
}

quote_table::row* quote_table::find_or_add(const std::string& symbol) {
  const auto found = m_index.find(symbol);
  if (found != m_index.end()) return &m_rows[found->second];
  if (m_fresh == new_symbols::ignored || m_rows.size() >= k_most_rows) return nullptr;
  m_index.emplace(symbol, m_rows.size());
  row& added = m_rows.emplace_back();
  added.symbol = symbol;
  return &added;
}

void quote_table::apply(const KAVMarketDepthQuoteData& quote, steady_time now) {
  row* const target = find_or_add(std::string{field_text(quote.InstrumentID)});
  if (target == nullptr) return;
  target->quoted = true;
  target->quote = quote;
  target->at = now;
}

void quote_table::set_refused(const std::string& symbol) {
  const auto found = m_index.find(symbol);
  if (found != m_index.end()) m_rows[found->second].refused = true;
}

table_line quote_table::line(std::size_t index, steady_time now) const {
  const row& source = m_rows[index];
  const KAVMarketDepthQuoteData& quote = source.quote;
  const std::string symbol = ascii_text(source.symbol);
  if (!source.quoted) return {{symbol, source.refused ? "refused" : ""}, 0};
  const price_change change = change_of(quote);
  return {{symbol, ascii_text(field_text(quote.ExchangeID)), price_text(quote.LastPrice),
           change_text(change), percent_text(change), price_text(quote.BidPrice1),
           fmt::format("{}", int{quote.BidVolume1}), price_text(quote.AskPrice1),
           fmt::format("{}", int{quote.AskVolume1}), fmt::format("{}", int{quote.Volume}),
           price_text(quote.OpenInterest), ascii_text(time_text(quote)), age_text(now - source.at)},
          direction_of(change)};
}

std::string age_text(std::chrono::steady_clock::duration age) {
  const auto tenths = std::max<long>(
      std::chrono::duration_cast<std::chrono::duration<long, std::deci>>(age).count(), 0);
  const long seconds = tenths / 10;
  if (seconds < 10) return fmt::format("{}.{}s", seconds, tenths % 10);
  if (seconds < 60) return fmt::format("{}s", seconds);
  if (seconds < 3600) return fmt::format("{}m{:02}s", seconds / 60, seconds % 60);
  return fmt::format("{}h{:02}m", seconds / 3600, seconds / 60 % 60);
}

column_widths::column_widths() : m_widths{} {
  for (std::size_t i = 0; i < k_table_columns; ++i) {
    m_widths[i] = std::max(k_columns[i].least_width, k_columns[i].title.size());
  }
}

void column_widths::fit(const table_line& line) {
  for (std::size_t i = 0; i < k_table_columns; ++i) {
    m_widths[i] = std::max(m_widths[i], line.cells[i].size());
  }
}

std::vector<column_widths::piece> column_widths::arrange(
    const std::array<std::string, k_table_columns>& cells, std::size_t first,
    std::size_t width) const {
  std::vector<piece> pieces;
  std::size_t at = 0;
  for (std::size_t i = 0; i < k_table_columns; ++i) {
    if (i != k_symbol_column && i < first) continue;
    if (i != k_symbol_column && at + m_widths[i] > width) break;
    pieces.push_back({i, at, aligned(cells[i], k_columns[i], m_widths[i]).substr(0, width - at)});
    at += m_widths[i] + 1;
    if (at >= width) break;
  }
  return pieces;
}

void table_position::set_rows(std::size_t rows, std::size_t visible) {
  m_rows = rows;
  m_visible = visible;
  m_first = std::min(m_first, last_first());
}

void table_position::move_rows(long by) {
  const long wanted = static_cast<long>(m_first) + by;
  m_first = static_cast<std::size_t>(std::clamp(wanted, 0L, static_cast<long>(last_first())));
}

void table_position::move_columns(long by) {
  const long wanted = static_cast<long>(m_column) + by;
  m_column =
      static_cast<std::size_t>(std::clamp(wanted, 1L, static_cast<long>(k_table_columns) - 1));
}

std::size_t table_position::end_row() const { return std::min(m_rows, m_first + m_visible); }

void rate_meter::update(std::uint64_t total, steady_time now) {
  constexpr std::chrono::seconds k_window{1};
  if (!m_started) {
    m_started = true;
    m_at = now;
    m_total = total;
    return;
  }
  const std::chrono::duration<double> passed = now - m_at;
  if (passed < k_window) return;
  m_rate = static_cast<double>(total - m_total) / passed.count();
  m_at = now;
  m_total = total;
}

}  // namespace kav_watch
