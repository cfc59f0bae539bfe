#include "apps/sim/source_choice.h"

#include <fmt/format.h>

#include <cstring>  // std::strcmp, std::memset
#include <ctime>    // localtime_r
#include <utility>  // std::move
#include <vector>   // std::vector

#include "apps/sim/market.h"
#include "apps/sim/tick_file.h"

namespace kav_sim {

namespace {

market_options market_of(const source_choice& choice) {
  market_options m;
  m.seed = choice.seed;
  m.rate = choice.rate;
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  m.trading_day =
      fmt::format("{:04}{:02}{:02}", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
  m.start_ms = ((local.tm_hour * 60 + local.tm_min) * 60 + local.tm_sec) * 1000LL;
  return m;
}

// Recordings hold the names that clients give to the gold exchange's contracts.
void use_gold_codes(std::vector<tick>& ticks) {
  for (tick& each : ticks) {
    char* const symbol = each.record.InstrumentID;
    for (const contract_terms& terms : market_contracts()) {
      if (terms.type != k_type_gold || std::strcmp(symbol, terms.exchange_name) != 0) continue;
      std::memset(symbol, 0, sizeof(each.record.InstrumentID));
      symbol[0] = terms.symbol[0];  // one character
      each.type = k_type_gold;
    }
  }
}

}  // namespace

std::unique_ptr<tick_source> make_source(const source_choice& choice, std::string& error) {
  if (choice.tick_path.empty()) return std::make_unique<market>(market_of(choice));
  std::vector<tick> ticks;
  if (!read_tick_file(choice.tick_path, ticks, error)) return nullptr;
  if (choice.gold_codes) use_gold_codes(ticks);
  return std::make_unique<tick_replay>(std::move(ticks), choice.loop);
}

}  // namespace kav_sim
