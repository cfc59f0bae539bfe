// A callback object to whom only quotes matter.
#pragma once

#include "api/kav_quote_api.h"

namespace kav_test {

class quotes_only : public KAVQuoteEvent {
 public:
  void OnServerConnected() override {}
  void OnServerDisconnected() override {}
  void OnLoginResult(bool, const char*) override {}
  void OnLog(KavKqsLogLevel, const char*, int) override {}
  void OnSymbolRegistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolUnregistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolList(KavKqsIntrumentType, const char*, bool) override {}
};

}  // namespace kav_test
