#include "apps/plot/picture.h"

#include <fmt/format.h>

#include <algorithm>    // std::max, std::min
#include <cmath>        // std::fabs, std::floor, std::log10, std::pow
#include <iterator>     // std::back_inserter
#include <limits>       // std::numeric_limits
#include <map>          // std::map
#include <string_view>  // std::string_view
#include <utility>      // std::forward

#include "apps/plot/time_axis.h"
#include "apps/watch/text_safety.h"

namespace kav_plot {
namespace {

constexpr unsigned k_one_width = 1100, k_more_width = 760;  // pixels of each symbol
constexpr int k_slots = 1000;  // of each symbol's width that can differ: more points are thinned
constexpr double k_most_bars = 260;
constexpr double k_margin = 0.05;  // of the values, above and below

// In parts of the picture's height, bottom to top.
struct panel {
  double bottom, top;
};
constexpr panel k_price{0.49, 0.91}, k_volume{0.29, 0.44}, k_interest{0.09, 0.24};

struct value_range {
  double low = std::numeric_limits<double>::infinity();
  double high = -std::numeric_limits<double>::infinity();

  void add(double value) {
    low = std::min(low, value);
    high = std::max(high, value);
  }
  // With a margin, and never empty; with a step for about `most` numbers beside it.
  std::string text(int most) const {
    if (low > high) return "set yrange [0:1]\nset ytics 1\n";
    const double flat = std::max(1.0, std::fabs(low) * 0.001);
    const double margin = high > low ? (high - low) * k_margin : flat;
    const double begin = low - margin, end = high + margin;
    return fmt::format("set yrange [{}:{}]\nset ytics {}\n", begin, end,
                       round_step((end - begin) / most));
  }

 private:
  // The next of 1, 2 and 5 with any number of zeros.
  static double round_step(double least) {
    const double tens = std::pow(10, std::floor(std::log10(least)));
    for (const double step : {1.0, 2.0, 5.0}) {
      if (step * tens >= least) return step * tens;
    }
    return 10 * tens;
  }
};

std::string quoted(std::string_view text) {
  std::string out = "'";
  for (const char c : text) out += c == '\'' ? std::string{"''"} : std::string{c};
  return out + "'";
}

std::string price_or_none(double price) {
  return price != 0 ? fmt::format("{}", price) : std::string{"NaN"};
}

// The lines of one symbol: its data, then its three panels.
class column_script {
 public:
  column_script(const tick_series& series, const picture_options& options, std::size_t place,
                std::size_t places)
      : m_series(series),
        m_axis(series.points, options.gap_ms),
        m_id(place),
        m_ticks(places == 1 ? 14 : 9),
        m_left((static_cast<double>(place) + (places == 1 ? 0.075 : 0.12)) /
               static_cast<double>(places)),
        m_right((static_cast<double>(place) + 0.965) / static_cast<double>(places)) {}

  std::string text() {
    append_points();
    append_bars();
    append_axis();
    append_price();
    append_volume();
    append_interest();
    return fmt::to_string(m_out);
  }
  std::size_t strays() const { return m_axis.stray_quotes(); }

 private:
  template <class... Arguments>
  void add(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    fmt::format_to(std::back_inserter(m_out), format, std::forward<Arguments>(arguments)...);
  }

  void append_point(const session& piece, const quote_point& point) {
    add("{:.4f} {} {} {} {}\n", m_axis.place(piece, point.ms), price_or_none(point.last),
        price_or_none(point.bid), price_or_none(point.ask), price_or_none(point.open_interest));
    for (const double price : {point.last, point.bid, point.ask}) {
      if (price != 0) m_prices.add(price);
    }
    if (point.open_interest != 0) m_interests.add(point.open_interest);
  }

  // Of the points that share a column of the picture the first, the last and the extremes remain.
  void append_column(const session& piece, std::size_t begin, std::size_t end) {
    std::size_t low = begin, high = begin;
    for (std::size_t i = begin; i < end; ++i) {
      if (m_series.points[i].last < m_series.points[low].last) low = i;
      if (m_series.points[i].last > m_series.points[high].last) high = i;
    }
    std::size_t kept[] = {begin, std::min(low, high), std::max(low, high), end - 1};
    for (std::size_t i = 0; i < std::size(kept); ++i) {
      if (i == 0 || kept[i] != kept[i - 1]) append_point(piece, m_series.points[kept[i]]);
    }
  }

  void append_points() {
    add("$points{} << EOD\n", m_id);
    for (const session& piece : m_axis.sessions()) {
      for (std::size_t i = piece.begin; i < piece.end;) {
        std::size_t next = i;
        while (next < piece.end && column_of(piece, next) == column_of(piece, i)) ++next;
        append_column(piece, i, next);
        i = next;
      }
      add("\n");  // no line across the break
    }
    add("EOD\n");
  }

  int column_of(const session& piece, std::size_t i) const {
    return static_cast<int>(m_axis.place(piece, m_series.points[i].ms) / m_axis.length() * k_slots);
  }

  void append_bars() {
    for (const int minutes : {1, 2, 5, 10, 15, 30, 60, 120, 240}) {
      m_bar_minutes = minutes;
      if (m_axis.length() / minutes <= k_most_bars) break;
    }
    add("$bars{} << EOD\n", m_id);
    std::int64_t before = -1;  // what was traded before the first quote is nobody's bar
    for (const session& piece : m_axis.sessions()) append_bars_of(piece, before);
    add("EOD\n");
  }

  void append_bars_of(const session& piece, std::int64_t& before) {
    const std::int64_t width_ms = m_bar_minutes * 60'000LL;
    std::map<std::int64_t, std::int64_t> traded;  // by the bar's number since midnight
    for (std::size_t i = piece.begin; i < piece.end; ++i) {
      const quote_point& point = m_series.points[i];
      // A volume that falls is that of a new day.
      if (before >= 0) {
        traded[point.ms / width_ms] +=
            point.volume >= before ? point.volume - before : point.volume;
      }
      before = point.volume;
    }
    for (const auto& [number, lots] : traded) {
      const double begin = m_axis.place(piece, std::max(piece.begin_ms, number * width_ms));
      const double end = m_axis.place(piece, std::min(piece.end_ms, (number + 1) * width_ms));
      add("{:.4f} {} {:.4f}\n", (begin + end) / 2, lots, std::max(end - begin, 0.1));
      m_traded.add(static_cast<double>(lots));
    }
    add("\n");
  }

  void append_axis() {
    add("unset arrow\nunset label\nset lmargin at screen {}\nset rmargin at screen {}\n", m_left,
        m_right);
    add("set xrange [{}:{}]\n", -0.005 * m_axis.length(), 1.005 * m_axis.length());
    for (const double place : m_axis.breaks()) {
      add("set arrow from first {0}, graph 0 to first {0}, graph 1 nohead dashtype 2 linecolor rgb "
          "'#888888'\n",
          place);
    }
  }

  // Full times below the lowest panel only; the others have the marks.
  std::string time_ticks(bool labelled) const {
    std::string text;
    for (const axis_tick& tick : m_axis.ticks(m_ticks)) {
      text += fmt::format("{}{} {}", text.empty() ? "" : ", ", quoted(labelled ? tick.label : ""),
                          tick.minutes);
    }
    return fmt::format("set xtics ({})\n", text);
  }

  void begin_panel(const panel& at, const std::string& title, const std::string& values) {
    add("set bmargin at screen {}\nset tmargin at screen {}\n{}", at.bottom, at.top, values);
    add("set label 1 {} at graph 0, graph 1 offset 0, 0.7 left\n", quoted(title));
  }

  void append_price() {
    const std::string day = kav_watch::printable_text(m_series.trading_day);
    begin_panel(k_price,
                fmt::format("{} {}{}{}: price", kav_watch::printable_text(m_series.symbol),
                            kav_watch::printable_text(m_series.exchange),
                            day.empty() ? "" : ", trading day ", day),
                m_prices.text(8));
    add("{}set key at graph 1, graph 1 right bottom horizontal samplen 2 width -1\n",
        time_ticks(false));
    add("plot $points{0} using 1:4 with steps linecolor rgb '#2ca02c' title 'ask', "
        "'' using 1:3 with steps linecolor rgb '#1f77b4' title 'bid', "
        "'' using 1:2 with lines linecolor rgb '#d62728' title 'last'\nunset key\n",
        m_id);
  }

  void append_volume() {
    m_traded.add(0);
    begin_panel(k_volume, fmt::format("traded, lots in {} min", m_bar_minutes),
                m_traded.text(5) + "set yrange [0:]\n");
    add("plot $bars{} using 1:2:3 with boxes linecolor rgb '#7f7f7f'\n", m_id);
  }

  void append_interest() {
    begin_panel(k_interest, "open interest, lots", m_interests.text(5));
    add("{}set xlabel 'time of the quotes, HH:MM; dashed: a break in trading'\n", time_ticks(true));
    add("plot $points{} using 1:5 with steps linewidth 1.5 linecolor rgb '#9467bd'\nunset xlabel\n",
        m_id);
  }

  const tick_series& m_series;
  const time_axis m_axis;
  const std::size_t m_id;
  const int m_ticks;
  const double m_left, m_right;  // in parts of the picture's width
  int m_bar_minutes = 1;
  value_range m_prices, m_interests, m_traded;
  fmt::memory_buffer m_out;
};

}  // namespace

std::string picture_script(const std::vector<tick_series>& all, const picture_options& options,
                           std::size_t& strays) {
  const unsigned each = all.size() == 1 ? k_one_width : k_more_width;
  const unsigned width =
      options.width != 0 ? options.width : each * static_cast<unsigned>(all.size());
  std::string script = fmt::format(
      "set terminal {} noenhanced size {},{} font 'sans-serif,11' background '#ffffff'\n"
      "set encoding utf8\nset output {}\nset datafile missing 'NaN'\n"
      "set style fill solid 0.8 noborder\nset grid linetype 1 linecolor rgb '#e4e4e4'\n"
      "set format y '%.10g'\nset tics nomirror scale 0.5\nset multiplot\n",
      options.kind == picture_kind::png ? "pngcairo" : "svg", width, options.height,
      quoted(options.path));
  strays = 0;
  for (std::size_t i = 0; i < all.size(); ++i) {
    column_script column{all[i], options, i, all.size()};
    script += column.text();
    strays += column.strays();
  }
  return script + "unset multiplot\nset output\n";
}

}  // namespace kav_plot
