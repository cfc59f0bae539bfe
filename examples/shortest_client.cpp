// The shortest client: logs in, registers one symbol and prints its quotes until Enter is pressed.
// shortest_client ADDRESS PORT SYMBOL
#include <cstdio>    // std::snprintf
#include <cstdlib>   // std::atoi
#include <iostream>  // std::cout

#include "api/kav_quote_api.h"

struct Printer : KAVQuoteEvent {
  KAVQuoteApi* api = CreateKAVQuoteApi();
  const char* symbol = "";
  void OnLoginResult(bool accepted, const char*) override {
    if (accepted) api->RegisterSymbol(KavKqsIntrumentTypeNone, symbol);
  }
  void OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* q) override {
    std::cout << q->UpdateTime << ' ' << q->InstrumentID << ' ' << q->LastPrice << std::endl;
  }
  void OnLog(KavKqsLogLevel level, const char* text, int) override {
    if (level == LogLevelError) std::cerr << text << '\n';  // why it does not connect or log in
  }
  void OnServerConnected() override {}
  void OnServerDisconnected() override {}
  void OnSymbolRegistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolUnregistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolList(KavKqsIntrumentType, const char*, bool) override {}
};

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  Printer events;
  events.symbol = argv[3];
  KqsTcpInfo server = {"", "", static_cast<std::uint16_t>(std::atoi(argv[2]))};
  std::snprintf(server.m_ServerIp, sizeof(server.m_ServerIp), "%s", argv[1]);
  KqsLoginParam login = {"user", "password"};
  if (events.api->ConnServer(server, &events) && events.api->LoginToKqs(login)) std::cin.get();
  DestroyKAVQuoteApi(events.api);  // no callback comes afterwards
}
// Prints: 09:00:00 IF2509 3500.2
