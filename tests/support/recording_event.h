// A caller's callback object that remembers everything it is told.
//
//   recording_event events;
//   ASSERT_TRUE(client.ConnServer(endpoint, &events));
//   ASSERT_TRUE(events.wait_for(callback_kind::login_result));
//   EXPECT_TRUE(events.of(callback_kind::login_result).front().success);
#pragma once

#include <atomic>       // std::atomic
#include <chrono>       // std::chrono::steady_clock
#include <cstddef>      // std::size_t
#include <functional>   // std::function
#include <iosfwd>       // std::ostream
#include <map>          // std::map
#include <mutex>        // std::mutex
#include <string>       // std::string
#include <string_view>  // std::string_view
#include <thread>       // std::thread::id
#include <vector>       // std::vector

#include "api/kav_quote_api.h"

namespace kav_test {

enum class callback_kind {
  server_connected,
  server_disconnected,
  login_result,
  quote,
  log,
  symbol_registered,
  symbol_unregistered,
  symbol_list,
};
const char* name_of(callback_kind kind);

// One callback with its arguments; those that it does not have keep their defaults.
struct recorded_call {
  callback_kind kind = callback_kind::server_connected;
  int type = 0;                     // instrument type
  std::string text;                 // login reason, log line, or symbol
  bool success = false;             // of a login or registration
  bool last = false;                // of a symbol list
  int level = -1;                   // of a log line
  int length = -1;                  // of a log line, as it was told
  KAVMarketDepthQuoteData quote{};  // a copy
  const void* quote_address = nullptr;

  // Where and when.
  std::thread::id thread;
  std::string thread_name;  // as the system shows it, 15 characters at most
  std::chrono::steady_clock::time_point at;
};

// Threads:   every operation may be called from any thread.
// Hooks:     run on the thread of the callback, after it has been recorded, without a lock held.
class recording_event : public KAVQuoteEvent {
 public:
  using hook = std::function<void(const recorded_call& call)>;
  static constexpr std::chrono::seconds k_patience{20};

  recording_event();
  ~recording_event() override;
  recording_event(const recording_event&) = delete;
  recording_event& operator=(const recording_event&) = delete;

  void OnServerConnected() override;
  void OnServerDisconnected() override;
  void OnLoginResult(bool success, const char* reason) override;
  void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override;
  void OnLog(KavKqsLogLevel level, const char* text, int length) override;
  void OnSymbolRegistered(KavKqsIntrumentType type, const char* symbol, bool success) override;
  void OnSymbolUnregistered(KavKqsIntrumentType type, const char* symbol, bool success) override;
  void OnSymbolList(KavKqsIntrumentType type, const char* symbol, bool last) override;

  // What to do in each callback of a kind; an empty hook does nothing.
  void on(callback_kind kind, hook what);

  std::vector<recorded_call> calls() const;
  std::vector<recorded_call> of(callback_kind kind) const;
  std::size_t count() const;
  std::size_t count(callback_kind kind) const;
  // Is the latest call of OnSymbolList the end of a list? Quick, however many there are.
  bool is_list_complete() const;
  // Callbacks that have begun and not returned yet, hooks included.
  int running() const { return m_running.load(std::memory_order_acquire); }
  void clear();

  // Log lines: the whole text, or one that contains it.
  bool has_log(int level, std::string_view text) const;
  std::size_t log_count(std::string_view text) const;
  bool has_log_with(std::string_view part) const;

  // True as soon as so many calls of the kind, or such a log line, have been recorded.
  bool wait_for(callback_kind kind, std::size_t at_least = 1,
                std::chrono::milliseconds limit = k_patience) const;
  bool wait_for_log(std::string_view text, std::size_t at_least = 1,
                    std::chrono::milliseconds limit = k_patience) const;

 private:
  void record(recorded_call call);

  std::atomic<int> m_running{0};
  mutable std::mutex m_lock;
  std::vector<recorded_call> m_calls;     // protected by m_lock
  std::map<callback_kind, hook> m_hooks;  // protected by m_lock
};

// For messages of failed assertions.
std::ostream& operator<<(std::ostream& out, const recorded_call& call);

}  // namespace kav_test
