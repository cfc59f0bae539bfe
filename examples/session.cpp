#include "session.h"

#include <chrono>    // std::chrono::seconds
#include <cstdio>    // std::snprintf
#include <cstdlib>   // std::strtol
#include <iostream>  // std::cerr
#include <utility>   // std::move

namespace {

constexpr std::chrono::seconds k_login_wait{10};  // more than the server's symbol list may take

}  // namespace

session::session(quote_handler handler) : m_handler(std::move(handler)) {}

session::~session() { DestroyKAVQuoteApi(m_api); }

bool session::open(const std::string& address, int port, const std::vector<std::string>& symbols) {
  KqsTcpInfo server = {};
  std::snprintf(server.m_ServerIp, sizeof(server.m_ServerIp), "%s", address.c_str());
  server.m_ServerPort = static_cast<std::uint16_t>(port);
  KqsLoginParam login = {"user", "password"};
  if (!m_api->ConnServer(server, this) || m_api->LoginToKqs(login) == 0) return false;
  if (!wait_for_login()) return false;
  for (const std::string& symbol : symbols) {
    m_api->RegisterSymbol(KavKqsIntrumentTypeNone, symbol.c_str());
  }
  return true;
}

bool session::wait_for_login() {
  std::future<std::string> answered = m_answer.get_future();
  if (answered.wait_for(k_login_wait) != std::future_status::ready) {
    std::cerr << "the server does not answer\n";
    return false;
  }
  const std::string refusal = answered.get();
  if (!refusal.empty()) std::cerr << "login failed: " << refusal << '\n';
  return refusal.empty();
}

void session::OnLoginResult(bool accepted, const char* reason) {
  answer(accepted ? "" : *reason != '\0' ? reason : "refused without a reason");
}

// Behind a login that was refused as well, which has been answered then.
void session::OnServerDisconnected() { answer("connection lost"); }

void session::answer(const std::string& refusal) {
  if (!m_answered.exchange(true)) m_answer.set_value(refusal);
}

void session::OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* quote) { m_handler(*quote); }

void session::OnLog(KavKqsLogLevel level, const char* text, int) {
  if (level == LogLevelError) std::cerr << text << '\n';
}

void session::OnSymbolRegistered(KavKqsIntrumentType, const char* symbol, bool done) {
  if (!done) std::cerr << symbol << ": refused by the server\n";
}

int count_from(const char* text) {
  const long number = std::strtol(text, nullptr, 10);
  return number > 0 && number <= 1'000'000'000 ? static_cast<int>(number) : 0;
}
