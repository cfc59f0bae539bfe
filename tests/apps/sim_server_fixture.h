// A server with three symbols and the steps of a session, for raw clients.
#pragma once

#include <gtest/gtest.h>

#include <atomic>  // std::atomic
#include <memory>  // std::unique_ptr
#include <mutex>   // std::mutex
#include <string>  // std::string
#include <thread>  // std::thread
#include <vector>  // std::vector

#include "apps/sim/quote_server.h"
#include "tests/apps/sim_raw_client.h"

namespace kav_sim_test {

inline KAVMarketDepthQuoteData quote_of(const std::string& symbol, double last) {
  KAVMarketDepthQuoteData quote{};
  std::memcpy(quote.InstrumentID, symbol.data(), symbol.size());
  quote.LastPrice = last;
  return quote;
}

class sim_server_test : public testing::Test {
 protected:
  sim_server_test() {
    m_options.symbols = {{"IF2509", '1'}, {"cs1709", '1'}, {"0", '2'}};
    m_options.log = [this](const std::string& line) {
      const std::lock_guard<std::mutex> hold{m_lines_lock};
      m_lines.push_back(line);
    };
  }

  unsigned short start() {
    m_server = std::make_unique<kav_sim::quote_server>(m_options);
    m_server->set_behaviour(m_how);
    EXPECT_TRUE(m_server->start()) << m_server->start_error();
    return m_server->port();
  }

  void log_in(raw_client& client) {
    ASSERT_TRUE(client.send(login_bytes("trader", k_abc_digest)));
    ASSERT_EQ("AY" + std::string(22, '\0'), client.read_exactly(24));
  }

  void register_symbol(raw_client& client, char type, const std::string& symbol) {
    ASSERT_TRUE(client.send(symbol_request_bytes('N', type, symbol)));
    ASSERT_EQ("I0", client.read_exactly(32).substr(0, 2));
  }

  bool told(const std::string& part) {
    const std::lock_guard<std::mutex> hold{m_lines_lock};
    for (const std::string& line : m_lines) {
      if (line.find(part) != std::string::npos) return true;
    }
    return false;
  }

  kav_sim::server_options m_options;  // used by start()
  kav_sim::behaviour m_how;           // used by start()
  std::mutex m_lines_lock;
  std::vector<std::string> m_lines;                 // protected by m_lines_lock
  std::unique_ptr<kav_sim::quote_server> m_server;  // gone before what it logs into
};

}  // namespace kav_sim_test
