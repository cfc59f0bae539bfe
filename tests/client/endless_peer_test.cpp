// A server that sends without end, or stops in the middle: what is kept for it in memory.
#include <malloc.h>  // mallinfo2

#include <algorithm>  // std::min
#include <atomic>     // std::atomic
#include <thread>     // std::this_thread::sleep_for

#include "tests/client/unit_fixture.h"
#include "tests/support/process_view.h"
#include "tests/support/tcp_peer.h"

namespace kav_test {
namespace {

// As quick a caller as there can be.
class counting_event : public KAVQuoteEvent {
 public:
  void OnServerConnected() override {}
  void OnServerDisconnected() override {}
  void OnLoginResult(bool, const char*) override { ++logins; }
  void OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData*) override { ++quotes; }
  void OnLog(KavKqsLogLevel, const char*, int) override { ++calls; }
  void OnSymbolRegistered(KavKqsIntrumentType, const char*, bool) override { ++calls; }
  void OnSymbolUnregistered(KavKqsIntrumentType, const char*, bool) override { ++calls; }
  void OnSymbolList(KavKqsIntrumentType, const char*, bool) override { ++calls; }

  std::atomic<unsigned> logins{0};
  std::atomic<unsigned long> quotes{0}, calls{0};
};

constexpr std::size_t k_room_for_reading = 1u << 20;  // by far: one read takes 64 KiB

std::size_t memory_in_use() {
  const struct mallinfo2 info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

struct torrent {
  const char* name;
  std::string message;
};

std::ostream& operator<<(std::ostream& out, const torrent& which) { return out << which.name; }

}  // namespace

class raw_peer_test : public testing::Test {
 protected:
  void SetUp() override {
    if (k_sanitized) GTEST_SKIP() << "a sanitizer's allocator keeps no such figures";
    KqsTcpInfo server = endpoint_of("127.0.0.1", m_peer.port());
    ASSERT_TRUE(m_client.ConnServer(server, &m_events));
    m_connection = m_peer.accept();
    KqsLoginParam login = login_of("trader", "abc");
    ASSERT_NE(0, m_client.LoginToKqs(login));
    ASSERT_EQ(56u, m_connection.read_exactly(56).size());
    ASSERT_TRUE(m_connection.write(login_answer('Y', "")));
    ASSERT_EQ(8u, m_connection.read_exactly(8).size());
    ASSERT_TRUE(m_connection.write(std::string("M01") + std::string(29, '\0')));
    ASSERT_TRUE(wait_until([this] { return m_events.logins == 1; }, k_patience));
  }

  counting_event m_events;  // outlives the client
  tcp_peer m_peer;
  tcp_connection m_connection{-1};
  Ckqc_tcp m_client;
};

class endless_peer_test : public raw_peer_test, public testing::WithParamInterface<torrent> {
 protected:
  // Sends the message over and over, for two seconds at least, until little is kept of it. False:
  // it grows and grows.
  bool flood_until_little_is_kept(const std::string& message) {
    const std::size_t before = memory_in_use();
    std::string bytes;
    while (bytes.size() < 65'536) bytes += message;
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t sent = 0; m_connection.write(bytes); sent += bytes.size()) {
      const std::size_t kept = memory_in_use() - std::min(before, memory_in_use());
      const auto time = std::chrono::steady_clock::now() - start;
      const bool long_enough = time >= std::chrono::seconds{2} && sent > k_many_bytes;
      if (long_enough && kept < k_little) return true;
      if (kept > k_too_much || time > k_patience) return false;
    }
    return false;
  }

  static constexpr std::size_t k_many_bytes = 64u << 20;
  static constexpr std::size_t k_little = 48u << 20;
  static constexpr std::size_t k_too_much = 512u << 20;
};

// A thread that the system keeps waiting meanwhile may fall behind, but not ever further.
TEST_P(endless_peer_test, what_is_kept_for_it_does_not_grow_for_ever) {
  EXPECT_TRUE(flood_until_little_is_kept(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    torrents, endless_peer_test,
    testing::Values(torrent{"quotes", "Q1" + std::string(365, 'x')},
                    torrent{"symbols", list_entry("IF2509")},
                    torrent{"long_symbols", "M001" + std::string(28, 'x')},
                    torrent{"registrations", answer('I', '0', "IF2509")},
                    torrent{"unregistrations", answer('F', '0', "IF2509")},
                    torrent{"heartbeats", std::string("H") + std::string(12, '\0')},
                    torrent{"logins", login_answer('Y', "")}, torrent{"unknown", "?"}),
    [](const testing::TestParamInfo<torrent>& one) { return std::string(one.param.name); });

class stopping_peer_test : public raw_peer_test {};

TEST_F(stopping_peer_test, half_a_message_is_all_that_is_kept) {
  const std::string half = "Q1" + std::string(364, 'x');
  const std::size_t before = memory_in_use();
  for (const char byte : half) {
    ASSERT_TRUE(m_connection.write(std::string(1, byte)));
    std::this_thread::sleep_for(std::chrono::microseconds{200});
  }
  ASSERT_TRUE(m_connection.write("y"));
  ASSERT_TRUE(wait_until([this] { return m_events.quotes == 1; }, k_patience));
  EXPECT_LT(memory_in_use(), before + k_room_for_reading);
}

}  // namespace kav_test
