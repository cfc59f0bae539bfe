// The life of one client as a patient host leads it: whatever is refused on the way is asked for
// again, and in the end everything has been given back.
#pragma once

#include <atomic>  // std::atomic
#include <chrono>  // std::chrono::milliseconds
#include <memory>  // std::unique_ptr
#include <string>  // std::string

#include "api/kav_quote_api.h"
#include "apps/sim/quote_server.h"
#include "tests/faults/supply.h"

namespace kav_faults {

// What the host has been told. Any thread.
class life_event : public KAVQuoteEvent {
 public:
  void OnServerConnected() override;
  void OnServerDisconnected() override;
  void OnLoginResult(bool success, const char* reason) override;
  void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override;
  void OnLog(KavKqsLogLevel level, const char* text, int length) override;
  void OnSymbolRegistered(KavKqsIntrumentType type, const char* symbol, bool success) override;
  void OnSymbolUnregistered(KavKqsIntrumentType type, const char* symbol, bool success) override;
  void OnSymbolList(KavKqsIntrumentType type, const char* symbol, bool last) override;

  std::atomic<int> disconnections{0}, logins{0}, refusals{0}, quotes{0}, lists{0};
  // In so many of the next callbacks the host itself runs out of memory.
  std::atomic<int> quotes_to_throw{0}, lists_to_throw{0}, logs_to_throw{0};
  std::atomic<int> login_results_to_throw{0}, disconnections_to_throw{0};
  std::atomic<int> listed{0}, unregistrations{0}, memory_lines{0}, failed_connections{0};
};

// One life: a refused login, an accepted one, a quote, a loss of the connection and a quote after
// it, the end of a registration, a list, the end of the session and of the client.
class session_life {
 public:
  explicit session_life(supply& from) : m_supply(from) {}
  session_life(const session_life&) = delete;
  session_life& operator=(const session_life&) = delete;
  ~session_life();

  // "", or the first thing that went wrong.
  std::string run();

  // The same in steps, each true unless something went wrong, which fault() tells.
  bool start();
  bool be_refused();
  bool reach_quote();
  bool lose_connection();
  bool wind_up();
  bool destroy();  // and find that nothing is left

  // Single calls of the library.
  bool connect();
  bool log_in();
  void register_symbol();
  void query();
  void forsake();  // destroys the client, and looks at nothing

  const std::string& fault() const { return m_fault; }
  kav_sim::quote_server& server() { return *m_server; }
  life_event& events() { return m_events; }

 private:
  using clock = std::chrono::steady_clock;

  bool fail(const std::string& fault);
  template <class CONDITION>
  bool wait(CONDITION condition, std::chrono::milliseconds limit);
  template <class OPERATION>
  auto call(OPERATION operation);
  bool create();
  bool connect_and_log_in();
  void restore_in_time();

  supply& m_supply;
  life_event m_events;
  std::unique_ptr<kav_sim::quote_server> m_server;
  KAVQuoteApi* m_api = nullptr;
  bool m_in_session = false;
  std::string m_fault;
  clock::time_point m_first_refusal{};  // none so far
};

}  // namespace kav_faults
