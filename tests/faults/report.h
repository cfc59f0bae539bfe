// The results as a table and as a JSON file.
#pragma once

#include <map>     // std::map
#include <string>  // std::string

#include "tests/faults/fault.h"
#include "tests/support/machine.h"

namespace kav_faults {

using results = std::map<std::string, fault_result>;  // by the faults' names

void print_table(const results& all);
// An error text, empty when it is written. `on`: the machine when the measuring began.
std::string write_json(const std::string& path, const kav_test::machine& on, const results& all);

}  // namespace kav_faults
