#include "tests/faults/stage.h"

#include <cstring>  // memcpy

#include "apps/sim/wire.h"
#include "tests/support/wait_until.h"

namespace kav_faults {

namespace {

constexpr milliseconds k_batch{1};

}  // namespace

KAVMarketDepthQuoteData numbered_quote(double number) {
  KAVMarketDepthQuoteData quote{};
  std::memcpy(quote.InstrumentID, k_symbol, sizeof k_symbol);
  quote.LastPrice = number;
  return quote;
}

std::string quote_bytes(double number) {
  return kav_sim::quote_message('1', numbered_quote(number), kav_sim::text_fill::zero);
}

kav_sim::server_options plain_options(const char* ip) {
  kav_sim::server_options options;
  options.bind_address = ip;
  options.symbols = {{k_symbol, '1'}};
  options.record_received = false;
  return options;
}

quote_feed::quote_feed(kav_sim::quote_server& server, unsigned per_second)
    : m_server(server), m_thread([this, per_second] { run(per_second); }) {}

void quote_feed::stop() {
  m_stop.store(true);
  if (m_thread.joinable()) m_thread.join();
}

void quote_feed::run(unsigned per_second) {
  const clock::time_point begin = clock::now();
  std::uint64_t offered = 0;
  while (!m_stop.load()) {
    const double passed = seconds_between(begin, clock::now());
    const auto due = static_cast<std::uint64_t>(passed * per_second);
    for (; offered < due; ++offered) {
      const auto next = static_cast<double>(m_sent.load() + 1);
      if (m_server.push_quote(numbered_quote(next), '1').queued > 0) ++m_sent;
    }
    std::this_thread::sleep_for(k_batch);
  }
}

stage::stage(kav_sim::server_options options) : server(std::move(options)) {}

bool stage::open(fault_result& result) {
  return result.expect(server.start(), "the server starts: " + server.start_error()) &&
         result.expect(client.log_in(server.port()), "the first login succeeds") &&
         result.expect(client.register_symbol(k_symbol), "the symbol is registered");
}

void measure_return(fault_result& result, const caller& events, clock::time_point from,
                    const std::string& notice, milliseconds limit) {
  const clock::time_point end = clock::now() + limit;
  const auto left = [&] { return std::chrono::duration_cast<milliseconds>(end - clock::now()); };
  wait_until([&] { return events.first_after(from, notice).has_value(); }, left());
  result.noticed_s = events.first_after(from, notice);
  if (!result.noticed_s) return;
  const auto noticed = from + std::chrono::duration_cast<clock::duration>(
                                  std::chrono::duration<double>(*result.noticed_s));
  wait_until([&] { return events.first_after(noticed, "OnQuote").has_value(); }, left());
  if (const auto flowed = events.first_after(noticed, "OnQuote")) {
    result.quotes_s = *result.noticed_s + *flowed;
  }
  result.calls = events.calls_since(from);
}

}  // namespace kav_faults
