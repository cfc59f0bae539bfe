#include "apps/feed/program_options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>  // std::replace
#include <string>     // std::string
#include <vector>     // std::vector

#include "apps/sim/option_checks.h"
#include "apps/standard_error.h"

namespace kav_feed {

namespace {

using kav_sim::number_between;
using kav_sim::whole_number;

constexpr const char* k_description =
    "Publishes quotes as the exchanges' and the lumen feed's UDP multicast datagrams: recorded "
    "quotes, or a made-up market.";

constexpr const char* k_footer = R"(
Feeds and their groups, if not changed by --group:
  SHFE   239.255.10.1:30001  368 bytes
  CFFEX  239.255.10.2:30002  360 bytes
  CZCE   239.255.10.3:30003  239 bytes
  GFEX   239.255.10.4:30004  239 bytes
  LUMEN  239.255.10.5:30005  108 (tick) and 120 bytes (summary): the quotes of SHFE, INE and CFFEX
  INE    239.255.10.6:30006  368 bytes, as SHFE

Standard output has one line for each published feed as soon as its group is open, such as
"SHFE 239.255.10.1:30001", and after --wait the line "publishing"; all else goes to standard error.

Without --ticks the quotes are made up, for 16 contracts of the exchanges above and 9 of others.
With --ticks FILE they come from comma-separated text, plain or packed with gzip, whose first line
names the columns by the fields of the quote record, in any order; ExchangeID chooses the feed.
Quotes of exchanges that have no record (DCE, SGE, ...) are not published; their number is told.
A pause of more than 3 s in the recording is replayed as 3 s (divided by --speed). The program ends
with the file.

--speed says when quotes come, --rate how fast datagrams leave at most: --speed 0 --rate 50000 sends
50,000 a second, evenly. --loss and --reorder hit each feed on its own, the same datagrams
for the same --seed; those left out take no time of --rate, and --count counts them.

Datagrams leave through the interface that has the address --interface; 127.0.0.1 keeps them on this
machine, where receivers join with 127.0.0.1 as their interface. No route to the groups is needed.

Examples:
  kav-feed
  kav-feed --ticks ticks.csv.gz --speed 10 --loop --feeds SHFE,LUMEN
  kav-feed --speed 0 --rate 50000 --seconds 10 --wait 1
  kav-feed --feeds CFFEX --group CFFEX=239.1.2.3:40000 --interface 192.168.1.5
  kav-feed --loss 0.5% --reorder 1% --seed 7 --count 100000 --snapshots 100

Exit status:
  0  ended by the file, --seconds, --count, SIGINT or SIGTERM; or --help, --version
  1  cannot publish, such as --interface without such an address, or a failed send
  2  a bad option or a bad tick file; nothing was started)";

constexpr double k_longest_seconds = 1e7;
constexpr double k_slowest = 0.001;
constexpr double k_highest_rate = 1e7;

// A pace: nothing so slow that its times leave the clock's range.
CLI::Validator zero_or_between(double low, double high) {
  CLI::Validator check =
      number_between(0, high) &
      CLI::Validator{[low](std::string& text) {
                       double value = 0;
                       CLI::detail::lexical_cast(text, value);
                       const bool good = value == 0 || value >= low;
                       return good ? std::string{}
                                   : fmt::format("{} is neither 0 nor at least {}", text, low);
                     },
                     ""};
  return check.description(fmt::format("0,{}-{}", low, high));
}

// What becomes options of the publisher only when all of it is known.
struct publishing_texts {
  std::vector<std::string> feeds, groups;
};

void add_source_options(CLI::App& app, program_options& o) {
  CLI::Option* const ticks =
      app.add_option("--ticks", o.source.tick_path, "replay this file")->type_name("FILE");
  app.add_option("--speed", o.speed, "1 own pace, 10 ten times as fast, 0 as fast as the system")
      ->check(zero_or_between(k_slowest, 1e6))
      ->capture_default_str();
  app.add_flag("--loop", o.source.loop, "begin again when the file has ended")->needs(ticks);
  app.add_option("--snapshots", o.source.rate,
                 "made-up snapshots of each symbol per second (--rate of kav-sim)")
      ->check(number_between(0.001, 10000))
      ->excludes(ticks)
      ->capture_default_str();
  app.add_option("--seed", o.source.seed, "of the made-up market, --loss and --reorder")
      ->check(whole_number())
      ->capture_default_str();
}

void add_group_options(CLI::App& app, program_options& o, publishing_texts& texts) {
  app.add_option("--feeds", texts.feeds, "publish only these (default: all)")
      ->delimiter(',')
      ->type_name("NAME,...")
      ->check([](const std::string& name) {
        return feed_named(name) ? std::string{} : fmt::format("{} is no feed", name);
      });
  app.add_option("--group", texts.groups, "publish a feed elsewhere; may be given for each")
      ->type_name("NAME=GROUP:PORT")
      ->allow_extra_args(false);
  app.add_option("--interface", o.publishing.interface, "IPv4 address of the sending interface")
      ->check(CLI::ValidIPV4)
      ->capture_default_str();
}

// "5%" is taken as well as "5".
CLI::Validator percent_sign() {
  return CLI::Validator{[](std::string& text) {
                          if (text.size() > 1 && text.back() == '%') text.pop_back();
                          return std::string{};
                        },
                        "N%"};
}

void add_network_options(CLI::App& app, program_options& o) {
  app.add_option("--loss", o.publishing.disturbed.loss, "leave out so many of 100 datagrams")
      ->transform(percent_sign())
      ->check(number_between(0, 100));
  app.add_option("--reorder", o.publishing.disturbed.reorder,
                 "swap so many of 100 with their successor in the group")
      ->transform(percent_sign())
      ->check(number_between(0, 100));
}

void add_run_options(CLI::App& app, program_options& o) {
  app.add_option("--rate", o.rate, "send at most so many datagrams per second, 0 for no limit")
      ->check(zero_or_between(k_slowest, k_highest_rate))
      ->capture_default_str();
  app.add_option("--count", o.count, "end after so many datagrams, 0 for no limit")
      ->check(whole_number())
      ->capture_default_str();
  app.add_option("--seconds", o.seconds, "end after publishing for so long, 0 for no limit")
      ->check(number_between(0, k_longest_seconds))
      ->capture_default_str();
  app.add_option("--wait", o.wait_seconds, "seconds before the first datagram")
      ->check(number_between(0, k_longest_seconds))
      ->capture_default_str();
  app.add_flag("--quiet", o.quiet, "no lines about progress");
}

bool is_chosen(const std::vector<std::string>& names, feed which) {
  return names.empty() || std::find(names.begin(), names.end(), name_of(which)) != names.end();
}

// The complaint about the texts; empty when they are good.
std::string take_over(const publishing_texts& texts, publisher_options& o) {
  std::vector<feed_group> groups = default_groups();
  std::array<bool, k_feed_count> changed{};
  for (const std::string& text : texts.groups) {
    std::string error;
    const std::optional<feed_group> group = parse_group(text, error);
    if (!group) return "--group: " + error;
    if (changed[index_of(group->which)]) {
      return fmt::format("--group: {} is given twice", name_of(group->which));
    }
    changed[index_of(group->which)] = true;
    groups[index_of(group->which)] = *group;
  }
  o.groups.clear();
  for (const feed_group& group : groups) {
    if (is_chosen(texts.feeds, group.which)) o.groups.push_back(group);
  }
  return "";
}

int complain(std::string what) {
  std::replace(what.begin(), what.end(), '\n', ' ');
  kav_apps::tell(fmt::format("kav-feed: {}\n", what));
  return k_exit_bad_input;
}

}  // namespace

std::optional<int> parse_command_line(int argc, char** argv, program_options& options) {
  CLI::App app{k_description, "kav-feed"};
  publishing_texts texts;
  app.set_version_flag("--version", "kav-feed " KAV_FEED_VERSION);
  app.footer(k_footer);
  add_source_options(app, options);
  add_group_options(app, options, texts);
  add_network_options(app, options);
  add_run_options(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    return complain(e.what());
  }
  const std::string complaint = take_over(texts, options.publishing);
  if (!complaint.empty()) return complain(complaint);
  options.publishing.seed = options.source.seed;
  options.publishing.disturbed.loss /= 100;
  options.publishing.disturbed.reorder /= 100;
  return std::nullopt;
}

}  // namespace kav_feed
