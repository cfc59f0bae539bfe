#include "apps/sim/program_options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>  // std::replace
#include <map>        // std::map
#include <vector>     // std::vector

#include "apps/sim/option_checks.h"
#include "apps/sim/wire.h"
#include "apps/standard_error.h"

namespace kav_sim {

namespace {

constexpr const char* k_description =
    "A quote server on this machine: replays recorded quotes or makes up a market, and misbehaves "
    "where it is told to.";

constexpr const char* k_footer = R"(
The first line on standard output is "listening on ADDRESS:PORT"; all else goes to standard error.

Without --ticks the quotes are made up: 20 futures (type "1") of SHFE, CFFEX, CZCE, GFEX, INE and
DCE and the five gold contracts (type "2") under their codes 0 to 4. With --ticks FILE the symbols
are those of the file, all of type "1". FILE is comma-separated text, plain or packed with gzip;
its first line names the columns by the fields of the quote record, in any order.

A replay, and anything at --speed 0, starts when a client has registered its first symbol and 250 ms
have passed without another registration, so that a late client loses nothing. Other clients get the
rows of their symbols from their registration on. A pause of more than 3 s in the recording is
replayed as 3 s (divided by --speed). When the file has ended the connections stay. At --speed 0 the
slowest client sets the pace and nothing is dropped, and quotes wait while nobody is registered; at
other speeds a client that is too slow loses quotes, which is told.

Examples:
  kav-sim --port 9100
  kav-sim --port 9100 --ticks ticks.csv.gz --speed 10 --loop
  kav-sim --port 9100 --user trader --password secret --heartbeat 0
  kav-sim --port 9100 --fault-loss reset --fault-after-seconds 20 --fault-times 3
  kav-sim --port 9100 --fault-chunks 1,40,500 --fault-outage-after 30 --fault-outage-seconds 10

Exit status:
  0  ended by --seconds, SIGINT or SIGTERM; or --help, --version, --list
  1  cannot listen, such as a port in use
  2  a bad option or a bad tick file; nothing was started)";

// Everything that becomes part of the behaviour only when all options are known.
struct fault_texts {
  int login_delay_ms = 0, list_delay_ms = 0, chunk_pause_ms = 2;
  std::string register_answer, unregister_answer, reason;
  std::optional<std::size_t> after_messages;
  std::optional<double> after_seconds;
  std::vector<std::string> full_width;
  std::vector<std::size_t> chunks;
};

constexpr int k_longest_ms = 3600'000;
constexpr double k_longest_seconds = 1e7;

void add_server_options(CLI::App& app, program_options& o) {
  app.add_option("--port", o.port, "TCP port; 0 takes a free one")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_option("--bind", o.bind_address, "IPv4 address to listen on")
      ->check(CLI::ValidIPV4)
      ->capture_default_str();
  app.add_option("--user", o.user, "the one user name that may log in (default: any)")
      ->check([](const std::string& s) {
        return s.size() < 16 ? "" : "a user name has at most 15 characters";
      });
  app.add_option("--password", o.password, "its password (default: any)")
      ->check([](const std::string& s) {
        return s.size() < 33 ? "" : "a password has at most 32 characters";
      });
  app.add_option("--heartbeat", o.heartbeat_seconds,
                 "a heartbeat after so many seconds without a message, 0 for none")
      ->check(number_between(0, k_longest_seconds))
      ->capture_default_str();
  app.add_option("--seconds", o.seconds, "end by itself after so long, 0 for never")
      ->check(number_between(0, k_longest_seconds))
      ->capture_default_str();
  app.add_flag("--quiet", o.quiet, "no lines about clients and progress");
}

void add_quote_options(CLI::App& app, program_options& o) {
  CLI::Option* const ticks = app.add_option("--ticks", o.source.tick_path,
                                            "replay this file; each quote takes 1 KB of memory")
                                 ->type_name("FILE");
  app.add_option("--speed", o.speed, "1 own pace, 10 ten times as fast, 0 as fast as clients read")
      ->check(number_between(0, 1e6))
      ->capture_default_str();
  app.add_flag("--loop", o.source.loop, "begin again when the file has ended")->needs(ticks);
  app.add_option("--rate", o.source.rate, "made-up snapshots of each symbol per second")
      ->check(number_between(0.001, 10000))
      ->excludes(ticks)
      ->capture_default_str();
  app.add_option("--seed", o.source.seed, "of the made-up market; the same makes the same quotes")
      ->check(whole_number())
      ->excludes(ticks)
      ->capture_default_str();
  app.add_flag("--list", o.list, "print the symbols (type, name) and end");
}

template <class Enum>
void add_choice(CLI::App& app, const char* name, Enum& value, std::map<std::string, Enum> choices,
                const std::string& help) {
  std::string names;
  for (const auto& [text, ignored] : choices) names += (names.empty() ? "" : "|") + text;
  const auto parse = [&value, choices, names, name](const std::string& text) {
    const auto found = choices.find(text);
    if (found == choices.end()) {
      throw CLI::ValidationError(name, fmt::format("{} is none of {}", text, names));
    }
    value = found->second;
  };
  app.add_option_function<std::string>(name, parse, help)->type_name(names)->group("Faults");
}

void add_session_faults(CLI::App& app, behaviour& how, fault_texts& texts) {
  add_choice<accept_answer>(app, "--fault-accept", how.on_accept,
                            {{"close", accept_answer::close},
                             {"reset", accept_answer::reset},
                             {"never-read", accept_answer::never_read}},
                            "what becomes of a new connection");
  add_choice<login_answer>(app, "--fault-login", how.login,
                           {{"refuse", login_answer::refuse}, {"ignore", login_answer::ignore}},
                           "what becomes of a login");
  app.add_option("--fault-login-reason", texts.reason, "text of --fault-login refuse")
      ->check([](const std::string& s) {
        return s.size() < k_reason_bytes ? "" : "a reason has at most 21 characters";
      })
      ->group("Faults");
  app.add_option("--fault-login-delay", texts.login_delay_ms, "ms until a login is answered")
      ->check(CLI::Range(0, k_longest_ms))
      ->group("Faults");
  add_choice<list_answer>(app, "--fault-list", how.list,
                          {{"no-end", list_answer::no_end_mark},
                           {"empty", list_answer::empty},
                           {"ignore", list_answer::ignore}},
                          "what becomes of the symbol list");
  app.add_option("--fault-list-delay", texts.list_delay_ms, "ms until the list's end mark")
      ->check(CLI::Range(0, k_longest_ms))
      ->group("Faults");
  const auto one_character = [](const std::string& s) {
    return s == "ignore" || s.size() == 1 ? "" : "give one result character, or ignore";
  };
  app.add_option("--fault-register", texts.register_answer,
                 "result character of registrations (0 and 2 register), or ignore")
      ->type_name("CHAR|ignore")
      ->check(one_character)
      ->group("Faults");
  app.add_option("--fault-unregister", texts.unregister_answer,
                 "result character of unregistrations (0 unregisters), or ignore")
      ->type_name("CHAR|ignore")
      ->check(one_character)
      ->group("Faults");
}

void add_stream_faults(CLI::App& app, behaviour& how, fault_texts& texts) {
  add_choice<garbage_time>(app, "--fault-garbage", how.garbage_when,
                           {{"instead", garbage_time::instead_of_login_answer},
                            {"after", garbage_time::after_login_answer}},
                           "bytes that are no message, instead of the login answer or after it");
  app.add_option("--fault-full-width", texts.full_width,
                 "texts without NUL: reason, list, answers, quotes")
      ->delimiter(',')
      ->check(CLI::IsMember({"reason", "list", "answers", "quotes"}))
      ->group("Faults");
  app.add_option("--fault-chunks", texts.chunks, "write the stream in pieces of these sizes")
      ->delimiter(',')
      ->check(CLI::Range(1, 1 << 20))
      ->group("Faults");
  app.add_option("--fault-chunk-pause", texts.chunk_pause_ms, "ms after each piece")
      ->check(CLI::Range(0, k_longest_ms))
      ->group("Faults");
}

void add_loss_faults(CLI::App& app, program_options& o, fault_texts& texts) {
  add_choice<loss_kind>(app, "--fault-loss", o.how.loss,
                        {{"close", loss_kind::close},
                         {"reset", loss_kind::reset},
                         {"stall", loss_kind::stall},
                         {"truncate", loss_kind::truncate}},
                        "how connections end; truncate: in the middle of a message");
  app.add_option("--fault-after-messages", texts.after_messages,
                 "after so many messages to the client")
      ->check(whole_number())
      ->group("Faults");
  app.add_option("--fault-after-seconds", texts.after_seconds, "so long after it has connected")
      ->check(number_between(0, k_longest_seconds))
      ->group("Faults");
  app.add_option("--fault-times", o.how.loss_limit, "at most so many connections are hit")
      ->check(whole_number())
      ->group("Faults");
  app.add_option("--fault-truncate-bytes", o.how.truncate_bytes, "bytes sent of the message cut")
      ->check(whole_number())
      ->group("Faults");
  app.add_option("--fault-outage-after", o.outage_after_seconds,
                 "close listener and connections after so many seconds, once")
      ->check(number_between(0, k_longest_seconds))
      ->group("Faults");
  app.add_option("--fault-outage-seconds", o.outage_seconds, "and listen again so much later")
      ->check(number_between(0, k_longest_seconds))
      ->capture_default_str()
      ->group("Faults");
}

void set_symbol_answer(const std::string& text, bool& answer, char& result) {
  if (text == "ignore") {
    answer = false;
  } else if (!text.empty()) {
    result = text[0];
  }
}

bool has(const std::vector<std::string>& texts, const char* text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

// The complaint about options that do not go together; empty when they do.
std::string take_over(const fault_texts& texts, behaviour& how) {
  if (!texts.reason.empty()) how.login_refusal_reason = texts.reason;
  how.login_delay = std::chrono::milliseconds{texts.login_delay_ms};
  how.end_mark_delay = std::chrono::milliseconds{texts.list_delay_ms};
  how.chunk_sizes = texts.chunks;
  how.chunk_pause = std::chrono::milliseconds{texts.chunk_pause_ms};
  set_symbol_answer(texts.register_answer, how.answer_register, how.register_result);
  set_symbol_answer(texts.unregister_answer, how.answer_unregister, how.unregister_result);
  how.full_width_reason = has(texts.full_width, "reason");
  how.full_width_list = has(texts.full_width, "list");
  how.full_width_answers = has(texts.full_width, "answers");
  how.full_width_quotes = has(texts.full_width, "quotes");
  how.loss_after_messages = texts.after_messages;
  if (texts.after_seconds) {
    how.loss_after_time = std::chrono::milliseconds{static_cast<long>(*texts.after_seconds * 1000)};
  }
  const bool when = texts.after_messages || texts.after_seconds;
  if (how.loss == loss_kind::truncate && !texts.after_messages) {
    return "--fault-loss truncate needs --fault-after-messages";
  }
  if (how.loss != loss_kind::none && !when) {
    return "--fault-loss needs --fault-after-messages or --fault-after-seconds";
  }
  return how.loss == loss_kind::none && when
             ? "--fault-after-messages and --fault-after-seconds need --fault-loss"
             : "";
}

int complain(std::string what) {
  std::replace(what.begin(), what.end(), '\n', ' ');
  kav_apps::tell(fmt::format("kav-sim: {}\n", what));
  return k_exit_bad_input;
}

}  // namespace

std::optional<int> parse_command_line(int argc, char** argv, program_options& options) {
  CLI::App app{k_description, "kav-sim"};
  fault_texts texts;
  app.set_version_flag("--version", "kav-sim " KAV_SIM_VERSION);
  app.footer(k_footer);
  add_server_options(app, options);
  add_quote_options(app, options);
  add_session_faults(app, options.how, texts);
  add_stream_faults(app, options.how, texts);
  add_loss_faults(app, options, texts);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    return complain(e.what());
  }
  const std::string complaint = take_over(texts, options.how);
  if (!complaint.empty()) return complain(complaint);
  return std::nullopt;
}

}  // namespace kav_sim
