// The server of one life: follows its track, numbers its quotes, and behaves at the end.
#pragma once

#include <cstdint>  // std::int32_t
#include <map>      // std::map
#include <mutex>    // std::mutex
#include <set>      // std::set
#include <string>   // std::string

#include "apps/sim/quote_server.h"
#include "tests/chaos/script.h"

namespace kav_chaos {

// Threads:   run_track() and the operations about its end by one thread at a time, the rest by any.
// Ownership: refers to its script.
class chaos_server {
 public:
  explicit chaos_server(const life_script& script);

  // False: error() says why.
  bool start() { return m_server.start(); }
  const std::string& error() const { return m_server.start_error(); }
  unsigned short port() const { return m_server.port(); }
  void run_track();
  // No faults any more, and no connection that has seen any.
  void behave_again();
  void stop() { m_server.stop(); }

  // Sends the next quote of a symbol (the caller's name for it) to whoever has registered it. Its
  // number, counted from 1 for each symbol, is its volume and each of its prices.
  std::int32_t push(const std::string& symbol);
  // Is the user logged in on an open connection and has registered all of these there?
  bool has_registered(const std::string& user, const std::set<std::string>& symbols) const;

 private:
  void perform(const server_step& step);

  const life_script& m_script;
  kav_sim::quote_server m_server;
  std::mutex m_push_lock;                         // numbers leave in their order
  std::map<std::string, std::int32_t> m_volumes;  // protected by m_push_lock
};

}  // namespace kav_chaos
