// Whole sessions over loopback: a client that connects and logs in, and a server that says
// anything. Slow, and nothing to compare with: what is looked at is that texts end, that records
// can be read, and that the client always comes to its end.
#include <memory>    // std::unique_ptr
#include <optional>  // std::optional

#include "tests/fuzz/local_server.h"
#include "tests/fuzz/server_bytes.h"

namespace {

using kav_fuzz::fuzz_input;

constexpr std::size_t k_most_steps = 30;
constexpr std::size_t k_login_bytes = 56, k_query_bytes = 8;
constexpr KavKqsIntrumentType k_future = static_cast<KavKqsIntrumentType>('1');

std::string padded(const char* text, std::size_t size) {
  std::string message = text;
  message.resize(size, '\0');
  return message;
}

struct client_deleter {
  void operator()(KAVQuoteApi* client) const { DestroyKAVQuoteApi(client); }
};

class session_check {
 public:
  session_check() : m_client(CreateKAVQuoteApi()) {
    KqsTcpInfo server = listener().endpoint();
    KAV_CHECK(m_client->ConnServer(server, &m_events));
    m_server.emplace(listener().accept());
    KqsLoginParam login{"trader", "abc"};
    KAV_CHECK(m_client->LoginToKqs(login) == 1);
    m_server->receive(k_login_bytes);
  }

  // As a server does that is in order.
  void accept_login() {
    m_server->send(padded("AY", 24));
    m_server->receive(k_query_bytes);
    m_server->send(padded("M001IF2509", 32) + padded("M0020", 32) + padded("M01", 32));
    KAV_CHECK(m_events.wait_login_result());
    m_client->RegisterSymbol(k_future, "IF2509");
    m_client->RegisterSymbol(k_future, "Au(T+D)");
  }

  // False: the connection is over.
  bool step(fuzz_input& input) {
    const unsigned choice = input.take_byte();
    switch (choice) {
      case 0xF0:
        m_server->finish();
        return false;
      case 0xF1:
        m_server->reset();
        return false;
      case 0xF2:
        m_client->QuerySymbolList();
        return true;
      case 0xF3:
        m_client->UnregisterSymbol(k_future, "IF2509");
        return true;
      case 0xF4:
        m_client->DisConnServer();
        return false;
      case 0xF5:
        std::this_thread::yield();  // another moment for the cut
        return true;
      default:
        return m_server->send(kav_fuzz::take_server_piece(input));
    }
  }

 private:
  static kav_fuzz::local_listener& listener() {
    static kav_fuzz::local_listener& one = *new kav_fuzz::local_listener;
    return one;
  }

  kav_fuzz::checking_event m_events;
  std::optional<kav_fuzz::server_end> m_server;
  const std::unique_ptr<KAVQuoteApi, client_deleter> m_client;  // first to go
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  session_check check;
  if (input.take_byte() % 2 == 0) check.accept_login();
  for (std::size_t i = 0; i < k_most_steps && !input.is_empty(); ++i) {
    if (!check.step(input)) break;
  }
  return 0;
}
