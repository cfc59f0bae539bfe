#include "tests/faults/session_life.h"

#include <cstring>  // strcpy, strstr
#include <new>      // std::bad_alloc
#include <thread>   // std::this_thread::sleep_for

#include "tests/support/process_view.h"
#include "tests/support/wait_until.h"

namespace kav_faults {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

constexpr int k_slow = kav_test::k_sanitized ? 4 : 1;
constexpr char k_symbol[] = "IF2509";
constexpr KavKqsIntrumentType k_type = static_cast<KavKqsIntrumentType>('1');
constexpr milliseconds k_drought = 400ms;  // how long everything is refused when it is
constexpr milliseconds k_patience = 30'000ms;
constexpr milliseconds k_answer_limit = 12'000ms;  // of a login, its symbol list included
constexpr milliseconds k_repeat = 600ms;           // until the host asks again
constexpr milliseconds k_end_limit = 2'000ms * k_slow;

KqsTcpInfo endpoint_of(const kav_sim::quote_server& server) {
  KqsTcpInfo info{};
  std::strcpy(info.m_ServerIp, "127.0.0.1");
  info.m_ServerPort = server.port();
  return info;
}

KqsLoginParam credentials() {
  KqsLoginParam param{};
  std::strcpy(param.m_UserId, "trader");
  std::strcpy(param.m_Password, "abc");
  return param;
}

void throw_if_due(std::atomic<int>& times) {
  if (times > 0 && times-- > 0) throw std::bad_alloc();
}

KAVMarketDepthQuoteData quote() {
  KAVMarketDepthQuoteData result{};
  std::strcpy(result.InstrumentID, k_symbol);
  result.LastPrice = 4000;
  return result;
}

}  // namespace

// Each is counted before the host runs out of memory, a quote and a list when it has not.
void life_event::OnServerConnected() {}
void life_event::OnServerDisconnected() {
  ++disconnections;
  throw_if_due(disconnections_to_throw);
}
void life_event::OnLoginResult(bool success, const char*) {
  ++(success ? logins : refusals);
  throw_if_due(login_results_to_throw);
}
void life_event::OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData*) {
  throw_if_due(quotes_to_throw);
  ++quotes;
}
void life_event::OnLog(KavKqsLogLevel, const char* text, int) {
  if (std::strstr(text, "out of memory") != nullptr) ++memory_lines;
  if (std::strstr(text, "connect server failed") != nullptr) ++failed_connections;
  throw_if_due(logs_to_throw);
}
void life_event::OnSymbolRegistered(KavKqsIntrumentType, const char*, bool) {}
void life_event::OnSymbolUnregistered(KavKqsIntrumentType, const char*, bool) { ++unregistrations; }
void life_event::OnSymbolList(KavKqsIntrumentType, const char*, bool last) {
  throw_if_due(lists_to_throw);
  ++(last ? lists : listed);
}

session_life::~session_life() {
  if (m_api != nullptr) DestroyKAVQuoteApi(m_api);
}

bool session_life::fail(const std::string& fault) {
  if (m_fault.empty()) m_fault = fault;
  return false;
}

// One call of the library by the host. Nothing may be thrown but by the factory.
template <class OPERATION>
auto session_life::call(OPERATION operation) {
  using result = decltype(operation());
  try {
    const in_library inside(m_supply);
    return operation();
  } catch (const std::bad_alloc&) {
    fail("an exception left the library");
    if constexpr (!std::is_void_v<result>) return result{};
  }
}

// What is refused for good is there again after a while.
void session_life::restore_in_time() {
  if (m_supply.refused() == 0) return;
  if (m_first_refusal == clock::time_point{}) m_first_refusal = clock::now();
  if (clock::now() - m_first_refusal < k_drought) return;
  m_supply.restore();
}

template <class CONDITION>
bool session_life::wait(CONDITION condition, milliseconds limit) {
  return wait_until(
      [&] {
        restore_in_time();
        return condition();
      },
      limit);
}

bool session_life::start() {
  kav_sim::server_options options;
  options.symbols = {{k_symbol, '1'}, {"cs1709", '2'}};
  m_server = std::make_unique<kav_sim::quote_server>(options);
  return m_server->start() ? create() : fail(m_server->start_error());
}

bool session_life::create() {
  return wait(
             [&] {
               try {
                 const in_library inside(m_supply);
                 m_api = CreateKAVQuoteApi();
               } catch (const std::bad_alloc&) {
                 if (m_supply.live_blocks != 0) fail("the factory leaves memory behind");
               }
               return m_api != nullptr;
             },
             k_patience) ||
         fail("no client");
}

bool session_life::be_refused() {
  m_server->change_behaviour(
      [](kav_sim::behaviour& how) { how.login = kav_sim::login_answer::refuse; });
  const int before = m_events.disconnections;
  const bool refused = wait(
      [&] { return connect_and_log_in() || m_events.disconnections > before || !m_fault.empty(); },
      k_patience);
  m_server->change_behaviour(
      [](kav_sim::behaviour& how) { how.login = kav_sim::login_answer::accept; });
  if (m_in_session) return fail("logged in although refused");
  return (refused && m_fault.empty()) || fail("never refused");
}

// True: logged in.
bool session_life::connect_and_log_in() {
  m_in_session = false;
  call([&] { m_api->DisConnServer(); });
  const int logins = m_events.logins, refusals = m_events.refusals;
  const int disconnections = m_events.disconnections;
  if (!connect() || !log_in()) return false;
  const bool told = wait(
      [&] {
        return m_events.logins > logins || m_events.refusals > refusals ||
               m_events.disconnections > disconnections;
      },
      k_answer_limit * k_slow);
  if (!told) return fail("nobody tells what has become of a login");
  m_in_session = m_events.logins > logins;
  return m_in_session;
}

bool session_life::connect() {
  KqsTcpInfo endpoint = endpoint_of(*m_server);
  return call([&] { return m_api->ConnServer(endpoint, &m_events); });
}

bool session_life::log_in() {
  KqsLoginParam param = credentials();
  return call([&] { return m_api->LoginToKqs(param); }) != 0;
}

void session_life::register_symbol() {
  call([&] { m_api->RegisterSymbol(k_type, k_symbol); });
}

void session_life::query() {
  call([&] { m_api->QuerySymbolList(); });
}

void session_life::forsake() {
  call([&] { DestroyKAVQuoteApi(m_api); });
  m_api = nullptr;
}

bool session_life::reach_quote() {
  const int before = m_events.quotes;
  clock::time_point asked{}, in_session_since = clock::now();
  const bool reached = wait(
      [&] {
        if (!m_fault.empty() || m_events.quotes > before) return true;
        const clock::time_point now = clock::now();
        const bool silent = now - in_session_since > k_answer_limit * k_slow;
        if (!m_in_session || silent) {
          if (!connect_and_log_in()) return false;
          in_session_since = clock::now();
        }
        if (now - asked > k_repeat) {
          register_symbol();
          asked = now;
        }
        m_server->push_quote(quote(), '1');
        return false;
      },
      k_patience * k_slow);
  return (reached && m_fault.empty()) || fail("no quote");
}

bool session_life::lose_connection() {
  const std::size_t before = m_server->connections().ever;
  m_server->drop_all();
  // A quote that was on its way does not count.
  return wait([&] { return m_server->connections().ever > before || !m_in_session; },
              k_answer_limit * k_slow) ||
         fail("no reconnection");
}

bool session_life::wind_up() {
  call([&] { return m_api->UnregisterSymbol(k_type, k_symbol); });
  if (!wait([&] { return !m_server->registered() || !m_in_session; }, k_answer_limit * k_slow)) {
    return fail("not unregistered");
  }
  const int lists = m_events.lists;
  clock::time_point asked{};
  const bool listed = wait(
      [&] {
        if (m_events.lists > lists) return true;
        if (clock::now() - asked < k_repeat) return false;
        call([&] { return m_api->QuerySymbolList(); });
        asked = clock::now();
        return false;
      },
      k_answer_limit * k_slow);
  return listed || fail("no list");
}

bool session_life::destroy() {
  const clock::time_point begin = clock::now();
  call([&] { m_api->DisConnServer(); });
  forsake();
  const auto took = clock::now() - begin;
  if (took > k_end_limit) {
    fail("the end took " + std::to_string(std::chrono::duration_cast<milliseconds>(took).count()) +
         " ms");
  }
  if (!wait_until([&] { return m_supply.has_all_back(); }, k_end_limit)) {
    fail(std::to_string(m_supply.live_threads) + " threads and " +
         std::to_string(m_supply.live_blocks) + " blocks of memory are left");
  }
  return m_fault.empty();
}

std::string session_life::run() {
  const bool lived =
      start() && be_refused() && reach_quote() && lose_connection() && reach_quote() && wind_up();
  if (m_api != nullptr) destroy();
  return lived || !m_fault.empty() ? m_fault : "unknown";
}

}  // namespace kav_faults
