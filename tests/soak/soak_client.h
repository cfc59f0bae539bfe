// The client that is soaked: its caller, its wishes, and what it is told.
#pragma once

#include <atomic>   // std::atomic
#include <chrono>   // std::chrono::milliseconds
#include <cstdint>  // std::uint64_t
#include <random>   // std::mt19937_64
#include <vector>   // std::vector

#include "api/kav_quote_api.h"
#include "tests/soak/server_process.h"

namespace kav_soak {

// Counts what the client tells. Each counter is written by the library's threads.
class soak_events : public KAVQuoteEvent {
 public:
  void OnServerConnected() override {}
  void OnServerDisconnected() override;
  void OnLoginResult(bool success, const char* reason) override;
  void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override;
  void OnLog(KavKqsLogLevel level, const char* text, int length) override;
  void OnSymbolRegistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolUnregistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolList(KavKqsIntrumentType, const char*, bool) override {}

  std::atomic<bool> logged_in{false};
  std::atomic<std::uint64_t> quotes{0}, sessions{0}, silent_sessions{0}, out_of_order{0},
      gave_up{0};

 private:
  void session_begins();
  void session_ends();

  std::atomic<bool> m_in_session{false};
  std::atomic<std::uint64_t> m_quotes_before{0};  // those of earlier sessions
  double m_last[k_symbols] = {};                  // receive threads only, one at a time
};

// Threads: one, which also changes the registrations.
class soak_client {
 public:
  explicit soak_client(std::uint64_t seed);
  soak_client(const soak_client&) = delete;
  soak_client& operator=(const soak_client&) = delete;
  ~soak_client();

  bool log_in(unsigned short port, std::chrono::milliseconds limit);
  // Registers what is not, or gives up what is: some symbols of those that come and go.
  void change_registrations();
  const soak_events& events() const { return m_events; }

 private:
  soak_events m_events;  // outlives the client
  KAVQuoteApi* const m_api;
  std::mt19937_64 m_random;
  std::vector<bool> m_wanted;
};

}  // namespace kav_soak
