// The server's side of a session, in this process: a quote server and a thread that feeds it.
#pragma once

#include <atomic>  // std::atomic
#include <memory>  // std::unique_ptr
#include <string>  // std::string
#include <thread>  // std::thread

#include "apps/sim/quote_server.h"
#include "tests/faults/caller.h"
#include "tests/faults/fault.h"

namespace kav_faults {

inline constexpr char k_symbol[] = "IF2509";
inline constexpr milliseconds k_stop_limit{1000};  // for what ends a session or a client

// The quote number `number` of k_symbol.
KAVMarketDepthQuoteData numbered_quote(double number);
// The same as a whole message.
std::string quote_bytes(double number);

kav_sim::server_options plain_options(const char* ip = "127.0.0.1");

// Pushes numbered quotes into a server, so many a second, in batches of a millisecond.
class quote_feed {
 public:
  quote_feed(kav_sim::quote_server& server, unsigned per_second);
  quote_feed(const quote_feed&) = delete;
  quote_feed& operator=(const quote_feed&) = delete;
  ~quote_feed() { stop(); }
  void stop();
  // Quotes that were queued for whoever has registered the symbol. Final after stop().
  std::uint64_t sent() const { return m_sent.load(); }

 private:
  void run(unsigned per_second);

  kav_sim::quote_server& m_server;
  std::atomic<bool> m_stop{false};
  std::atomic<std::uint64_t> m_sent{0};
  std::thread m_thread;
};

// A server with one symbol and a client that has registered it.
struct stage {
  explicit stage(kav_sim::server_options options = plain_options());
  // False: `result` says what failed.
  bool open(fault_result& result);

  kav_sim::quote_server server;
  kav_faults::host client;
};

// Waits for quotes to flow again after a fault at `from` and fills in what every fault tells: when
// the client noticed (by a call that begins so), when quotes flowed again, what the caller saw.
void measure_return(fault_result& result, const caller& events, clock::time_point from,
                    const std::string& notice, milliseconds limit = k_patience);

}  // namespace kav_faults
