// Bars of one minute from ticks: open, high, low and close of the last price, and the lots traded.
// A bar is printed when the first tick behind its minute comes.
// minute_bars ADDRESS PORT BARS SYMBOL...
#include <algorithm>  // std::max
#include <future>     // std::promise
#include <iostream>   // std::cout
#include <map>        // std::map

#include "session.h"

namespace {

struct bar {
  std::string minute;  // HH:MM of the exchange
  double open = 0, high = 0, low = 0, close = 0;
  int lots = 0;
};

// One symbol's ticks become bars.
class bar_builder {
 public:
  // True: `finished` is the bar of the minute that this tick ended.
  bool add(const KAVMarketDepthQuoteData& tick, bar& finished) {
    const double price = tick.LastPrice;
    if (price == 0) return false;  // zero is no price: nothing has been traded yet
    const std::string minute(tick.UpdateTime, 5);
    const bool ended = minute != m_now.minute && !m_now.minute.empty();
    if (ended) finished = m_now;
    if (minute != m_now.minute) m_now = bar{minute, price, price, price, price, 0};
    m_now.high = std::max(m_now.high, price);
    m_now.low = std::min(m_now.low, price);
    m_now.close = price;
    m_now.lots += lots_since_last_tick(tick);
    return ended;
  }

 private:
  // Volume counts from the day's opening: the first tick tells no difference, and behind a change
  // of the trading day all of it is new.
  int lots_since_last_tick(const KAVMarketDepthQuoteData& tick) {
    const int before = m_day == tick.TradingDay ? m_volume : m_day.empty() ? tick.Volume : 0;
    m_day = tick.TradingDay;
    m_volume = tick.Volume;
    return m_volume - before;
  }

  bar m_now;
  std::string m_day;
  int m_volume = 0;
};

void print(const std::string& symbol, const bar& b) {
  std::cout << b.minute << ' ' << symbol << " open " << b.open << " high " << b.high << " low "
            << b.low << " close " << b.close << " lots " << b.lots << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
  int left = argc < 5 ? 0 : count_from(argv[3]);  // from here on the receive thread's alone
  if (left == 0) {
    std::cerr << "usage: minute_bars ADDRESS PORT BARS SYMBOL...\n";
    return 2;
  }
  std::map<std::string, bar_builder> builders;
  std::promise<void> done;
  session market([&](const KAVMarketDepthQuoteData& tick) {
    bar finished;
    if (left == 0 || !builders[tick.InstrumentID].add(tick, finished)) return;
    print(tick.InstrumentID, finished);
    if (--left == 0) done.set_value();
  });
  if (!market.open(argv[1], count_from(argv[2]), {argv + 4, argv + argc})) return 1;
  done.get_future().wait();
}
// Prints:
//   09:00 IF2509 open 3500.2 high 3502.4 low 3499.8 close 3501 lots 118
//   09:01 IF2509 open 3501.2 high 3501.2 low 3498.6 close 3499 lots 97
