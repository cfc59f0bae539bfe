#include "apps/feed/disturbance.h"

namespace kav_feed {

// 53 bits make a number from 0 up to below 1, the same on every machine.
bool disturbance::happens(double probability) {
  return static_cast<double>(m_random() >> 11) * 0x1p-53 < probability;
}

void disturbance::pass(const datagram& next, std::vector<datagram>& out) {
  // Always two draws, so that one option does not change what the other hits.
  const bool lost = happens(m_options.loss), swap = happens(m_options.reorder);
  if (lost) {
    ++m_left_out;
  } else if (m_held) {
    out.push_back(next);
    out.push_back(*m_held);
    m_held.reset();
    ++m_swapped;
  } else if (swap) {
    m_held = next;
  } else {
    out.push_back(next);
  }
}

void disturbance::finish(std::vector<datagram>& out) {
  if (m_held) out.push_back(*m_held);
  m_held.reset();
}

}  // namespace kav_feed
