// One client of a life and its caller.
#pragma once

#include <atomic>              // std::atomic
#include <condition_variable>  // std::condition_variable
#include <functional>          // std::function
#include <memory>              // std::unique_ptr
#include <mutex>               // std::mutex
#include <set>                 // std::set
#include <string>              // std::string

#include "api/kav_quote_api.h"
#include "tests/chaos/chaos_server.h"
#include "tests/chaos/checker.h"
#include "tests/chaos/load.h"
#include "tests/chaos/script.h"

namespace kav_chaos {

// Threads:   run_track(), recover() and end() one after the other, on threads of the life; the
//            callbacks on whatever thread the library has them.
// Ownership: refers to script, server and meter. Keeps existing for a while after end(), so that a
//            callback that comes too late finds somebody to tell it to.
class chaos_client {
 public:
  chaos_client(const client_script& script, const server_facts& facts, chaos_server& server,
               const load_meter& load);
  ~chaos_client();
  chaos_client(const chaos_client&) = delete;
  chaos_client& operator=(const chaos_client&) = delete;

  void run_track();
  // With a server that behaves: everything wanted is registered, by itself where the session has
  // lived on and anew where it has not, and quotes come. Violations if not.
  void recover();
  // Destroys the client unless that has happened.
  void end();

  // Has it been destroyed?
  bool is_gone() const;
  const checker& observations() const { return m_checker; }
  // Did recover() find registrations of an earlier connection to come back?
  bool has_come_back() const { return m_has_come_back; }

 private:
  class event;

  // ---- The caller's operations.
  void step(const client_step& what);
  void perform(const action& what);                       // on the caller's threads
  void perform_inside(const action& what);                // in a callback
  void perform_on(KAVQuoteApi& api, const action& what);  // what both can do
  void connect(KAVQuoteApi& api, const std::string& address, unsigned short port);
  void log_in(KAVQuoteApi& api, const char* password);
  void register_symbol(KAVQuoteApi& api, const char* symbol);
  void unregister_symbol(KAVQuoteApi& api, const char* symbol);
  void register_own(unsigned number);
  void unregister_own(unsigned number);
  void connect_to_nobody();
  void connect_to_silence(bool destroy_it);
  void await_login(unsigned ms);
  void await_registration(unsigned ms);
  void measure(operation what, const std::function<void()>& call);

  // ---- Whose the client is. An operation begins only before the destruction, and from outside a
  // callback the destruction begins only when no operation is going on.
  void use(const std::function<void(KAVQuoteApi&)>& call);
  KAVQuoteApi* take(bool wait_for_users);
  void destroy(bool wait_for_users = true);
  bool destroy_inside();

  void inside_callback(callback_kind kind);
  bool begins_session();
  bool gets_quotes();

  const client_script& m_script;
  const server_facts& m_facts;
  chaos_server& m_server;
  const load_meter& m_load;
  checker m_checker;
  const std::unique_ptr<event> m_event;
  std::atomic<bool> m_quiet{false};  // nothing is done inside callbacks any more
  std::atomic<unsigned> m_connects{0};
  // For each of the script's actions inside callbacks, as far as it has come.
  struct inside_progress {
    unsigned seen = 0, done = 0;
  };
  std::mutex m_inside_lock;
  std::vector<inside_progress> m_inside;  // protected by m_inside_lock

  mutable std::mutex m_lock;
  std::condition_variable m_users_changed;
  // Protected by m_lock.
  KAVQuoteApi* m_api = nullptr;
  std::vector<std::thread::id> m_users;  // threads in operations outside of callbacks

  // Caller's track only: what is wanted for certain, and in which session.
  std::set<std::string> m_wanted;
  unsigned m_wanted_session = 0;
  std::size_t m_logins_awaited = 0;
  bool m_has_come_back = false;
};

}  // namespace kav_chaos
