// kav-count-quotes PORT COUNT: takes COUNT quotes from the server on 127.0.0.1, copies each record
// as a program would, and prints how many seconds lie between the first and the last.
#include <algorithm>  // std::clamp
#include <chrono>     // std::chrono::steady_clock
#include <cstdio>     // std::printf
#include <cstdlib>    // std::strtoull
#include <future>     // std::promise
#include <vector>     // std::vector

#include "api/kav_quote_api.h"

namespace {

using steady = std::chrono::steady_clock;

constexpr std::chrono::seconds k_limit{120};
constexpr std::size_t k_kept = 8192;  // records, as many as in a batch

// The callbacks come on threads of the library, quotes on one of them.
class counter : public KAVQuoteEvent {
 public:
  counter(KAVQuoteApi* api, std::size_t count) : m_api(api), m_count(count), m_kept(k_kept) {}

  double wait() {
    std::future<double> seconds = m_seconds.get_future();
    return seconds.wait_for(k_limit) == std::future_status::ready ? seconds.get() : 0;
  }

  void OnLoginResult(bool success, const char*) override {
    if (success) m_api->RegisterSymbol(KavKqsIntrumentTypeNone, "IF2612");
  }
  void OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* quote) override {
    if (m_seen == 0) m_begin = steady::now();
    m_kept[m_seen % k_kept] = *quote;
    if (++m_seen != m_count) return;
    m_seconds.set_value(std::chrono::duration<double>(steady::now() - m_begin).count());
  }
  void OnServerConnected() override {}
  void OnServerDisconnected() override {}
  void OnLog(KavKqsLogLevel, const char*, int) override {}
  void OnSymbolRegistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolUnregistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolList(KavKqsIntrumentType, const char*, bool) override {}

 private:
  KAVQuoteApi* const m_api;
  const std::size_t m_count;
  std::size_t m_seen = 0;
  steady::time_point m_begin;
  std::vector<KAVMarketDepthQuoteData> m_kept;
  std::promise<double> m_seconds;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: kav-count-quotes PORT COUNT\n", stderr);
    return 2;
  }
  KAVQuoteApi* const api = CreateKAVQuoteApi();
  counter events{api, std::strtoull(argv[2], nullptr, 10)};
  KqsTcpInfo server = {
      "", "127.0.0.1",
      static_cast<std::uint16_t>(std::clamp(std::strtol(argv[1], nullptr, 10), 1L, 65535L))};
  KqsLoginParam login = {"user", "password"};
  double seconds = 0;
  if (api->ConnServer(server, &events) && api->LoginToKqs(login) != 0) seconds = events.wait();
  DestroyKAVQuoteApi(api);
  std::printf("%.6f\n", seconds);
  return seconds > 0 ? 0 : 1;
}
