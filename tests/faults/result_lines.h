// A result as lines of text, for the way from one process to another.
#pragma once

#include <string>  // std::string

#include "tests/faults/fault.h"

namespace kav_faults {

// One line each: "noticed 1.5", "call OnQuote", "figure name<TAB>value<TAB>unit", ...
std::string to_lines(const fault_result& result);
// Adds what the lines say; others are left out.
void add_lines(fault_result& result, const std::string& lines);

}  // namespace kav_faults
