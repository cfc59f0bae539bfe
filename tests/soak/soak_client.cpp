#include "tests/soak/soak_client.h"

#include <cstring>      // memcpy, strncmp
#include <string_view>  // std::string_view

#include "tests/support/wait_until.h"

namespace kav_soak {

namespace {

constexpr auto k_type = static_cast<KavKqsIntrumentType>('1');
constexpr int k_changes = 3;  // at once

}  // namespace

void soak_events::OnServerDisconnected() { gave_up.fetch_add(1); }

void soak_events::OnLoginResult(bool success, const char*) {
  if (!success) return;
  session_begins();
  logged_in.store(true);
}

// Random bytes may look like a quote; only those that the server made are counted.
void soak_events::OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* quote) {
  const int number = symbol_number(quote->InstrumentID);
  if (number < 0 || std::strncmp(quote->ExchangeID, k_exchange, sizeof k_exchange) != 0) return;
  const double count = quote->LastPrice;
  double& last = m_last[number];
  if (count <= last) out_of_order.fetch_add(1, std::memory_order_relaxed);
  last = count;
  quotes.fetch_add(1, std::memory_order_relaxed);
}

void soak_events::OnLog(KavKqsLogLevel, const char* text, int) {
  const std::string_view line{text};
  if (line.starts_with("[QuoteClient] relogin success")) session_begins();
  if (line.starts_with("[on_cache_callback] EVENT_REMOTE_DISCONNECT")) session_ends();
  if (line.starts_with("[QuoteClient] _th_kqc_send_and_reconn end")) gave_up.fetch_add(1);
}

// Random bytes may look like an accepted login, too.
void soak_events::session_begins() {
  if (m_in_session.exchange(true)) return;
  m_quotes_before.store(quotes.load());
  sessions.fetch_add(1);
}

void soak_events::session_ends() {
  if (!m_in_session.exchange(false)) return;
  if (quotes.load() == m_quotes_before.load()) silent_sessions.fetch_add(1);
}

soak_client::soak_client(std::uint64_t seed)
    : m_api(CreateKAVQuoteApi()), m_random(seed), m_wanted(k_symbols) {}

soak_client::~soak_client() { DestroyKAVQuoteApi(m_api); }

bool soak_client::log_in(unsigned short port, std::chrono::milliseconds limit) {
  KqsTcpInfo server{};
  std::memcpy(server.m_ServerIp, "127.0.0.1", sizeof "127.0.0.1");
  server.m_ServerPort = port;
  KqsLoginParam login{};
  std::memcpy(login.m_UserId, "soak", sizeof "soak");
  std::memcpy(login.m_Password, "soak", sizeof "soak");
  if (!m_api->ConnServer(server, &m_events) || m_api->LoginToKqs(login) == 0) return false;
  if (!wait_until([&] { return m_events.logged_in.load(); }, limit)) return false;
  for (int i = 0; i < k_steady_symbols; ++i) m_api->RegisterSymbol(k_type, symbol_name(i).c_str());
  return true;
}

void soak_client::change_registrations() {
  std::uniform_int_distribution<int> any{k_steady_symbols, k_symbols - 1};
  for (int i = 0; i < k_changes; ++i) {
    const int number = any(m_random);
    const auto at = static_cast<std::size_t>(number);
    m_wanted[at] = !m_wanted[at];
    const std::string name = symbol_name(number);
    m_wanted[at] ? m_api->RegisterSymbol(k_type, name.c_str())
                 : m_api->UnregisterSymbol(k_type, name.c_str());
  }
}

}  // namespace kav_soak
