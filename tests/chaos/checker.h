// What never happens to a caller, whatever happens to his client.
//
// The checker is told everything that one client does to its caller and everything that the caller
// does to it, and writes down what must not have happened.
#pragma once

#include <chrono>    // std::chrono::steady_clock
#include <cstdint>   // std::int32_t
#include <deque>     // std::deque
#include <map>       // std::map
#include <mutex>     // std::mutex
#include <optional>  // std::optional
#include <set>       // std::set
#include <string>    // std::string
#include <thread>    // std::thread::id
#include <vector>    // std::vector

#include "api/kav_quote_api.h"
#include "tests/chaos/script.h"

namespace kav_chaos {

using clock = std::chrono::steady_clock;

enum class operation {
  connect,
  cancel_connect,  // from the stop until the ConnServer() of another thread has returned
  log_in,
  register_symbol,
  unregister_symbol,
  query_list,
  disconnect,
  destroy,
  destroy_inside,  // from inside a callback of the same client
};

// How long an operation may take on a machine that has nothing else to do.
std::chrono::milliseconds limit_of(operation what);

// The beginning of a callback.
struct seen_call {
  callback_kind kind = callback_kind::log;
  std::thread::id thread;
  bool on_worker = false;  // the thread's name is kav-worker
  clock::time_point at;
  std::string text;        // login reason, log line or symbol
  bool text_ended = true;  // it had a NUL within its field
  int length = -1;         // of a log line, as it was told
  bool success = false;    // of a login or registration
};

// A session as the caller knows it.
struct session_view {
  unsigned number = 0;     // counts the workers that have begun
  bool confirmed = false;  // logged in, and not ended
};

// Sums for the report.
struct experience {
  std::size_t logins = 0, refusals = 0, quotes = 0, losses = 0, relogins = 0;
  std::size_t destroyed_inside = 0, callbacks = 0;
  std::map<operation, std::chrono::milliseconds> longest;

  void add(const experience& other);
};

// Any thread may call any operation.
class checker {
 public:
  explicit checker(const server_facts& facts) : m_facts(facts) {}

  // ---- What the client does. A callback ends on the thread on which it has begun.
  void call_begins(const seen_call& call);
  void quote_comes(const KAVMarketDepthQuoteData& quote);  // while its callback runs
  void call_ends(std::thread::id thread);

  // ---- What the caller does.
  void registers(const std::string& symbol);  // before RegisterSymbol()
  void operation_begins(operation what);
  // `took` without the callbacks on the same thread; `slack` for the load of the machine.
  void operation_ends(operation what, clock::duration took, clock::duration slack);
  // After DestroyKAVQuoteApi(): outside, or inside a callback of the client.
  void destroyed();
  void destroyed_inside(clock::duration took);
  void add_violation(const std::string& text);

  // ---- What is known.
  session_view session() const;
  std::size_t login_results() const;
  std::int32_t last_volume(const std::string& symbol) const;
  std::vector<std::string> violations() const;
  // The first and the last callbacks and operations before the first violation, for whoever looks
  // for its reason.
  std::vector<std::string> history() const;
  experience sums() const;

 private:
  void look_at_worker(const seen_call& call);
  void worker_ends(const seen_call& call);
  void look_at_text(const seen_call& call);
  void look_at_log(const seen_call& call);
  void look_at_texts_of(const KAVMarketDepthQuoteData& quote);
  std::string symbol_of(const KAVMarketDepthQuoteData& quote) const;
  void violate(const std::string& text);
  void note(const std::string& text);

  const server_facts m_facts;
  const clock::time_point m_start = clock::now();
  mutable std::mutex m_lock;
  // Protected by m_lock.
  std::vector<std::string> m_violations;
  std::vector<std::string> m_beginning;
  std::deque<std::string> m_history;  // goes on where m_beginning is full
  experience m_sums;
  std::map<std::thread::id, unsigned> m_running;  // callbacks that have begun and not ended
  bool m_gone = false;
  bool m_late_calls = false;  // a destruction inside has stopped waiting for calls of other threads
  std::set<std::thread::id> m_latecomers;
  std::set<std::string> m_ever_registered;
  std::map<std::string, std::int32_t> m_last_volume;
  std::size_t m_connects = 0, m_disconnected = 0;
  // Stops since the last connection, and those that are going on. A worker's own are counted from
  // the connection over which it was started, also when the next has been made before it ends.
  unsigned m_stops = 0, m_stops_running = 0, m_worker_stops = 0;
  std::optional<std::thread::id> m_worker;  // the one that has begun last
  clock::time_point m_worker_begin;
  bool m_relogin_refused = false;
  session_view m_session;
};

}  // namespace kav_chaos
