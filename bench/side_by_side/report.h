// Shows the book: tables, a JSON file, quantiles for plots.
#pragma once

#include <string>  // std::string

#include "bench/side_by_side/program_options.h"
#include "bench/side_by_side/result_book.h"
#include "tests/support/machine.h"

namespace kav_bench {

using kav_test::machine;

// To standard output; `m` as it was before the first measurement.
void print_tables(const program_options& options, const machine& m, const result_book& book);

// Empty, or why the file or folder could not be written.
std::string write_json(const program_options& options, const machine& m, const result_book& book);
std::string write_quantiles(const program_options& options, const result_book& book);

}  // namespace kav_bench
