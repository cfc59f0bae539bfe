// The end of a program whose command line asks for help or is wrong.
#pragma once

#include <CLI/CLI.hpp>
#include <algorithm>  // std::replace
#include <cstdio>     // std::printf, std::fprintf
#include <optional>   // std::optional
#include <string>     // std::string

namespace kav_test {

// Parses. The exit status when the program is to end at once: 0 after --help, `bad_option` after
// one line to standard error.
inline std::optional<int> end_of_parsing(CLI::App& app, int argc, char** argv, int bad_option) {
  try {
    app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::CallForHelp&) {
    std::printf("%s", app.help().c_str());
    return 0;
  } catch (const CLI::ParseError& error) {
    std::string what = error.what();
    std::replace(what.begin(), what.end(), '\n', ' ');
    std::fprintf(stderr, "%s: %s; --help shows the options\n", app.get_name().c_str(),
                 what.c_str());
    return bad_option;
  }
}

}  // namespace kav_test
