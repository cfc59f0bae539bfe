// The part of a command line that says where quotes come from, for the programs that receive them.
#pragma once

#include <chrono>    // std::chrono::milliseconds
#include <cstdint>   // std::uint64_t
#include <optional>  // std::optional
#include <string>    // std::string
#include <vector>    // std::vector

#include "api/kav_quote_api.h"
#include "apps/watch/multicast_group.h"
#include "apps/watch/outcome.h"
#include "apps/watch/secrets.h"

namespace CLI {
class App;
}

namespace kav_watch {

// Quotes come from a session with a server, from multicast groups, or from both.
struct source_options {
  std::string program;               // for messages
  std::optional<KqsTcpInfo> server;  // nothing: no session, and no login
  std::string server_text;           // as the user gave it, for messages
  std::string user;
  secret password;
  std::vector<watched_group> groups;
  std::vector<std::string> symbols;  // without repetitions; empty: all
  bool keep_going = false;
  bool verbose = false;
  std::optional<std::uint64_t> count;
  std::optional<std::chrono::milliseconds> duration;
  std::chrono::milliseconds timeout{10'000};  // for each of connecting, login and symbol list
};

// What the command line's parser fills before it is checked further.
struct raw_source {
  std::string server, user;
  std::string password_stars;  // what stands where the password was
  std::vector<std::string> groups;
  std::vector<std::string> symbols;
  bool keep_going = false, verbose = false;
  std::uint64_t count = 0;
  double seconds = 0, timeout = 10;
};

// --server, --user, --password, --timeout, --multicast; `raw` outlives the parsing.
void declare_source_options(CLI::App& app, raw_source& raw);
// Symbols, --keep-going, --count, --seconds, --verbose; `verb` is what the program does.
void declare_choice_options(CLI::App& app, raw_source& raw, const std::string& verb);
// Fills `options`; what is wrong, empty when nothing is. `password` was taken from the arguments or
// the environment before; the value in the arguments is not looked at.
std::string accept_source(const CLI::App& app, const raw_source& raw,
                          const std::optional<secret>& password, source_options& options);

// The one line for a command line that cannot be obeyed.
outcome bad_option(const std::string& program, const std::string& text);

std::chrono::milliseconds to_milliseconds(double seconds);

// What is wrong with a text that should be a number of seconds; empty when nothing is.
std::string seconds_complaint(const std::string& text);

// "127.0.0.1:9000" to an endpoint; nothing unless it is a dotted IPv4 address and a port.
std::optional<KqsTcpInfo> parse_server(const std::string& text);

}  // namespace kav_watch
