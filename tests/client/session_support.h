// Whole sessions: a client of the public API, a quote server on loopback, and a record of what the
// client told its caller.
#pragma once

#include <gtest/gtest.h>

#include <atomic>      // std::atomic
#include <chrono>      // std::chrono::milliseconds
#include <functional>  // std::function
#include <memory>      // std::unique_ptr
#include <mutex>       // std::mutex
#include <string>      // std::string
#include <vector>      // std::vector

#include "api/kav_quote_api.h"
#include "apps/sim/quote_server.h"
#include "tests/support/recording_event.h"
#include "tests/support/wait_until.h"

namespace kav_session {

using std::chrono::milliseconds;
using clock = std::chrono::steady_clock;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int k_slow = 3;  // sanitizers take their time
#else
constexpr int k_slow = 1;
#endif

// For what has to happen soon, however busy the machine is.
constexpr milliseconds k_patience{20'000};
// How long stopping a client may take.
constexpr milliseconds k_stop_limit{1000 * k_slow};

// One callback as text, such as "OnLoginResult(true, )" or "OnLog(0, nothing to do)".
struct call {
  std::string what;
  std::string thread;  // "kav-..." for the library's threads, else "caller"
  clock::time_point at;
};

// A recording_event whose record reads as text (quotes apart) and that, once told that no call may
// come any more, writes down each one that does.
class session_record : public kav_test::recording_event {
 public:
  using hook = std::function<void(const call&)>;

  session_record();

  // Runs inside every callback (quotes included), on its thread, before the callback returns.
  void set_hook(hook h);

  // Everything but quotes.
  std::vector<call> texts() const;
  std::vector<kav_test::recorded_call> quotes() const;
  std::size_t quote_count() const { return m_quote_count.load(); }
  // What one thread called, in order, quotes apart.
  std::vector<std::string> calls_on(const std::string& thread) const;
  std::size_t text_count(const std::string& beginning) const;
  bool has(const std::string& beginning) const { return text_count(beginning) != 0; }
  // Waits until a call that begins so has come `times` times.
  bool wait_text(const std::string& beginning, std::size_t times = 1,
                 milliseconds limit = k_patience) const;
  // The n-th call (from 0) that begins so; fails the test when there is none.
  call nth(const std::string& beginning, std::size_t n = 0) const;
  void forget();

  // The client has gone: `inside` calls may still be on their way out, none may begin.
  void forbid(int inside = 0);
  std::vector<std::string> violations() const;

 private:
  void observe(const kav_test::recorded_call& recorded);

  mutable std::mutex m_text_lock;
  std::vector<call> m_texts;              // protected by m_text_lock
  std::vector<std::string> m_violations;  // protected by m_text_lock
  std::shared_ptr<const hook> m_hook;     // protected by m_text_lock
  std::atomic<std::size_t> m_quote_count{0};
  std::atomic<bool> m_forbidden{false};
};

// The names of this process's threads that begin with "kav-", sorted.
std::vector<std::string> library_threads();
std::size_t library_threads(const std::string& name);
std::size_t open_descriptors();

KqsTcpInfo endpoint_of(unsigned short port);
KqsLoginParam login_of(const std::string& user, const std::string& password);
KAVMarketDepthQuoteData quote_of(const std::string& symbol, double last);
milliseconds since(clock::time_point start);

// A port of loopback where connecting neither succeeds nor fails, once it is filled: a listener
// whose backlog is full.
class black_hole {
 public:
  black_hole();
  black_hole(const black_hole&) = delete;
  black_hole& operator=(const black_hole&) = delete;
  ~black_hole();
  unsigned short port() const { return m_port; }
  // Before fill(): lets one client in, accepts its login and ends its (empty) symbol list.
  bool serve_one_login();
  bool fill();
  // Ends the connection of serve_one_login().
  void drop();

 private:
  int m_listener = -1;
  int m_served = -1;
  std::vector<int> m_fillers;
  unsigned short m_port = 0;
};

// A client, a server with three symbols, and at the end the proof that nothing is left of either.
class session_fixture : public testing::Test {
 protected:
  session_fixture();
  ~session_fixture() override;
  void TearDown() override;

  void start_server();
  void make_client() { m_api = CreateKAVQuoteApi(); }
  bool conn_server();
  bool conn_server_at(unsigned short port);
  int send_login();
  // Each goes on from where the one before ends.
  void connect();
  void log_in();
  void register_symbol(const std::string& symbol, int type = '1');
  // Destroys the client, from then on silent. How long it took.
  milliseconds destroy();
  // Ends the test's client and server; whatever is left over fails the test.
  void expect_nothing_left();
  std::string address_text() const;  // as log lines show the server
  std::string status_by_login();     // the client's status, told by the log line of a refused login

  const std::size_t m_descriptors_before = open_descriptors();
  kav_sim::server_options m_options;  // used by start_server()
  kav_sim::behaviour m_how;           // used by start_server()
  std::unique_ptr<kav_sim::quote_server> m_server;
  session_record m_record;
  KAVQuoteApi* m_api = nullptr;
};

}  // namespace kav_session
