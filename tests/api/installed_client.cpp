// A caller of the installed library, in C++11: what can be done without a server.
#include <cstdio>   // std::fprintf
#include <cstring>  // std::strcpy
#include <string>   // std::string
#include <vector>   // std::vector

#include "api/kav_multicast.h"

namespace {

int g_failures = 0;

void check(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "failed: %s\n", what);
  ++g_failures;
}

class silent_events : public KAVQuoteEvent {
 public:
  void OnServerConnected() override { ++m_connected; }
  void OnServerDisconnected() override {}
  void OnLoginResult(bool, const char*) override {}
  void OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData*) override {}
  void OnLog(KavKqsLogLevel level, const char* text, int length) override {
    m_last_level = level;
    m_last_line.assign(text, static_cast<std::size_t>(length));
  }
  void OnSymbolRegistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolUnregistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolList(KavKqsIntrumentType, const char*, bool) override {}

  // All operations below log on the caller's thread.
  int m_connected = 0;
  KavKqsLogLevel m_last_level = LogLevelDebug;
  std::string m_last_line;
};

void check_multicast(KAVQuoteApi* api, KAVQuoteEvent* events) {
  std::vector<KqsMulticastInfo> groups(1);
  std::strcpy(groups[0].m_GroupIp, "239.1.1.1");
  check(api->InitMulticast(groups, events) == 0, "InitMulticast() returns 0");
  int result = KAVMulticastStarted;
  check(StartKAVMulticast(api, groups.data(), 1, events, &result) == KAVMulticastGroupFailed &&
            result == KAVMulticastUnknownExchange,
        "StartKAVMulticast() tells that no exchange is named");
  StopKAVMulticast(api);
  KAVMulticastStatistics statistics;
  check(!GetKAVMulticastStatistics(api, 0, &statistics), "nothing is received");
  groups.clear();
  check(api->InitMulticast(groups, nullptr) == 0, "InitMulticast() of nothing returns 0");
}

void check_no_server(KAVQuoteApi* api, silent_events* events) {
  std::vector<KqsTcpInfo> none;
  check(!api->ConnServer(none, events), "ConnServer() refuses an empty list");
  KqsTcpInfo server = KqsTcpInfo();
  std::strcpy(server.m_ServerIp, "127.0.0.1");
  server.m_ServerPort = 1;  // nobody listens on tcpmux
  check(!api->ConnServer(server, events), "ConnServer() to a closed port fails");
  check(events->m_connected == 0, "OnServerConnected() does not come without a connection");
  check(events->m_last_level == LogLevelError, "a failed connection is logged as an error");
  check(events->m_last_line ==
            "[QuoteClient] init connect server failed. server ip: 127.0.0.1, port: 1.",
        "the log line names the server");
}

}  // namespace

int main() {
  DestroyKAVQuoteApi(nullptr);
  KAVQuoteApi* api = CreateKAVQuoteApi();
  silent_events events;
  if (api == nullptr) {
    std::fprintf(stderr, "failed: CreateKAVQuoteApi() makes a client\n");
    return 1;
  }
  check_multicast(api, &events);
  check_no_server(api, &events);
  api->DisConnServer();
  DestroyKAVQuoteApi(api);
  return g_failures == 0 ? 0 : 1;
}
