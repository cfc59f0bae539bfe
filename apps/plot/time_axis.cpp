#include "apps/plot/time_axis.h"

#include <fmt/format.h>

#include <algorithm>  // std::max
#include <cmath>      // std::round

namespace kav_plot {
namespace {

constexpr double k_minute_ms = 60'000;
constexpr std::size_t k_stray_share = 200;
constexpr double k_space_share = 0.012;  // of all sessions together
constexpr double k_shortest_axis = 1;    // minutes, for files of one quote
constexpr double k_round_minutes = 5;    // sessions begin at such minutes
constexpr double k_early_minutes = 1.5;  // and their first quotes so much earlier or later
constexpr std::int64_t k_day_minutes = 24 * 60;

std::string label_of(std::int64_t minute) {
  return fmt::format("{:02}:{:02}", minute % k_day_minutes / 60, minute % 60);
}

// The minute that a session is known to begin at: 21:00 when its first quote came at 20:59, or a
// moment after nine.
std::int64_t first_minute(std::int64_t ms) {
  const double minute = static_cast<double>(ms) / k_minute_ms;
  const double full = std::round(minute / k_round_minutes) * k_round_minutes;
  return std::llround(std::fabs(minute - full) <= k_early_minutes ? full : std::ceil(minute));
}

std::int64_t step_minutes(double length, int most) {
  for (const std::int64_t step : {1, 2, 5, 10, 15, 30, 60, 120, 240, 720}) {
    if (length / static_cast<double>(step) <= most) return step;
  }
  return k_day_minutes;
}

}  // namespace

time_axis::time_axis(const std::vector<quote_point>& points, std::int64_t gap_ms) {
  for (std::size_t i = 0; i < points.size(); ++i) {
    if (m_sessions.empty() || points[i].ms - points[i - 1].ms > gap_ms) {
      m_sessions.push_back({i, i, points[i].ms, points[i].ms});
    }
    m_sessions.back().end = i + 1;
    m_sessions.back().end_ms = points[i].ms;
  }
  leave_out_strays();
  for (const session& piece : m_sessions) {
    m_length += static_cast<double>(piece.end_ms - piece.begin_ms) / k_minute_ms;
  }
  m_length = std::max(m_length, k_shortest_axis);
  m_space = m_length * k_space_share;
  double offset = 0;
  for (session& piece : m_sessions) {
    piece.offset = offset;
    offset = place(piece, piece.end_ms) + m_space;
  }
  m_length = std::max(k_shortest_axis, offset - m_space);
}

void time_axis::leave_out_strays() {
  std::size_t most = 0;
  for (const session& piece : m_sessions) most = std::max(most, piece.end - piece.begin);
  std::erase_if(m_sessions, [&](const session& piece) {
    const bool stray = (piece.end - piece.begin) * k_stray_share < most;
    if (stray) m_strays += piece.end - piece.begin;
    return stray;
  });
}

double time_axis::place(const session& of, std::int64_t ms) const {
  return of.offset + static_cast<double>(ms - of.begin_ms) / k_minute_ms;
}

std::vector<double> time_axis::breaks() const {
  std::vector<double> places;
  for (std::size_t i = 1; i < m_sessions.size(); ++i) {
    places.push_back(m_sessions[i].offset - m_space / 2);
  }
  return places;
}

std::vector<axis_tick> time_axis::ticks(int most) const {
  const std::int64_t step = step_minutes(m_length, most);
  const double nearest = m_length / most * 0.7;
  std::vector<axis_tick> all;
  for (std::size_t i = 0; i < m_sessions.size(); ++i) {
    const session& piece = m_sessions[i];
    const double limit =
        i + 1 < m_sessions.size() ? m_sessions[i + 1].offset - nearest : m_length + nearest;
    const auto at = [&](std::int64_t minute) {
      const auto ms = minute * static_cast<std::int64_t>(k_minute_ms);
      return place(piece, std::max(ms, piece.begin_ms));
    };
    const auto add = [&](std::int64_t minute) {
      if (all.empty() || at(minute) - all.back().minutes >= nearest) {
        all.push_back({at(minute), label_of(minute)});
      }
    };
    const std::int64_t first = first_minute(piece.begin_ms);
    const auto last = static_cast<std::int64_t>(static_cast<double>(piece.end_ms) / k_minute_ms);
    add(first);
    for (std::int64_t m = (first / step + 1) * step; m <= last && at(m) < limit; m += step) add(m);
  }
  return all;
}

}  // namespace kav_plot
