// The command line of kav-watch.
#pragma once

#include <chrono>    // std::chrono::milliseconds
#include <cstdint>   // std::uint64_t
#include <optional>  // std::optional
#include <string>    // std::string
#include <variant>   // std::variant
#include <vector>    // std::vector

#include "api/kav_quote_api.h"
#include "apps/watch/multicast_group.h"
#include "apps/watch/outcome.h"

namespace kav_watch {

enum class output_format { automatic, table, plain, csv, json };

// Quotes come from a session with a server, from multicast groups, or from both.
struct watch_options {
  std::optional<KqsTcpInfo> server;  // nothing: no session, and no login
  std::string server_text;           // as the user gave it, for messages
  std::string user;
  std::string password;
  std::vector<watched_group> groups;
  std::vector<std::string> symbols;  // without repetitions; empty: all
  output_format format = output_format::automatic;
  bool list_only = false;
  bool keep_going = false;
  bool verbose = false;
  bool green_up = false;
  std::optional<std::uint64_t> count;
  std::optional<std::chrono::milliseconds> duration;
  std::chrono::milliseconds timeout{10'000};  // for each of connecting, login and symbol list
};

// What to print on standard output (the help, the version) before ending well.
struct information {
  std::string text;
};

using parsed_options = std::variant<watch_options, information, outcome>;

// `environment_password` serves when the arguments give none.
parsed_options parse_options(int argc, const char* const* argv,
                             std::optional<std::string> environment_password);

// "127.0.0.1:9000" to an endpoint; nothing unless it is a dotted IPv4 address and a port.
std::optional<KqsTcpInfo> parse_server(const std::string& text);

}  // namespace kav_watch
