// The times of trading side by side, without the breaks between them.
#pragma once

#include <cstdint>  // std::int64_t
#include <string>   // std::string
#include <vector>   // std::vector

#include "apps/plot/tick_series.h"

namespace kav_plot {

// Quotes that follow each other without a long silence: [begin, end) of the series' points.
struct session {
  std::size_t begin, end;
  std::int64_t begin_ms, end_ms;  // times of its first and its last quote
  double offset = 0;              // minutes on the axis where it begins
};

struct axis_tick {
  double minutes;  // on the axis
  std::string label;
};

class time_axis {
 public:
  // A silence of more than `gap_ms` is a break. Pieces of less than one in 200 quotes of the
  // longest, such as those that an exchange sends hours before it opens, are left out;
  // stray_quotes() counts them.
  time_axis(const std::vector<quote_point>& points, std::int64_t gap_ms);

  const std::vector<session>& sessions() const { return m_sessions; }
  std::size_t stray_quotes() const { return m_strays; }
  double length() const { return m_length; }  // minutes, all sessions and the space between them
  double place(const session& of, std::int64_t ms) const;
  // The middle of the space before each session but the first.
  std::vector<double> breaks() const;
  // Full times, and the begin of each session; about `most` of them, none too near to another.
  std::vector<axis_tick> ticks(int most) const;

 private:
  void leave_out_strays();

  std::vector<session> m_sessions;
  std::size_t m_strays = 0;
  double m_space = 0;  // minutes between two sessions
  double m_length = 0;
};

}  // namespace kav_plot
