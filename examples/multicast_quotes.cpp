// multicast_quotes GROUP PORT EXCHANGE [LOCAL-IP]: prints the quotes of one multicast group until
// Enter is pressed.
#include <cstdlib>   // std::atoi
#include <cstring>   // std::strncpy
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
  std::strncpy(group.m_GroupIp, argv[1], sizeof(group.m_GroupIp));  // needs no NUL when full
  group.m_GroupPort = static_cast<std::uint16_t>(std::atoi(argv[2]));
  std::strncpy(group.m_ExchangeId, argv[3], sizeof(group.m_ExchangeId));
  if (argc > 4) std::strncpy(group.m_LocalIp, argv[4], sizeof(group.m_LocalIp));

  Printer printer;
  KAVQuoteApi* client = CreateKAVQuoteApi();
  const int result = StartKAVMulticast(client, &group, 1, &printer, nullptr);  // OnLog() tells why
  if (result == KAVMulticastStarted) std::cin.get();
  DestroyKAVQuoteApi(client);  // stops first; no callback comes afterwards
  return result == KAVMulticastStarted ? 0 : 1;
}
