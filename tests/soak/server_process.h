// The server of a soak, in a process of its own: what is measured is the client alone.
#pragma once

#include <sys/types.h>  // pid_t

#include <cstdint>  // std::uint64_t
#include <string>   // std::string
#include <vector>   // std::vector

namespace kav_soak {

// Registered all the time; the others come and go.
constexpr int k_steady_symbols = 20;
constexpr int k_symbols = 200;
std::string symbol_name(int number);
// The number in a symbol's name, -1 for any other text.
int symbol_number(const char* name);
// What every quote of this server says of its exchange.
constexpr char k_exchange[] = "SOAK";

struct server_plan {
  std::uint64_t seed = 1;
  unsigned quotes_per_second = 10'000;
};

// Sends quotes, each symbol's LastPrice counting up from 1 for as long as the server lives, and
// ends one connection after the other once quotes have flowed on it for a while: with FIN, with
// RST, with random bytes and then FIN. Ends with its parent.
class server_process {
 public:
  server_process() = default;
  server_process(const server_process&) = delete;
  server_process& operator=(const server_process&) = delete;
  ~server_process();
  // To be called while this process has one thread. False: error() says why.
  bool start(const server_plan& plan);
  bool is_alive();
  unsigned short port() const { return m_port; }
  const std::string& error() const { return m_error; }

 private:
  bool fail(const char* what);

  pid_t m_child = -1;
  unsigned short m_port = 0;
  std::string m_error;
};

}  // namespace kav_soak
