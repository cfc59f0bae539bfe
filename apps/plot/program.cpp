#include "apps/plot/program.h"

#include <fmt/format.h>
#include <unistd.h>  // getpid

#include <cerrno>      // errno
#include <cstdio>      // std::rename, std::remove
#include <cstring>     // std::strerror
#include <exception>   // std::exception
#include <filesystem>  // std::filesystem::file_size
#include <string>      // std::string
#include <variant>     // std::get_if

#include "apps/plot/gnuplot.h"
#include "apps/plot/options.h"
#include "apps/plot/tick_series.h"
#include "apps/standard_error.h"
#include "apps/watch/text_safety.h"

namespace kav_plot {
namespace {

constexpr std::size_t k_named_symbols = 20;  // in one message

void note(const std::string& text) { kav_apps::tell(fmt::format("kav-plot: {}\n", text)); }

int finish(const outcome& end) {
  if (!end.message.empty()) note(end.message);
  return static_cast<int>(end.status);
}

int print(const std::string& text) {
  if (std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0) return 0;
  return finish({exit_status::write_failed,
                 fmt::format("cannot write the output: {}", std::strerror(errno))});
}

std::string list_of(const tick_contents& contents) {
  std::string text;
  for (const auto& [symbol, quotes] : contents.counts) {
    text += fmt::format("{}\t{}\n", kav_watch::printable_text(symbol), quotes);
  }
  return text;
}

outcome missing_symbols(const plot_options& options, const tick_contents& contents) {
  std::vector<std::string> missing, present;
  for (const tick_series& series : contents.series) {
    if (series.points.empty()) missing.push_back(series.symbol);
  }
  if (missing.empty()) return {};
  for (const auto& [symbol, quotes] : contents.counts) present.push_back(symbol);
  const std::string text = fmt::format("{} has no quotes of {}; it has those of {}", options.path,
                                       kav_watch::first_texts(missing, k_named_symbols),
                                       kav_watch::first_texts(present, k_named_symbols));
  return {exit_status::unknown_symbol, kav_watch::printable_text(text)};
}

// Into a file beside the picture first: a failure leaves what was there.
outcome draw(const plot_options& options, const tick_contents& contents) {
  picture_options picture = options.picture;
  picture.path += fmt::format(".{}.part", ::getpid());
  std::size_t strays = 0;
  const std::string script = picture_script(contents.series, picture, strays);
  std::FILE* const probe = std::fopen(picture.path.c_str(), "wb");
  if (probe == nullptr || std::fclose(probe) != 0) {
    return {exit_status::write_failed,
            fmt::format("cannot write {}: {}; give --output a place that can be written to",
                        options.picture.path, std::strerror(errno))};
  }
  outcome end = run_gnuplot(script);
  std::error_code error;
  const bool drawn = end.status == exit_status::ended_well &&
                     std::filesystem::file_size(picture.path, error) > 0 && !error;
  if (drawn && std::rename(picture.path.c_str(), options.picture.path.c_str()) == 0) {
    if (strays > 0) note(fmt::format("{} quotes far from all others are left out", strays));
    return {};
  }
  if (end.status == exit_status::ended_well) {
    end = {exit_status::write_failed,
           fmt::format("cannot write {}; is the disk full?", options.picture.path)};
  }
  std::remove(picture.path.c_str());
  return end;
}

outcome plot(const plot_options& options) {
  tick_contents contents;
  std::string error;
  if (!read_series(options.path, options.symbols, contents, error)) {
    return {exit_status::unreadable, error};
  }
  if (contents.cut_off) {
    note(fmt::format("{}: the packed file ends too early; what came before is used", options.path));
  }
  if (options.list_only) return {exit_status{print(list_of(contents))}, ""};
  outcome missing = missing_symbols(options, contents);
  return missing.status == exit_status::ended_well ? draw(options, contents) : missing;
}

int run(int argc, const char* const* argv) {
  const parsed_options parsed = parse_options(argc, argv);
  if (const auto* end = std::get_if<outcome>(&parsed)) return finish(*end);
  if (const auto* text = std::get_if<information>(&parsed)) return print(text->text);
  return finish(plot(std::get<plot_options>(parsed)));
}

}  // namespace

int run_program(int argc, const char* const* argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    return finish({exit_status::unexpected, std::string{"unexpected error: "} + error.what()});
  }
}

}  // namespace kav_plot
