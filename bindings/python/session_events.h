// What the library tells about one session, kept for Python to pick up.
//
// Threads:  the callbacks come on any thread of the library and never wait for Python. What they
//           leave is guarded by m_lock, the quotes by the ring's own.
// Shutdown: close() ends every wait; the owner calls it before it destroys the client. The log is
//           open until end_log(): the client's end has something to say as well.
#pragma once

#include <chrono>              // std::chrono::steady_clock
#include <condition_variable>  // std::condition_variable
#include <cstdint>             // std::uint64_t
#include <deque>               // std::deque
#include <map>                 // std::map
#include <mutex>               // std::mutex
#include <optional>            // std::optional
#include <string>              // std::string
#include <unordered_map>       // std::unordered_map
#include <vector>              // std::vector

#include "api/kav_quote_api.h"
#include "apps/watch/session_tracker.h"
#include "bindings/python/quote_ring.h"

namespace kav_python {

using symbol_types = std::map<std::string, KavKqsIntrumentType>;
using steady_time = std::chrono::steady_clock::time_point;

struct session_facts {
  std::optional<bool> connected;       // what ConnServer() returned
  std::optional<bool> login_accepted;  // what OnLoginResult() brought
  std::string login_reason;
  bool refused_by_server = false;          // else the symbol list did not come
  bool disconnected_before_login = false;  // or together with a refusal
  kav_watch::link_state state = kav_watch::link_state::connecting;
  unsigned reconnections = 0;
  bool relogin_refused = false;
  std::uint64_t symbol_lists = 0;  // complete ones so far
};

enum class registration { unknown, registered, refused };

struct log_line {
  KavKqsLogLevel level;
  std::string text;
};

class session_events : public KAVQuoteEvent {
 public:
  session_events(std::size_t capacity, when_full policy) : m_quotes(capacity, policy) {}

  quote_ring& quotes() { return m_quotes; }
  session_facts facts() const;
  symbol_types symbols() const;
  registration registration_of(const std::string& symbol) const;
  void forget_answer(const std::string& symbol);

  // Grows whenever facts, symbols or registrations may have changed.
  std::uint64_t changes() const;
  // False: nothing has changed since `seen` until `limit`.
  bool wait_for_change(std::uint64_t seen, steady_time limit);
  // Waits for log lines, the news of dropped quotes among them. Nothing: the log has ended.
  std::vector<log_line> take_log();

  void set_connected(bool connected);
  void close();
  void end_log();

  void OnServerConnected() override {}
  void OnServerDisconnected() override;
  void OnLoginResult(bool success, const char* reason) override;
  void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override;
  void OnLog(KavKqsLogLevel level, const char* text, int length) override;
  void OnSymbolRegistered(KavKqsIntrumentType type, const char* symbol, bool success) override;
  void OnSymbolUnregistered(KavKqsIntrumentType type, const char* symbol, bool success) override;
  void OnSymbolList(KavKqsIntrumentType type, const char* symbol, bool last) override;

 private:
  // All under m_lock.
  void changed();
  void keep_line(KavKqsLogLevel level, std::string text);
  void tell_drops(std::vector<log_line>& lines);
  bool drops_are_due() const;

  quote_ring m_quotes;

  mutable std::mutex m_lock;  // guards everything below
  std::condition_variable m_change, m_log_change;
  std::uint64_t m_changes = 0;
  session_facts m_facts;  // the tracker's come from m_tracker
  kav_watch::session_tracker m_tracker;
  symbol_types m_symbols, m_coming_symbols;
  std::unordered_map<std::string, registration> m_registrations;
  std::deque<log_line> m_log;
  std::uint64_t m_lost_lines = 0;
  bool m_log_ended = false;
  bool m_drops_to_tell = false;
  std::uint64_t m_drops_told = 0;
  steady_time m_next_drop_news{};
};

}  // namespace kav_python
