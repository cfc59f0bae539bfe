// What the examples behind the shortest one share: a session whose quotes go to one function.
// Whoever copies such an example copies these two files with it.
#pragma once

#include <atomic>      // std::atomic
#include <functional>  // std::function
#include <future>      // std::promise
#include <string>      // std::string
#include <vector>      // std::vector

#include "api/kav_quote_api.h"

// One client of one server.
//
// Threads:  the handler is called on the library's receive thread and delays the quotes behind it.
// Shutdown: the destructor ends the session; the handler is not called afterwards.
class session : private KAVQuoteEvent {
 public:
  using quote_handler = std::function<void(const KAVMarketDepthQuoteData& quote)>;

  explicit session(quote_handler handler);
  ~session() override;
  session(const session&) = delete;
  session& operator=(const session&) = delete;

  // Connects, logs in, waits for the answer and registers the symbols; to be called once. False:
  // standard error tells why.
  bool open(const std::string& address, int port, const std::vector<std::string>& symbols);

 private:
  bool wait_for_login();
  void OnLoginResult(bool accepted, const char* reason) override;
  void OnServerDisconnected() override;
  void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override;
  void OnLog(KavKqsLogLevel level, const char* text, int length) override;
  void OnSymbolRegistered(KavKqsIntrumentType type, const char* symbol, bool done) override;
  void OnServerConnected() override {}
  void OnSymbolUnregistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolList(KavKqsIntrumentType, const char*, bool) override {}
  void answer(const std::string& refusal);

  const quote_handler m_handler;
  KAVQuoteApi* const m_api = CreateKAVQuoteApi();
  std::promise<std::string> m_answer;  // of the login; empty when it was accepted
  std::atomic<bool> m_answered{false};
};

// The number in a text, at least 1; 0 when it is none.
int count_from(const char* text);
