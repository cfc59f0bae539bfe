// Where the library's callbacks arrive and the program's main thread picks up what they brought.
//
// Threads:  the callbacks come on any thread of the library, those of a session and of multicast
//           groups at once; everything they leave is guarded by m_lock. Whatever is new makes
//           wake_fd() readable, so that the main thread can wait for it together with signals and
//           keys.
// Pace:     no quote is dropped. When the main thread falls k_most_waiting quotes behind,
//           OnQuote() waits and the library holds the rest. With keep_quotes::latest a newer quote
//           replaces one of the same symbol that was not picked up yet. A quote_taker gets every
//           quote inside its callback instead; take_quotes() has none then.
// Shutdown: close() lets waiting callbacks go; the owner calls it before it destroys the client.
#pragma once

#include <condition_variable>  // std::condition_variable
#include <cstdint>             // std::uint64_t
#include <deque>               // std::deque
#include <mutex>               // std::mutex
#include <optional>            // std::optional
#include <string>              // std::string
#include <unordered_map>       // std::unordered_map
#include <vector>              // std::vector

#include "api/kav_quote_api.h"
#include "apps/watch/session_tracker.h"

namespace kav_watch {

enum class keep_quotes { every, latest };

struct listed_symbol {
  std::string name;
  KavKqsIntrumentType type;
};

struct login_answer {
  bool accepted = false;
  bool refused_by_server = false;  // else the symbol list did not come
  std::string reason;              // fit for a terminal
};

// What the main thread asks for on every turn; cheap to copy.
struct session_facts {
  std::optional<bool> connected;  // result of ConnServer()
  std::optional<login_answer> login;
  bool disconnected_before_login = false;
  bool symbols_complete = false;
  link_state state = link_state::connecting;
  unsigned reconnections = 0;
  bool relogin_refused = false;
  std::uint64_t quotes = 0;  // received in all, but for those of a taker
};

// Takes quotes from inside their callbacks, which come from several threads at once.
class quote_taker {
 public:
  virtual ~quote_taker() = default;
  virtual void take(const KAVMarketDepthQuoteData& quote) = 0;
};

class quote_inbox : public KAVQuoteEvent {
 public:
  explicit quote_inbox(keep_quotes keep);
  explicit quote_inbox(quote_taker& taker);  // outlives the inbox
  ~quote_inbox() override;
  quote_inbox(const quote_inbox&) = delete;
  quote_inbox& operator=(const quote_inbox&) = delete;

  // Main thread. Readable while something may be new; clear_wake() first, then look.
  int wake_fd() const { return m_wake_fd; }
  void clear_wake();
  session_facts facts() const;
  // Replaces `quotes` with those that wait.
  void take_quotes(std::vector<KAVMarketDepthQuoteData>& quotes);
  // The latest log lines since the last call, fit for a terminal.
  std::vector<std::string> take_log();
  // Symbols whose registration was refused, each told once.
  std::vector<std::string> take_refusals();
  // The symbol list, once it is complete.
  std::vector<listed_symbol> symbols() const;
  void close();

  // Any thread. What ConnServer() returned.
  void set_connected(bool connected);
  // A log line that tells nothing about the session.
  void add_log_line(const char* text);

  void OnServerConnected() override {}
  void OnServerDisconnected() override;
  void OnLoginResult(bool success, const char* reason) override;
  void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override;
  void OnLog(KavKqsLogLevel level, const char* text, int length) override;
  void OnSymbolRegistered(KavKqsIntrumentType type, const char* symbol, bool success) override;
  void OnSymbolUnregistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolList(KavKqsIntrumentType type, const char* symbol, bool last) override;

  static constexpr std::size_t k_most_waiting = 65'536;  // 22 MB of records

 private:
  void wake();
  void keep_log_line(std::string line);                        // under m_lock
  bool replace_waiting(const KAVMarketDepthQuoteData& quote);  // under m_lock

  const keep_quotes m_keep;              // constant
  quote_taker* const m_taker = nullptr;  // constant
  const int m_wake_fd;                   // constant, an eventfd

  mutable std::mutex m_lock;  // guards everything below
  std::condition_variable m_room;
  bool m_closed = false;
  std::vector<KAVMarketDepthQuoteData> m_waiting;
  std::unordered_map<std::string, std::size_t> m_waiting_index;  // keep_quotes::latest only
  std::vector<listed_symbol> m_symbols;
  std::deque<std::string> m_log;
  std::unordered_map<std::string, bool> m_refused;  // true: already told
  session_facts m_facts;  // state, reconnections and relogin_refused come from m_tracker
  session_tracker m_tracker;
};

}  // namespace kav_watch
