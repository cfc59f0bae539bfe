#include "tests/chaos/chaos_client.h"

#include <sys/prctl.h>    // prctl
#include <sys/syscall.h>  // SYS_poll
#include <unistd.h>       // gettid

#include <algorithm>  // std::find
#include <cstring>    // strcmp, strnlen
#include <fstream>    // std::ifstream
#include <iterator>   // std::size
#include <utility>    // std::exchange

#include "tests/chaos/text_field.h"
#include "tests/support/tcp_peer.h"
#include "tests/support/wait_until.h"

namespace kav_chaos {
namespace {

using std::chrono::milliseconds;

constexpr KavKqsIntrumentType k_future = static_cast<KavKqsIntrumentType>('1');
// A re-login and a list that nobody has answered come first, 5 s each, and pauses of 2 s.
constexpr milliseconds k_recovery_limit{40'000 * k_slow};
constexpr milliseconds k_retry_pause{300};  // until the next try to begin a session
constexpr milliseconds k_quote_limit{2000 * k_slow};
constexpr const char* k_bad_addresses[] = {"",           "localhost",   "999.1.1.1", "127.0.0.1x",
                                           "127.0.0.1 ", "127.0.0.0.1", "0x7f.1",    "\xff\xfe"};
constexpr std::size_t k_longest_text = 1024;  // of all texts that callbacks carry, and their NUL

// How long this thread has been in callbacks, which is not the time of the operation around them.
thread_local clock::duration t_in_callbacks{0};

bool on_worker() {
  char name[16] = "";
  ::prctl(PR_GET_NAME, name);
  return std::strcmp(name, "kav-worker") == 0;
}

// Is the thread in poll()? Of what a caller's thread does, only waiting for a connection uses it.
bool waits_in_poll(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/syscall");
  int call = -1;
  file >> call;
  return call == SYS_poll;
}

}  // namespace

// ---- Callbacks

// Tells the checker of each callback, then does what the script says for it.
class chaos_client::event : public KAVQuoteEvent {
 public:
  explicit event(chaos_client& client) : m_client(client) {}

  void OnServerConnected() override { run(call_of(callback_kind::server_connected)); }
  void OnServerDisconnected() override { run(call_of(callback_kind::server_disconnected)); }
  void OnLoginResult(bool success, const char* reason) override {
    run(call_of(callback_kind::login_result, reason, success));
  }
  void OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* quote) override {
    run(call_of(callback_kind::quote), quote);
  }
  void OnLog(KavKqsLogLevel, const char* text, int length) override {
    seen_call call = call_of(callback_kind::log, text);
    call.length = length;
    run(call);
  }
  void OnSymbolRegistered(KavKqsIntrumentType, const char* symbol, bool success) override {
    run(call_of(callback_kind::symbol_registered, symbol, success));
  }
  void OnSymbolUnregistered(KavKqsIntrumentType, const char* symbol, bool success) override {
    run(call_of(callback_kind::symbol_unregistered, symbol, success));
  }
  void OnSymbolList(KavKqsIntrumentType, const char* symbol, bool last) override {
    run(call_of(callback_kind::symbol_list, symbol, last));
  }

 private:
  static seen_call call_of(callback_kind kind, const char* text = "", bool success = false) {
    seen_call call;
    call.kind = kind;
    const std::size_t length = ::strnlen(text, k_longest_text);
    call.text.assign(text, length);
    call.text_ended = length < k_longest_text;
    call.success = success;
    return call;
  }

  void run(seen_call call, const KAVMarketDepthQuoteData* quote = nullptr) {
    const clock::duration before = t_in_callbacks;
    call.at = clock::now();
    call.thread = std::this_thread::get_id();
    call.on_worker = on_worker();
    m_client.m_checker.call_begins(call);
    if (quote != nullptr) m_client.m_checker.quote_comes(*quote);
    m_client.inside_callback(call.kind);
    m_client.m_checker.call_ends(call.thread);
    t_in_callbacks = before + (clock::now() - call.at);
  }

  chaos_client& m_client;
};

chaos_client::chaos_client(const client_script& script, const server_facts& facts,
                           chaos_server& server, const load_meter& load)
    : m_script(script),
      m_facts(facts),
      m_server(server),
      m_load(load),
      m_checker(facts),
      m_event(std::make_unique<event>(*this)),
      m_inside(script.inside.size()),
      m_api(CreateKAVQuoteApi()) {}

chaos_client::~chaos_client() = default;

void chaos_client::inside_callback(callback_kind kind) {
  if (m_quiet.load()) return;
  if (m_script.slow_ms != 0 && kind == m_script.slow_kind) {
    std::this_thread::sleep_for(milliseconds{m_script.slow_ms});
  }
  for (std::size_t i = 0; i < m_inside.size(); ++i) {
    const inside_action& inside = m_script.inside[i];
    if (inside.where != kind) continue;
    {
      const std::lock_guard<std::mutex> hold{m_inside_lock};
      inside_progress& progress = m_inside[i];
      if (progress.seen++ < inside.after || progress.done >= inside.times) continue;
      ++progress.done;
    }
    if (inside.what.what != deed::destroy) {
      perform_inside(inside.what);
    } else if (!destroy_inside()) {
      const std::lock_guard<std::mutex> hold{m_inside_lock};
      --m_inside[i].done;  // another time: the client is in use
    }
  }
}

// The callback keeps the client in existence, also when somebody destroys it meanwhile.
void chaos_client::perform_inside(const action& what) {
  KAVQuoteApi* api = nullptr;
  {
    const std::lock_guard<std::mutex> hold{m_lock};
    api = m_api;
  }
  if (api != nullptr) perform_on(*api, what);
}

// ---- Whose the client is

bool chaos_client::is_gone() const {
  const std::lock_guard<std::mutex> hold{m_lock};
  return m_api == nullptr;
}

void chaos_client::use(const std::function<void(KAVQuoteApi&)>& call) {
  KAVQuoteApi* api = nullptr;
  {
    const std::lock_guard<std::mutex> hold{m_lock};
    api = m_api;
    if (api == nullptr) return;
    m_users.push_back(std::this_thread::get_id());
  }
  call(*api);
  const std::lock_guard<std::mutex> hold{m_lock};
  m_users.erase(std::find(m_users.begin(), m_users.end(), std::this_thread::get_id()));
  m_users_changed.notify_all();
}

KAVQuoteApi* chaos_client::take(bool wait_for_users) {
  std::unique_lock<std::mutex> hold{m_lock};
  KAVQuoteApi* const api = std::exchange(m_api, nullptr);
  if (api != nullptr && wait_for_users) {
    m_users_changed.wait(hold, [this] { return m_users.empty(); });
  }
  return api;
}

void chaos_client::destroy(bool wait_for_users) {
  KAVQuoteApi* const api = take(wait_for_users);
  if (api == nullptr) return;
  measure(operation::destroy, [api] { DestroyKAVQuoteApi(api); });
  m_checker.destroyed();
}

// False: others may be about to use the client.
bool chaos_client::destroy_inside() {
  KAVQuoteApi* api = nullptr;
  {
    const std::lock_guard<std::mutex> hold{m_lock};
    const std::thread::id self = std::this_thread::get_id();
    if (std::any_of(m_users.begin(), m_users.end(), [&](auto id) { return id != self; })) {
      return false;
    }
    api = std::exchange(m_api, nullptr);
  }
  if (api == nullptr) return true;
  const clock::time_point begin = clock::now();
  measure(operation::destroy_inside, [api] { DestroyKAVQuoteApi(api); });
  m_checker.destroyed_inside(clock::now() - begin);
  return true;
}

// ---- Operations

void chaos_client::measure(operation what, const std::function<void()>& call) {
  m_checker.operation_begins(what);
  const clock::duration before = t_in_callbacks;
  const clock::time_point begin = clock::now();
  call();
  const clock::duration took = clock::now() - begin - (t_in_callbacks - before);
  m_checker.operation_ends(what, took, m_load.slack());
}

void chaos_client::connect(KAVQuoteApi& api, const std::string& address, unsigned short port) {
  KqsTcpInfo info{};
  fill(info.m_ServerIp, address);
  info.m_ServerPort = port;
  const bool alone = m_connects++ % 2 == 0;
  std::vector<KqsTcpInfo> list(2, info);
  measure(operation::connect, [&] {
    alone ? api.ConnServer(info, m_event.get()) : api.ConnServer(list, m_event.get());
  });
}

void chaos_client::log_in(KAVQuoteApi& api, const char* password) {
  KqsLoginParam param{};
  fill(param.m_UserId, m_script.user);
  fill(param.m_Password, password);
  measure(operation::log_in, [&] { api.LoginToKqs(param); });
}

void chaos_client::register_symbol(KAVQuoteApi& api, const char* symbol) {
  m_checker.registers(symbol);
  measure(operation::register_symbol, [&] { api.RegisterSymbol(k_future, symbol); });
}

void chaos_client::unregister_symbol(KAVQuoteApi& api, const char* symbol) {
  measure(operation::unregister_symbol, [&] { api.UnregisterSymbol(k_future, symbol); });
}

void chaos_client::perform_on(KAVQuoteApi& api, const action& what) {
  switch (what.what) {
    case deed::connect:
      return connect(api, "127.0.0.1", m_server.port());
    case deed::connect_to_bad_address:
      return connect(api, k_bad_addresses[what.value], m_server.port());
    case deed::log_in:
      return log_in(api, k_password);
    case deed::log_in_wrongly:
      return log_in(api, "not the password");
    case deed::register_shared:
      return register_symbol(api, k_shared_symbols[what.value].caller);
    case deed::unregister_shared:
      return unregister_symbol(api, k_shared_symbols[what.value].caller);
    case deed::register_unknown:
      return register_symbol(api, k_unknown_symbols[what.value]);
    case deed::unregister_unknown:
      return unregister_symbol(api, k_unknown_symbols[what.value]);
    case deed::query_list:
      return measure(operation::query_list, [&] { api.QuerySymbolList(); });
    case deed::disconnect:
      return measure(operation::disconnect, [&] { api.DisConnServer(); });
    default:
      return;  // the others are the track's own
  }
}

void chaos_client::perform(const action& what) {
  switch (what.what) {
    case deed::connect_to_nobody:
      return connect_to_nobody();
    case deed::connect_to_silence:
      return connect_to_silence(what.value == 1);
    case deed::register_own:
      return register_own(what.value);
    case deed::unregister_own:
      return unregister_own(what.value);
    case deed::destroy:
      return destroy();
    case deed::await_login:
      return await_login(what.value);
    case deed::await_registration:
      return await_registration(what.value);
    case deed::pause:
      return std::this_thread::sleep_for(milliseconds{what.value});
    default:
      return use([&](KAVQuoteApi& api) { perform_on(api, what); });
  }
}

// Wanted for certain is what was registered within one confirmed session.
void chaos_client::register_own(unsigned number) {
  const char* const symbol = k_own_symbols[number].caller;
  const session_view before = m_checker.session();
  use([&](KAVQuoteApi& api) { register_symbol(api, symbol); });
  const session_view after = m_checker.session();
  if (!before.confirmed || !after.confirmed || before.number != after.number) return;
  if (m_wanted_session != after.number) m_wanted.clear();
  m_wanted_session = after.number;
  m_wanted.insert(symbol);
}

void chaos_client::unregister_own(unsigned number) {
  m_wanted.erase(k_own_symbols[number].caller);
  use([&](KAVQuoteApi& api) { unregister_symbol(api, k_own_symbols[number].caller); });
}

void chaos_client::connect_to_nobody() {
  const kav_test::refusing_port nobody;
  use([&](KAVQuoteApi& api) { connect(api, "127.0.0.1", nobody.port()); });
}

// One thread waits in connect() for an answer that never comes; this one ends that.
void chaos_client::connect_to_silence(bool destroy_it) {
  kav_test::tcp_peer silence(0);
  if (!silence.stop_answering()) return;
  std::atomic<bool> returned{false};
  std::atomic<pid_t> id{0};
  std::atomic<clock::rep> returned_at{0};
  std::thread connecting([&] {
    id = ::gettid();
    KqsTcpInfo info{};
    fill(info.m_ServerIp, "127.0.0.1");
    info.m_ServerPort = silence.port();
    m_checker.operation_begins(operation::connect);
    use([&](KAVQuoteApi& api) { api.ConnServer(info, m_event.get()); });
    returned_at = clock::now().time_since_epoch().count();
    returned = true;
  });
  while (!returned && !waits_in_poll(id)) std::this_thread::sleep_for(milliseconds{10});
  const bool inside = !returned;
  const clock::time_point stopped_at = clock::now();
  if (inside && destroy_it) {
    destroy(false);  // the other thread is in the client already
  } else {
    perform({deed::disconnect, 0});
  }
  connecting.join();
  if (!inside) return;
  const clock::time_point end{clock::duration{returned_at.load()}};
  m_checker.operation_ends(operation::cancel_connect, end - stopped_at, m_load.slack());
}

void chaos_client::await_login(unsigned ms) {
  wait_until([this] { return m_checker.login_results() > m_logins_awaited || is_gone(); },
             milliseconds{ms});
  m_logins_awaited = m_checker.login_results();
}

void chaos_client::await_registration(unsigned ms) {
  if (m_wanted.empty()) return;
  const auto end = clock::now() + milliseconds{ms};
  while (!m_server.has_registered(m_script.user, m_wanted) && clock::now() < end) {
    std::this_thread::sleep_for(milliseconds{10});
  }
}

// ---- The life

void chaos_client::step(const client_step& what) {
  if (!what.at_once) return perform(what.first);
  std::thread other([&] { perform(*what.at_once); });
  perform(what.first);
  other.join();
}

void chaos_client::run_track() {
  for (const client_step& what : m_script.steps) {
    if (is_gone()) return;
    step(what);
  }
}

void chaos_client::recover() {
  m_quiet.store(true);
  const session_view at_first = m_checker.session();
  const std::set<std::string> wanted_at_first = m_wanted;
  const auto deadline = clock::now() + k_recovery_limit;
  while (clock::now() < deadline) {
    if (is_gone()) return;
    if (begins_session() && gets_quotes()) {
      m_has_come_back = at_first.confirmed && at_first.number == m_wanted_session &&
                        !wanted_at_first.empty() && wanted_at_first == m_wanted;
      return;
    }
    std::this_thread::sleep_for(milliseconds{10});
  }
  const session_view now = m_checker.session();
  m_checker.add_violation(m_script.user + " did not recover, session " +
                          std::to_string(now.number) +
                          (now.confirmed ? " logged in" : " not logged in") + ", " +
                          std::to_string(m_wanted.size()) + " symbols wanted");
}

// True: there is a session in which everything wanted has been asked for.
bool chaos_client::begins_session() {
  const session_view session = m_checker.session();
  if (!session.confirmed) {
    perform({deed::connect, 0});
    perform({deed::log_in, 0});
    wait_until([this] { return m_checker.session().confirmed; }, k_retry_pause);
    return false;
  }
  const bool has_asked = m_wanted_session == session.number && !m_wanted.empty();
  if (has_asked && m_facts.complete_lists) return true;
  // A registration for which the list had no symbol was dropped: it may be one of this very moment,
  // so it is repeated as long as it takes.
  for (unsigned i = 0; i < std::size(k_own_symbols); ++i) register_own(i);
  return has_asked;
}

bool chaos_client::gets_quotes() {
  if (!m_server.has_registered(m_script.user, m_wanted)) return false;
  for (const std::string& symbol : m_wanted) {
    const std::int32_t number = m_server.push(symbol);
    if (!wait_until([&] { return m_checker.last_volume(symbol) >= number; }, k_quote_limit)) {
      return false;
    }
  }
  return true;
}

void chaos_client::end() {
  destroy();
  m_quiet.store(true);
}

}  // namespace kav_chaos
