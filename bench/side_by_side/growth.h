// How the library's client grows with clients and symbols.
#pragma once

#include <string>  // std::string

#include "bench/side_by_side/program_options.h"
#include "bench/side_by_side/result_book.h"

namespace kav_bench {

// The names of its two tables in the book.
constexpr const char* k_growth_clients = "growth-clients";
constexpr const char* k_growth_symbols = "growth-symbols";

// 1 to 100 clients in one process and 10 to 10,000 symbols of one client, each at 1,000 messages a
// second in all. Empty, or why it failed.
std::string measure_growth(const program_options& options, result_book& book);

}  // namespace kav_bench
