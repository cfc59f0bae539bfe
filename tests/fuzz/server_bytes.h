// What a quote server sends, right or wrong, and a caller who looks at all that comes of it.
#pragma once

#include <condition_variable>  // std::condition_variable
#include <mutex>               // std::mutex
#include <thread>              // std::thread::id
#include <vector>              // std::vector

#include "api/kav_quote_api.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/fuzz_input.h"

namespace kav_fuzz {

// The length of a message, 0 for a type that no server sends.
inline std::size_t server_message_bytes(char type) {
  switch (type) {
    case 'Q':
      return 367;
    case 'A':
      return 24;
    case 'I':
    case 'F':
    case 'M':
      return 32;
    case 'H':
      return 13;
    default:
      return 0;
  }
}

// A whole message of zeros, but for some bytes: a quote's where its symbol is, others' behind the
// type.
inline std::string take_server_message(fuzz_input& input) {
  constexpr char k_types[] = "QAIFMH";
  const char type = k_types[input.take_byte() % (sizeof(k_types) - 1)];
  std::string message(server_message_bytes(type), '\0');
  message[0] = type;
  const std::size_t at = type == 'Q' ? 31 : 1;
  const std::string content = input.take_bytes(input.take_byte() % (message.size() - at));
  return message.replace(at, content.size(), content);
}

// What arrives at once: messages, whole or not, and other bytes.
inline std::string take_server_piece(fuzz_input& input) {
  std::string piece;
  for (unsigned parts = input.take_byte() % 4 + 1; parts > 0 && !input.is_empty(); --parts) {
    const unsigned choice = input.take_byte();
    if (choice < 0x80) {
      piece += take_server_message(input);
      piece.resize(piece.size() - std::min<std::size_t>(piece.size(), choice / 16 * choice % 16));
    } else if (choice < 0xF0) {
      piece += input.take_bytes(choice - 0x80);
    } else {
      piece += input.take_padded(input.take_word() % 2000);
    }
  }
  return piece;
}

// Checks every text's end and reads every record whole. Keeps the calls of one thread, as texts.
class checking_event : public KAVQuoteEvent {
 public:
  void keep_calls_of(std::thread::id thread) {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_thread = thread;
  }
  std::vector<std::string> take_calls() {
    const std::lock_guard<std::mutex> guard(m_lock);
    return std::move(m_calls);
  }
  // Has the login been answered, within a time that is ample?
  bool wait_login_result() {
    std::unique_lock<std::mutex> guard(m_lock);
    return m_changed.wait_for(guard, std::chrono::seconds(20), [&] { return m_login_results > 0; });
  }

  void OnServerConnected() override {}
  void OnServerDisconnected() override { keep("disconnected"); }
  void OnLoginResult(bool success, const char* reason) override {
    keep(login_call(success, checked(reason, k_longest_reason)));
    const std::lock_guard<std::mutex> guard(m_lock);
    ++m_login_results;
    m_changed.notify_all();
  }
  void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override {
    keep(quote_call(type, std::string(reinterpret_cast<const char*>(quote), sizeof(*quote))));
  }
  void OnLog(KavKqsLogLevel level, const char* text, int length) override {
    const std::string line = checked(text, k_longest_line);
    KAV_CHECK(length == static_cast<int>(line.size()));
    if (level == LogLevelError) keep("error " + line);
  }
  void OnSymbolRegistered(KavKqsIntrumentType type, const char* symbol, bool success) override {
    keep(symbol_call('I', type, checked(symbol, k_longest_answered), success));
  }
  void OnSymbolUnregistered(KavKqsIntrumentType type, const char* symbol, bool success) override {
    keep(symbol_call('F', type, checked(symbol, k_longest_answered), success));
  }
  void OnSymbolList(KavKqsIntrumentType, const char* symbol, bool last) override {
    KAV_CHECK(!last || symbol[0] == '\0');
    checked(symbol, k_longest_listed);
  }

  // The calls as they are kept.
  static std::string login_call(bool success, const std::string& reason) {
    return (success ? "accepted " : "refused ") + reason;
  }
  static std::string quote_call(int type, const std::string& record) {
    return "quote " + std::to_string(type) + " " + record;
  }
  static std::string symbol_call(char kind, int type, const std::string& symbol, bool success) {
    return std::string(1, kind) + (success ? " yes " : " no ") + std::to_string(type) + " " +
           symbol;
  }

 private:
  static constexpr std::size_t k_longest_reason = 22;
  static constexpr std::size_t k_longest_line = 1023;
  static constexpr std::size_t k_longest_answered = 28;
  static constexpr std::size_t k_longest_listed = 128;

  static std::string checked(const char* text, std::size_t longest) {
    KAV_CHECK(text != nullptr);
    std::string copy = text;
    KAV_CHECK(copy.size() <= longest);
    return copy;
  }
  void keep(const std::string& call) {
    const std::lock_guard<std::mutex> guard(m_lock);
    if (std::this_thread::get_id() == m_thread) m_calls.push_back(call);
  }

  std::mutex m_lock;
  std::condition_variable m_changed;
  // Protected by m_lock.
  std::thread::id m_thread;
  std::vector<std::string> m_calls;
  int m_login_results = 0;
};

}  // namespace kav_fuzz
