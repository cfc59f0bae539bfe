#include "apps/plot/options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>    // std::find, std::replace
#include <charconv>     // std::from_chars
#include <cmath>        // std::llround
#include <optional>     // std::optional
#include <string_view>  // std::string_view
#include <utility>      // std::move

#include "apps/watch/command_line.h"
#include "apps/watch/text_safety.h"

namespace kav_plot {
namespace {

constexpr std::size_t k_most_symbols = 4;  // more cannot be read side by side
constexpr unsigned k_least_pixels = 300, k_most_pixels = 10'000;
constexpr double k_shortest_gap = 0.1, k_longest_gap = 1440;  // minutes

constexpr char k_footer[] =
    R"(FILE is comma-separated text, plain or packed with gzip, whose first line names the columns, as
kav-record writes it and kav-sim replays it. Each symbol gets a column of three panels: last price
with bid and ask, lots traded, open interest. Breaks in trading are left out: the sessions of the
night, the morning and the afternoon stand side by side. Single quotes far from all others, such as
those that an exchange sends before it opens, are left out too, which is told.

Examples:
  kav-plot quotes-20170420.csv.gz --list
  kav-plot quotes-20170420.csv.gz rb2510 -o rb2510.png
  kav-plot quotes-20170420.csv.gz rb2510 IF2509 -o day.svg --size 1600x900

Exit statuses:
  0  the picture is there; or --list, --help, --version
  1  unexpected error
  2  bad option
  3  FILE cannot be read, or is no tick file
  4  FILE has no quotes of a symbol
  5  gnuplot is missing or failed
  6  the picture could not be written)";

struct raw_options {
  plot_options options;
  std::string size;
  double gap_minutes = 10;
};

outcome bad_option(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return {exit_status::bad_option,
          kav_watch::printable_text(text) + "; kav-plot --help shows how to use it"};
}

void declare(CLI::App& app, raw_options& raw) {
  plot_options& options = raw.options;
  app.add_option("file", options.path, "Recorded quotes")->type_name("FILE")->required();
  app.add_option("symbols", options.symbols, "Symbols to draw, side by side, 4 at most")
      ->type_name("SYMBOL");
  app.add_option("-o,--output", options.picture.path,
                 "The picture, PNG or SVG by its ending; one that is there is replaced")
      ->type_name("FILE.png|FILE.svg");
  app.add_flag("--list", options.list_only, "Print the symbols of FILE and their quotes, then end");
  app.add_option("--gap", raw.gap_minutes,
                 "Minutes of silence, 0.1 to 1440, from which on it is a break")
      ->type_name("MINUTES")
      ->capture_default_str();
  app.add_option("--size", raw.size,
                 "Pixels of the picture, 300 to 10000 each (default: 1100x720 for one symbol, 760 "
                 "in width for each of several)")
      ->type_name("WIDTHxHEIGHT");
}

std::optional<picture_kind> kind_of(const std::string& path) {
  const std::string_view text{path};
  if (text.size() > 4 && text.ends_with(".png")) return picture_kind::png;
  if (text.size() > 4 && text.ends_with(".svg")) return picture_kind::svg;
  return std::nullopt;
}

bool parse_pixels(std::string_view text, unsigned& pixels) {
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), pixels);
  return code == std::errc{} && end == text.data() + text.size() && pixels >= k_least_pixels &&
         pixels <= k_most_pixels;
}

bool parse_size(std::string_view text, picture_options& picture) {
  const std::size_t cross = text.find('x');
  return cross != std::string_view::npos && parse_pixels(text.substr(0, cross), picture.width) &&
         parse_pixels(text.substr(cross + 1), picture.height);
}

std::string complaint(const plot_options& options, const std::optional<picture_kind>& kind) {
  if (options.list_only) return "";
  if (options.symbols.empty()) return "no symbol to draw; --list shows those of the file";
  if (options.symbols.size() > k_most_symbols) {
    return fmt::format("{} symbols; 4 is the most for one picture", options.symbols.size());
  }
  for (auto name = options.symbols.begin(); name != options.symbols.end(); ++name) {
    if (std::find(options.symbols.begin(), name, *name) != name) return *name + " is named twice";
  }
  if (options.picture.path.empty())
    return "no picture to write: give --output FILE.png or FILE.svg";
  if (!kind) return "--output: '" + options.picture.path + "' ends neither in .png nor in .svg";
  return "";
}

parsed_options judge(raw_options raw) {
  plot_options& options = raw.options;
  const std::optional<picture_kind> kind = kind_of(options.picture.path);
  const std::string wrong = complaint(options, kind);
  if (!wrong.empty()) return bad_option(wrong);
  if (!(raw.gap_minutes >= k_shortest_gap && raw.gap_minutes <= k_longest_gap)) {  // nan too
    return bad_option("--gap: give a number of minutes from 0.1 to 1440");
  }
  if (!raw.size.empty() && !parse_size(raw.size, options.picture)) {
    return bad_option("--size: '" + raw.size + "' is no WIDTHxHEIGHT such as 1100x720");
  }
  options.picture.kind = kind.value_or(picture_kind::png);
  options.picture.gap_ms = std::llround(raw.gap_minutes * 60'000);
  return std::move(options);
}

}  // namespace

parsed_options parse_options(int argc, const char* const* argv) {
  raw_options raw;
  CLI::App app{"Draws recorded quotes: price, volume and open interest of a day.", "kav-plot"};
  app.footer(k_footer);
  app.set_version_flag("--version", "kav-plot " KAV_PLOT_VERSION);
  declare(app, raw);
  const auto end = kav_watch::end_of_parsing<parsed_options>(app, argc, argv, bad_option);
  if (end) return *end;
  return judge(std::move(raw));
}

}  // namespace kav_plot
