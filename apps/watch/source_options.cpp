#include "apps/watch/source_options.h"

#include <arpa/inet.h>  // inet_pton

#include <CLI/CLI.hpp>
#include <algorithm>  // std::find, std::replace
#include <charconv>   // std::from_chars
#include <cmath>      // std::llround
#include <cstring>    // std::memcpy
#include <utility>    // std::move

#include "api/kav_multicast.h"
#include "apps/watch/text_safety.h"

namespace kav_watch {
namespace {

constexpr double k_shortest_seconds = 0.001;
constexpr double k_longest_seconds = 1e7;  // four months; keeps clock arithmetic in range

CLI::Validator seconds_validator() {
  return {[](std::string& text) { return seconds_complaint(text); }, ""};
}

void declare_session_options(CLI::App& app, raw_source& raw) {
  app.add_option("--server", raw.server, "Quote server, a dotted IPv4 address and a port")
      ->type_name("ADDRESS:PORT");
  app.add_option("--user", raw.user, "User name, at most 15 bytes")->type_name("NAME");
  app.add_option("--password", raw.password_stars,
                 "Password, at most 32 bytes. The environment variable KAV_PASSWORD is safer: "
                 "arguments can be read in the process list until the program has overwritten them")
      ->type_name("TEXT");
  app.add_option("--timeout", raw.timeout,
                 "Seconds to wait for the connection, the login and the symbol list, each")
      ->type_name("SECONDS")
      ->check(seconds_validator())
      ->capture_default_str();
}

void declare_multicast_options(CLI::App& app, raw_source& raw) {
  app.add_option("--multicast", raw.groups,
                 "Multicast group to receive, beside --server or without it; can be given again")
      ->type_name("GROUP:PORT:EXCHANGE[@LOCALIP]")
      ->allow_extra_args(false);  // what follows its value is a symbol
}

// One line, and never the value of an option: it might be the password under a misspelled name.
std::string one_line(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  const std::size_t option = text.find("--pas");
  const std::size_t value = option == std::string::npos ? option : text.find('=', option);
  if (value != std::string::npos) text.erase(value);
  return printable_text(text);
}

std::vector<std::string> without_repetitions(const std::vector<std::string>& names) {
  std::vector<std::string> out;
  for (const std::string& name : names) {
    if (std::find(out.begin(), out.end(), name) == out.end()) out.push_back(name);
  }
  return out;
}

// Fills options.groups; what is wrong with them, empty when nothing is.
std::string accept_groups(const std::vector<std::string>& texts, source_options& options) {
  if (texts.size() > KAV_MULTICAST_MOST_GROUPS) {
    return fmt::format("--multicast: {} groups; {} is the most", texts.size(),
                       KAV_MULTICAST_MOST_GROUPS);
  }
  std::vector<watched_group>& groups = options.groups;
  for (const std::string& text : texts) {
    auto parsed = parse_group(text);
    if (const auto* wrong = std::get_if<std::string>(&parsed)) return "--multicast: " + *wrong;
    watched_group& group = std::get<watched_group>(parsed);
    const auto known =
        std::find_if(groups.begin(), groups.end(),
                     [&](const watched_group& earlier) { return same_reception(earlier, group); });
    if (known != groups.end()) {
      return fmt::format(
          "--multicast: {} is the same group, port and interface as {}; give it once", group.text,
          known->text);
    }
    groups.push_back(std::move(group));
  }
  return "";
}

// Fills options.server; what is wrong with it, empty when nothing is.
std::string accept_server(const std::string& text, source_options& options) {
  options.server_text = text;
  options.server = parse_server(text);
  if (options.server) return "";
  return "--server: '" + text + "' is no ADDRESS:PORT such as 127.0.0.1:9000";
}

// What is wrong with the login, empty when nothing is.
std::string login_complaint(const CLI::App& app, const raw_source& raw,
                            const std::optional<secret>& password) {
  if (app.count("--user") == 0) return "no user name: --server needs --user NAME";
  if (!password) return "no password: set KAV_PASSWORD in the environment or give --password";
  if (raw.user.empty()) return "--user: the name is empty";
  if (raw.user.size() >= sizeof(KqsLoginParam::m_UserId)) {
    return "--user: the name has more than 15 bytes";
  }
  if (password->text().size() >= sizeof(KqsLoginParam::m_Password)) {
    return "the password has more than 32 bytes";
  }
  return "";
}

// What only a session can do, asked for without one; empty when nothing is.
std::string session_only_complaint(const CLI::App& app) {
  for (const char* option : {"--list", "--user", "--password", "--timeout", "--keep-going"}) {
    const CLI::Option* const known = app.get_option_no_throw(option);
    if (known != nullptr && known->count() > 0) {
      return fmt::format("{} needs a session: give --server ADDRESS:PORT too, or leave it out",
                         option);
    }
  }
  return "";
}

void take_over(const CLI::App& app, const raw_source& raw, source_options& options) {
  options.user = raw.user;
  options.symbols = without_repetitions(raw.symbols);
  options.keep_going = raw.keep_going;
  options.verbose = raw.verbose;
  if (app.count("--count") > 0) options.count = raw.count;
  if (app.count("--seconds") > 0) options.duration = to_milliseconds(raw.seconds);
  options.timeout = to_milliseconds(raw.timeout);
}

}  // namespace

void declare_source_options(CLI::App& app, raw_source& raw) {
  declare_session_options(app, raw);
  declare_multicast_options(app, raw);
}

void declare_choice_options(CLI::App& app, raw_source& raw, const std::string& verb) {
  app.add_option(
         "symbols", raw.symbols,
         fmt::format("Symbols to {}; when none is named, all that the server lists at the login",
                     verb))
      ->type_name("SYMBOL");
  app.add_flag("--keep-going", raw.keep_going,
               "Go on with the known symbols when others are unknown");
  app.add_option("--count", raw.count, "End after this many quotes")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  app.add_option("--seconds", raw.seconds, "End after so long, counted from the registration on")
      ->type_name("SECONDS")
      ->check(seconds_validator());
  app.add_flag("-v,--verbose", raw.verbose, "Write the library's log lines to standard error");
}

std::string accept_source(const CLI::App& app, const raw_source& raw,
                          const std::optional<secret>& password, source_options& options) {
  const bool session = app.count("--server") > 0;
  if (!session && raw.groups.empty()) {
    return "no source of quotes: give --server ADDRESS:PORT, --multicast GROUP:PORT:EXCHANGE or "
           "both";
  }
  std::string wrong = session ? login_complaint(app, raw, password) : session_only_complaint(app);
  if (wrong.empty() && session) wrong = accept_server(raw.server, options);
  if (wrong.empty()) wrong = accept_groups(raw.groups, options);
  if (!wrong.empty()) return wrong;
  if (session) options.password = *password;
  take_over(app, raw, options);
  return "";
}

outcome bad_option(const std::string& program, const std::string& text) {
  return {exit_status::bad_option,
          fmt::format("{}; {} --help shows how to use it", one_line(text), program)};
}

std::chrono::milliseconds to_milliseconds(double seconds) {
  return std::chrono::milliseconds{std::llround(seconds * 1000)};
}

// Unlike a plain comparison with two limits it refuses "nan" too.
std::string seconds_complaint(const std::string& text) {
  double seconds = 0;
  const bool valid = CLI::detail::lexical_cast(text, seconds) && seconds >= k_shortest_seconds &&
                     seconds <= k_longest_seconds;
  if (valid) return "";
  return fmt::format("'{}' is no number of seconds from {} to {:.0f}", printable_text(text),
                     k_shortest_seconds, k_longest_seconds);
}

std::optional<KqsTcpInfo> parse_server(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos) return std::nullopt;
  const std::string address = text.substr(0, colon);
  in_addr parsed{};
  if (inet_pton(AF_INET, address.c_str(), &parsed) != 1) return std::nullopt;
  KqsTcpInfo server{};
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data() + colon + 1, end, server.m_ServerPort);
  if (error != std::errc{} || rest != end || server.m_ServerPort == 0) return std::nullopt;
  std::memcpy(server.m_ServerIp, address.data(), address.size());  // 15 bytes at most, NUL follows
  return server;
}

}  // namespace kav_watch
