#include "tests/chaos/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>  // std::replace
#include <random>     // std::random_device

namespace kav_chaos {
namespace {

constexpr unsigned k_default_lives = 300;
constexpr unsigned k_default_parallel = 40;
constexpr unsigned k_most_lives = 10'000'000;
constexpr unsigned k_most_parallel = 1000;

constexpr char k_description[] =
    "Random lives of clients at servers that misbehave at random: whatever happens, some things "
    "never do.";

constexpr char k_footer[] = R"(
A life is one server and one to three clients in this process. What each of them does is decided by
the seed and the life's number alone (--script prints it); how their threads meet is up to the
machine, so that a life that has failed once may have to be run several times to fail again.

Checked all the time, for each client: no callback after its destruction; one worker at most; quotes
in order, whole, none twice and none of a symbol that was never registered; texts end in their
fields; operations return in their time; no session ends without a reason. At the end of most lives
the server behaves, loses everyone once more, and then every wanted symbol has to be registered
again and its quotes have to come. At the end of the run threads, descriptors and memory have to be
back where they were.

A run that finds something prints seed, number and script of the life, what was broken and how to
repeat it; no new life begins then. A life that does not end is printed with the states of all
threads, and the program aborts.

Examples:
  kav-chaos                                 # 300 lives of a random seed
  kav-chaos --lives 20000 --seed 7 --parallel 150
  kav-chaos --seed 7 --life 1234 --script   # what happens in it?
  kav-chaos --seed 7 --life 1234 --verbose

Exit statuses:
  0    everything was kept; or --script, --help, --version
  1    something was broken
  2    bad option
  3    a life could not be run, such as no port to listen on
  134  a life did not end, the program aborted)";

// None when the options were given well.
std::optional<early_end> parse(CLI::App& app, int argc, const char* const* argv) {
  try {
    app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::CallForHelp&) {
    return early_end{exit_status::kept, app.help()};
  } catch (const CLI::CallForVersion& version) {
    return early_end{exit_status::kept, std::string{version.what()} + "\n"};
  } catch (const CLI::ParseError& error) {
    std::string text = error.what();
    std::replace(text.begin(), text.end(), '\n', ' ');
    return early_end{exit_status::bad_option,
                     "kav-chaos: " + text + "; kav-chaos --help shows how to use it\n"};
  }
}

}  // namespace

std::variant<chaos_options, early_end> parse_options(int argc, const char* const* argv) {
  chaos_options options;
  options.lives = k_default_lives;
  options.parallel = k_default_parallel;
  unsigned life = 0;
  CLI::App app{k_description, "kav-chaos"};
  app.footer(k_footer);
  app.set_version_flag("--version", "kav-chaos " KAV_CHAOS_VERSION);
  app.add_option("--lives", options.lives, "How many lives; the first has number 0")
      ->type_name("N")
      ->check(CLI::Range(1u, k_most_lives).description(""))
      ->capture_default_str();
  const CLI::Option* const seed = app.add_option("--seed", options.seed,
                                                 "The same seed gives the same scripts; without it "
                                                 "one is chosen and printed")
                                      ->type_name("S");
  app.add_option("--parallel", options.parallel, "How many lives go on at once; they mostly sleep")
      ->type_name("P")
      ->check(CLI::Range(1u, k_most_parallel).description(""))
      ->capture_default_str();
  const CLI::Option* const one =
      app.add_option("--life", life, "Only the life with this number, whatever --lives says")
          ->type_name("K");
  app.add_flag("--script", options.script, "Print the scripts of the lives and run none");
  app.add_flag("--verbose", options.verbose, "Print each life's number as it begins and ends");
  if (std::optional<early_end> end = parse(app, argc, argv)) return *std::move(end);
  if (seed->count() == 0) options.seed = std::random_device{}();
  if (one->count() != 0) options.life = life;
  return options;
}

}  // namespace kav_chaos
