// How the programs parse their command lines.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>  // std::optional
#include <string>    // std::string

#include "apps/watch/information.h"

namespace kav_watch {

// Parses; gives what ends the program at once, if anything does: the help or the version, or what
// `bad_option` makes of a complaint.
template <typename PARSED, typename COMPLAIN>
std::optional<PARSED> end_of_parsing(CLI::App& app, int argc, const char* const* argv,
                                     COMPLAIN bad_option) {
  try {
    app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::CallForHelp&) {
    return information{app.help()};
  } catch (const CLI::CallForVersion& version) {
    return information{std::string{version.what()} + "\n"};
  } catch (const CLI::ParseError& error) {
    return bad_option(error.what());
  }
}

}  // namespace kav_watch
