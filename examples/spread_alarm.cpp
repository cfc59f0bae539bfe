// An alarm for a calendar spread: tells when the far month's middle price is more than LIMIT above
// the near month's, once; and again only after it has been back below half of that.
// spread_alarm ADDRESS PORT ALARMS LIMIT NEAR FAR
#include <cstdlib>   // std::strtod
#include <future>    // std::promise
#include <iostream>  // std::cout
#include <utility>   // std::move

#include "session.h"

namespace {

// Half way from the best bid to the best ask; 0 when a side is empty, as at a price limit.
double middle(const KAVMarketDepthQuoteData& quote) {
  const double bid = quote.BidPrice1, ask = quote.AskPrice1;
  return bid == 0 || ask == 0 ? 0 : (bid + ask) / 2;
}

class spread_watch {
 public:
  spread_watch(std::string near, double limit) : m_near_symbol(std::move(near)), m_limit(limit) {}

  // True: the alarm is due. Meanwhile spread() is what it was with the quote taken last.
  bool take(const KAVMarketDepthQuoteData& quote) {
    (m_near_symbol == quote.InstrumentID ? m_near : m_far) = middle(quote);
    if (m_near == 0 || m_far == 0) return false;  // not both are known
    if (spread() < m_limit / 2) m_armed = true;
    if (!m_armed || spread() <= m_limit) return false;
    m_armed = false;
    return true;
  }
  double spread() const { return m_far - m_near; }

 private:
  const std::string m_near_symbol;
  const double m_limit;
  double m_near = 0, m_far = 0;
  bool m_armed = true;
};

}  // namespace

int main(int argc, char** argv) {
  int left = argc != 7 ? 0 : count_from(argv[3]);  // from here on the receive thread's alone
  const double limit = argc != 7 ? 0 : std::strtod(argv[4], nullptr);
  if (left == 0 || limit <= 0) {
    std::cerr << "usage: spread_alarm ADDRESS PORT ALARMS LIMIT NEAR FAR\n";
    return 2;
  }
  spread_watch watch(argv[5], limit);
  std::promise<void> done;
  session market([&](const KAVMarketDepthQuoteData& quote) {
    if (left == 0 || !watch.take(quote)) return;
    std::cout << quote.UpdateTime << " ALARM " << argv[6] << " - " << argv[5] << " = "
              << watch.spread() << std::endl;
    if (--left == 0) done.set_value();
  });
  if (!market.open(argv[1], count_from(argv[2]), {argv[5], argv[6]})) return 1;
  done.get_future().wait();
}
// Prints:
//   10:15:03 ALARM IF2512 - IF2509 = 25.4
