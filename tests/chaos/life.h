// One life: a server and its clients, from the first connection to the last destruction.
#pragma once

#include <memory>  // std::unique_ptr
#include <string>  // std::string
#include <vector>  // std::vector

#include "tests/chaos/chaos_client.h"

namespace kav_chaos {

class life {
 public:
  life(life_script script, const load_meter& load);

  // Until everything has been destroyed. False: the server cannot start, start_error() says why.
  bool run();
  const std::string& start_error() const { return m_server.error(); }

  const life_script& script() const { return m_script; }
  // The violations so far, for each client with what came before; empty when there are none. A
  // callback that comes too late may add one after run().
  std::vector<std::string> report() const;
  experience sums() const;
  // Clients that got their registrations back after the last loss, and those that began anew.
  std::size_t come_back() const { return m_come_back; }
  std::size_t begun_anew() const { return m_begun_anew; }

 private:
  void recover();

  const life_script m_script;
  chaos_server m_server;
  std::vector<std::unique_ptr<chaos_client>> m_clients;
  std::size_t m_come_back = 0, m_begun_anew = 0;
};

}  // namespace kav_chaos
