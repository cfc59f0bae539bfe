// What is measured, and how it goes into the book.
#pragma once

#include <string>  // std::string
#include <vector>  // std::vector

#include "bench/side_by_side/program_options.h"
#include "bench/side_by_side/result_book.h"

namespace kav_bench {

struct scenario {
  const char* name;
  // One round over the receivers. Empty, or why it failed.
  std::string (*run_round)(const scenario& which, const program_options& options, unsigned round,
                           result_book& book);
  bool library_once = false;  // only the library's client, once, whatever --rounds says
};

const std::vector<scenario>& all_scenarios();

// All rounds of all scenarios that the options name. Empty, or why it failed.
std::string run_scenarios(const program_options& options, result_book& book);

}  // namespace kav_bench
