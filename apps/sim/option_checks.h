// Checks of option values that CLI11 lacks; for the command lines of the programs.
#pragma once

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cmath>   // std::isfinite
#include <string>  // std::string

namespace kav_sim {

// Finite and within bounds; CLI::Range takes "nan".
inline CLI::Validator number_between(double low, double high) {
  return CLI::Validator{[low, high](std::string& text) {
                          double value = 0;
                          if (!CLI::detail::lexical_cast(text, value) || !std::isfinite(value) ||
                              value < low || value > high) {
                            return fmt::format("{} is no number from {} to {}", text, low, high);
                          }
                          return std::string{};
                        },
                        fmt::format("{}-{}", low, high)};
}

// CLI11 lets a minus sign wrap an unsigned number round.
inline CLI::Validator whole_number() {
  return CLI::Validator{
      [](std::string& text) {
        const bool digits = !text.empty() && text.find_first_not_of("0123456789") == text.npos;
        return digits ? std::string{} : fmt::format("{} is no whole number", text);
      },
      "WHOLE"};
}

}  // namespace kav_sim
