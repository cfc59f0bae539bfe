#include "bench/side_by_side/library_client.h"

#include <chrono>  // std::chrono::seconds
#include <string>  // std::string

namespace kav_bench {

namespace {

constexpr std::chrono::seconds k_session_limit{30};

template <std::size_t N>
void put_text(char (&field)[N], const std::string& text) {
  field[text.copy(field, N - 1)] = '\0';
}

}  // namespace

void session_event::OnLoginResult(bool success, const char*) {
  const std::lock_guard<std::mutex> hold{m_lock};
  m_told = true;
  m_logged_in = success;
  m_changed.notify_all();
}

void session_event::OnSymbolRegistered(KavKqsIntrumentType, const char*, bool success) {
  const std::lock_guard<std::mutex> hold{m_lock};
  if (success) ++m_registered;
  m_changed.notify_all();
}

bool session_event::wait_for_login() {
  std::unique_lock<std::mutex> hold{m_lock};
  return m_changed.wait_for(hold, k_session_limit, [this] { return m_told; }) && m_logged_in;
}

bool session_event::wait_for_registrations(std::size_t symbols) {
  std::unique_lock<std::mutex> hold{m_lock};
  return m_changed.wait_for(hold, k_session_limit, [&] { return m_registered >= symbols; });
}

library_client::library_client(measurement& whole, std::size_t samples)
    : m_event(whole, samples), m_api(CreateKAVQuoteApi()) {}

library_client::~library_client() { DestroyKAVQuoteApi(m_api); }

bool library_client::connect(unsigned short port) {
  KqsTcpInfo server{};
  put_text(server.m_ServerIp, "127.0.0.1");
  server.m_ServerPort = port;
  KqsLoginParam login{};
  put_text(login.m_UserId, "bench");
  put_text(login.m_Password, "bench");
  return m_api->ConnServer(server, &m_event) && m_api->LoginToKqs(login) != 0;
}

void library_client::register_symbols(std::size_t symbols) {
  for (std::size_t i = 0; i < symbols; ++i) {
    m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>(k_symbol_type), symbol_name(i).c_str());
  }
}

bool library_client::wait_for_registrations(std::size_t symbols) {
  return m_event.wait_for_registrations(symbols);
}

}  // namespace kav_bench
