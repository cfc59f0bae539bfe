// Contracts as the Chinese futures exchanges name them.
#pragma once

#include <cstddef>  // std::size_t
#include <string>   // std::string
#include <vector>   // std::vector

namespace kav_bench {

// `count` different ones in a random order that is the same in every run: futures as far as they
// go, then options (up to about 20,000 in all).
std::vector<std::string> contract_symbols(std::size_t count);

}  // namespace kav_bench
