#include "apps/decode/options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>     // std::replace
#include <charconv>      // std::from_chars
#include <system_error>  // std::errc
#include <vector>        // std::vector

#include "apps/feed/default_groups.h"
#include "apps/watch/command_line.h"
#include "apps/watch/text_safety.h"

namespace kav_decode {
namespace {

constexpr char k_footer[] = R"(Examples:
  tcpdump -i eth0 -w feed.pcap 'udp and net 239.255.0.0/16'   # take a capture
  kav-decode feed.pcap > quotes.csv
  kav-decode feed.pcap --summary-only                   # which groups and records does it have?
  kav-decode feed.pcap --group 239.1.2.3:5000=CFFEX --group 239.1.2.4=LUMEN --symbol IF2509
  kav-decode feed.pcapng --format json --time | jq .CaptureTime
  zcat feed.pcap.gz | kav-decode -
  tcpdump -U -i eth0 -w - udp | kav-decode -            # lines as soon as they come

Captures:
  pcap and pcapng of Ethernet (VLAN tags too), Linux cooked, loopback or raw IP packets. Only whole
  UDP datagrams over IPv4 are decoded; fragments are not joined. Capture whole packets: those that
  the snapshot length cut short are counted, never decoded. The packets of one pcapng file must all
  be of the same link type.

Lines:
  The same as those of kav-watch: csv is a header line, then one line per quote; json is one object
  per line. In both, 0 and empty texts mean that the source gave no value. Lumen records carry parts
  of quotes: each line shows all that is known of its symbol up to there. Quotes of SHFE and INE
  groups have the ExchangeID CFFEX, as the library delivers them.

Exit statuses:
  0  the capture was decoded to its end or up to --count; or the reader of the output went away
  1  unexpected error, or the output could not be written
  2  bad option
  3  the file cannot be read, is no capture or has packets of another link type
  4  the capture ends in the middle of a packet, or is damaged or of mixed link types from some
     packet on; all before it was decoded)";

// What CLI11 fills before it is checked further.
struct raw_options {
  std::string path;
  std::vector<std::string> groups, symbols;
  std::string format = "csv";
  bool time = false, summary_only = false, quiet = false;
  std::uint64_t count = 0;
};

// CLI11's own complains with all digits of the largest double.
CLI::Validator count_validator() {
  return {[](std::string& text) {
            std::uint64_t count = 0;
            const auto [rest, error] =
                std::from_chars(text.data(), text.data() + text.size(), count);
            const bool valid = error == std::errc{} && *rest == '\0' && count > 0;
            return valid ? std::string{} : fmt::format("'{}' is no number from 1 on", text);
          },
          ""};
}

std::string default_groups_text() {
  std::string text;
  for (const kav_feed::default_group& row : kav_feed::k_default_groups) {
    text += fmt::format("{}{}:{}={}", text.empty() ? "" : ", ", row.group, row.port, row.exchange);
  }
  return text;
}

void declare_options(CLI::App& app, raw_options& raw) {
  app.add_option("FILE", raw.path, "Capture to decode; - for standard input")
      ->type_name(" ")
      ->required();
  app.add_option("--group", raw.groups,
                 fmt::format("The exchange whose records a group carries, for every port when none "
                             "is given; repeat it for each group. EXCHANGE is one of {}; LUMEN "
                             "means lumen records only, which every group may carry. Without "
                             "--group: {}",
                             exchange_names(), default_groups_text()))
      ->type_name("GROUP[:PORT]=EXCHANGE")
      ->allow_extra_args(false);
  app.add_option("--symbol", raw.symbols, "Write only quotes of this symbol; may be repeated")
      ->type_name("NAME")
      ->allow_extra_args(false);
  app.add_option("--format", raw.format, "csv or json")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"csv", "json"}).description(""))
      ->capture_default_str();
  app.add_flag("--time", raw.time,
               "Begin each line with CaptureTime: when the packet was captured, in seconds since "
               "1970-01-01 UTC with nine decimals");
  app.add_option("--count", raw.count, "End after this many quotes")
      ->type_name("N")
      ->check(count_validator());
  app.add_flag("--summary-only,--no-output", raw.summary_only, "Write no quotes, only the summary");
  app.add_flag("--quiet", raw.quiet, "No summary on standard error");
}

std::string one_line(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return kav_watch::printable_text(text);
}

outcome bad_option(const std::string& text) {
  return {exit_status::bad_option, one_line(text) + "; kav-decode --help shows how to use it"};
}

parsed_options accept(const CLI::App& app, const raw_options& raw) {
  decode_options options;
  options.path = raw.path;
  for (const std::string& group : raw.groups) {
    const std::string wrong = options.groups.add(group);
    if (!wrong.empty()) return bad_option("--group: " + wrong);
  }
  if (options.groups.is_empty()) options.groups = group_table::defaults();
  options.symbols = {raw.symbols.begin(), raw.symbols.end()};
  options.format = raw.format == "json" ? output_format::json : output_format::csv;
  options.time = raw.time;
  options.summary_only = raw.summary_only;
  options.quiet = raw.quiet;
  if (app.count("--count") > 0) options.count = raw.count;
  return options;
}

}  // namespace

parsed_options parse_options(int argc, const char* const* argv) {
  raw_options raw;
  CLI::App app{"Decodes captured multicast datagrams to quotes.", "kav-decode"};
  app.footer(k_footer);
  app.set_version_flag("--version", "kav-decode " KAV_DECODE_VERSION);
  declare_options(app, raw);
  const auto end = kav_watch::end_of_parsing<parsed_options>(app, argc, argv, bad_option);
  if (end) return *end;
  return accept(app, raw);
}

}  // namespace kav_decode
