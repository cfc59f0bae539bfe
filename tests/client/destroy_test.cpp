// Destroying and disconnecting a client in every state and from every place: quickly, and as a
// barrier behind which no callback comes.
#include <deque>    // std::deque
#include <thread>   // std::thread
#include <utility>  // std::exchange

#include "api/kav_multicast.h"
#include "tests/client/session_support.h"
#include "tests/support/signal_rain.h"

namespace kav_session {
namespace {

const char k_end_line[] = "OnLog(0, [QuoteClient] _th_kqc_send_and_reconn end)";
const char k_begin_line[] = "OnLog(0, [QuoteClient] _th_kqc_send_and_reconn begin)";
const char k_lost_line[] = "OnLog(0, [on_cache_callback] EVENT_REMOTE_DISCONNECT,thd_is_run:1)";
const char k_quiet_line[] = "OnLog(0, [QuoteClient] nothing to reg or unreg)";
const char k_timeout_line[] = "OnLog(3, [QuoteClient]stop thread timeout)";

class destroy_test : public session_fixture {
 protected:
  // Nobody has to close anything for the client's threads to go.
  void expect_no_threads() {
    EXPECT_TRUE(wait_until([] { return library_threads().empty(); }, milliseconds{2000 * k_slow}))
        << testing::PrintToString(library_threads());
  }
  void expect_quick_destruction() { EXPECT_LE(destroy(), k_stop_limit); }
  // A second in which a late callback would have come.
  void expect_silence() {
    std::this_thread::sleep_for(milliseconds{300});
    EXPECT_EQ(std::vector<std::string>{}, m_record.violations());
  }
  void stop_worker_by_destruction() {
    expect_quick_destruction();
    expect_no_threads();
    EXPECT_TRUE(wait_until([this] { return m_server->connections().current == 0; }, k_patience));
  }
};

TEST_F(destroy_test, nothing_is_no_client) { DestroyKAVQuoteApi(nullptr); }

TEST_F(destroy_test, client_that_never_connected_goes_at_once) {
  expect_quick_destruction();
  expect_no_threads();
}

TEST_F(destroy_test, client_without_login_leaves_its_connection_to_the_server) {
  connect();
  ASSERT_TRUE(wait_until([this] { return m_server->connections().current == 1; }, k_patience));
  expect_quick_destruction();
  m_server->send_raw("\x7fgarbage");
  expect_silence();
  EXPECT_EQ(1u, m_server->connections().current);
  m_server->drop_all();
  expect_no_threads();
}

TEST_F(destroy_test, client_goes_right_after_it_has_connected) {
  start_server();
  std::deque<session_record> records;
  KqsTcpInfo info = endpoint_of(m_server->port());
  for (int round = 0; round < 50; ++round) {
    session_record& record = records.emplace_back();
    KAVQuoteApi* const api = CreateKAVQuoteApi();
    ASSERT_TRUE(api->ConnServer(info, &record));
    const clock::time_point start = clock::now();
    DestroyKAVQuoteApi(api);
    record.forbid();
    EXPECT_LE(since(start), k_stop_limit);
  }
  m_server->drop_all();
  m_server->stop();
  expect_no_threads();
  for (const session_record& record : records) {
    EXPECT_EQ(std::vector<std::string>{}, record.violations());
  }
}

TEST_F(destroy_test, client_goes_while_its_login_is_on_its_way) {
  m_how.login_delay = milliseconds{300};
  connect();
  ASSERT_NE(0, send_login());
  expect_quick_destruction();
  std::this_thread::sleep_for(milliseconds{400});
  expect_silence();
  EXPECT_EQ(0u, m_server->received_count('S'));
}

// Runs one short life after another; destroys each `delay` after `event` has come.
void destroy_after(kav_sim::quote_server& server, const std::string& event,
                   const std::vector<milliseconds>& delays) {
  std::deque<session_record> records;
  KqsTcpInfo info = endpoint_of(server.port());
  KqsLoginParam param = login_of("trader", "abc");
  for (const milliseconds delay : delays) {
    session_record& record = records.emplace_back();
    KAVQuoteApi* const api = CreateKAVQuoteApi();
    ASSERT_TRUE(api->ConnServer(info, &record));
    ASSERT_NE(0, api->LoginToKqs(param));
    if (!event.empty()) {
      ASSERT_TRUE(record.wait_text(event));
    }
    std::this_thread::sleep_for(delay);
    const clock::time_point start = clock::now();
    DestroyKAVQuoteApi(api);
    record.forbid();
    EXPECT_LE(since(start), k_stop_limit) << delay.count();
  }
  std::this_thread::sleep_for(milliseconds{200});
  for (const session_record& record : records) {
    EXPECT_EQ(std::vector<std::string>{}, record.violations());
  }
}

std::vector<milliseconds> milliseconds_up_to(int last) {
  std::vector<milliseconds> all;
  for (int ms = 0; ms <= last; ++ms) all.emplace_back(ms);
  return all;
}

TEST_F(destroy_test, client_goes_at_any_moment_around_the_answer_to_its_login) {
  m_how.login_delay = milliseconds{10};
  start_server();
  destroy_after(*m_server, "", milliseconds_up_to(25));
}

TEST_F(destroy_test, client_goes_at_any_moment_after_a_refusal) {
  m_how.login = kav_sim::login_answer::refuse;
  start_server();
  destroy_after(*m_server, "OnLoginResult(false", milliseconds_up_to(20));
  expect_no_threads();
}

TEST_F(destroy_test, client_goes_at_any_moment_after_an_accepted_login) {
  start_server();
  destroy_after(*m_server, "OnLoginResult(true", milliseconds_up_to(20));
  expect_no_threads();
}

TEST_F(destroy_test, client_goes_while_it_waits_for_the_list) {
  m_how.list = kav_sim::list_answer::ignore;
  connect();
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(m_record.wait_text(k_begin_line));
  stop_worker_by_destruction();
}

TEST_F(destroy_test, client_goes_while_logged_in) {
  log_in();
  stop_worker_by_destruction();
}

TEST_F(destroy_test, client_goes_while_registering) {
  m_how.answer_register = false;
  log_in();
  m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>('1'), "IF2509");
  ASSERT_TRUE(wait_until([this] { return m_server->received_count('N') > 0; }, k_patience));
  stop_worker_by_destruction();
}

TEST_F(destroy_test, client_goes_while_quotes_flood_in) {
  log_in();
  register_symbol("IF2509");
  std::atomic<bool> stop{false};
  std::thread flood([&] {
    for (int i = 0; !stop && i < 2'000'000; ++i) {
      m_server->push_quote_waiting(quote_of("IF2509", i), '1', milliseconds{10});
    }
  });
  EXPECT_TRUE(wait_until([this] { return m_record.quote_count() > 1000; }, k_patience));
  stop_worker_by_destruction();
  stop = true;
  flood.join();
}

TEST_F(destroy_test, client_goes_while_quotes_flood_in_and_each_takes_long) {
  m_record.set_hook([](const call& c) {
    if (c.what == "OnQuote(49)") std::this_thread::sleep_for(milliseconds{5});
  });
  log_in();
  register_symbol("IF2509");
  for (int i = 0; i < 2000; ++i) m_server->push_quote(quote_of("IF2509", i), '1');
  EXPECT_TRUE(wait_until([this] { return m_record.quote_count() > 20; }, k_patience));
  stop_worker_by_destruction();
}

TEST_F(destroy_test, client_goes_during_the_pause_before_a_reconnection) {
  log_in();
  m_server->drop_all();
  ASSERT_TRUE(m_record.wait_text(k_lost_line));
  std::this_thread::sleep_for(milliseconds{1200});
  stop_worker_by_destruction();
}

TEST_F(destroy_test, client_goes_while_it_is_refused_again_and_again) {
  log_in();
  m_server->go_down();
  ASSERT_TRUE(m_record.wait_text("OnLog(3, [QuoteClient] connect server failed."));
  stop_worker_by_destruction();
}

TEST_F(destroy_test, client_goes_while_it_waits_for_the_answer_to_its_relogin) {
  log_in();
  m_how.login = kav_sim::login_answer::ignore;
  m_server->set_behaviour(m_how);
  m_server->drop_all();
  ASSERT_TRUE(wait_until([this] { return m_server->received_count('L') == 2; }, k_patience));
  stop_worker_by_destruction();
}

TEST_F(destroy_test, client_goes_while_it_waits_for_the_list_of_its_relogin) {
  log_in();
  m_how.list = kav_sim::list_answer::no_end_mark;
  m_server->set_behaviour(m_how);
  m_server->drop_all();
  ASSERT_TRUE(wait_until([this] { return m_server->received_count('S') == 2; }, k_patience));
  stop_worker_by_destruction();
}

TEST_F(destroy_test, client_goes_at_any_moment_of_a_reconnection) {
  start_server();
  std::deque<session_record> records;
  std::vector<KAVQuoteApi*> apis;
  KqsTcpInfo info = endpoint_of(m_server->port());
  KqsLoginParam param = login_of("trader", "abc");
  for (int i = 0; i < 24; ++i) {
    apis.push_back(CreateKAVQuoteApi());
    session_record& record = records.emplace_back();
    ASSERT_TRUE(apis.back()->ConnServer(info, &record));
    ASSERT_NE(0, apis.back()->LoginToKqs(param));
  }
  for (const session_record& record : records) ASSERT_TRUE(record.wait_text("OnLoginResult(true"));
  m_server->drop_all();
  for (const session_record& record : records) ASSERT_TRUE(record.wait_text(k_lost_line));
  std::this_thread::sleep_for(milliseconds{1850});
  for (std::size_t i = 0; i < apis.size(); ++i) {
    const clock::time_point start = clock::now();
    DestroyKAVQuoteApi(apis[i]);
    records[i].forbid();
    EXPECT_LE(since(start), k_stop_limit);
  }
  expect_no_threads();
  for (const session_record& record : records) {
    EXPECT_EQ(std::vector<std::string>{}, record.violations());
  }
}

TEST_F(destroy_test, client_goes_while_a_thread_of_the_caller_waits_in_connect) {
  black_hole hole;
  ASSERT_TRUE(hole.fill());
  std::atomic<int> result{-1};
  std::thread connecting([&] { result = conn_server_at(hole.port()) ? 1 : 0; });
  std::this_thread::sleep_for(milliseconds{300});
  EXPECT_EQ(-1, result);
  expect_quick_destruction();
  EXPECT_TRUE(wait_until([&] { return result == 0; }, k_stop_limit));
  connecting.join();
  expect_no_threads();
}

TEST_F(destroy_test, disconnecting_ends_a_connect_that_another_thread_waits_in) {
  black_hole hole;
  ASSERT_TRUE(hole.fill());
  std::atomic<int> result{-1};
  std::thread connecting([&] { result = conn_server_at(hole.port()) ? 1 : 0; });
  std::this_thread::sleep_for(milliseconds{300});
  EXPECT_EQ(-1, result);
  const clock::time_point start = clock::now();
  m_api->DisConnServer();
  EXPECT_LE(since(start), k_stop_limit);
  EXPECT_TRUE(wait_until([&] { return result == 0; }, k_stop_limit));
  connecting.join();
}

TEST_F(destroy_test, client_goes_while_its_worker_waits_in_connect) {
  black_hole hole;
  ASSERT_TRUE(conn_server_at(hole.port()));
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(hole.serve_one_login());
  ASSERT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
  ASSERT_TRUE(hole.fill());
  hole.drop();
  ASSERT_TRUE(m_record.wait_text(k_lost_line));
  std::this_thread::sleep_for(milliseconds{3500});
  EXPECT_FALSE(m_record.has("OnLog(3, "));
  EXPECT_EQ(1u, library_threads("kav-worker"));
  expect_quick_destruction();
  expect_no_threads();
}

// ---- Disconnecting

class disconnect_test : public destroy_test {
 protected:
  void expect_quick_disconnection() {
    const clock::time_point start = clock::now();
    m_api->DisConnServer();
    EXPECT_LE(since(start), k_stop_limit);
    EXPECT_FALSE(m_record.has(k_timeout_line));
    EXPECT_EQ("0", status_by_login());
    expect_no_threads();
  }
};

TEST_F(disconnect_test, client_that_never_connected_has_nothing_to_end) {
  m_api->DisConnServer();
  EXPECT_TRUE(library_threads().empty());
  start_server();
  log_in();
  expect_quick_disconnection();
}

TEST_F(disconnect_test, wait_for_the_list_ends) {
  m_how.list = kav_sim::list_answer::ignore;
  connect();
  ASSERT_NE(0, send_login());
  ASSERT_TRUE(m_record.wait_text(k_begin_line));
  expect_quick_disconnection();
  EXPECT_TRUE(m_record.has("OnLoginResult(false, query symbol error)"));
}

TEST_F(disconnect_test, pause_before_a_reconnection_ends) {
  log_in();
  m_server->drop_all();
  ASSERT_TRUE(m_record.wait_text(k_lost_line));
  expect_quick_disconnection();
  EXPECT_TRUE(m_record.wait_text(k_end_line));
}

TEST_F(disconnect_test, reconnection_to_a_server_that_is_away_ends) {
  log_in();
  m_server->go_down();
  ASSERT_TRUE(m_record.wait_text("OnLog(3, [QuoteClient] connect server failed."));
  expect_quick_disconnection();
  EXPECT_TRUE(m_record.wait_text(k_end_line));
}

TEST_F(disconnect_test, wait_for_the_answer_to_a_relogin_ends) {
  log_in();
  m_how.login = kav_sim::login_answer::ignore;
  m_server->set_behaviour(m_how);
  m_server->drop_all();
  ASSERT_TRUE(wait_until([this] { return m_server->received_count('L') == 2; }, k_patience));
  expect_quick_disconnection();
  EXPECT_TRUE(m_record.wait_text(k_end_line));
  EXPECT_FALSE(m_record.has("OnLog(3, [QuoteClient] wait for login"));
}

TEST_F(disconnect_test, flood_of_quotes_ends) {
  log_in();
  register_symbol("IF2509");
  std::atomic<bool> stop{false};
  std::thread flood([&] {
    for (int i = 0; !stop && i < 2'000'000; ++i) {
      m_server->push_quote_waiting(quote_of("IF2509", i), '1', milliseconds{10});
    }
  });
  EXPECT_TRUE(wait_until([this] { return m_record.quote_count() > 1000; }, k_patience));
  expect_quick_disconnection();
  stop = true;
  flood.join();
  const std::size_t seen = m_record.quote_count();
  std::this_thread::sleep_for(milliseconds{100});
  EXPECT_EQ(seen, m_record.quote_count());
}

// ---- Sends that would block

class blocked_send_test : public destroy_test {
 protected:
  // Ends with the worker inside a send that waits for a server that reads no more.
  void block_sending() {
    m_options.symbols.clear();
    for (int i = 0; i < 60'000; ++i) m_options.symbols.push_back({"S" + std::to_string(i), '1'});
    m_options.queue_limit_bytes = 16u << 20;
    m_options.record_received = false;
    log_in();
    m_server->stall(true);
    for (const kav_sim::listed_symbol& symbol : m_options.symbols) {
      m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>('1'), symbol.name.c_str());
    }
    // A pass that has begun and sends no line about its end for so long is waiting.
    ASSERT_TRUE(wait_until(
        [this] {
          const auto begun = [this] { return m_record.text_count("OnLog(0, [QuoteClient] valid"); };
          const auto ended = [this] { return m_record.text_count("OnLog(0, [QuoteClient] send"); };
          const std::size_t before = begun();
          if (before == ended()) return false;
          std::this_thread::sleep_for(milliseconds{700 * k_slow});
          return begun() == before && ended() == before - 1;
        },
        k_patience));
  }
};

TEST_F(blocked_send_test, client_goes_while_a_send_waits_for_the_server) {
  block_sending();
  expect_quick_destruction();
  expect_no_threads();
}

TEST_F(blocked_send_test, disconnecting_ends_a_send_that_waits_for_the_server) {
  block_sending();
  const clock::time_point start = clock::now();
  m_api->DisConnServer();
  EXPECT_LE(since(start), k_stop_limit);
  EXPECT_TRUE(m_record.wait_text(k_end_line));
}

TEST_F(blocked_send_test, send_that_a_stop_has_ended_is_no_loss_of_the_next_connection) {
  block_sending();
  m_api->DisConnServer();
  ASSERT_TRUE(m_record.wait_text(k_end_line));
  m_server->stall(false);
  log_in();
  register_symbol("S1");
  EXPECT_EQ(2u, m_server->connections().ever);
}

TEST_F(blocked_send_test, waiting_send_costs_no_processor_time) {
  block_sending();
  const auto used = [] {
    timespec time{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return milliseconds{time.tv_sec * 1000 + time.tv_nsec / 1'000'000};
  };
  const milliseconds before = used();
  std::this_thread::sleep_for(milliseconds{1000});
  EXPECT_LE(used() - before, milliseconds{200 * k_slow});
}

// ---- From inside callbacks

enum class stage {
  connecting,     // ConnServer()
  logging_in,     // LoginToKqs(), accepted
  being_refused,  // LoginToKqs(), refused
  losing_early,   // connected, the server closes
  registering,    // RegisterSymbol()
  quoting,        // a quote comes
  unregistering,  // UnregisterSymbol()
  listing,        // QuerySymbolList()
  losing,         // logged in, the server closes
  failing,        // logged in, the server goes away
  disconnecting,  // DisConnServer()
};

struct place {
  const char* name;
  stage when;
  const char* callback;  // its beginning
  const char* thread;
};

std::ostream& operator<<(std::ostream& out, const place& p) { return out << p.name; }

const place k_places[] = {
    {"OnServerConnected", stage::connecting, "OnServerConnected()", "caller"},
    {"OnLog_on_the_event_thread", stage::connecting, "OnLog(0, [on_cache_callback] EVENT_CONNECT",
     "kav-event"},
    {"OnLog_on_the_receive_thread", stage::logging_in, "OnLog(0, [QuoteClient] on_login_resp",
     "kav-receive"},
    {"OnLog_on_the_worker", stage::logging_in, k_begin_line, "kav-worker"},
    {"OnLog_with_the_size_of_the_list", stage::logging_in, "OnLog(0, Ckqc_tcp::_th_try",
     "kav-worker"},
    {"OnLoginResult_true", stage::logging_in, "OnLoginResult(true", "kav-worker"},
    {"OnLog_of_the_login", stage::logging_in, "OnLog(1, [QuoteClient] login success", "kav-worker"},
    {"OnLog_of_a_quiet_pass", stage::logging_in, k_quiet_line, "kav-worker"},
    {"OnLog_of_a_refusal", stage::being_refused, "OnLog(3, [QuoteClient] login failed",
     "kav-receive"},
    {"OnLoginResult_false", stage::being_refused, "OnLoginResult(false", "kav-receive"},
    {"OnServerDisconnected_after_a_refusal", stage::being_refused, "OnServerDisconnected()",
     "kav-receive"},
    {"OnLog_on_the_closing_thread", stage::being_refused,
     "OnLog(0, [on_cache_callback] EVENT_LOCALE_DISCONNECT", "kav-close"},
    {"OnLog_of_a_loss_before_the_login", stage::losing_early,
     "OnLog(0, [on_cache_callback] EVENT_REMOTE_DISCONNECT,thd_is_run:0", "kav-event"},
    {"OnServerDisconnected_after_a_loss", stage::losing_early, "OnServerDisconnected()",
     "kav-event"},
    {"OnLog_before_a_pass_sends", stage::registering, "OnLog(0, [QuoteClient] valid", "kav-worker"},
    {"OnLog_after_a_pass_has_sent", stage::registering, "OnLog(0, [QuoteClient] send",
     "kav-worker"},
    {"OnSymbolRegistered", stage::registering, "OnSymbolRegistered(", "kav-receive"},
    {"OnQuote", stage::quoting, "OnQuote(", "kav-receive"},
    {"OnSymbolUnregistered", stage::unregistering, "OnSymbolUnregistered(", "kav-receive"},
    {"OnSymbolList", stage::listing, "OnSymbolList(", "kav-worker"},
    {"OnSymbolList_last", stage::listing, "OnSymbolList(48, , true", "kav-worker"},
    {"OnLog_of_a_loss", stage::losing, k_lost_line, "kav-event"},
    {"OnLog_of_a_relogin_answer", stage::losing, "OnLog(0, [QuoteClient] relogin success",
     "kav-receive"},
    {"OnLog_of_a_failed_reconnection", stage::failing,
     "OnLog(3, [QuoteClient] connect server failed", "kav-worker"},
    {"OnLog_of_the_local_close", stage::disconnecting,
     "OnLog(0, [on_cache_callback] EVENT_LOCALE_DISCONNECT", "kav-worker"},
    {"OnLog_of_the_worker_end", stage::disconnecting, k_end_line, "kav-worker"},
};

class inside_test : public destroy_test, public testing::WithParamInterface<place> {
 protected:
  void lead_up() {
    switch (GetParam().when) {
      case stage::connecting:
        return start_server();
      case stage::being_refused:
        m_how.login = kav_sim::login_answer::refuse;
        return connect();
      case stage::logging_in:
        return connect();
      case stage::losing_early:
        connect();
        ASSERT_TRUE(wait_until([this] { return m_server->connections().ever == 1; }, k_patience));
        return;
      case stage::quoting:
      case stage::unregistering:
        log_in();
        register_symbol("IF2509");
        ASSERT_TRUE(m_record.wait_text(k_quiet_line));
        return;
      default:
        log_in();
        ASSERT_TRUE(m_record.wait_text(k_quiet_line));
    }
  }

  void trigger() {
    const auto type = static_cast<KavKqsIntrumentType>('1');
    switch (GetParam().when) {
      case stage::connecting:
        conn_server();
        break;
      case stage::logging_in:
      case stage::being_refused:
        send_login();
        break;
      case stage::registering:
        m_client_of_trigger->RegisterSymbol(type, "IF2509");
        break;
      case stage::quoting:
        for (int i = 0; i < 100; ++i) m_server->push_quote(quote_of("IF2509", i), '1');
        break;
      case stage::unregistering:
        m_client_of_trigger->UnregisterSymbol(type, "IF2509");
        break;
      case stage::listing:
        m_client_of_trigger->QuerySymbolList();
        break;
      case stage::losing_early:
      case stage::losing:
        m_server->drop_all();
        break;
      case stage::failing:
        m_server->go_down();
        break;
      case stage::disconnecting:
        m_client_of_trigger->DisConnServer();
        break;
    }
  }

  void expect_worker_ends() {
    if (std::string(GetParam().name) == "OnLog_on_the_receive_thread") {
      // There was no worker to end yet: the answer at hand starts one all the same.
      EXPECT_TRUE(m_record.wait_text("OnLoginResult(true, )"));
    } else {
      EXPECT_TRUE(wait_until([] { return library_threads("kav-worker") == 0; }, k_patience));
    }
  }

  // Does `what` in the first callback of the place; true when it has been done.
  bool do_inside(const std::function<void()>& what) {
    struct progress {
      std::atomic<bool> begun{false}, done{false};
    };
    const auto shared = std::make_shared<progress>();  // callbacks may outlast this function
    m_client_of_trigger = m_api;
    m_record.set_hook([shared, what](const call& c) {
      const std::string wanted = GetParam().callback;
      if (c.what.compare(0, wanted.size(), wanted) != 0 || shared->begun.exchange(true)) return;
      EXPECT_EQ(GetParam().thread, c.thread);
      const clock::time_point start = clock::now();
      what();
      EXPECT_LE(since(start), milliseconds{200 * k_slow});
      shared->done = true;
    });
    trigger();
    return wait_until([&] { return shared->done.load(); }, k_patience);
  }

 private:
  KAVQuoteApi* m_client_of_trigger = nullptr;
};

TEST_P(inside_test, destroying_returns_at_once_and_no_other_callback_follows) {
  lead_up();
  ASSERT_FALSE(HasFatalFailure());
  ASSERT_TRUE(do_inside([this] {
    DestroyKAVQuoteApi(m_api);
    m_record.forbid(100);  // others may be on their way out
  }));
  m_api = nullptr;
  expect_silence();
  if (GetParam().when != stage::connecting) expect_no_threads();
}

TEST_P(inside_test, disconnecting_returns_at_once_and_ends_the_session) {
  lead_up();
  ASSERT_FALSE(HasFatalFailure());
  ASSERT_TRUE(do_inside([this] { m_api->DisConnServer(); }));
  expect_worker_ends();
  m_api->DisConnServer();
  EXPECT_EQ("0", status_by_login());
  expect_quick_destruction();
}

TEST_P(inside_test, connecting_anew_after_a_disconnection_inside_is_possible) {
  lead_up();
  ASSERT_FALSE(HasFatalFailure());
  ASSERT_TRUE(do_inside([this] { m_api->DisConnServer(); }));
  expect_worker_ends();
  m_api->DisConnServer();
  m_how.login = kav_sim::login_answer::accept;
  m_server->set_behaviour(m_how);
  ASSERT_TRUE(m_server->come_back());
  m_record.forget();
  log_in();
  expect_quick_destruction();
}

// No callback runs under a lock: whatever a host's other threads want of the client meanwhile is
// done before the callback returns.
TEST_P(inside_test, other_threads_use_the_client_meanwhile) {
  lead_up();
  ASSERT_FALSE(HasFatalFailure());
  std::thread other;
  EXPECT_TRUE(do_inside([this, &other] {
    const auto done = std::make_shared<std::atomic<bool>>(false);
    other = std::thread([api = m_api, done] {
      const auto type = static_cast<KavKqsIntrumentType>('1');
      KqsLoginParam param = login_of("trader", "abc");
      KAVMulticastStatistics statistics{};
      api->RegisterSymbol(type, "cs1709");
      api->UnregisterSymbol(type, "cs1709");
      api->QuerySymbolList();
      api->LoginToKqs(param);
      GetKAVMulticastStatistics(api, 0, &statistics);
      *done = true;
    });
    EXPECT_TRUE(wait_until([&] { return done->load(); }, milliseconds{2000 * k_slow}));
  }));
  other.join();
}

INSTANTIATE_TEST_SUITE_P(places, inside_test, testing::ValuesIn(k_places),
                         [](const testing::TestParamInfo<place>& one) {
                           return std::string(one.param.name);
                         });

// ---- Callbacks that keep a thread of the library for longer than a stop waits

// Destroyed inside OnServerConnected, on the caller's thread, while the event thread is in OnLog.
class two_callbacks_test : public destroy_test {
 protected:
  void connect_and_destroy_inside() {
    m_record.set_hook([this](const call& c) {
      if (c.what == "OnLog(0, [on_cache_callback] EVENT_CONNECT)") {
        m_logging = true;
        wait_until([this] { return m_released.load(); }, m_log_lasts);
        m_logged = true;
      } else if (c.what == "OnServerConnected()") {
        EXPECT_TRUE(wait_until([this] { return m_logging.load(); }, k_patience));
        const clock::time_point start = clock::now();
        DestroyKAVQuoteApi(std::exchange(m_api, nullptr));
        m_took = since(start);
        m_other_had_ended = m_logged.load();
        m_record.forbid(m_other_had_ended ? 1 : 2);
      }
    });
    start_server();
    conn_server();
    expect_silence();
  }

  milliseconds m_log_lasts{0};
  std::atomic<bool> m_logging{false}, m_logged{false}, m_released{false};
  bool m_other_had_ended = false;
  milliseconds m_took{0};
};

TEST_F(two_callbacks_test, destroying_in_one_waits_for_the_other_thread_to_leave_its_own) {
  m_log_lasts = milliseconds{150};
  connect_and_destroy_inside();
  EXPECT_TRUE(m_other_had_ended);
  m_server->drop_all();  // the connection was still held, so it is open until now
  expect_no_threads();
}

TEST_F(two_callbacks_test, destroying_in_one_does_not_wait_long_for_another_that_stays) {
  m_log_lasts = milliseconds{60'000};
  connect_and_destroy_inside();
  EXPECT_FALSE(m_other_had_ended);
  EXPECT_LE(m_took, k_stop_limit);
  m_released = true;
  m_server->drop_all();
  expect_no_threads();
}

class long_callback_test : public destroy_test {
 protected:
  // Logs in with a callback of the worker that does not return before release().
  void log_in_and_block() {
    m_record.set_hook([this](const call& c) {
      if (c.what != "OnLoginResult(true, )") return;
      m_blocked = true;
      wait_until([this] { return m_released.load(); }, milliseconds{60'000});
    });
    connect();
    ASSERT_NE(0, send_login());
    ASSERT_TRUE(wait_until([this] { return m_blocked.load(); }, k_patience));
  }
  void release() { m_released = true; }

  std::atomic<bool> m_blocked{false}, m_released{false};
};

TEST_F(long_callback_test, disconnecting_gives_up_after_10_seconds_with_a_line) {
  log_in_and_block();
  const clock::time_point start = clock::now();
  m_api->DisConnServer();
  EXPECT_GE(since(start), milliseconds{10'000});
  EXPECT_LE(since(start), milliseconds{13'000});
  EXPECT_EQ(1u, m_record.text_count(k_timeout_line));
  EXPECT_EQ("caller", m_record.nth(k_timeout_line).thread);
  EXPECT_EQ("2", status_by_login());  // unchanged by the stop that failed
  std::thread releasing([this] {
    std::this_thread::sleep_for(milliseconds{1000});
    release();
  });
  EXPECT_LE(destroy(), milliseconds{1000} + k_stop_limit);
  expect_no_threads();
  releasing.join();
  expect_silence();
}

TEST_F(long_callback_test, signals_do_not_shorten_the_wait_for_the_worker) {
  log_in_and_block();
  std::thread releasing([this] {
    std::this_thread::sleep_for(milliseconds{1500});
    release();
  });
  {
    const kav_test::signal_rain rain;
    m_api->DisConnServer();
  }
  EXPECT_TRUE(m_released.load());
  EXPECT_FALSE(m_record.has(k_timeout_line));
  releasing.join();
}

TEST_F(long_callback_test, client_destroyed_under_a_callback_that_stays_is_never_heard_of_again) {
  log_in_and_block();
  const clock::time_point start = clock::now();
  DestroyKAVQuoteApi(m_api);
  m_record.forbid(1);  // the one that stays
  m_api = nullptr;
  EXPECT_GE(since(start), milliseconds{10'000});
  EXPECT_LE(since(start), milliseconds{14'000});
  release();
  expect_no_threads();
  expect_silence();
}

TEST_F(long_callback_test, quote_callback_that_stays_delays_destruction_but_not_forever) {
  std::atomic<bool> inside{false};
  m_record.set_hook([&](const call& c) {
    if (c.what != "OnQuote(49)" || inside.exchange(true)) return;
    wait_until([this] { return m_released.load(); }, milliseconds{60'000});
  });
  log_in();
  register_symbol("IF2509");
  for (int i = 0; i < 100; ++i) m_server->push_quote(quote_of("IF2509", i), '1');
  ASSERT_TRUE(wait_until([&] { return inside.load(); }, k_patience));
  const clock::time_point start = clock::now();
  DestroyKAVQuoteApi(m_api);
  m_record.forbid(1);
  m_api = nullptr;
  EXPECT_LE(since(start), milliseconds{14'000});
  release();
  expect_no_threads();
  expect_silence();
}

}  // namespace
}  // namespace kav_session
