// What happens in a life: decided before it begins, from the seed and the life's number alone.
//
// A life is one server and one to three clients. Each client's caller follows a track of its own,
// with things to do from inside its callbacks; the server follows another. Only the interleaving is
// left to the machine.
#pragma once

#include <cstdint>   // std::uint64_t
#include <optional>  // std::optional
#include <string>    // std::string
#include <vector>    // std::vector

#include "apps/sim/quote_server.h"
#include "tests/support/recording_event.h"

namespace kav_chaos {

using kav_test::callback_kind;

// A symbol as the caller names it and as the server does.
struct symbol_names {
  const char* caller;
  const char* server;
};
// Registered by the caller's own thread only, so that it is known which of them are wanted.
inline constexpr symbol_names k_own_symbols[] = {
    {"IF2509", "IF2509"}, {"Au(T+D)", "0"}, {"cs1709", "cs1709"}};
// Registered by anyone at any time.
inline constexpr symbol_names k_shared_symbols[] = {{"pb1705", "pb1705"}, {"Ag(T+D)", "1"}};
inline constexpr const char* k_unknown_symbols[] = {
    "nothing", "", "a symbol that is longer than any field", "Au(T+Q)"};
// Quotes of it come without having been asked for; it is in no list.
inline constexpr char k_unasked_symbol[] = "unasked";
inline constexpr char k_password[] = "abc";

enum class deed {
  connect,
  connect_to_nobody,       // the port refuses
  connect_to_bad_address,  // value: which of the addresses
  connect_to_silence,      // value 0: another thread disconnects meanwhile, 1: destroys
  log_in,
  log_in_wrongly,
  register_own,
  unregister_own,
  register_shared,
  unregister_shared,
  register_unknown,
  unregister_unknown,
  query_list,
  disconnect,
  destroy,
  await_login,         // until a login's result, value ms at most
  await_registration,  // until everything wanted is registered, value ms at most
  pause,               // value ms
};

// `value`: the symbol's number, unless said otherwise.
struct action {
  deed what = deed::pause;
  unsigned value = 0;
};

struct client_step {
  action first;
  std::optional<action> at_once;  // by another thread at the same time
};

// Something to do inside callbacks of a kind: after so many of them, so many times.
struct inside_action {
  callback_kind where = callback_kind::quote;
  unsigned after = 0;
  unsigned times = 1;
  action what;
};

struct client_script {
  std::string user;
  // Each callback of this kind takes so long, 0 for none.
  callback_kind slow_kind = callback_kind::quote;
  unsigned slow_ms = 0;
  std::vector<inside_action> inside;
  std::vector<client_step> steps;
};

enum class server_deed {
  behave,     // all faults off
  misbehave,  // as `how` says from now on
  drop,       // FIN for everyone
  reset,      // RST for everyone
  stall,      // nothing is read or written any more, perhaps from the middle of a message on
  go_on,
  outage,   // connecting is refused for value ms
  push,     // value quotes of all symbols in turn
  unasked,  // value: which of the messages that nobody asked for
  garbage,  // value bytes that are no message
  pause,    // value ms
};
constexpr unsigned k_unasked_kinds = 7;

struct server_step {
  server_deed what = server_deed::pause;
  unsigned value = 0;
  kav_sim::behaviour how;
};

// What the server may do in the course of a life, as far as it decides what can be expected of a
// client.
struct server_facts {
  bool whole_messages = true;     // false: after garbage, a message may be read from its middle
  bool terminated_quotes = true;  // false: the texts of quotes may fill their fields
  bool asked_quotes_only = true;
  bool complete_lists = true;  // false: a login may succeed without the symbols that are wanted
};

struct life_script {
  std::uint64_t seed = 0;
  unsigned number = 0;
  int send_buffer_bytes = 0;
  unsigned heartbeat_ms = 0;
  std::vector<server_step> server;
  std::vector<client_script> clients;
  // At the end the server behaves and loses everyone once more; then each client that still exists
  // has to get all that it wants.
  bool recovers = true;
  server_facts facts;
};

life_script make_script(std::uint64_t seed, unsigned number);

// Several lines, the last one with its line end.
std::string text_of(const life_script& script);

// The bytes of a server step `unasked`.
std::string unasked_message(unsigned which);

}  // namespace kav_chaos
