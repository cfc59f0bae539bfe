// One client of the library, as Python uses it.
//
// Threads:  any. No operation waits for the network; what it caused is seen in events(). connect()
//           starts a thread for ConnServer(), which takes as long as the system tries.
// Shutdown: close() ends a ConnServer() in progress and destroys the client; then no thread of the
//           library calls events() any more. The destructor closes.
// Forks:    the library's threads do not exist in a forked child. There the object belongs to
//           nobody: session_deleter leaves it as it is.
#pragma once

#include <mutex>         // std::once_flag
#include <shared_mutex>  // std::shared_mutex
#include <string>        // std::string
#include <thread>        // std::thread

#include "api/kav_quote_api.h"
#include "bindings/python/session_events.h"

namespace kav_python {

class session {
 public:
  // `address` is a dotted IPv4 address. Throws std::invalid_argument, std::bad_alloc and
  // std::system_error.
  session(const std::string& address, unsigned short port, std::size_t capacity, when_full policy);
  ~session();
  session(const session&) = delete;
  session& operator=(const session&) = delete;

  // Call once. facts().connected tells the result.
  void connect();
  // False: not sent. Throws std::invalid_argument when a text is too long for its field.
  bool login(const std::string& user, const std::string& password);
  void query_symbols();
  void register_symbol(KavKqsIntrumentType type, const std::string& symbol);
  void unregister_symbol(KavKqsIntrumentType type, const std::string& symbol);
  void close();

  session_events& events() { return m_events; }
  bool is_of_this_process() const;

 private:
  template <class Operation>
  void with_client(Operation operation);
  void end_connector(KAVQuoteApi& client);

  const unsigned m_forks;  // constant: in which process it was made
  KqsTcpInfo m_server{};   // constant from the constructor on
  session_events m_events;
  std::thread m_connector;
  std::shared_mutex m_use;  // shared by operations, alone by the end of the client
  KAVQuoteApi* m_client;    // under m_use; null after close(). The connector has its own copy.
  std::once_flag m_closing;
};

struct session_deleter {
  void operator()(session* owned) const {
    if (owned->is_of_this_process()) delete owned;
  }
};

}  // namespace kav_python
