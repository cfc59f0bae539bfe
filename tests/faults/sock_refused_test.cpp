// What the socket classes do when memory is refused, where the client does not use them so.
#include <gtest/gtest.h>

#include <atomic>      // std::atomic
#include <chrono>      // std::chrono_literals
#include <functional>  // std::function
#include <memory>      // std::unique_ptr
#include <new>         // std::bad_alloc
#include <string>      // std::string

#include "sock/socket_cache_client.h"
#include "sock/socket_multicast.h"
#include "tests/faults/supply.h"
#include "tests/support/process_view.h"
#include "tests/support/tcp_peer.h"
#include "tests/support/wait_until.h"

namespace {

using namespace std::chrono_literals;
using namespace VORLAN::SOCK;
using kav_faults::in_library;
using kav_faults::supply;

constexpr auto k_limit = 10s;

class cache_client_refused_test : public testing::Test {
 protected:
  cache_client_refused_test() { make_client(); }
  ~cache_client_refused_test() override {
    m_client->sock_close();
    m_client.reset();
    EXPECT_TRUE(wait_until([this] { return m_supply.has_all_back(); }, k_limit))
        << m_supply.live_threads << " threads, " << m_supply.live_blocks << " blocks";
  }

  void make_client() {
    const in_library inside(m_supply);
    m_client = std::make_unique<socket_cache_client>(8192);
  }
  bool connect(bool queue_sends) {
    const in_library inside(m_supply);
    return m_client->sock_init("127.0.0.1", m_peer.port(), on_event, this, queue_sends);
  }
  int send(const std::string& bytes) {
    const in_library inside(m_supply);
    return m_client->sock_send(bytes.data(), static_cast<int>(bytes.size()));
  }

  static int on_event(socket_param& param, void* test) {
    auto& self = *static_cast<cache_client_refused_test*>(test);
    if (param.get_event_type() == EVENT_REMOTE_DISCONNECT) ++self.m_losses;
    if (param.get_event_type() == EVENT_RECEIVE) {
      ++self.m_offers;
      param.set_proc_len(param.get_buff_size());
    }
    if (param.get_event_type() == self.m_refused_event) throw std::bad_alloc();
    return 0;
  }

  const std::size_t m_descriptors = kav_test::open_descriptors();
  supply m_supply;
  kav_test::tcp_peer m_peer;
  std::atomic<int> m_offers{0}, m_losses{0};
  std::atomic<int> m_refused_event{EVENT_NONE};  // in which the user has no memory
  std::unique_ptr<socket_cache_client> m_client;
};

}  // namespace

TEST_F(cache_client_refused_test, what_cannot_be_queued_is_not_sent_and_not_kept) {
  ASSERT_TRUE(connect(true));
  kav_test::tcp_connection peer = m_peer.accept();
  for (long n = 1; n <= 2; ++n) {
    m_supply.memory.refuse_one(m_supply.memory.asked() + n);
    while (m_supply.memory.refused() < n && send("once") == 4) continue;
    EXPECT_EQ(n, m_supply.memory.refused());
  }
  m_supply.restore();
  EXPECT_EQ(5, send("later"));
  EXPECT_NE(std::string::npos, peer.read_until_quiet(300ms).find("later"));
}

TEST_F(cache_client_refused_test,
       a_user_without_memory_for_what_he_is_offered_loses_the_connection) {
  m_refused_event = EVENT_RECEIVE;
  ASSERT_TRUE(connect(false));
  kav_test::tcp_connection peer = m_peer.accept();
  peer.write("for nobody");
  EXPECT_TRUE(wait_until([this] { return m_losses == 1; }, k_limit));
  peer.write("nor this");
  EXPECT_NE(kav_test::END_NOT_SEEN, peer.wait_end());
  EXPECT_EQ(1, m_offers);
  m_refused_event = EVENT_NONE;
  ASSERT_TRUE(connect(false));
  peer = m_peer.accept();
  peer.write("for somebody");
  EXPECT_TRUE(wait_until([this] { return m_offers == 2; }, k_limit));
}

TEST_F(cache_client_refused_test, a_user_without_memory_for_the_news_of_a_loss_can_connect_again) {
  m_refused_event = EVENT_REMOTE_DISCONNECT;
  ASSERT_TRUE(connect(false));
  m_peer.accept().close_with_fin();
  EXPECT_TRUE(wait_until([this] { return !m_client->is_connected(); }, k_limit));
  EXPECT_TRUE(wait_until([] { return kav_test::threads_named("kav-event").empty(); }, k_limit));
  m_refused_event = EVENT_NONE;
  EXPECT_TRUE(connect(false));
}

TEST_F(cache_client_refused_test, opening_fails_at_each_request_and_leaves_no_descriptor) {
  for (bool refused = true; refused;) {
    const long before = m_supply.memory.refused();
    m_supply.memory.refuse_one(m_supply.memory.asked() + before + 1);
    const bool connected = connect(false);
    refused = m_supply.memory.refused() != before;
    EXPECT_TRUE(connected || refused);
    m_client->sock_close();
    m_client.reset();
    while (m_peer.has_waiting(0ms)) m_peer.accept();
    EXPECT_TRUE(
        wait_until([this] { return kav_test::open_descriptors() == m_descriptors + 1; }, k_limit))
        << "request " << before + 1;
    m_supply.memory.restore();
    make_client();
  }
  EXPECT_LE(10, m_supply.memory.refused());
}

TEST(multicast_unit_refused_test, a_unit_is_added_whole_or_not_at_all) {
  supply given;
  for (long n = 1;; ++n) {
    socket_multicast receiver;
    receiver.add_multicast_param("239.1.1.1", 4711, "127.0.0.1", 0, "an alias of the first unit");
    const long before = given.memory.refused();
    given.memory.refuse_one(given.memory.asked() + n);
    try {
      const in_library inside(given);
      EXPECT_EQ(1,
                receiver.add_multicast_param("239.1.1.2", 4711, "127.0.0.1", 0, "another alias"));
    } catch (const std::bad_alloc&) {
      EXPECT_EQ(0, given.live_blocks) << "request " << n;
      EXPECT_FALSE(receiver.disconnect_multicast("another alias"));
    }
    if (given.memory.refused() == before) break;
  }
  EXPECT_LE(3, given.memory.refused());
}
