#include "apps/watch/options.h"

#include <arpa/inet.h>  // inet_pton

#include <CLI/CLI.hpp>
#include <algorithm>  // std::find, std::replace
#include <charconv>   // std::from_chars
#include <cmath>      // std::llround
#include <cstring>    // std::memcpy
#include <map>        // std::map
#include <utility>    // std::move

#include "api/kav_multicast.h"
#include "apps/watch/secrets.h"
#include "apps/watch/text_safety.h"

namespace kav_watch {
namespace {

constexpr double k_shortest_seconds = 0.001;
constexpr double k_longest_seconds = 1e7;  // four months; keeps clock arithmetic in range

constexpr char k_footer[] = R"(Examples:
  export KAV_PASSWORD                                    # then the process list never shows it
  kav-watch --server 127.0.0.1:9000 --user me            # a table of all symbols
  kav-watch --server 127.0.0.1:9000 --user me IF2509 'Au(T+D)'
  kav-watch --server 127.0.0.1:9000 --user me --list     # symbols and their types
  kav-watch --server 127.0.0.1:9000 --user me --format csv --seconds 60 > minute.csv
  kav-watch --server 127.0.0.1:9000 --user me --format json | jq .LastPrice
  kav-watch --multicast 239.255.10.1:30001:SHFE@127.0.0.1    # no session, no login
  kav-watch --server 127.0.0.1:9000 --user me --multicast 239.255.10.2:30002:LUMEN rb2510

Multicast:
  Each --multicast joins one group; EXCHANGE is SHFE, INE, CFFEX, CZCE, GFEX, DCE, SGE, SHZ or
  LUMEN, and tells which records are expected there. LOCALIP is the address of the interface that
  the feed comes in on; without it the system's routes choose one. Symbols that are named are
  picked out of what arrives. With --server too, both sources fill the same rows and lines, and
  the groups go on when the session has ended for good. What was not understood, or lost because
  the output is slower than the feed, is counted and told on standard error.

Formats:
  table  updates in place; the default when standard output is a terminal
  plain  one aligned line per quote; the default otherwise
  csv    a header line, then one line per quote, all fields; no quote is left out
  json   one object per line, all fields; no quote is left out
  In csv and json, 0 and empty texts mean that the source gave no value.

Keys of the table:
  Up Down PgUp PgDn Home End   scroll the rows        Left Right   scroll the columns
  Ctrl-L                       draw anew              q            quit
  The change is red when the price rose and green when it fell, as Chinese screens show it;
  --green-up swaps them, the environment variable NO_COLOR turns colour off.

Exit statuses:
  0  ended as asked: --count, --seconds, q, Ctrl-C, SIGTERM, reader of the output gone
  1  unexpected error               5  no symbol list
  2  bad option                     6  unknown symbol
  3  connection refused, host unreachable
  4  login refused                  7  session ended for good
  8  no answer in time              9  output could not be written
  10 multicast group could not be received)";

// What CLI11 fills before it is checked further.
struct raw_options {
  std::string server, user, password;
  std::vector<std::string> groups;
  std::vector<std::string> symbols;
  std::string format;
  bool list = false, keep_going = false, verbose = false, green_up = false;
  std::uint64_t count = 0;
  double seconds = 0, timeout = 10;
};

const std::map<std::string, output_format> k_formats{{"table", output_format::table},
                                                     {"plain", output_format::plain},
                                                     {"csv", output_format::csv},
                                                     {"json", output_format::json}};

// Unlike a plain comparison with two limits it refuses "nan" too.
CLI::Validator seconds_validator() {
  return {[](std::string& text) {
            double seconds = 0;
            const bool valid = CLI::detail::lexical_cast(text, seconds) &&
                               seconds >= k_shortest_seconds && seconds <= k_longest_seconds;
            return valid ? std::string{}
                         : fmt::format("'{}' is no number of seconds from {} to {:.0f}",
                                       printable_text(text), k_shortest_seconds, k_longest_seconds);
          },
          ""};
}

void declare_session_options(CLI::App& app, raw_options& raw) {
  app.add_option("--server", raw.server, "Quote server, a dotted IPv4 address and a port")
      ->type_name("ADDRESS:PORT");
  app.add_option("--user", raw.user, "User name, at most 15 bytes")->type_name("NAME");
  app.add_option("--password", raw.password,
                 "Password, at most 32 bytes. The environment variable KAV_PASSWORD is safer: "
                 "arguments can be read in the process list until the program has overwritten them")
      ->type_name("TEXT");
  app.add_option("--timeout", raw.timeout,
                 "Seconds to wait for the connection, the login and the symbol list, each")
      ->type_name("SECONDS")
      ->check(seconds_validator())
      ->capture_default_str();
}

void declare_multicast_options(CLI::App& app, raw_options& raw) {
  app.add_option("--multicast", raw.groups,
                 "Multicast group to receive, beside --server or without it; can be given again")
      ->type_name("GROUP:PORT:EXCHANGE[@LOCALIP]")
      ->allow_extra_args(false);  // what follows its value is a symbol
}

void declare_output_options(CLI::App& app, raw_options& raw) {
  app.add_option("symbols", raw.symbols, "Symbols to watch; all that there are when none is named")
      ->type_name("SYMBOL");
  app.add_flag("--list", raw.list, "Print the server's symbols and their types, then end");
  app.add_flag("--keep-going", raw.keep_going, "Watch the known symbols when others are unknown");
  app.add_option("--format", raw.format, "table, plain, csv or json")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"table", "plain", "csv", "json"}).description(""));
  app.add_option("--count", raw.count, "End after this many quotes")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  app.add_option("--seconds", raw.seconds, "End after this many seconds of watching")
      ->type_name("SECONDS")
      ->check(seconds_validator());
  app.add_flag("--green-up", raw.green_up, "Show rising prices in green, falling ones in red");
  app.add_flag("-v,--verbose", raw.verbose, "Write the library's log lines to standard error");
}

std::chrono::milliseconds to_milliseconds(double seconds) {
  return std::chrono::milliseconds{std::llround(seconds * 1000)};
}

// One line, and never the value of an option: it might be the password under a misspelled name.
std::string one_line(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  const std::size_t option = text.find("--pas");
  const std::size_t value = option == std::string::npos ? option : text.find('=', option);
  if (value != std::string::npos) text.erase(value);
  return printable_text(text);
}

outcome bad_option(const std::string& text) {
  return {exit_status::bad_option, one_line(text) + "; kav-watch --help shows how to use it"};
}

std::vector<std::string> without_repetitions(const std::vector<std::string>& names) {
  std::vector<std::string> out;
  for (const std::string& name : names) {
    if (std::find(out.begin(), out.end(), name) == out.end()) out.push_back(name);
  }
  return out;
}

// Fills options.groups; what is wrong with them, empty when nothing is.
std::string accept_groups(const std::vector<std::string>& texts, watch_options& options) {
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
std::string accept_server(const std::string& text, watch_options& options) {
  options.server_text = text;
  options.server = parse_server(text);
  if (options.server) return "";
  return "--server: '" + text + "' is no ADDRESS:PORT such as 127.0.0.1:9000";
}

watch_options accept(const CLI::App& app, raw_options& raw, watch_options options) {
  options.user = raw.user;
  options.password = raw.password;
  options.symbols = without_repetitions(raw.symbols);
  if (!raw.format.empty()) options.format = k_formats.at(raw.format);
  options.list_only = raw.list;
  options.keep_going = raw.keep_going;
  options.verbose = raw.verbose;
  options.green_up = raw.green_up;
  if (app.count("--count") > 0) options.count = raw.count;
  if (app.count("--seconds") > 0) options.duration = to_milliseconds(raw.seconds);
  options.timeout = to_milliseconds(raw.timeout);
  wipe(raw.password);
  return options;
}

// What is wrong with the login's texts, empty when nothing is.
std::string login_complaint(const raw_options& raw) {
  if (raw.user.empty()) return "--user: the name is empty";
  if (raw.user.size() >= sizeof(KqsLoginParam::m_UserId)) {
    return "--user: the name has more than 15 bytes";
  }
  if (raw.password.size() >= sizeof(KqsLoginParam::m_Password)) {
    return "the password has more than 32 bytes";
  }
  return "";
}

// What only a session can do, asked for without one; empty when nothing is.
std::string session_only_complaint(const CLI::App& app) {
  for (const char* option : {"--list", "--user", "--password", "--timeout", "--keep-going"}) {
    if (app.count(option) > 0) {
      return fmt::format("{} needs a session: give --server ADDRESS:PORT too, or leave it out",
                         option);
    }
  }
  return "";
}

// The password from where it was given; what is wrong with the login, empty when nothing is.
std::string take_login(const CLI::App& app, raw_options& raw,
                       std::optional<std::string>& environment_password) {
  if (app.count("--user") == 0) return "no user name: --server needs --user NAME";
  if (app.count("--password") == 0) {
    if (!environment_password) {
      return "no password: set KAV_PASSWORD in the environment or give --password";
    }
    raw.password = std::move(*environment_password);
  }
  return login_complaint(raw);
}

parsed_options judge(const CLI::App& app, raw_options& raw,
                     std::optional<std::string>& environment_password) {
  const bool session = app.count("--server") > 0;
  if (!session && environment_password) wipe(*environment_password);
  if (!session && raw.groups.empty()) {
    return bad_option(
        "no source of quotes: give --server ADDRESS:PORT, --multicast GROUP:PORT:EXCHANGE or both");
  }
  watch_options options;
  std::string wrong =
      session ? take_login(app, raw, environment_password) : session_only_complaint(app);
  if (wrong.empty() && session) wrong = accept_server(raw.server, options);
  if (wrong.empty()) wrong = accept_groups(raw.groups, options);
  if (!wrong.empty()) return bad_option(wrong);
  return accept(app, raw, std::move(options));
}

}  // namespace

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

parsed_options parse_options(int argc, const char* const* argv,
                             std::optional<std::string> environment_password) {
  raw_options raw;
  CLI::App app{"Shows the quotes of a quote server, of multicast groups, or of both.", "kav-watch"};
  app.footer(k_footer);
  app.set_version_flag("--version", "kav-watch " KAV_WATCH_VERSION);
  declare_session_options(app, raw);
  declare_multicast_options(app, raw);
  declare_output_options(app, raw);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return information{app.help()};
  } catch (const CLI::CallForVersion& version) {
    return information{std::string{version.what()} + "\n"};
  } catch (const CLI::ParseError& error) {
    return bad_option(error.what());
  }
  return judge(app, raw, environment_password);
}

}  // namespace kav_watch
