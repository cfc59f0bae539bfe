// One session with a quote server: connection, login, symbol list, registration.
#pragma once

#include <chrono>      // std::chrono::steady_clock
#include <functional>  // std::function
#include <memory>      // std::unique_ptr
#include <optional>    // std::optional
#include <string>      // std::string
#include <thread>      // std::thread
#include <vector>      // std::vector

#include "api/kav_quote_api.h"
#include "apps/watch/outcome.h"
#include "apps/watch/quote_inbox.h"
#include "apps/watch/signal_source.h"
#include "apps/watch/source_options.h"

namespace kav_watch {

// Threads:  used by the main thread only. ConnServer() blocks for as long as the system tries to
//           connect, so it runs on a thread of its own, and the main thread keeps its time limit
//           and its Ctrl-C.
// Shutdown: close() destroys the client. When ConnServer() does not return, the client cannot be
//           destroyed: close() says so, and the program leaves without unwinding.
class quote_session {
 public:
  // Both arguments outlive the session. The password in `options` is wiped after the login.
  quote_session(source_options& options, signal_source& signals, keep_quotes keep);
  // Every quote goes to the taker, which outlives the session too.
  quote_session(source_options& options, signal_source& signals, quote_taker& taker);
  ~quote_session();
  quote_session(const quote_session&) = delete;
  quote_session& operator=(const quote_session&) = delete;

  // Connects, logs in, fetches the symbol list. Nothing: go on; else how the program ends. Only
  // when the options name a server.
  std::optional<outcome> open();
  const std::vector<listed_symbol>& symbols() const { return m_symbols; }
  void watch(const std::vector<listed_symbol>& symbols);
  quote_inbox& inbox() { return m_inbox; }
  // The same client can receive multicast groups, with or without open().
  KAVQuoteApi* client() { return m_client.get(); }
  // How a session that the library gave up is told to the user.
  outcome over() const;
  // False: a thread is stuck inside ConnServer().
  bool close();

 private:
  struct client_deleter {
    void operator()(KAVQuoteApi* client) const { DestroyKAVQuoteApi(client); }
  };
  using condition = std::function<bool(const session_facts&)>;
  enum class wait_result { fulfilled, timed_out, end_asked };

  std::optional<outcome> connect();
  std::optional<outcome> login();
  std::optional<outcome> load_symbols();
  bool send_login();
  std::optional<outcome> judge_login(const session_facts& facts) const;
  wait_result wait_for(const condition& fulfilled, std::chrono::milliseconds limit);
  // For what did not come: nothing was heard in time, or the user does not want it any more.
  outcome missing(wait_result how, const std::string& what) const;

  source_options& m_options;
  signal_source& m_signals;
  quote_inbox m_inbox;  // its callbacks: any thread
  std::unique_ptr<KAVQuoteApi, client_deleter> m_client;
  std::thread m_connector;  // inside ConnServer(); joined as soon as the inbox has its result
  std::vector<listed_symbol> m_symbols;
};

}  // namespace kav_watch
