#include "bench/datagram/decode_time.h"

#include <algorithm>  // std::nth_element
#include <chrono>     // std::chrono::steady_clock
#include <cstring>    // memcpy
#include <vector>     // std::vector

#include "apps/feed/encode.h"
#include "bench/datagram/quote_meter.h"
#include "bench/datagram/yardstick.h"
#include "feeds/exchange_id.h"
#include "feeds/multicast_decoder.h"

namespace kav_bench {

namespace {

constexpr unsigned k_datagrams = 1'000;  // in one round

kav_feed::datagram some_record() {
  KAVMarketDepthQuoteData tick{};
  std::memcpy(tick.InstrumentID, "rb2410", 7);
  std::memcpy(tick.UpdateTime, "09:30:01", 9);
  return kav_feed::encode_shfe(tick);
}

template <class ACTION>
double time_each(ACTION action) {
  const auto start = std::chrono::steady_clock::now();
  for (unsigned i = 0; i < k_datagrams; ++i) action();
  const nanoseconds taken = std::chrono::steady_clock::now() - start;
  return static_cast<double>(taken.count()) / k_datagrams;
}

double median(std::vector<double>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

decode_figures time_decoder(unsigned rounds) {
  quote_meter meter;
  meter.begin_steady(0);
  multicast_decoder decoder;
  decoder.set_event(&meter);
  kav_feed::datagram record = some_record();
  std::vector<double> by_hand, decoded;
  for (unsigned round = 0; round < rounds; ++round) {
    by_hand.push_back(time_each([&] { deliver(record.bytes, record.length, meter); }));
    decoded.push_back(time_each([&] {
      decoder.decode(record.bytes, static_cast<unsigned>(record.length), k_exchange_number_shfe);
    }));
  }
  return {median(by_hand), median(decoded)};
}

}  // namespace kav_bench
