// How late quotes are, as the program itself can see it. The exchange's clock and this machine's
// need not agree: the quickest quote counts as 0, and the others tell how much later than that they
// came. Below the exchange's step, a millisecond at best, nothing can be told.
// latency ADDRESS PORT QUOTES SYMBOL...
#include <algorithm>  // std::sort
#include <chrono>     // std::chrono::system_clock
#include <cmath>      // std::remainder
#include <cstdio>     // std::sscanf, std::printf
#include <future>     // std::promise

#include "session.h"

namespace {

constexpr double k_day_ms = 24 * 3600 * 1000.0;

// Time of day; negative when the quote carries none.
double exchange_ms(const KAVMarketDepthQuoteData& quote) {
  int hour = 0, minute = 0, second = 0;
  if (std::sscanf(quote.UpdateTime, "%2d:%2d:%2d", &hour, &minute, &second) != 3) return -1;
  return ((hour * 60 + minute) * 60 + second) * 1000.0 + quote.UpdateMillisec;
}

double now_ms() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double, std::milli>(now).count();
}

void print(std::vector<double> delays) {
  const double first = delays.front();
  for (double& delay : delays) delay = std::remainder(delay - first, k_day_ms);  // over midnight
  std::sort(delays.begin(), delays.end());
  const auto at = [&](double part) {
    const auto last = static_cast<double>(delays.size() - 1);
    return delays[static_cast<std::size_t>(part * last)] - delays.front();
  };
  std::printf("%zu quotes, later than the quickest: median %.3f ms, 99 %% %.3f ms, most %.3f ms\n",
              delays.size(), at(0.5), at(0.99), at(1));
}

}  // namespace

int main(int argc, char** argv) {
  const int quotes = argc < 5 ? 0 : count_from(argv[3]);
  if (quotes == 0) {
    std::fprintf(stderr, "usage: latency ADDRESS PORT QUOTES SYMBOL...\n");
    return 2;
  }
  const auto wanted = static_cast<std::size_t>(quotes);
  std::vector<double> delays;  // the receive thread's until `done`
  delays.reserve(wanted);
  std::promise<void> done;
  session market([&](const KAVMarketDepthQuoteData& quote) {
    const double now = now_ms(), sent = exchange_ms(quote);
    if (sent < 0 || delays.size() == wanted) return;
    delays.push_back(now - sent);
    if (delays.size() == wanted) done.set_value();
  });
  if (!market.open(argv[1], count_from(argv[2]), {argv + 4, argv + argc})) return 1;
  done.get_future().wait();
  print(delays);
}
// Prints:
//   500 quotes, later than the quickest: median 0.114 ms, 99 % 0.702 ms, most 2.250 ms
