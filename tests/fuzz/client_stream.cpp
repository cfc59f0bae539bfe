// The stream of a quote server into a client, in pieces, against a model of what the client makes
// of it: handed to its callback directly, or through the stream of a connection that has no socket;
// logged in or not.
#include <time.h>  // nanosleep

#include <map>       // std::map
#include <optional>  // std::optional
#include <set>       // std::set

#include "client/ckqc_tcp.h"
#include "tests/fuzz/local_server.h"
#include "tests/fuzz/server_bytes.h"

// The library's pauses, a hundred times shorter here: they are most of what an input would take.
extern "C" int usleep(useconds_t microseconds) {
  const timespec pause{0, static_cast<long>(microseconds) * 10};
  return ::nanosleep(&pause, nullptr);
}

namespace {

using kav_fuzz::checking_event;
using kav_fuzz::fuzz_input;
using kav_fuzz::heap_bytes;
using kav_fuzz::up_to_nul;
using VORLAN::SOCK::socket_param;
using calls = std::vector<std::string>;

constexpr std::size_t k_most_steps = 60;
constexpr std::chrono::seconds k_patience{20};
constexpr const char* k_symbols[] = {"IF2509", "Au(T+D)", "a symbol of more than 19 characters",
                                     ""};
constexpr KavKqsIntrumentType k_future = static_cast<KavKqsIntrumentType>('1');
constexpr unsigned k_send_failed = 0xFFFFFFFF;

// ---- What is to come of the stream.

class client_model {
 public:
  explicit client_model(bool logged_in) : m_logged_in(logged_in) {}

  // One offer of the whole stream: the calls that it makes, and how many bytes it takes.
  unsigned offer(const std::string& stream, calls& made) {
    std::size_t taken = 0;
    while (taken < stream.size()) {
      const std::string left = stream.substr(taken);
      const std::size_t length = kav_fuzz::server_message_bytes(left[0]);
      if (length == 0) {
        made.push_back("error [QuoteClient] receive unknown msg type: " +
                       std::to_string(int{static_cast<signed char>(left[0])}) + ". length is " +
                       std::to_string(left.size()));
        taken = stream.size();
      } else if (left[0] == 'H') {
        taken += length;  // also when fewer have arrived
      } else if (left.size() < length) {
        break;
      } else {
        take_message(left, made);
        taken += length;
      }
    }
    return static_cast<unsigned>(taken);
  }

  // Where the first accepted login ends; 0 when the stream has none.
  static std::size_t accepted_login_end(const std::string& stream) {
    std::size_t at = 0;
    while (at < stream.size()) {
      const std::size_t length = kav_fuzz::server_message_bytes(stream[at]);
      if (length == 0 || stream.size() - at < length) return 0;
      at += length;
      if (stream[at - length] == 'A' && stream[at - length + 1] == 'Y') return at;
    }
    return 0;
  }

  void want(const std::string& symbol, bool wanted) {
    const std::string key = key_of(symbol);
    if (!m_listed.contains(key)) return;
    if (wanted) {
      m_wanted.insert(key);
    } else {
      m_wanted.erase(key);
    }
  }
  void forget_registrations() {
    m_wanted.clear();
    m_registered.clear();
  }
  std::size_t listed() const { return m_listed.size(); }
  bool has_something_to_ask() const {
    for (const auto& [symbol, type] : m_listed) {
      if (m_wanted.count(symbol) != m_registered.count(symbol)) return true;
    }
    return false;
  }

 private:
  // The server's name for a symbol of the caller's.
  static std::string key_of(const std::string& symbol) {
    return symbol == "Au(T+D)" ? "0" : symbol.substr(0, 19);
  }
  // The caller's name for a symbol of the server's.
  static std::string name_of(const std::string& symbol) {
    constexpr const char* k_gold[] = {"Au(T+D)", "Ag(T+D)", "mAu(T+D)", "Au(T+N1)", "Au(T+N2)"};
    const bool gold = !symbol.empty() && symbol[0] >= '0' && symbol[0] <= '4';
    return gold ? k_gold[symbol[0] - '0'] : symbol;
  }

  void take_message(const std::string& left, calls& made) {
    const auto type = int{static_cast<signed char>(left[3])};
    const std::string symbol = up_to_nul(left.substr(4, 28));
    switch (left[0]) {
      case 'Q':
        return quote(left, made);
      case 'M':
        return list(left, type);
      case 'I':
        return registered(left[1], type, symbol, made);
      case 'F':
        return unregistered(left[1], type, symbol, made);
      default:
        return login(left[1], up_to_nul(left.substr(2, 22)), made);
    }
  }

  static void quote(const std::string& left, calls& made) {
    std::string record = left.substr(22, 345);
    const std::string name = name_of(record.substr(9, 1));
    if (name.size() > 1) {
      std::string field = name;
      field.resize(31, '\0');
      record.replace(9, 31, field);
    }
    made.push_back(checking_event::quote_call(static_cast<signed char>(left[1]), record));
  }

  // Without a NUL the symbol runs on into what follows.
  void list(const std::string& left, int type) {
    const std::string symbol = up_to_nul(left.substr(4));
    if (left[2] != '1' && symbol.size() <= 128) m_listed[symbol] = type;
  }

  void registered(char result, int type, const std::string& symbol, calls& made) {
    const bool success = result == '0' || result == '2';
    const std::string key = symbol.substr(0, 20);
    if (success) {
      m_registered.insert(key);
    } else {
      // The type is printed as a character: a NUL ends the text.
      const std::string text = type == 0 ? "" : static_cast<char>(type) + (":" + key);
      made.push_back("error [QuoteClient] register symbol:" + text + " failed.");
    }
    made.push_back(checking_event::symbol_call('I', type, name_of(symbol), success));
  }

  void unregistered(char result, int type, const std::string& symbol, calls& made) {
    const bool success = result == '0';
    if (success) {
      m_registered.erase(symbol);
    } else {
      made.push_back("error [QuoteClient] unregister symbol:" + symbol + " failed.");
    }
    made.push_back(checking_event::symbol_call('F', type, name_of(symbol), success));
  }

  void login(char result, const std::string& reason, calls& made) const {
    if (m_logged_in || result == 'Y') return;  // the worker's to tell
    const std::string line = "error [QuoteClient] login failed, result: ";
    made.push_back(result == '\0' ? line : line + result + ",  server ip: nowhere, port: 7.");
    made.push_back(checking_event::login_call(false, reason));
    made.emplace_back("disconnected");
  }

  const bool m_logged_in;
  std::map<std::string, int> m_listed;
  std::set<std::string> m_wanted, m_registered;
};

// ---- Two ways into the client.

// As the receive thread does: what is left of the stream, again and again, in a block of its size.
class direct_way {
 public:
  void deliver(Ckqc_tcp& client, checking_event& events, client_model& model,
               const std::string& piece) {
    m_stream += piece;
    events.keep_calls_of(std::this_thread::get_id());
    while (!m_stream.empty()) {
      calls expected;
      const unsigned to_take = model.offer(m_stream, expected);
      const unsigned taken = offer(client);
      KAV_CHECK(taken == to_take);
      KAV_CHECK(events.take_calls() == expected);
      if (taken == 0) return;
      m_stream.erase(0, taken);
    }
  }
  const std::string& stream() const { return m_stream; }

 private:
  unsigned offer(Ckqc_tcp& client) const {
    heap_bytes copy(m_stream);
    const char* address = copy.data();
    socket_param param(VORLAN::SOCK::EVENT_RECEIVE, 0, &address,
                       static_cast<unsigned>(m_stream.size()), 0);
    KAV_CHECK(Ckqc_tcp::cache_callback(param, &client) == 0);
    return param.get_proc_len();
  }

  std::string m_stream;
};

// Through a socket_cache_client whose threads run, though it has never been connected.
class stream_way {
 public:
  void deliver(Ckqc_tcp& client, checking_event& events, client_model& model,
               const std::string& piece) {
    if (piece.empty()) return;
    target to{&client, &events};
    connection().to.store(&to);
    calls expected;
    m_stream += piece;
    for (unsigned taken = 1; taken != 0 && !m_stream.empty(); m_stream.erase(0, taken)) {
      taken = model.offer(m_stream, expected);
    }
    push(piece);
    connection().tcp.wait_offered(k_patience);
    KAV_CHECK(events.take_calls() == expected);
    connection().to.store(nullptr);
  }
  const std::string& stream() const { return m_stream; }

  stream_way() = default;
  stream_way(const stream_way&) = delete;
  stream_way& operator=(const stream_way&) = delete;
  ~stream_way() { connection().tcp.clear_data(); }

 private:
  struct target {
    Ckqc_tcp* client;
    checking_event* events;
  };
  // One for all inputs: its threads take longer to start than an input to run.
  struct endless_connection {
    endless_connection() { tcp.sock_init("nowhere", 7, on_event, this, false); }
    VORLAN::SOCK::socket_cache_client tcp{8192};
    std::atomic<target*> to{nullptr};
  };
  static endless_connection& connection() {
    static endless_connection& one = *new endless_connection;
    return one;
  }
  static int on_event(socket_param& param, void* user) {
    const target* const to = static_cast<endless_connection*>(user)->to.load();
    if (to == nullptr) return 0;
    to->events->keep_calls_of(std::this_thread::get_id());
    return Ckqc_tcp::cache_callback(param, to->client);
  }
  static void push(const std::string& piece) {
    heap_bytes copy(piece);
    const char* address = copy.data();
    socket_param param(VORLAN::SOCK::EVENT_RECEIVE, 0, &address,
                       static_cast<unsigned>(piece.size()), 0);
    connection().tcp.on_cache_callback(param);
  }

  std::string m_stream;
};

// ---- A client in each of its two states.

std::string list_message(const std::string& symbol, char end_mark) {
  std::string message("M0\0001", 4);
  message[2] = end_mark;
  message += symbol;
  message.resize(32, '\0');
  return message;
}

// A client that knows some symbols. It serves for many inputs, as long as it is like a new one:
// making one takes longer than an input.
class session {
 public:
  static session& get(bool logged_in) {
    static std::unique_ptr<session>* const kept = new std::unique_ptr<session>[2];
    std::unique_ptr<session>& one = kept[logged_in ? 1 : 0];
    if (one == nullptr || one->m_is_spent) {
      one.reset();
      one.reset(new session(logged_in));
    }
    one->m_client->reset_register_symbol();
    one->m_events.take_calls();  // of the input before
    return *one;
  }
  void set_spent() { m_is_spent = true; }
  // So many symbols have been added to the list.
  void note_listed(std::size_t more) {
    m_listed += more;
    if (m_listed > (is_logged_in() ? k_most_listed : 0)) set_spent();
  }

  bool is_logged_in() const { return m_server.has_value(); }
  Ckqc_tcp& client() { return *m_client; }
  checking_event& events() { return m_events; }
  // A model that knows the same symbols.
  client_model model() const {
    client_model one(is_logged_in());
    calls none;
    one.offer(k_list, none);
    return one;
  }

 private:
  static const std::string k_list;
  static constexpr std::size_t k_most_listed = 1000;

  explicit session(bool logged_in) : m_client(new Ckqc_tcp) {
    KqsTcpInfo server = logged_in ? listener().endpoint() : nowhere();
    KAV_CHECK(m_client->ConnServer(server, &m_events) == logged_in);
    if (logged_in) log_in();
    hear(k_list);
    KAV_CHECK(!logged_in || m_events.wait_login_result());
  }

  void log_in() {
    KqsLoginParam login{"trader", "abc"};
    m_server.emplace(listener().accept());
    KAV_CHECK(m_client->LoginToKqs(login) == 1);
    std::string answer = "AY";
    answer.resize(24, '\0');
    hear(answer);
    m_server->receive(56 + 8);  // the worker has asked for the list
  }
  void hear(const std::string& bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
      at += m_client->on_tcp_client_data_recv(bytes.data() + at,
                                              static_cast<unsigned>(bytes.size() - at));
    }
  }
  static kav_fuzz::local_listener& listener() {
    static kav_fuzz::local_listener& one = *new kav_fuzz::local_listener;
    return one;
  }
  static KqsTcpInfo nowhere() {
    KqsTcpInfo info{};
    std::snprintf(info.m_ServerIp, sizeof(info.m_ServerIp), "nowhere");
    info.m_ServerPort = 7;
    return info;
  }

  bool m_is_spent = false;
  std::size_t m_listed = 0;
  checking_event m_events;
  std::optional<kav_fuzz::server_end> m_server;
  const std::unique_ptr<Ckqc_tcp> m_client;  // first to go
};

const std::string session::k_list =
    list_message("IF2509", '0') + list_message("0", '0') + list_message("", '1');

// ---- One input.

template <class WAY>
class stream_check {
 public:
  explicit stream_check(bool logged_in)
      : m_session(session::get(logged_in)), m_model(m_session.model()) {
    want("IF2509", true);
  }

  void step(fuzz_input& input) {
    const unsigned choice = input.take_byte();
    const char* const symbol = k_symbols[choice / 16 % std::size(k_symbols)];
    switch (choice % 16) {
      case 0:
        return want(symbol, true);
      case 1:
        return want(symbol, false);
      case 2:
        if (!m_session.is_logged_in()) m_session.set_spent();  // nobody takes it from the queue
        m_session.client().QuerySymbolList();
        return;
      case 3:
        m_session.client().reset_register_symbol();
        return m_model.forget_registrations();
      case 4:
        return report(VORLAN::SOCK::EVENT_CONNECT);
      case 5:
        return report(VORLAN::SOCK::EVENT_LOCALE_DISCONNECT);
      case 6:
      case 7:
        return lose(choice);
      default:
        return deliver(kav_fuzz::take_server_piece(input));
    }
  }

  bool is_over() const { return m_over; }

  // Without a connection the pass finds out what it would ask for, and fails to. Only while there
  // is no worker, whose work it is.
  void check_end() {
    const bool logged_in = m_session.is_logged_in();
    // A logged-in client tells nothing of its list on this thread, so that a few symbols more are
    // no difference.
    m_session.note_listed(m_model.listed() - k_first_listed);
    if (logged_in || m_over) return;
    KAV_CHECK((m_session.client()._th_check_and_register_symbol() == k_send_failed) ==
              m_model.has_something_to_ask());
  }

 private:
  static constexpr std::size_t k_first_listed = 2;
  static constexpr unsigned k_seldom = 0xF0;

  void want(const char* symbol, bool wanted) {
    if (wanted) {
      m_session.client().RegisterSymbol(k_future, symbol);
    } else {
      m_session.client().UnregisterSymbol(k_future, symbol);
    }
    m_model.want(symbol, wanted);
  }

  void report(VORLAN::SOCK::SOCKET_EVENT event, const calls& expected = {}) {
    m_session.events().keep_calls_of(std::this_thread::get_id());
    socket_param param(event, 0, nullptr, 0, 0);
    Ckqc_tcp::cache_callback(param, &m_session.client());
    KAV_CHECK(m_session.events().take_calls() == expected);
  }

  // The worker of a logged-in client sets out to connect again: seldom, since the session is spent.
  void lose(unsigned choice) {
    const auto event =
        choice % 2 == 0 ? VORLAN::SOCK::EVENT_REMOTE_DISCONNECT : VORLAN::SOCK::EVENT_ERROR;
    if (!m_session.is_logged_in()) return report(event, {"disconnected"});
    if (choice < k_seldom) return;
    m_session.set_spent();
    report(event);
  }

  // From an accepted login on a worker is at work, and at its end at once, without a connection:
  // nothing more can be told.
  void deliver(std::string piece) {
    if (!m_session.is_logged_in()) {
      const std::string stream = m_way.stream() + piece;
      const std::size_t end = client_model::accepted_login_end(stream);
      m_over = end != 0;
      if (m_over) {
        m_session.set_spent();
        piece.resize(piece.size() - (stream.size() - end));
      }
    }
    m_way.deliver(m_session.client(), m_session.events(), m_model, piece);
  }

  session& m_session;
  client_model m_model;
  WAY m_way;
  bool m_over = false;
};

template <class WAY>
void run(fuzz_input& input, bool logged_in) {
  stream_check<WAY> check(logged_in);
  for (std::size_t i = 0; i < k_most_steps && !input.is_empty() && !check.is_over(); ++i) {
    check.step(input);
  }
  check.check_end();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  const unsigned choice = input.take_byte();
  const bool logged_in = (choice & 2) != 0;
  if ((choice & 1) == 0) {
    run<direct_way>(input, logged_in);
  } else {
    run<stream_way>(input, logged_in);
  }
  return 0;
}
