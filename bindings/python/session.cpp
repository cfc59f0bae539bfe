#include "bindings/python/session.h"

#include <pthread.h>  // pthread_atfork
#include <strings.h>  // explicit_bzero

#include <atomic>     // std::atomic
#include <cstring>    // std::memcpy
#include <stdexcept>  // std::invalid_argument
#include <utility>    // std::exchange

namespace kav_python {
namespace {

constexpr std::chrono::milliseconds k_ask_again{10};

// How often this process has been forked from another one since the library was loaded.
std::atomic<unsigned> g_forks{0};

unsigned forks() {
  [[maybe_unused]] static const int watched =
      ::pthread_atfork(nullptr, nullptr, [] { g_forks.fetch_add(1, std::memory_order_relaxed); });
  return g_forks.load(std::memory_order_relaxed);
}

template <std::size_t N>
void put_text(char (&field)[N], const std::string& text, const char* what) {
  if (text.size() >= N || text.find('\0') != std::string::npos) {
    throw std::invalid_argument(std::string{what} + " has at most " + std::to_string(N - 1) +
                                " bytes and no NUL");
  }
  std::memcpy(field, text.data(), text.size());
}

// Wiped on every way out.
struct login_record {
  login_record() = default;
  ~login_record() { ::explicit_bzero(fields.m_Password, sizeof(fields.m_Password)); }
  login_record(const login_record&) = delete;
  login_record& operator=(const login_record&) = delete;

  KqsLoginParam fields{};
};

}  // namespace

session::session(const std::string& address, unsigned short port, std::size_t capacity,
                 when_full policy)
    : m_forks(forks()), m_events(capacity, policy), m_client(nullptr) {
  put_text(m_server.m_ServerIp, address, "an address");
  m_server.m_ServerPort = port;
  m_client = CreateKAVQuoteApi();
}

session::~session() { close(); }

bool session::is_of_this_process() const { return m_forks == forks(); }

template <class Operation>
void session::with_client(Operation operation) {
  const std::shared_lock lock(m_use);
  if (m_client != nullptr) operation(*m_client);
}

void session::connect() {
  with_client([this](KAVQuoteApi& client) {
    m_connector = std::thread(
        [this, &client] { m_events.set_connected(client.ConnServer(m_server, &m_events)); });
  });
}

bool session::login(const std::string& user, const std::string& password) {
  login_record login;
  put_text(login.fields.m_UserId, user, "a user name");
  put_text(login.fields.m_Password, password, "a password");
  bool sent = false;
  with_client([&](KAVQuoteApi& client) { sent = client.LoginToKqs(login.fields) != 0; });
  return sent;
}

void session::query_symbols() {
  with_client([](KAVQuoteApi& client) { client.QuerySymbolList(); });
}

void session::register_symbol(KavKqsIntrumentType type, const std::string& symbol) {
  with_client([&](KAVQuoteApi& client) { client.RegisterSymbol(type, symbol.c_str()); });
}

void session::unregister_symbol(KavKqsIntrumentType type, const std::string& symbol) {
  with_client([&](KAVQuoteApi& client) { client.UnregisterSymbol(type, symbol.c_str()); });
}

// Asked again and again, since the connector may not have entered ConnServer() yet.
void session::end_connector(KAVQuoteApi& client) {
  if (!m_connector.joinable()) return;
  while (!m_events.facts().connected) {
    client.DisConnServer();
    m_events.wait_for_change(m_events.changes(), std::chrono::steady_clock::now() + k_ask_again);
  }
  m_connector.join();
}

void session::close() {
  std::call_once(m_closing, [this] {
    m_events.close();
    KAVQuoteApi* client = nullptr;
    {
      const std::lock_guard lock(m_use);
      client = std::exchange(m_client, nullptr);
    }
    end_connector(*client);
    DestroyKAVQuoteApi(client);
    m_events.end_log();
  });
}

}  // namespace kav_python
