// Random lives of clients at random servers: whatever happens, some things never do.
//
//   KAV_SEED=17 KAV_LIVES=1 lives_test    # life number i of a run has the seed of the run plus i
#include <cstdio>   // printf
#include <cstdlib>  // getenv, abort
#include <deque>    // std::deque
#include <map>      // std::map
#include <random>   // std::mt19937
#include <set>      // std::set
#include <thread>   // std::thread

#include "tests/client/session_support.h"

namespace kav_session {
namespace {

using kav_test::recorded_call;

constexpr unsigned k_default_lives = 200;
constexpr unsigned k_at_once = 12;
constexpr milliseconds k_longest_stop{3000 * k_slow};  // twelve lives share the machine
constexpr std::chrono::seconds k_watchdog{240};
const std::vector<std::string> k_symbols = {"IF2509", "cs1709", "Au(T+D)", "pb1705"};
const std::vector<std::string> k_codes = {"IF2509", "cs1709", "0", "pb1705"};

unsigned from_environment(const char* name, unsigned otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

class dice {
 public:
  explicit dice(unsigned seed) : m_random(seed) {}
  // 0 to sides - 1.
  unsigned roll(unsigned sides) {
    const std::lock_guard<std::mutex> hold{m_lock};
    return static_cast<unsigned>(m_random() % sides);
  }
  bool one_in(unsigned chances) { return roll(chances) == 0; }

 private:
  std::mutex m_lock;
  std::mt19937 m_random;  // protected by m_lock
};

// What a run has been through, as a sum over its lives.
struct experience {
  std::size_t logins = 0, refusals = 0, quotes = 0, losses = 0, relogins = 0, destroyed_inside = 0;
};

// One client from its creation to its destruction, with a server of its own.
class life {
 public:
  explicit life(unsigned seed) : m_dice(seed) {
    kav_sim::server_options options;
    for (std::size_t i = 0; i < k_codes.size(); ++i) options.symbols.push_back({k_codes[i], '1'});
    options.send_buffer_bytes = m_dice.one_in(3) ? 4096 : 0;
    m_server = std::make_unique<kav_sim::quote_server>(options);
    m_quotes_are_checked = !m_dice.one_in(4);
    m_long = m_dice.one_in(3);
  }

  void run() {
    ASSERT_TRUE(m_server->start()) << m_server->start_error();
    if (m_dice.one_in(3)) m_server->set_behaviour(random_behaviour());
    m_record.set_hook([this](const call&) { inside_callback(); });
    const unsigned steps = 10 + m_dice.roll(100);
    m_main = std::this_thread::get_id();
    if (!m_dice.one_in(4)) begin_well();
    for (unsigned i = 0; i < steps && has_client(); ++i) step();
    end();
    m_server->stop();
  }

  void add_to(experience& sum) const {
    sum.logins += m_record.text_count("OnLoginResult(true");
    sum.refusals += m_record.text_count("OnLoginResult(false");
    sum.quotes += m_record.quote_count();
    sum.losses += m_record.text_count("OnLog(0, [on_cache_callback] EVENT_REMOTE_DISCONNECT");
    sum.relogins += m_record.text_count("OnLog(0, [QuoteClient] relogin success");
    sum.destroyed_inside += m_destroyed_inside ? 1 : 0;
  }

  // After run(), when every thread of the client has gone.
  void expect_invariants() {
    EXPECT_EQ(0, m_record.running());
    EXPECT_EQ(std::vector<std::string>{}, m_record.violations());
    expect_one_worker_at_a_time();
    if (m_quotes_are_checked) expect_quotes_in_order();
  }

 private:
  bool has_client() {
    const std::lock_guard<std::mutex> hold{m_lock};
    return m_api != nullptr;
  }

  // Does something with the client, if it is still there, on the life's own thread.
  template <class OPERATION>
  void on_main(OPERATION operation) {
    KAVQuoteApi* api = nullptr;
    {
      const std::lock_guard<std::mutex> hold{m_lock};
      api = m_api;
      m_main_inside = api != nullptr;
    }
    if (api == nullptr) return;
    operation(*api);
    const std::lock_guard<std::mutex> hold{m_lock};
    m_main_inside = false;
  }

  // As a sensible caller would; most of the rest of the life needs a session.
  void begin_well() {
    on_main([this](KAVQuoteApi& api) { connect(api); });
    on_main([this](KAVQuoteApi& api) { log_in(api); });
    m_record.wait_text("OnLoginResult(", 1, milliseconds{300});
    for (int i = 0; i < 3; ++i) on_main([this](KAVQuoteApi& api) { add_symbol(api); });
    m_record.wait_text("OnSymbolRegistered(", 1, milliseconds{m_dice.roll(300)});
  }

  void step() {
    switch (m_dice.roll(24)) {
      case 0:
      case 1:
      case 2:
        return on_main([this](KAVQuoteApi& api) { connect(api); });
      case 3:
      case 4:
      case 5:
        return on_main([this](KAVQuoteApi& api) { log_in(api); });
      case 6:
      case 7:
      case 8:
        return on_main([this](KAVQuoteApi& api) { add_symbol(api); });
      case 9:
        return on_main([this](KAVQuoteApi& api) { remove_symbol(api); });
      case 10:
        return on_main([](KAVQuoteApi& api) { api.QuerySymbolList(); });
      case 11:
        if (!m_dice.one_in(3)) return;
        return on_main([](KAVQuoteApi& api) { disconnect(api); });
      case 12:
      case 13:
        return m_server->set_behaviour(random_behaviour());
      case 14:
        return m_server->set_behaviour({});
      case 15:
        return harm_connections();
      case 16:
      case 17:
      case 18:
        return push_quotes();
      case 19:
        if (m_long) std::this_thread::sleep_for(milliseconds{2200});
        m_long = false;
        return;
      default:
        std::this_thread::sleep_for(milliseconds{m_dice.roll(m_dice.one_in(3) ? 200 : 20)});
    }
  }

  void connect(KAVQuoteApi& api) {
    KqsTcpInfo server = endpoint_of(m_dice.one_in(10) ? std::uint16_t{1} : m_server->port());
    if (m_dice.one_in(2)) {
      api.ConnServer(server, &m_record);
    } else {
      std::vector<KqsTcpInfo> servers(m_dice.roll(8) == 0 ? 0 : 2, server);
      api.ConnServer(servers, &m_record);
    }
  }

  void log_in(KAVQuoteApi& api) {
    KqsLoginParam param = login_of("user" + std::to_string(m_dice.roll(3)), "abc");
    api.LoginToKqs(param);
  }

  void add_symbol(KAVQuoteApi& api) {
    const unsigned which = m_dice.roll(static_cast<unsigned>(k_symbols.size()));
    {
      const std::lock_guard<std::mutex> hold{m_lock};
      m_ever_registered.insert(k_symbols[which]);
    }
    api.RegisterSymbol(static_cast<KavKqsIntrumentType>('1'), k_symbols[which].c_str());
  }

  void remove_symbol(KAVQuoteApi& api) {
    const unsigned which = m_dice.roll(static_cast<unsigned>(k_symbols.size()));
    api.UnregisterSymbol(static_cast<KavKqsIntrumentType>('1'), k_symbols[which].c_str());
  }

  static void disconnect(KAVQuoteApi& api) {
    const clock::time_point start = clock::now();
    api.DisConnServer();
    EXPECT_LE(since(start), k_longest_stop);
  }

  kav_sim::behaviour random_behaviour() {
    using namespace kav_sim;
    behaviour how;
    if (m_dice.one_in(8)) how.on_accept = static_cast<accept_answer>(m_dice.roll(4));
    if (m_dice.one_in(4)) how.login = static_cast<login_answer>(m_dice.roll(3));
    if (m_dice.one_in(3)) how.login_delay = milliseconds{m_dice.roll(30)};
    how.full_width_reason = m_dice.one_in(3);
    if (m_dice.one_in(5)) how.list = static_cast<list_answer>(m_dice.roll(4));
    if (m_dice.one_in(4)) how.end_mark_delay = milliseconds{m_dice.roll(100)};
    how.answer_register = !m_dice.one_in(5);
    how.answer_unregister = !m_dice.one_in(5);
    how.register_result = "0025"[m_dice.roll(4)];
    how.unregister_result = "0025"[m_dice.roll(4)];
    how.full_width_list = m_dice.one_in(12);
    how.full_width_answers = m_dice.one_in(8);
    how.full_width_quotes = m_dice.one_in(6);
    if (m_dice.one_in(4)) {
      how.loss = static_cast<loss_kind>(m_dice.roll(5));
      how.loss_after_messages = m_dice.roll(20);
      if (m_dice.one_in(3)) how.loss_after_time = milliseconds{m_dice.roll(300)};
      how.truncate_bytes = m_dice.roll(370);
    }
    // Behind garbage a stream may be read from the middle of a message: no order any more.
    if (!m_quotes_are_checked && m_dice.one_in(3)) {
      how.garbage_when = static_cast<garbage_time>(m_dice.roll(3));
    }
    if (m_dice.one_in(5)) {
      for (unsigned i = 0; i < 8; ++i) how.chunk_sizes.push_back(1 + m_dice.roll(500));
      how.chunk_pause = milliseconds{1};
    }
    return how;
  }

  void harm_connections() {
    switch (m_dice.roll(6)) {
      case 0:
        return m_server->drop_all();
      case 1:
        return m_server->reset_all();
      case 2:
        return m_server->stall(m_dice.one_in(2));
      case 3:
        return m_server->outage(milliseconds{m_dice.roll(500)});
      case 4:
        if (!m_quotes_are_checked) {
          m_server->send_raw(std::string(1 + m_dice.roll(40), char('A' + m_dice.roll(26))));
        }
        return;
      default:
        return m_server->stall(false);
    }
  }

  void push_quotes() {
    for (unsigned left = m_dice.roll(200); left > 0; --left) {
      const std::string& code = k_codes[m_dice.roll(static_cast<unsigned>(k_codes.size()))];
      m_server->push_quote(quote_of(code, ++m_last_price), '1');
    }
  }

  // Calls back into the client at times; destroys it even, unless the life's own thread may be
  // about to use it.
  void inside_callback() {
    if (!m_dice.one_in(10)) return;
    KAVQuoteApi* api = nullptr;
    bool last = false;
    {
      const std::lock_guard<std::mutex> hold{m_lock};
      api = m_api;
      if (api == nullptr) return;
      const bool free = !m_main_inside || std::this_thread::get_id() == m_main;
      if (free && m_dice.one_in(30)) m_api = nullptr;
      last = m_api == nullptr;
    }
    if (last) {
      m_destroyed_inside = true;
      return destroy(api, 100);  // others may be on their way out
    }
    switch (m_dice.roll(6)) {
      case 0:
        return log_in(*api);
      case 1:
        return add_symbol(*api);
      case 2:
        return remove_symbol(*api);
      case 3:
        api->QuerySymbolList();
        return;
      case 4:
        if (m_dice.one_in(4)) disconnect(*api);
        return;
      default:
        if (m_dice.one_in(2)) connect(*api);
    }
  }

  void destroy(KAVQuoteApi* api, int inside) {
    const clock::time_point start = clock::now();
    DestroyKAVQuoteApi(api);
    m_record.forbid(inside);
    EXPECT_LE(since(start), k_longest_stop);
  }

  void end() {
    KAVQuoteApi* api = nullptr;
    {
      const std::lock_guard<std::mutex> hold{m_lock};
      std::swap(api, m_api);
    }
    if (api != nullptr) destroy(api, 0);
  }

  // When a worker has begun, the one before may say no more than that it has ended.
  void expect_one_worker_at_a_time() {
    std::thread::id worker;
    for (const recorded_call& c : m_record.calls()) {
      if (c.thread_name != "kav-worker") continue;
      if (c.text == "[QuoteClient] _th_kqc_send_and_reconn begin") worker = c.thread;
      if (c.text == "[QuoteClient] _th_kqc_send_and_reconn end") continue;
      EXPECT_EQ(worker, c.thread) << c;
    }
  }

  // Each connection has a receive thread of its own, and what the server sends only grows.
  void expect_quotes_in_order() {
    std::map<std::thread::id, double> last;
    for (const recorded_call& c : m_record.quotes()) {
      const double price = c.quote.LastPrice;
      EXPECT_GT(price, last[c.thread]);
      last[c.thread] = price;
      const std::string symbol(c.quote.InstrumentID,
                               ::strnlen(c.quote.InstrumentID, sizeof(c.quote.InstrumentID)));
      const bool wanted =
          std::any_of(m_ever_registered.begin(), m_ever_registered.end(),
                      [&](const std::string& s) { return symbol.compare(0, s.size(), s) == 0; });
      EXPECT_TRUE(wanted) << symbol;
    }
  }

  dice m_dice;
  bool m_quotes_are_checked = true;
  bool m_long = false;
  double m_last_price = 0;
  std::thread::id m_main;
  std::unique_ptr<kav_sim::quote_server> m_server;
  session_record m_record;
  std::mutex m_lock;
  KAVQuoteApi* m_api = CreateKAVQuoteApi();  // protected by m_lock
  bool m_main_inside = false;                // protected by m_lock
  std::atomic<bool> m_destroyed_inside{false};
  std::set<std::string> m_ever_registered;  // protected by m_lock
};

// Ends the program, with a core to look at, when the lives take too long.
class watchdog {
 public:
  watchdog() : m_thread([this] { watch(); }) {}
  ~watchdog() {
    m_done = true;
    m_thread.join();
  }

 private:
  void watch() {
    if (wait_until([this] { return m_done.load(); }, k_watchdog)) return;
    std::printf("the lives hang\n");
    std::fflush(stdout);
    std::abort();
  }
  std::atomic<bool> m_done{false};
  std::thread m_thread;
};

TEST(lives_test, random_lives_break_no_promise_and_leave_nothing_behind) {
  const unsigned seed = from_environment("KAV_SEED", std::random_device{}() % 1'000'000);
  const unsigned lives = from_environment("KAV_LIVES", k_default_lives);
  std::printf("KAV_SEED=%u KAV_LIVES=%u\n", seed, lives);
  std::fflush(stdout);
  const std::size_t descriptors = open_descriptors();
  const watchdog guard;
  std::vector<std::unique_ptr<life>> all(lives);
  std::atomic<unsigned> next{0};
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < std::min(lives, k_at_once); ++i) {
    threads.emplace_back([&] {
      for (unsigned number = next++; number < lives; number = next++) {
        SCOPED_TRACE("seed " + std::to_string(seed + number));
        all[number] = std::make_unique<life>(seed + number);
        all[number]->run();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(wait_until([] { return library_threads().empty(); }, milliseconds{3000 * k_slow}))
      << testing::PrintToString(library_threads());
  EXPECT_TRUE(wait_until([&] { return open_descriptors() == descriptors; }, milliseconds{2000}))
      << open_descriptors() << " instead of " << descriptors;
  experience sum;
  for (unsigned number = 0; number < lives; ++number) {
    SCOPED_TRACE("seed " + std::to_string(seed + number));
    all[number]->expect_invariants();
    all[number]->add_to(sum);
  }
  std::printf("%zu logins, %zu refused, %zu quotes, %zu losses, %zu relogins, %zu ends inside\n",
              sum.logins, sum.refusals, sum.quotes, sum.losses, sum.relogins, sum.destroyed_inside);
  if (lives >= k_default_lives) {  // lives in which nothing happens would prove nothing
    EXPECT_GT(sum.logins, lives / 4);
    EXPECT_GT(sum.quotes, lives);
    EXPECT_GT(std::min({sum.refusals, sum.losses, sum.destroyed_inside}), lives / 20);
    EXPECT_GT(sum.relogins, 0u);
  }
}

}  // namespace
}  // namespace kav_session
