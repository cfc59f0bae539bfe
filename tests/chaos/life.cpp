#include "tests/chaos/life.h"

#include <thread>   // std::thread
#include <utility>  // std::move

namespace kav_chaos {

life::life(life_script script, const load_meter& load)
    : m_script(std::move(script)), m_server(m_script) {
  for (const client_script& client : m_script.clients) {
    m_clients.push_back(std::make_unique<chaos_client>(client, m_script.facts, m_server, load));
  }
}

bool life::run() {
  const bool started = m_server.start();
  if (started) {
    std::vector<std::thread> tracks;
    tracks.emplace_back([this] { m_server.run_track(); });
    for (const auto& client : m_clients) tracks.emplace_back([&client] { client->run_track(); });
    for (std::thread& track : tracks) track.join();
    if (m_script.recovers) recover();
  }
  for (const auto& client : m_clients) client->end();
  m_server.stop();
  return started;
}

void life::recover() {
  m_server.behave_again();
  for (const auto& client : m_clients) {
    const bool was_there = !client->is_gone();
    client->recover();
    if (was_there) ++(client->has_come_back() ? m_come_back : m_begun_anew);
  }
}

std::vector<std::string> life::report() const {
  std::vector<std::string> all;
  for (std::size_t i = 0; i < m_clients.size(); ++i) {
    const std::string head = m_script.clients[i].user + ": ";
    const checker& seen = m_clients[i]->observations();
    const std::vector<std::string> found = seen.violations();
    for (const std::string& text : found) all.push_back(head + text);
    if (found.empty()) continue;
    for (const std::string& text : seen.history()) all.push_back("  " + text);
  }
  return all;
}

experience life::sums() const {
  experience sum;
  for (const auto& client : m_clients) sum.add(client->observations().sums());
  return sum;
}

}  // namespace kav_chaos
