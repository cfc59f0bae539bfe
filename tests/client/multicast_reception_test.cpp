// Multicast groups received beside the session, with real datagrams on loopback.
#include <algorithm>   // std::count
#include <array>       // std::array
#include <csignal>     // SIGINT
#include <functional>  // std::function
#include <thread>      // std::thread

#include "tests/client/multicast_support.h"
#include "tests/client/session_support.h"
#include "tests/support/process_view.h"
#include "tests/support/system_calls.h"

namespace kav_session {
namespace {

using namespace std::chrono_literals;
using kav_test::group;
using kav_test::owned_fd;
using kav_test::recorded_call;

// Opened before the fixture counts descriptors, closed after it has counted them again.
struct port_holder {
  kav_test::shared_port m_port;
};

class multicast_reception_test : public port_holder, public session_fixture {
 protected:
  void SetUp() override {
    const std::string obstacle = m_port.obstacle();
    if (!obstacle.empty()) GTEST_SKIP() << obstacle;
  }

  KqsMulticastInfo info(int number, const std::string& exchange) const {
    return group_info(group(number), m_port.number(), exchange);
  }
  int start(const std::vector<KqsMulticastInfo>& groups) {
    m_results.assign(groups.size(), -1);
    return StartKAVMulticast(m_api, groups.data(), static_cast<unsigned>(groups.size()), &m_quotes,
                             m_results.data());
  }
  KAVMulticastStatistics statistics(unsigned index) {
    KAVMulticastStatistics result{};
    EXPECT_TRUE(GetKAVMulticastStatistics(m_api, index, &result));
    return result;
  }
  bool wait_quotes(std::size_t least) const {
    return wait_until([&] { return m_quotes.quote_count() >= least; }, k_patience);
  }
  std::vector<std::string> symbols() const {
    std::vector<std::string> names;
    for (const recorded_call& call : m_quotes.quotes()) names.push_back(call.quote.InstrumentID);
    return names;
  }
  // What to do in each OnQuote().
  void on_quote(std::function<void()> act) {
    m_quotes.set_hook([act = std::move(act)](const call& what) {
      if (what.what.rfind("OnQuote", 0) == 0) act();
    });
  }
  // Sends to group `number` from a thread of its own, until it is destroyed.
  class torrent {
   public:
    torrent(const multicast_reception_test& test, int number)
        : m_sender(group(number), test.m_port.number()), m_thread([this] { run(); }) {}
    torrent(const torrent&) = delete;
    torrent& operator=(const torrent&) = delete;
    ~torrent() {
      m_stop = true;
      m_thread.join();
    }

   private:
    void run() {
      while (!m_stop) {
        m_sender.send(lumen_trade("au2412", 600, 1));
        std::this_thread::sleep_for(50us);
      }
    }
    group_sender m_sender;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
  };

  session_record m_quotes;  // of the reception; m_record is the session's
  std::vector<int> m_results;
};

// ---- Receiving

TEST_F(multicast_reception_test, all_groups_of_a_client_are_received_by_one_thread) {
  const std::array<std::string, 5> names{"SHFE", "CFFEX", "CZCE", "GFEX", "LUMEN"};
  const std::array<std::string, 5> datagrams{
      shfe_datagram("rb2410", 1), cffex_datagram("IF2409", 2), czce_datagram("SR409", 3),
      gfex_datagram("si2409", 4), lumen_trade("au2412", 5, 6)};
  std::vector<KqsMulticastInfo> groups;
  groups.reserve(names.size());
  for (int i = 0; i < 5; ++i) groups.push_back(info(i, names.at(static_cast<std::size_t>(i))));
  ASSERT_EQ(KAVMulticastStarted, start(groups));
  EXPECT_EQ(std::vector<int>(5, KAVMulticastStarted), m_results);
  for (int i = 0; i < 5; ++i) {
    group_sender sender(group(i), m_port.number());
    ASSERT_TRUE(sender.send(datagrams.at(static_cast<std::size_t>(i))));
    ASSERT_TRUE(wait_quotes(static_cast<std::size_t>(i) + 1));
  }
  EXPECT_EQ((std::vector<std::string>{"rb2410", "IF2409", "SR409", "si2409", "au2412"}), symbols());
  double last = 0;
  for (const recorded_call& call : m_quotes.quotes()) {
    EXPECT_EQ(KavKqsIntrumentTypeMulticast, call.type);
    EXPECT_EQ("kav-multicast", call.thread_name);
    EXPECT_EQ(++last, double{call.quote.LastPrice});
  }
  // The last sender's own thread may still be on its way out.
  EXPECT_TRUE(wait_until(
      [] { return library_threads() == std::vector<std::string>{"kav-multicast"}; }, k_patience));
  EXPECT_TRUE(m_record.texts().empty());
}

TEST_F(multicast_reception_test, its_thread_leaves_signals_to_the_host) {
  ASSERT_EQ(KAVMulticastStarted, start({info(1, "SHFE")}));
  const auto receiving = [] { return kav_test::threads_named("kav-multicast"); };
  ASSERT_TRUE(wait_until([&] { return receiving().size() == 1; }, k_patience));
  const kav_test::thread_view thread = receiving().at(0);
  for (const int signal : {SIGINT, SIGTERM, SIGALRM, SIGCHLD, SIGPIPE}) {
    EXPECT_TRUE(thread.blocks(signal)) << signal;
  }
  for (const int signal : {SIGPROF, SIGSEGV, SIGABRT}) EXPECT_FALSE(thread.blocks(signal));
}

TEST_F(multicast_reception_test, a_symbol_on_two_groups_is_merged_in_one_record) {
  ASSERT_EQ(KAVMulticastStarted, start({info(1, "SHFE"), info(2, "CZCE")}));
  group_sender first(group(1), m_port.number()), second(group(2), m_port.number());
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(first.send(lumen_trade("au2412", 600, 1)));
    ASSERT_TRUE(second.send(lumen_trade("au2412", 601, 2)));
  }
  ASSERT_TRUE(wait_quotes(20));
  const std::vector<recorded_call> seen = m_quotes.quotes();
  EXPECT_EQ(30, int{seen.back().quote.Volume});
  for (const recorded_call& call : seen) {
    EXPECT_EQ(seen.front().quote_address, call.quote_address);
  }
}

TEST_F(multicast_reception_test, the_groups_exchange_decides_what_is_decoded_and_all_is_counted) {
  ASSERT_EQ(KAVMulticastStarted, start({info(1, "CFFEX"), info(2, "LUMEN"), info(3, "INE")}));
  group_sender cffex(group(1), m_port.number()), lumen(group(2), m_port.number());
  ASSERT_TRUE(cffex.send(shfe_datagram("rb2410", 1)));
  ASSERT_TRUE(cffex.send(std::string(108, 'x')));
  ASSERT_TRUE(cffex.send(cffex_datagram("IF2409", 2)));
  ASSERT_TRUE(lumen.send(shfe_datagram("rb2410", 1)));
  ASSERT_TRUE(lumen.send(lumen_summary("au2412", 600)));
  ASSERT_TRUE(
      wait_until([&] { return statistics(0).m_Datagrams == 3 && statistics(1).m_Datagrams == 2; },
                 k_patience));
  EXPECT_EQ(1u, statistics(0).m_Quotes);
  EXPECT_EQ(1u, statistics(0).m_Ignored);
  EXPECT_EQ(1u, statistics(0).m_Refused);
  EXPECT_EQ(1u, statistics(1).m_Quotes);
  EXPECT_EQ(1u, statistics(1).m_Ignored);
  EXPECT_EQ(0u, statistics(2).m_Datagrams);
  EXPECT_EQ(0u, statistics(0).m_Dropped);
  KAVMulticastStatistics untouched{};
  untouched.m_Quotes = 77;
  EXPECT_FALSE(GetKAVMulticastStatistics(m_api, 3, &untouched));
  EXPECT_EQ(77u, untouched.m_Quotes);
  EXPECT_FALSE(GetKAVMulticastStatistics(m_api, 0, nullptr));
  StopKAVMulticast(m_api);
  EXPECT_FALSE(GetKAVMulticastStatistics(m_api, 0, &untouched));
}

TEST_F(multicast_reception_test, what_the_system_dropped_behind_a_slow_callback_is_counted) {
  std::atomic<bool> blocked{true};
  on_quote([&] { wait_until([&] { return !blocked; }, k_patience); });
  ASSERT_EQ(KAVMulticastStarted, start({info(1, "SHFE")}));
  group_sender sender(group(1), m_port.number());
  for (int sent = 0; sent < 2000; ++sent) ASSERT_TRUE(sender.send(shfe_datagram("rb2410", 1)));
  const std::uint64_t dropped = statistics(0).m_Dropped;
  EXPECT_GT(dropped, 0u);
  blocked = false;
  EXPECT_TRUE(wait_until([&] { return statistics(0).m_Quotes == 2000 - dropped; }, k_patience));
  EXPECT_EQ(dropped, statistics(0).m_Dropped);
}

TEST_F(multicast_reception_test, an_empty_datagram_does_not_end_a_group) {
  ASSERT_EQ(KAVMulticastStarted, start({info(1, "SHFE")}));
  group_sender sender(group(1), m_port.number());
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(sender.send(""));
  ASSERT_TRUE(sender.send(shfe_datagram("rb2410", 1)));
  EXPECT_TRUE(wait_quotes(1));
}

TEST_F(multicast_reception_test, two_clients_receive_the_same_group) {
  session_record other_quotes;
  KAVQuoteApi* const other = CreateKAVQuoteApi();
  const KqsMulticastInfo shared = info(1, "SHFE");
  ASSERT_EQ(KAVMulticastStarted, start({shared}));
  ASSERT_EQ(KAVMulticastStarted, StartKAVMulticast(other, &shared, 1, &other_quotes, nullptr));
  group_sender sender(group(1), m_port.number());
  ASSERT_TRUE(sender.send(shfe_datagram("rb2410", 1)));
  EXPECT_TRUE(wait_quotes(1));
  EXPECT_TRUE(wait_until([&] { return other_quotes.quote_count() == 1; }, k_patience));
  DestroyKAVQuoteApi(other);
}

// ---- Starting

TEST_F(multicast_reception_test, every_entry_that_is_wrong_is_told_and_nothing_stays_open) {
  const owned_fd alone(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = kav_test::endpoint("0.0.0.0", 0);
  socklen_t size = sizeof(address);
  ASSERT_EQ(0, ::bind(alone.get(), reinterpret_cast<sockaddr*>(&address), size));
  ASSERT_EQ(0, ::getsockname(alone.get(), reinterpret_cast<sockaddr*>(&address), &size));
  const unsigned short used = ntohs(address.sin_port), port = m_port.number();
  const std::size_t before = open_descriptors();

  struct row {
    KqsMulticastInfo info;
    int result;
  };
  const std::vector<row> rows{
      {info(1, "SHFE"), KAVMulticastNotOpened},
      {info(2, "NYSE"), KAVMulticastUnknownExchange},
      {info(2, ""), KAVMulticastUnknownExchange},
      {group_info("10.0.0.1", port, "SHFE"), KAVMulticastInvalidGroup},
      {group_info("239.1.1", port, "SHFE"), KAVMulticastInvalidGroup},
      {group_info("", port, "SHFE"), KAVMulticastInvalidGroup},
      {group_info(group(3), 0, "SHFE"), KAVMulticastInvalidPort},
      {group_info(group(3), port, "SHFE", "localhost"), KAVMulticastInvalidLocalIp},
      {group_info(group(3), port, "SHFE", "192.0.2.77"), KAVMulticastNoInterface},
      {group_info(group(4), port, "SHFE", "192.0.2.77"), KAVMulticastNoInterface},
      {info(1, "CZCE"), KAVMulticastDuplicateGroup},
      {group_info(group(5), used, "SHFE"), KAVMulticastPortInUse},
      {info(6, "GFEX"), KAVMulticastNotOpened},
  };
  std::vector<KqsMulticastInfo> groups;
  std::vector<int> expected;
  for (const row& it : rows) {
    groups.push_back(it.info);
    expected.push_back(it.result);
  }
  EXPECT_EQ(KAVMulticastGroupFailed, start(groups));
  EXPECT_EQ(expected, m_results);
  EXPECT_EQ(before, open_descriptors());
  EXPECT_TRUE(library_threads().empty());
  EXPECT_EQ(11u, m_quotes.text_count("OnLog(3, [QuoteClient] multicast: group "));
  EXPECT_TRUE(m_quotes.has("OnLog(3, [QuoteClient] multicast: group 8 (" + group(3) + ":" +
                           std::to_string(port) +
                           " SHFE at 192.0.2.77): no interface has the local address"));
  EXPECT_EQ(KAVMulticastStarted, start({groups.front(), groups.back()}));
}

TEST_F(multicast_reception_test, another_start_may_follow_when_the_caller_hears_that_one_failed) {
  std::optional<int> second;
  m_quotes.set_hook([&](const kav_session::call& it) {
    if (!it.what.starts_with("OnLog(3, [QuoteClient] multicast: group 0") || second) return;
    const KqsMulticastInfo good = info(1, "SHFE");
    second = StartKAVMulticast(m_api, &good, 1, &m_quotes, nullptr);
  });
  EXPECT_EQ(KAVMulticastGroupFailed, start({info(2, "NYSE")}));
  EXPECT_EQ(std::optional<int>{KAVMulticastStarted}, second);
}

TEST_F(multicast_reception_test, texts_that_fill_their_fields_end_there) {
  KqsMulticastInfo full = info(1, "SHFE");
  std::memset(full.m_ExchangeId, 'S', sizeof(full.m_ExchangeId));
  EXPECT_EQ(KAVMulticastGroupFailed, start({full}));
  EXPECT_EQ(KAVMulticastUnknownExchange, m_results.front());
  full = info(1, "SHFE");
  std::memset(full.m_GroupIp, '1', sizeof(full.m_GroupIp));
  EXPECT_EQ(KAVMulticastGroupFailed, start({full}));
  EXPECT_EQ(KAVMulticastInvalidGroup, m_results.front());
  full = info(1, "SHFE");
  std::memset(full.m_LocalIp, '1', sizeof(full.m_LocalIp));
  EXPECT_EQ(KAVMulticastGroupFailed, start({full}));
  EXPECT_EQ(KAVMulticastInvalidLocalIp, m_results.front());
}

TEST_F(multicast_reception_test, requests_without_a_client_an_object_or_groups_are_refused) {
  const KqsMulticastInfo one = info(1, "SHFE");
  const std::vector<KqsMulticastInfo> many(KAV_MULTICAST_MOST_GROUPS + 1, one);
  EXPECT_EQ(KAVMulticastInvalidArgument, StartKAVMulticast(nullptr, &one, 1, &m_quotes, nullptr));
  EXPECT_EQ(KAVMulticastInvalidArgument, StartKAVMulticast(m_api, nullptr, 1, &m_quotes, nullptr));
  EXPECT_EQ(KAVMulticastInvalidArgument, StartKAVMulticast(m_api, &one, 0, &m_quotes, nullptr));
  EXPECT_EQ(KAVMulticastInvalidArgument, StartKAVMulticast(m_api, &one, 1, nullptr, nullptr));
  EXPECT_EQ(
      KAVMulticastInvalidArgument,
      StartKAVMulticast(m_api, many.data(), KAV_MULTICAST_MOST_GROUPS + 1, &m_quotes, nullptr));
  StopKAVMulticast(nullptr);
  StopKAVMulticast(m_api);
  EXPECT_FALSE(GetKAVMulticastStatistics(nullptr, 0, nullptr));
}

TEST_F(multicast_reception_test, an_object_that_is_no_client_of_this_library_is_refused) {
  class foreign_api : public KAVQuoteApi {
    bool ConnServer(std::vector<KqsTcpInfo>&, KAVQuoteEvent*) override { return false; }
    bool ConnServer(KqsTcpInfo&, KAVQuoteEvent*) override { return false; }
    int InitMulticast(std::vector<KqsMulticastInfo>&, KAVQuoteEvent*) override { return 0; }
    int LoginToKqs(KqsLoginParam&) override { return 0; }
    int QuerySymbolList() override { return 0; }
    int RegisterSymbol(KavKqsIntrumentType, const char*) override { return 0; }
    int UnregisterSymbol(KavKqsIntrumentType, const char*) override { return 0; }
    void DisConnServer() override {}
  } foreign;
  const KqsMulticastInfo one = info(1, "SHFE");
  EXPECT_EQ(KAVMulticastInvalidArgument, StartKAVMulticast(&foreign, &one, 1, &m_quotes, nullptr));
}

TEST_F(multicast_reception_test, a_second_start_is_refused_and_the_first_reception_goes_on) {
  ASSERT_EQ(KAVMulticastStarted, start({info(1, "SHFE")}));
  EXPECT_EQ(KAVMulticastAlreadyStarted, start({info(2, "SHFE")}));
  group_sender sender(group(1), m_port.number());
  ASSERT_TRUE(sender.send(shfe_datagram("rb2410", 1)));
  EXPECT_TRUE(wait_quotes(1));
}

TEST_F(multicast_reception_test, the_systems_own_reason_is_told_when_no_thread_can_be_had) {
  const std::size_t before = open_descriptors();
  {
    const kav_test::failing_thread_creation failing;
    EXPECT_EQ(KAVMulticastSystemError, start({info(1, "SHFE")}));
  }
  EXPECT_EQ(KAVMulticastNotOpened, m_results.front());
  EXPECT_TRUE(m_quotes.has("OnLog(3, [QuoteClient] multicast: no group was opened: "));
  EXPECT_EQ(before, open_descriptors());
  EXPECT_EQ(KAVMulticastStarted, start({info(1, "SHFE")}));
}

TEST(multicast_result_test, every_result_has_a_text_of_its_own) {
  std::vector<std::string> texts;
  for (int result = KAVMulticastStarted; result <= KAVMulticastGroupFailed + 1; ++result) {
    texts.emplace_back(KAVMulticastResultText(result));
    EXPECT_FALSE(texts.back().empty());
    EXPECT_EQ(1, std::count(texts.begin(), texts.end(), texts.back())) << texts.back();
  }
  EXPECT_STREQ("unknown result", KAVMulticastResultText(-1));
  EXPECT_STREQ("unknown result", texts.back().c_str());
}

TEST_F(multicast_reception_test, the_sessions_own_operation_still_does_nothing) {
  std::vector<KqsMulticastInfo> groups{info(1, "SHFE")};
  EXPECT_EQ(0, m_api->InitMulticast(groups, &m_quotes));
  EXPECT_TRUE(library_threads().empty());
}

// ---- Stopping

TEST_F(multicast_reception_test, stopping_waits_for_a_callback_and_none_follows) {
  std::atomic<bool> inside{false}, blocked{true};
  on_quote([&] {
    inside = true;
    wait_until([&] { return !blocked; }, k_patience);
  });
  ASSERT_EQ(KAVMulticastStarted, start({info(1, "SHFE")}));
  const torrent pouring(*this, 1);
  ASSERT_TRUE(wait_until([&] { return inside.load(); }, k_patience));
  std::atomic<bool> stopped{false};
  std::thread stopper([&] {
    StopKAVMulticast(m_api);
    stopped = true;
  });
  EXPECT_FALSE(wait_until([&] { return stopped.load(); }, 100ms));
  blocked = false;
  stopper.join();
  EXPECT_EQ(0, m_quotes.running());
  m_quotes.forbid();
  EXPECT_TRUE(
      wait_until([] { return library_threads() == std::vector<std::string>{"kav-multicast"}; },
                 k_patience));  // the sender's
  EXPECT_TRUE(m_quotes.violations().empty());
}

TEST_F(multicast_reception_test, stopping_inside_a_callback_makes_that_the_last) {
  std::atomic<int> restarted{-1};
  on_quote([&] {
    if (restarted != -1) return;
    StopKAVMulticast(m_api);
    const KqsMulticastInfo again = info(1, "SHFE");
    restarted = StartKAVMulticast(m_api, &again, 1, &m_quotes, nullptr);
  });
  ASSERT_EQ(KAVMulticastStarted, start({info(1, "SHFE")}));
  const torrent pouring(*this, 1);
  ASSERT_TRUE(wait_until([&] { return restarted != -1; }, k_patience));
  EXPECT_EQ(KAVMulticastAlreadyStarted, restarted);
  StopKAVMulticast(m_api);
  EXPECT_EQ(1u, m_quotes.quote_count());
  EXPECT_EQ(KAVMulticastStarted, start({info(1, "SHFE")}));
  EXPECT_TRUE(wait_quotes(5));
}

TEST_F(multicast_reception_test, another_object_gets_the_quotes_after_a_new_start) {
  ASSERT_EQ(KAVMulticastStarted, start({info(1, "SHFE")}));
  group_sender sender(group(1), m_port.number());
  ASSERT_TRUE(sender.send(lumen_trade("au2412", 600, 3)));
  ASSERT_TRUE(wait_quotes(1));
  StopKAVMulticast(m_api);
  session_record second;
  const KqsMulticastInfo same = info(1, "SHFE");
  ASSERT_EQ(KAVMulticastStarted, StartKAVMulticast(m_api, &same, 1, &second, nullptr));
  ASSERT_TRUE(sender.send(lumen_trade("au2412", 600, 4)));
  ASSERT_TRUE(wait_until([&] { return second.quote_count() == 1; }, k_patience));
  EXPECT_EQ(7, int{second.quotes().front().quote.Volume});  // the client's cache lives on
  EXPECT_EQ(1u, m_quotes.quote_count());
  destroy();
}

TEST_F(multicast_reception_test, destroying_the_client_is_a_barrier_for_its_reception) {
  for (int life = 0; life < 10; ++life) {
    if (m_api == nullptr) make_client();
    ASSERT_EQ(KAVMulticastStarted, start({info(1, "SHFE"), info(2, "CZCE")}));
    const torrent pouring(*this, 1), other(*this, 2);
    ASSERT_TRUE(wait_quotes(20));
    destroy();
    EXPECT_EQ(0, m_quotes.running());
    const std::size_t quotes = m_quotes.quote_count();
    std::this_thread::sleep_for(2ms);
    EXPECT_EQ(quotes, m_quotes.quote_count());
    m_quotes.forget();
  }
}

TEST_F(multicast_reception_test, destroying_the_client_inside_a_callback_is_put_off) {
  std::atomic<bool> destroyed{false};
  KAVQuoteApi* const api = m_api;
  on_quote([&] {
    DestroyKAVQuoteApi(api);
    destroyed = true;
  });
  ASSERT_EQ(KAVMulticastStarted, start({info(1, "SHFE")}));
  group_sender sender(group(1), m_port.number());
  m_api = nullptr;
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(sender.send(shfe_datagram("rb2410", 1)));
  ASSERT_TRUE(wait_until([&] { return destroyed.load(); }, k_patience));
  EXPECT_TRUE(wait_until([] { return library_threads("kav-multicast") == 1; }, k_patience));
  EXPECT_TRUE(wait_until([&] { return m_quotes.running() == 0; }, k_patience));
  EXPECT_EQ(1u, m_quotes.quote_count());
}

TEST_F(multicast_reception_test, starting_and_stopping_from_many_threads_leaves_one_or_none) {
  const torrent pouring(*this, 1);
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      const KqsMulticastInfo one = info(1, "SHFE");
      for (int i = 0; i < 10; ++i) {
        const int result = StartKAVMulticast(m_api, &one, 1, &m_quotes, nullptr);
        EXPECT_TRUE(result == KAVMulticastStarted || result == KAVMulticastAlreadyStarted);
        KAVMulticastStatistics any{};
        GetKAVMulticastStatistics(m_api, 0, &any);
        if ((i + t) % 2 == 0) StopKAVMulticast(m_api);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  StopKAVMulticast(m_api);
  EXPECT_TRUE(wait_until([] { return library_threads("kav-multicast") == 1; }, k_patience));
  EXPECT_EQ(KAVMulticastStarted, start({info(1, "SHFE")}));
}

// ---- Beside the session

TEST_F(multicast_reception_test, reception_lives_through_loss_reconnection_and_end_of_a_session) {
  start_server();
  connect();
  log_in();
  ASSERT_EQ(KAVMulticastStarted, start({info(1, "SHFE")}));
  group_sender sender(group(1), m_port.number());
  std::size_t sent = 0;
  const auto still_received = [&] {
    return sender.send(shfe_datagram("rb2410", 1)) && wait_quotes(++sent);
  };
  EXPECT_TRUE(still_received());
  m_server->drop_all();
  ASSERT_TRUE(m_record.wait_text("OnLog(0, [on_cache_callback] EVENT_REMOTE_DISCONNECT"));
  EXPECT_TRUE(still_received());
  ASSERT_TRUE(m_record.wait_text("OnLog(0, [QuoteClient] relogin"));
  EXPECT_TRUE(still_received());
  m_api->DisConnServer();
  EXPECT_TRUE(still_received());
  EXPECT_EQ(0u, m_record.quote_count());
  destroy();
}

TEST_F(multicast_reception_test, a_session_and_a_reception_may_share_their_object) {
  start_server();
  connect();
  log_in();
  register_symbol("IF2509");
  const KqsMulticastInfo one = info(1, "SHFE");
  ASSERT_EQ(KAVMulticastStarted, StartKAVMulticast(m_api, &one, 1, &m_record, nullptr));
  group_sender sender(group(1), m_port.number());
  for (int i = 0; i < 100; ++i) {
    m_server->push_quote(quote_of("IF2509", 3000), '1');
    ASSERT_TRUE(sender.send(shfe_datagram("rb2410", 1)));
  }
  EXPECT_TRUE(wait_until([&] { return m_record.quote_count() >= 200; }, k_patience));
  std::size_t multicast = 0;
  for (const recorded_call& it : m_record.quotes()) multicast += it.type == 54 ? 1 : 0;
  EXPECT_EQ(100u, multicast);
}

TEST_F(multicast_reception_test, disconnecting_inside_a_multicast_callback_ends_the_session) {
  start_server();
  connect();
  log_in();
  std::atomic<bool> done{false};
  on_quote([&] {
    m_api->DisConnServer();
    done = true;
  });
  ASSERT_EQ(KAVMulticastStarted, start({info(1, "SHFE")}));
  group_sender sender(group(1), m_port.number());
  ASSERT_TRUE(sender.send(shfe_datagram("rb2410", 1)));
  ASSERT_TRUE(wait_until([&] { return done.load(); }, k_patience));
  EXPECT_TRUE(wait_until([] { return library_threads("kav-worker") == 0; }, k_patience));
}

}  // namespace
// ---- Datagrams that come at once

// In the first callback, waits until the test has sent all it wants to.
class multicast_batch_test : public multicast_reception_test {
 protected:
  bool start_held(const std::function<void()>& act = {}) {
    on_quote([this, act] {
      m_reached = true;
      wait_until([this] { return m_sent.load(); }, k_patience);
      if (act) act();
    });
    return start({info(1, "SHFE")}) == KAVMulticastStarted;
  }
  // A first one, and what is to wait behind it.
  void send(const std::vector<std::string>& behind) {
    group_sender sender(group(1), m_port.number());
    EXPECT_TRUE(sender.send(shfe_datagram("rb2410", 1)));
    EXPECT_TRUE(wait_until([this] { return m_reached.load(); }, k_patience));
    for (const std::string& bytes : behind) EXPECT_TRUE(sender.send(bytes));
    m_sent = true;
  }

  const std::vector<std::string> k_five{5, shfe_datagram("rb2412", 1)};
  std::atomic<bool> m_reached{false}, m_sent{false};
};

TEST_F(multicast_batch_test, empty_and_unknown_datagrams_between_do_not_hide_the_others) {
  ASSERT_TRUE(start_held());
  send({shfe_datagram("2", 1), "", shfe_datagram("3", 1), "", "", "no record",
        lumen_trade("4", 1, 1), "", shfe_datagram("5", 1)});
  ASSERT_TRUE(wait_quotes(5));
  EXPECT_EQ((std::vector<std::string>{"rb2410", "2", "3", "4", "5"}), symbols());
  EXPECT_TRUE(wait_until([&] { return statistics(0).m_Quotes == 5; }, k_patience));
  EXPECT_EQ(1u, statistics(0).m_Ignored);
}

TEST_F(multicast_batch_test, a_stop_inside_the_callback_makes_it_the_last) {
  ASSERT_TRUE(start_held([this] { StopKAVMulticast(m_api); }));
  send(k_five);
  EXPECT_TRUE(wait_until([] { return library_threads("kav-multicast") == 0; }, k_patience));
  StopKAVMulticast(m_api);
  EXPECT_EQ(1u, m_quotes.quote_count());
}

TEST_F(multicast_batch_test, destroying_the_client_inside_the_callback_makes_it_the_last) {
  KAVQuoteApi* const api = m_api;
  ASSERT_TRUE(start_held([api] { DestroyKAVQuoteApi(api); }));
  m_api = nullptr;
  send(k_five);
  EXPECT_TRUE(wait_until([] { return library_threads("kav-multicast") == 0; }, k_patience));
  EXPECT_TRUE(wait_until([&] { return m_quotes.running() == 0; }, k_patience));
  EXPECT_EQ(1u, m_quotes.quote_count());
}

TEST_F(multicast_batch_test, destroying_the_client_meanwhile_makes_the_callback_the_last) {
  ASSERT_TRUE(start_held());
  std::thread destroyer;
  {
    group_sender sender(group(1), m_port.number());
    ASSERT_TRUE(sender.send(shfe_datagram("rb2410", 1)));
    ASSERT_TRUE(wait_until([this] { return m_reached.load(); }, k_patience));
    for (const std::string& bytes : k_five) ASSERT_TRUE(sender.send(bytes));
    std::atomic<bool> destroying{false};
    destroyer = std::thread([&] {
      destroying = true;
      destroy();
    });
    ASSERT_TRUE(wait_until([&] { return destroying.load(); }, k_patience));
    m_sent = true;
  }
  destroyer.join();
  const std::size_t quotes = m_quotes.quote_count();
  EXPECT_EQ(0, m_quotes.running());
  std::this_thread::sleep_for(2ms);
  EXPECT_EQ(quotes, m_quotes.quote_count());
}

}  // namespace kav_session
