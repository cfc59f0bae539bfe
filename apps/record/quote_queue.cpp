#include "apps/record/quote_queue.h"

namespace kav_record {
namespace {

std::int64_t now_ns() {
  const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(since_1970).count();
}

}  // namespace

quote_queue::quote_queue(std::size_t room, std::optional<std::uint64_t> limit)
    : m_room(room), m_limit(limit) {
  m_waiting.reserve(room);  // nothing is allocated inside a callback
}

void quote_queue::take(const KAVMarketDepthQuoteData& quote) {
  const std::int64_t received_ns = now_ns();
  bool first = false;
  {
    const std::lock_guard lock(m_lock);
    if (m_closed || (m_limit && m_taken >= *m_limit)) return;
    if (m_waiting.size() >= m_room) {
      ++m_lost;
      return;
    }
    ++m_taken;
    first = m_waiting.empty();
    m_waiting.push_back({quote, received_ns});
  }
  if (first) m_news.notify_one();
}

bool quote_queue::take_all(std::vector<received_quote>& quotes,
                           std::chrono::steady_clock::time_point deadline) {
  quotes.clear();
  quotes.reserve(m_room);  // it becomes the queue's
  std::unique_lock lock(m_lock);
  m_news.wait_until(lock, deadline, [this] { return m_closed || !m_waiting.empty(); });
  quotes.swap(m_waiting);
  return !quotes.empty() || !m_closed;
}

void quote_queue::close() {
  {
    const std::lock_guard lock(m_lock);
    m_closed = true;
  }
  m_news.notify_one();
}

quote_queue::counts quote_queue::look() const {
  const std::lock_guard lock(m_lock);
  return {m_taken, m_lost, m_waiting.size(), m_limit && m_taken >= *m_limit};
}

}  // namespace kav_record
