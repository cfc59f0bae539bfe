// The library's client as a program uses it: connect, log in, register, receive.
#pragma once

#include <condition_variable>  // std::condition_variable
#include <cstddef>             // std::size_t
#include <memory>              // std::unique_ptr
#include <mutex>               // std::mutex

#include "api/kav_quote_api.h"
#include "bench/side_by_side/measurement.h"

namespace kav_bench {

// Waits for what the session tells, and passes quotes on to the measurement.
class session_event : public measuring_event {
 public:
  using measuring_event::measuring_event;

  void OnLoginResult(bool success, const char* reason) override;
  void OnSymbolRegistered(KavKqsIntrumentType type, const char* symbol, bool success) override;

  bool wait_for_login();
  bool wait_for_registrations(std::size_t symbols);

 private:
  std::mutex m_lock;
  std::condition_variable m_changed;
  bool m_told = false, m_logged_in = false;
  std::size_t m_registered = 0;
};

// Threads:   one; the library's threads call the event.
// Shutdown:  the destructor destroys the client.
class library_client {
 public:
  library_client(measurement& whole, std::size_t samples);
  ~library_client();
  library_client(const library_client&) = delete;
  library_client& operator=(const library_client&) = delete;

  // Connects and asks for the login; wait_for_login() is next.
  bool connect(unsigned short port);
  bool wait_for_login() { return m_event.wait_for_login(); }
  // Registers the first so many symbols; wait_for_registrations() waits for the server's answers.
  void register_symbols(std::size_t symbols);
  bool wait_for_registrations(std::size_t symbols);
  const measuring_event& event() const { return m_event; }

 private:
  session_event m_event;
  KAVQuoteApi* const m_api;
};

}  // namespace kav_bench
