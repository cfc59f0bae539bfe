// The way of quotes from the library's callbacks to the thread that writes files.
#pragma once

#include <chrono>              // std::chrono::milliseconds
#include <condition_variable>  // std::condition_variable
#include <cstdint>             // std::uint64_t
#include <mutex>               // std::mutex
#include <optional>            // std::optional
#include <vector>              // std::vector

#include "apps/watch/quote_inbox.h"

namespace kav_record {

struct received_quote {
  KAVMarketDepthQuoteData record;
  std::int64_t received_ns;  // since 1970-01-01 UTC
};

// Threads:  take() on any thread of the library; it never waits for the disk: what finds no room is
//           counted as lost. take_all() on the writer's thread.
// Shutdown: after close() take() does nothing, and take_all() hands out what waits, then ends.
class quote_queue : public kav_watch::quote_taker {
 public:
  // Room for so many; no more than `limit` quotes are taken in all.
  quote_queue(std::size_t room, std::optional<std::uint64_t> limit);

  void take(const KAVMarketDepthQuoteData& quote) override;

  // Replaces `quotes` with those that wait, after waiting until `deadline` for some. False: closed,
  // and there are none any more.
  bool take_all(std::vector<received_quote>& quotes,
                std::chrono::steady_clock::time_point deadline);
  void close();

  struct counts {
    std::uint64_t taken = 0, lost = 0;
    std::size_t waiting = 0;
    bool limit_reached = false;
  };
  counts look() const;  // any thread

 private:
  const std::size_t m_room;
  const std::optional<std::uint64_t> m_limit;

  mutable std::mutex m_lock;  // guards everything below
  std::condition_variable m_news;
  std::vector<received_quote> m_waiting;
  std::uint64_t m_taken = 0, m_lost = 0;
  bool m_closed = false;
};

}  // namespace kav_record
