// multicast_quotes GROUP PORT EXCHANGE [LOCAL-IP]: prints the quotes of one multicast group until
// Enter is pressed.
#include <cstdio>    // std::snprintf
#include <cstdlib>   // std::atoi
#include <iostream>  // std::cout

#include "api/kav_multicast.h"

namespace {

struct Printer : KAVQuoteEvent {
  void OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* q) override {
    std::cout << q->UpdateTime << ' ' << q->InstrumentID << ' ' << q->LastPrice << std::endl;
  }
  void OnLog(KavKqsLogLevel level, const char* text, int) override {
    if (level == LogLevelError) std::cerr << text << '\n';
  }
  void OnServerConnected() override {}
  void OnServerDisconnected() override {}
  void OnLoginResult(bool, const char*) override {}
  void OnSymbolRegistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolUnregistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolList(KavKqsIntrumentType, const char*, bool) override {}
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::cerr << "usage: multicast_quotes GROUP PORT EXCHANGE [LOCAL-IP]\n";
    return 2;
  }
  KqsMulticastInfo group = KqsMulticastInfo();
  std::snprintf(group.m_GroupIp, sizeof(group.m_GroupIp), "%s", argv[1]);
  group.m_GroupPort = static_cast<std::uint16_t>(std::atoi(argv[2]));
  std::snprintf(group.m_ExchangeId, sizeof(group.m_ExchangeId), "%s", argv[3]);
  if (argc > 4) std::snprintf(group.m_LocalIp, sizeof(group.m_LocalIp), "%s", argv[4]);

  Printer printer;
  KAVQuoteApi* client = CreateKAVQuoteApi();
  const int result = StartKAVMulticast(client, &group, 1, &printer, nullptr);  // OnLog() tells why
  if (result == KAVMulticastStarted) std::cin.get();
  DestroyKAVQuoteApi(client);  // stops first; no callback comes afterwards
  return result == KAVMulticastStarted ? 0 : 1;
}
// Prints: 09:00:00 IF2509 3500.2
