// What the table shows, without a terminal: rows, texts, widths, the visible part.
#pragma once

#include <array>          // std::array
#include <chrono>         // std::chrono::steady_clock
#include <cstddef>        // std::size_t
#include <cstdint>        // std::uint64_t
#include <string>         // std::string
#include <string_view>    // std::string_view
#include <unordered_map>  // std::unordered_map
#include <vector>         // std::vector

#include "api/kav_quote_api.h"
#include "apps/watch/quote_format.h"

namespace kav_watch {

using steady_time = std::chrono::steady_clock::time_point;

inline constexpr std::size_t k_table_columns = 13;
inline constexpr std::size_t k_symbol_column = 0;  // stays when the columns are scrolled
inline constexpr std::size_t k_change_column = 3;  // coloured, with the next
inline constexpr std::size_t k_percent_column = 4;

struct table_column {
  std::string_view title;
  bool left_aligned;
  std::size_t least_width;
};
const std::array<table_column, k_table_columns>& table_columns();

struct table_line {
  std::array<std::string, k_table_columns> cells;
  int direction = 0;  // of the price against the previous settlement: -1, 0, 1
};

// What a quote of a symbol without a row does.
enum class new_symbols { ignored, added };

class quote_table {
 public:
  // One row for each symbol, in this order; symbols that are added come behind them.
  explicit quote_table(const std::vector<std::string>& symbols,
                       new_symbols fresh = new_symbols::ignored);

  // The latest quote of its symbol.
  void apply(const KAVMarketDepthQuoteData& quote, steady_time now);
  void set_refused(const std::string& symbol);
  std::size_t size() const { return m_rows.size(); }
  table_line line(std::size_t index, steady_time now) const;

  static constexpr std::size_t k_most_rows = 100'000;  // a feed that invents names stays harmless

 private:
  struct row {
    std::string symbol;
    bool quoted = false;
    bool refused = false;
    KAVMarketDepthQuoteData quote{};
    steady_time at{};
  };

  row* find_or_add(const std::string& symbol);  // null: not shown

  const new_symbols m_fresh;
  std::vector<row> m_rows;
  std::unordered_map<std::string, std::size_t> m_index;  // symbol to row
};

// "0.3s", "12s", "3m05s", "2h10m".
std::string age_text(std::chrono::steady_clock::duration age);

// Column widths that grow with what was shown and never shrink, so that columns stand still.
class column_widths {
 public:
  column_widths();
  void fit(const table_line& line);
  // One screen line of at most `width` columns; columns from `first` on after the symbol. A column
  // that does not fit whole is left out: half a number would be a wrong one.
  struct piece {
    std::size_t column;
    std::size_t at;  // screen column
    std::string text;
  };
  std::vector<piece> arrange(const std::array<std::string, k_table_columns>& cells,
                             std::size_t first, std::size_t width) const;

 private:
  std::array<std::size_t, k_table_columns> m_widths;
};

// Which rows and columns are to be seen.
class table_position {
 public:
  void set_rows(std::size_t rows, std::size_t visible);
  void move_rows(long by);
  void move_pages(long by) { move_rows(by * static_cast<long>(m_visible)); }
  void to_first() { m_first = 0; }
  void to_last() { m_first = last_first(); }
  void move_columns(long by);

  std::size_t first_row() const { return m_first; }
  std::size_t end_row() const;
  std::size_t first_column() const { return m_column; }

 private:
  std::size_t last_first() const { return m_rows > m_visible ? m_rows - m_visible : 0; }

  std::size_t m_rows = 0, m_visible = 0, m_first = 0;
  std::size_t m_column = 1;  // the first that is shown after the symbol
};

// Events per second over about the last second.
class rate_meter {
 public:
  // `total` events happened up to `now`.
  void update(std::uint64_t total, steady_time now);
  double per_second() const { return m_rate; }

 private:
  bool m_started = false;
  std::uint64_t m_total = 0;
  steady_time m_at{};
  double m_rate = 0;
};

}  // namespace kav_watch
