// The host's side of a session: a callback object that notes what it is told, and a client.
#pragma once

#include <atomic>      // std::atomic
#include <chrono>      // std::chrono::milliseconds
#include <functional>  // std::function
#include <mutex>       // std::mutex
#include <optional>    // std::optional
#include <string>      // std::string
#include <vector>      // std::vector

#include "api/kav_quote_api.h"

namespace kav_faults {

using std::chrono::milliseconds;
using clock = std::chrono::steady_clock;

constexpr milliseconds k_patience{20'000};  // for what has to happen soon
constexpr auto k_type = static_cast<KavKqsIntrumentType>('1');

double seconds_between(clock::time_point from, clock::time_point to);

// Notes every callback but traces that say nothing about faults. Quotes are counted, and checked:
// LastPrice of each must be that of the one before plus 1, or 1 where a stream begins anew.
class caller : public KAVQuoteEvent {
 public:
  void OnServerConnected() override { note("OnServerConnected()"); }
  void OnServerDisconnected() override { note("OnServerDisconnected()"); }
  void OnLoginResult(bool success, const char* reason) override;
  void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override;
  void OnLog(KavKqsLogLevel level, const char* text, int length) override;
  void OnSymbolRegistered(KavKqsIntrumentType, const char* symbol, bool success) override;
  void OnSymbolUnregistered(KavKqsIntrumentType, const char* symbol, bool success) override;
  void OnSymbolList(KavKqsIntrumentType, const char* symbol, bool last) override;

  // Runs in every OnQuote(); set before the client is connected.
  std::function<void()> in_quote;

  std::uint64_t quotes() const { return m_quotes.load(); }
  std::uint64_t out_of_order() const { return m_out_of_order.load(); }
  std::uint64_t missing() const { return m_missing.load(); }
  std::string first_symbol() const;  // of the list that QuerySymbolList() has brought

  bool wait_call(const std::string& beginning, std::size_t times = 1,
                 milliseconds limit = k_patience) const;
  bool wait_quotes(std::uint64_t more, milliseconds limit = k_patience) const;
  std::size_t count(const std::string& beginning) const;
  // Seconds from `from` until the first call that begins so; none: there has been none since.
  std::optional<double> first_after(clock::time_point from, const std::string& beginning) const;
  std::vector<double> all_after(clock::time_point from, const std::string& beginning) const;
  // What came since, repetitions as "... x 3".
  std::vector<std::string> calls_since(clock::time_point from) const;

 private:
  struct call {
    std::string what;
    clock::time_point at;
  };
  void note(std::string what);

  mutable std::mutex m_lock;
  std::vector<call> m_calls;   // protected by m_lock
  std::string m_first_symbol;  // protected by m_lock
  std::atomic<std::uint64_t> m_quotes{0}, m_out_of_order{0}, m_missing{0};
  std::atomic<bool> m_quotes_flow{false};  // the last thing noted was a quote
  double m_last = 0;                       // receive threads only
};

// The two functions that a copy of the library exports.
struct library {
  KAVQuoteApi* (*create)();
  void (*destroy)(KAVQuoteApi*);
};
// The one that this program is linked with.
library linked_library();

// A client, which is destroyed at the end.
class host {
 public:
  explicit host(const library& from = linked_library());
  host(const host&) = delete;
  host& operator=(const host&) = delete;
  ~host();

  bool connect(unsigned short port, const char* ip = "127.0.0.1");
  bool send_login();
  bool log_in(unsigned short port, const char* ip = "127.0.0.1");
  bool register_symbol(const std::string& symbol);
  bool register_first_symbol();
  // How long that took.
  milliseconds disconnect();
  milliseconds destroy();

  caller events;  // outlives the client

 private:
  const library m_library;
  KAVQuoteApi* m_api;
};

// Loss, as the client tells it.
inline constexpr char k_loss[] = "OnLog(0, EVENT_REMOTE_DISCONNECT)";
inline constexpr char k_refused[] = "OnLog(3, connect server failed)";
inline constexpr char k_worker_end[] = "OnLog(0, _th_kqc_send_and_reconn end)";

}  // namespace kav_faults
