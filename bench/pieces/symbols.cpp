#include "bench/pieces/symbols.h"

#include <algorithm>         // std::shuffle
#include <initializer_list>  // std::initializer_list
#include <random>            // std::mt19937

namespace kav_bench {

namespace {

// How an exchange writes the month: four digits, or three without the decade.
struct product_list {
  std::initializer_list<const char*> products;
  bool three_digits;
  const char* call;  // between month and strike
  const char* put;
};

const product_list k_exchanges[] = {
    {{"cu", "al", "zn", "pb", "ni", "sn", "au", "ag", "rb", "hc", "fu",
      "bu", "ru", "sp", "ss", "ao", "br", "sc", "nr", "lu", "bc"},
     false,
     "C",
     "P"},
    {{"IF", "IC", "IH", "IM", "TS", "TF", "T", "TL", "IO", "MO", "HO"}, false, "-C-", "-P-"},
    {{"a",  "b", "m",  "y", "p",  "c",  "cs", "jd", "lh", "l", "v",
      "pp", "j", "jm", "i", "eg", "eb", "pg", "rr", "si", "lc"},
     false,
     "-C-",
     "-P-"},
    {{"SR", "CF", "TA", "MA", "FG", "RM", "OI", "ZC", "SF", "SM", "AP", "CJ", "UR", "SA", "PF",
      "PK", "SH", "PX", "CY"},
     true,
     "C",
     "P"},
};

constexpr int k_months[] = {2509, 2510, 2511, 2512, 2601, 2602, 2603, 2605, 2607, 2608};
constexpr int k_strikes = 13;

std::vector<std::string> futures(const product_list& exchange) {
  std::vector<std::string> result;
  for (const char* product : exchange.products) {
    for (const int month : k_months) {
      result.push_back(product + std::to_string(exchange.three_digits ? month % 1000 : month));
    }
  }
  return result;
}

std::vector<std::string> options(const product_list& exchange) {
  std::vector<std::string> result;
  for (const std::string& future : futures(exchange)) {
    for (int i = 0; i < k_strikes; ++i) {
      const std::string strike = std::to_string(5800 + 100 * i);
      result.push_back(std::string(future).append(exchange.call).append(strike));
      result.push_back(std::string(future).append(exchange.put).append(strike));
    }
  }
  return result;
}

}  // namespace

std::vector<std::string> contract_symbols(std::size_t count) {
  std::mt19937 dice(1);
  std::vector<std::string> result;
  for (auto* list : {futures, options}) {
    std::vector<std::string> listed;
    for (const product_list& exchange : k_exchanges) {
      for (std::string& symbol : list(exchange)) listed.push_back(std::move(symbol));
    }
    std::shuffle(listed.begin(), listed.end(), dice);
    result.insert(result.end(), listed.begin(), listed.end());
  }
  result.resize(count);
  std::shuffle(result.begin(), result.end(), dice);
  return result;
}

}  // namespace kav_bench
