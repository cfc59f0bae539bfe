// How quotes come into the program's own loop: the library's thread puts each into a queue without
// locks and is back at once; main() takes them out when it has time.
// queue_hand_over ADDRESS PORT QUOTES SYMBOL...
#include <array>     // std::array
#include <atomic>    // std::atomic
#include <chrono>    // std::chrono::microseconds
#include <cstddef>   // std::size_t
#include <iostream>  // std::cout
#include <memory>    // std::make_unique
#include <thread>    // std::this_thread::sleep_for

#include "session.h"

// Between one thread that puts and one that takes. A session's quotes all come on one thread.
class quote_queue {
 public:
  // Counts the quote as dropped when the queue is full: a trader wants the newest, and never
  // silence about the rest.
  void put(const KAVMarketDepthQuoteData& quote) {
    const std::size_t put = m_put.load(std::memory_order_relaxed);
    if (put - m_taken.load(std::memory_order_acquire) == m_quotes.size()) {
      m_dropped.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    m_quotes[put % m_quotes.size()] = quote;
    m_put.store(put + 1, std::memory_order_release);  // now the other side may read it
  }
  // False: it is empty.
  bool take(KAVMarketDepthQuoteData& quote) {
    const std::size_t taken = m_taken.load(std::memory_order_relaxed);
    if (taken == m_put.load(std::memory_order_acquire)) return false;
    quote = m_quotes[taken % m_quotes.size()];
    m_taken.store(taken + 1, std::memory_order_release);  // now the other side may overwrite it
    return true;
  }
  std::size_t dropped() const { return m_dropped.load(std::memory_order_relaxed); }

 private:
  // Each side's counter on a cache line of its own: the two do not slow each other down.
  alignas(64) std::atomic<std::size_t> m_put{0};
  alignas(64) std::atomic<std::size_t> m_taken{0};
  alignas(64) std::atomic<std::size_t> m_dropped{0};
  std::array<KAVMarketDepthQuoteData, 4096> m_quotes;
};

int main(int argc, char** argv) {
  const int quotes = argc < 5 ? 0 : count_from(argv[3]);
  if (quotes == 0) {
    std::cerr << "usage: queue_hand_over ADDRESS PORT QUOTES SYMBOL...\n";
    return 2;
  }
  const auto queue = std::make_unique<quote_queue>();  // 1.4 MB: too much for the stack
  session market([&](const KAVMarketDepthQuoteData& quote) { queue->put(quote); });
  if (!market.open(argv[1], count_from(argv[2]), {argv + 4, argv + argc})) return 1;
  for (int seen = 0; seen < quotes;) {
    KAVMarketDepthQuoteData quote;
    if (!queue->take(quote)) {
      std::this_thread::sleep_for(std::chrono::microseconds{100});  // here the loop's other work
      continue;
    }
    ++seen;
    std::cout << quote.UpdateTime << ' ' << quote.InstrumentID << ' ' << double{quote.LastPrice}
              << '\n';
  }
  std::cout << quotes << " quotes, " << queue->dropped() << " dropped because the queue was full\n";
}
// Prints:
//   09:00:00 IF2509 3500.2
//   09:00:00 rb2510 3100
//   2 quotes, 0 dropped because the queue was full
