#include "apps/feed/pace.h"

#include <algorithm>  // std::max

namespace kav_feed {

pace::pace(double per_second, steady_time start)
    : m_limited(per_second > 0),
      m_interval(m_limited ? interval{1e9 / per_second} : interval{0}),
      m_due(start) {}

steady_time pace::next(steady_time ready, steady_time now) {
  if (!m_limited) return ready;
  m_due = std::max(m_due, decltype(m_due){ready});
  const auto due = std::chrono::time_point_cast<steady_time::duration>(m_due);
  m_due += m_interval;
  if (due > now) {
    m_burst = 1;
    return due;
  }
  if (m_burst < k_longest_burst) {
    ++m_burst;
    return now;
  }
  m_burst = 1;
  const interval pause = m_interval * (k_longest_burst / 2);
  return now + std::chrono::duration_cast<steady_time::duration>(pause);
}

}  // namespace kav_feed
