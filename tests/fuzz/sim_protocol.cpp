// The simulator's server against the bytes of one hostile client, in pieces as they arrive.
#include <sys/socket.h>  // socketpair, send, recv

#include <set>  // std::set

#include "apps/sim/quote_server_impl.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

using kav_fuzz::fuzz_input;
using kav_sim::quote_server;
using kav_sim::text_fill;

constexpr std::size_t k_most_steps = 100;
constexpr std::size_t k_read_bytes = 65'536;
constexpr char k_user[] = "trader";
constexpr char k_password[] = "abc";

struct known_symbol {
  const char* name;
  char type;
};
constexpr known_symbol k_symbols[] = {{"IF2509", '1'}, {"0", '2'}, {"a", '\0'}};

kav_sim::server_options options_for(bool checks_login) {
  kav_sim::server_options options;
  for (const known_symbol& symbol : k_symbols)
    options.symbols.push_back({symbol.name, symbol.type});
  if (checks_login) {
    options.user = k_user;
    options.password = k_password;
  }
  options.log = [](const std::string& line) { KAV_CHECK(!line.empty()); };
  return options;
}

// ---- What the server is to answer while it does nothing wrong.

class server_model {
 public:
  explicit server_model(bool checks_login) : m_checks_login(checks_login) {}

  // The answer to one piece of the stream.
  std::string take(const std::string& piece) {
    m_input += piece;
    m_answer.clear();
    while (!m_input.empty()) {
      const std::size_t length = length_of(m_input[0]);
      if (length == 0) {
        ++sums.malformed_messages;
        m_input.clear();
      } else if (m_input.size() < length) {
        break;
      } else {
        take_message(m_input.substr(0, length));
        m_input.erase(0, length);
      }
    }
    return m_answer;
  }
  bool wants(const std::string& symbol) const {
    return m_logged_in && m_registered.contains(symbol);
  }

  kav_sim::server_counters sums;

 private:
  static std::size_t length_of(char type) {
    switch (type) {
      case 'L':
        return 56;
      case 'H':
        return 13;
      case 'S':
        return 8;
      case 'N':
      case 'R':
        return 32;
      default:
        return 0;
    }
  }

  static bool is_zero(const std::string& bytes, std::size_t from, std::size_t to) {
    return bytes.find_first_not_of('\0', from) >= to;
  }

  static bool is_well_formed(const std::string& m) {
    if (m[m.size() - 2] != '\r' || m[m.size() - 1] != '\n') return false;
    switch (m[0]) {
      case 'L': {
        const std::size_t end = m.find('\0', 3);
        return m[1] == '1' && m[2] == '0' && end < 19 && is_zero(m, end, 19) &&
               m.find_first_not_of("0123456789ABCDEF", 19) == 51 && is_zero(m, 51, 54);
      }
      case 'H':
        return is_zero(m, 1, 3);
      case 'S':
        return m[1] == '0' && is_zero(m, 2, 6);
      default:
        return m[1] == '0' && m[3] != '\0' && m.find('\0', 3) < 23;
    }
  }

  void take_message(const std::string& message) {
    if (!is_well_formed(message)) {
      ++sums.malformed_messages;
    } else if (message[0] == 'L') {
      log_in(message);
    } else if (message[0] == 'H') {
      ++sums.heartbeats_received;
    } else if (!m_logged_in) {
      ++sums.out_of_turn_messages;
    } else if (message[0] == 'S') {
      list();
    } else {
      change_registration(message);
    }
  }

  void log_in(const std::string& message) {
    const char* refusal = nullptr;
    if (m_checks_login && std::string(message.c_str() + 3) != k_user) {
      refusal = "unknown user";
    } else if (m_checks_login && message.substr(19, 32) != kav_sim::md5_text(k_password)) {
      refusal = "wrong password";
    }
    m_logged_in = refusal == nullptr;
    ++(m_logged_in ? sums.logins_accepted : sums.logins_refused);
    m_answer += kav_sim::login_answer_message(m_logged_in ? 'Y' : 'N', m_logged_in ? "" : refusal,
                                              text_fill::zero);
  }

  void list() {
    ++sums.lists_sent;
    for (const known_symbol& symbol : k_symbols) {
      m_answer += kav_sim::list_entry_message(symbol.type, symbol.name, text_fill::zero);
    }
    m_answer += kav_sim::list_end_message();
  }

  void change_registration(const std::string& message) {
    const std::string symbol = message.c_str() + 3;
    const char type = message[2];
    char result = '0';
    if (message[0] == 'N') {
      ++sums.register_requests;
      result = '1';
      for (const known_symbol& known : k_symbols) {
        if (symbol == known.name && type == known.type) result = '0';
      }
      if (result == '0') m_registered.insert(symbol);
    } else {
      ++sums.unregister_requests;
      m_registered.erase(symbol);
    }
    m_answer += kav_sim::symbol_answer_message(message[0] == 'N' ? 'I' : 'F', result, type, symbol,
                                               text_fill::zero);
  }

  const bool m_checks_login;
  std::string m_input, m_answer;
  bool m_logged_in = false;
  std::set<std::string> m_registered;
};

// ---- The server, without its thread: a pair of sockets stands for the connection.

class session {
 public:
  explicit session(bool checks_login) : m_server(options_for(checks_login)) {
    int pair[2];
    KAV_CHECK(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) == 0);
    m_peer = pair[1];
    if (checks_login) m_server.wanted_digest = kav_sim::md5_text(k_password);
    connection().fd = pair[0];
    connection().accepted_at = std::chrono::steady_clock::now();
  }
  session(const session&) = delete;
  session& operator=(const session&) = delete;
  ~session() {
    connection().close_socket();
    ::close(m_peer);
  }

  quote_server::impl& server() { return m_server; }
  kav_sim::server_connection& connection() { return m_server.connections[0]; }

  void send(const std::string& bytes) {
    const std::lock_guard<std::mutex> guard(m_server.lock);
    const ssize_t sent = ::send(m_peer, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    KAV_CHECK(bytes.empty() || sent == static_cast<ssize_t>(bytes.size()) || !connection().open());
    read_and_answer();
  }
  void end() {
    const std::lock_guard<std::mutex> guard(m_server.lock);
    ::shutdown(m_peer, SHUT_WR);
    read_and_answer();
  }
  std::size_t push(const char* symbol) {
    const std::lock_guard<std::mutex> guard(m_server.lock);
    return m_server.push_locked(quote_of(symbol), '1').queued;
  }
  std::string received() {
    std::string bytes(k_read_bytes, '\0');
    std::string all;
    for (;;) {
      const ssize_t got = ::recv(m_peer, bytes.data(), bytes.size(), 0);
      if (got <= 0) return all;
      all.append(bytes, 0, static_cast<std::size_t>(got));
    }
  }
  // What the server's own thread would say now.
  void tell_log() {
    for (const std::string& line : m_server.log_lines) m_server.options.log(line);
    m_server.log_lines.clear();
  }

  static KAVMarketDepthQuoteData quote_of(const char* symbol) {
    KAVMarketDepthQuoteData quote{};
    std::strncpy(quote.InstrumentID, symbol, sizeof(quote.InstrumentID) - 1);
    return quote;
  }

 private:
  void read_and_answer() {
    if (connection().fd < 0) return;
    m_server.on_readable(connection());
    m_server.flush(connection());
  }

  quote_server::impl m_server;
  int m_peer = -1;
};

// ---- One life each.

void check_sums(const kav_sim::server_counters& is, const kav_sim::server_counters& expected) {
  KAV_CHECK(is.logins_accepted == expected.logins_accepted);
  KAV_CHECK(is.logins_refused == expected.logins_refused);
  KAV_CHECK(is.lists_sent == expected.lists_sent);
  KAV_CHECK(is.register_requests == expected.register_requests);
  KAV_CHECK(is.unregister_requests == expected.unregister_requests);
  KAV_CHECK(is.heartbeats_received == expected.heartbeats_received);
  KAV_CHECK(is.malformed_messages == expected.malformed_messages);
  KAV_CHECK(is.out_of_turn_messages == expected.out_of_turn_messages);
}

// One of the `count` bytes from `first` on.
void damage(std::string& request, std::size_t first, std::size_t count, fuzz_input& input) {
  const unsigned mask = input.take_byte();
  char& byte = request[first + input.take_byte() % count];
  byte = static_cast<char>(byte ^ static_cast<char>(mask));
}

// A whole request, to save the fuzzer the effort: a type and what is not fixed in it.
std::string take_request(fuzz_input& input) {
  switch (input.take_byte() % 5) {
    case 0: {
      std::string login = "L10" + std::string(k_user) + std::string(10, '\0') +
                          kav_sim::md5_text(k_password) + std::string(3, '\0') + "\r\n";
      damage(login, 3, 51, input);
      return login;
    }
    case 1:
      return "S0" + std::string(4, '\0') + "\r\n";
    case 2:
      return "H" + std::string(10, '\0') + "\r\n";
    default: {
      const known_symbol& symbol = k_symbols[input.take_byte() % std::size(k_symbols)];
      std::string request = input.take_byte() % 2 == 0 ? "N0" : "R0";
      request += symbol.type;
      request += symbol.name;
      request.resize(30, '\0');
      damage(request, 2, 21, input);
      return request + "\r\n";
    }
  }
}

// Pieces of some hundred bytes at most: the answers to one fit into the socket.
std::string take_piece(fuzz_input& input) {
  std::string piece;
  for (unsigned parts = input.take_byte() % 4 + 1; parts > 0; --parts) {
    const unsigned choice = input.take_byte();
    piece += choice < 128 ? take_request(input) : input.take_bytes(choice - 128);
  }
  return piece;
}

void run_well_behaved(fuzz_input& input, bool checks_login) {
  session life(checks_login);
  server_model model(checks_login);
  for (std::size_t i = 0; i < k_most_steps && !input.is_empty(); ++i) {
    const unsigned choice = input.take_byte();
    if (choice % 8 == 0) {
      const char* const symbol = k_symbols[choice / 8 % std::size(k_symbols)].name;
      const bool wanted = model.wants(symbol);
      KAV_CHECK(life.push(symbol) == (wanted ? 1 : 0));
      const std::string expected =
          wanted ? kav_sim::quote_message('1', session::quote_of(symbol), text_fill::zero) : "";
      KAV_CHECK(life.received() == expected);
      continue;
    }
    const std::string piece = take_piece(input);
    life.send(piece);
    KAV_CHECK(life.received() == model.take(piece));
    KAV_CHECK(life.connection().queued_bytes == 0);
    check_sums(life.server().sums, model.sums);
    life.tell_log();
  }
  life.end();
  life.tell_log();
  KAV_CHECK(life.connection().fd < 0);
}

kav_sim::behaviour take_behaviour(fuzz_input& input) {
  kav_sim::behaviour how;
  how.login = static_cast<kav_sim::login_answer>(input.take_byte() % 3);
  how.login_refusal_reason = input.take_bytes(input.take_byte() % 30);
  how.list = static_cast<kav_sim::list_answer>(input.take_byte() % 4);
  how.register_result = input.take<char>();
  how.unregister_result = input.take<char>();
  const unsigned flags = input.take_byte();
  how.answer_register = (flags & 1) == 0;
  how.answer_unregister = (flags & 2) == 0;
  how.full_width_reason = (flags & 4) != 0;
  how.full_width_list = (flags & 8) != 0;
  how.full_width_answers = (flags & 16) != 0;
  how.full_width_quotes = (flags & 32) != 0;
  how.garbage_when = static_cast<kav_sim::garbage_time>(input.take_byte() % 3);
  how.loss = static_cast<kav_sim::loss_kind>(input.take_byte() % 5);
  how.loss_after_messages = input.take_byte() % 8;
  how.truncate_bytes = input.take_byte();
  return how;
}

// Faults of all kinds: nothing to compare with, but nothing is lost count of either.
void run_faulty(fuzz_input& input, bool checks_login) {
  session life(checks_login);
  life.server().how = take_behaviour(input);
  for (std::size_t i = 0; i < k_most_steps && !input.is_empty(); ++i) {
    if (input.take_byte() % 8 == 0) life.push(k_symbols[i % std::size(k_symbols)].name);
    life.send(take_piece(input));
    life.received();
    std::size_t queued = 0;
    for (const auto& message : life.connection().queue) queued += message.bytes.size();
    KAV_CHECK(life.connection().queued_bytes + life.connection().front_offset == queued);
    KAV_CHECK(life.server().sums.losses_caused <= 1);
    life.tell_log();
  }
  life.end();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  const unsigned choice = input.take_byte();
  if ((choice & 2) == 0) {
    run_well_behaved(input, (choice & 1) != 0);
  } else {
    run_faulty(input, (choice & 1) != 0);
  }
  return 0;
}
