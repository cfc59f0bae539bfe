#include "sock/socket_multicast.h"

#include <arpa/inet.h>  // inet_pton
#include <gtest/gtest.h>
#include <netinet/in.h>   // IP_ADD_MEMBERSHIP
#include <netinet/tcp.h>  // TCP_NODELAY
#include <pthread.h>      // pthread_kill
#include <sys/socket.h>   // socket
#include <unistd.h>       // dup2

#include <algorithm>   // std::all_of, std::find
#include <cerrno>      // errno
#include <csignal>     // sigaction
#include <cstring>     // strerror
#include <filesystem>  // std::filesystem::read_symlink
#include <memory>      // std::unique_ptr
#include <thread>      // std::thread

#include "tests/sock/event_recorder.h"
#include "tests/support/multicast_port.h"
#include "tests/support/process_view.h"
#include "tests/support/system_calls.h"
#include "tests/support/tcp_peer.h"

namespace {

using namespace VORLAN::SOCK;
using namespace std::chrono_literals;
using kav_test::endpoint;
using kav_test::event_recorder;
using kav_test::gate;
using kav_test::group;
using kav_test::is_open_descriptor;
using kav_test::k_local;
using kav_test::k_soon;
using kav_test::open_descriptors;
using kav_test::owned_fd;
using kav_test::recorded_log;
using kav_test::shared_port;
using kav_test::virtual_slot;
using kav_test::wait_library_threads;

using event_list = std::vector<SOCKET_EVENT>;
using line_list = std::vector<std::string>;
using unit = socket_multicast::multicast_unit;

// Counts its units.
class counting_multicast : public socket_multicast {
 public:
  explicit counting_multicast(std::atomic<int>& living) : m_living(living) {}
  multicast_unit* ensure_multicast_unit(const std::string& group_ip, unsigned short group_port,
                                        const std::string& local_ip, unsigned short local_port,
                                        const std::string& alias, int id, int sock) override {
    auto made = std::make_unique<counted>(m_living);
    made->group_ip = group_ip;
    made->group_port = group_port;
    made->local_ip = local_ip;
    made->local_port = local_port;
    made->alias = alias;
    made->id = id;
    made->socket = sock;
    return made.release();
  }

 private:
  struct counted : multicast_unit {
    explicit counted(std::atomic<int>& count) : living(count) { ++living; }
    ~counted() override { --living; }
    std::atomic<int>& living;
  };
  std::atomic<int>& m_living;
};

class socket_multicast_test : public testing::Test {
 protected:
  void SetUp() override {
    const std::string obstacle = m_port.obstacle();
    if (!obstacle.empty()) GTEST_SKIP() << obstacle;
    m_receiver->sock_set_context(&m_log);
    m_sender.sock_set_context(&m_log);
  }
  void TearDown() override {
    if (m_receiver != nullptr) m_receiver->sock_close();
    m_sender.sock_close();
  }

  // A unit for the group on both sides; the same id on both.
  int add(int number, const std::string& alias = "") {
    m_sender.add_multicast_param(group(number), m_port.number(), k_local, 0, alias);
    return m_receiver->add_multicast_param(group(number), m_port.number(), k_local, 0, alias);
  }
  bool receive() {
    return m_receiver->sock_init(MULTICAST_RECEIVE, event_recorder::callback, &m_events);
  }
  bool open_both() {
    return receive() &&
           m_sender.sock_init(MULTICAST_SEND, event_recorder::callback, &m_sender_events) &&
           wait_both_threads();
  }
  // A new thread has no name yet; later on a test waits for one to disappear.
  static bool wait_both_threads() {
    return wait_until([] { return kav_test::threads_named("kav-multicast").size() >= 2; }, k_soon);
  }
  bool send(const std::string& bytes, int id) {
    const int length = static_cast<int>(bytes.size());
    return m_sender.sock_send(bytes.data(), length, id) == length;
  }
  bool wait_received(std::size_t least) { return m_events.wait_count(EVENT_RECEIVE, least); }

  shared_port m_port;
  event_recorder m_events, m_sender_events;
  recorded_log m_log;
  std::atomic<int> m_living{0};
  socket_multicast m_sender;
  std::unique_ptr<socket_multicast> m_receiver = std::make_unique<counting_multicast>(m_living);
};

// ---- Units

TEST_F(socket_multicast_test, ids_are_handed_out_from_0_and_none_twice) {
  EXPECT_EQ(0, add(1));
  EXPECT_EQ(1, add(2));
  EXPECT_EQ(2, m_receiver->get_current_min_id());
  EXPECT_TRUE(receive());
  EXPECT_TRUE(m_receiver->disconnect_multicast(1));
  EXPECT_EQ(3, add(3));
}

TEST_F(socket_multicast_test, the_virtual_functions_stand_in_their_slots) {
  const int id = add(1, "first");
  ASSERT_TRUE(open_both());
  ASSERT_TRUE(send("x", id));
  ASSERT_TRUE(wait_received(1));
  const int sock = m_events.events().at(0).socket;
  socket_multicast* const object = m_receiver.get();
  using on_socket = bool (*)(socket_multicast*, const int*);
  using on_close = bool (*)(socket_multicast*, const int*, bool);
  using ensure = unit* (*)(socket_multicast*, const std::string&, unsigned short,
                           const std::string&, unsigned short, const std::string&, int, int);
  using free_unit = void (*)(socket_multicast*, unit*);
  EXPECT_TRUE(virtual_slot<on_socket>(object, 3)(object, &sock));
  EXPECT_EQ((event_list{EVENT_RECEIVE, EVENT_SEND}), m_events.types());
  EXPECT_TRUE(virtual_slot<on_socket>(object, 5)(object, &sock));
  EXPECT_TRUE(virtual_slot<on_close>(object, 4)(object, &sock, true));
  EXPECT_EQ(EVENT_LOCALE_DISCONNECT, m_events.types().at(2));
  EXPECT_FALSE(virtual_slot<on_socket>(object, 2)(object, &sock));  // reads a closed socket
  unit* const made = virtual_slot<ensure>(object, 6)(object, "a", 1, "b", 2, "c", 3, 4);
  EXPECT_EQ(1, m_living);
  EXPECT_EQ("a1b2c34", made->group_ip + std::to_string(made->group_port) + made->local_ip +
                           std::to_string(made->local_port) + made->alias +
                           std::to_string(made->id) + std::to_string(made->socket));
  virtual_slot<free_unit>(object, 7)(object, made);
  EXPECT_EQ(0, m_living);
}

TEST_F(socket_multicast_test, unknown_units_are_told_and_refused) {
  EXPECT_EQ(-1, m_receiver->sock_send("x", 1, 7));
  EXPECT_FALSE(m_receiver->disconnect_multicast(8));
  EXPECT_EQ((line_list{"find the sock failed by id (7)\n",
                       "disconnect client but, find the sock failed by id (8) \n"}),
            m_log.lines());
  EXPECT_EQ(-1, m_receiver->sock_send("x", 1, "nobody"));
  EXPECT_FALSE(m_receiver->disconnect_multicast("nobody"));
  EXPECT_EQ(2u, m_log.lines().size());
  EXPECT_EQ(0u, m_receiver->get_dropped(7));
  EXPECT_EQ(0, m_receiver->colse_all_connect());
}

TEST_F(socket_multicast_test, an_alias_that_two_units_have_names_the_later) {
  add(1, "twin");
  add(2, "twin");
  ASSERT_TRUE(open_both());
  EXPECT_EQ(1, m_sender.sock_send("x", 1, "twin"));
  ASSERT_TRUE(wait_received(1));
  EXPECT_EQ(1, m_events.events().at(0).id);
  EXPECT_EQ("twin", m_events.events().at(0).alias);
  // The end of the earlier takes the alias away from the later too.
  EXPECT_TRUE(m_sender.disconnect_multicast(0));
  EXPECT_EQ(-1, m_sender.sock_send("x", 1, "twin"));
  EXPECT_EQ(1, m_sender.sock_send("y", 1, 1));
}

TEST_F(socket_multicast_test, the_empty_alias_names_the_last_unit_until_that_is_gone) {
  add(1);
  add(2);
  ASSERT_TRUE(open_both());
  EXPECT_TRUE(m_sender.disconnect_multicast(""));
  EXPECT_FALSE(m_sender.disconnect_multicast(""));
  EXPECT_TRUE(send("x", 0));
}

// ---- Opening

TEST_F(socket_multicast_test, opening_without_units_starts_the_thread) {
  EXPECT_TRUE(receive());
  EXPECT_TRUE(wait_library_threads({"kav-multicast"}));
  EXPECT_TRUE(m_receiver->sock_close());
  EXPECT_TRUE(wait_library_threads({}));
  EXPECT_TRUE(m_events.events().empty());
}

TEST_F(socket_multicast_test, when_the_third_of_four_units_fails_all_are_closed_and_deleted) {
  const std::size_t before = open_descriptors();
  for (const std::string& bad : {std::string("10.0.0.1"), std::string("no address")}) {
    const int first = add(1, "first");
    add(2, "second");
    m_receiver->add_multicast_param(bad, m_port.number(), k_local, 0, "third");
    add(4, "fourth");
    EXPECT_EQ(4, m_living);
    EXPECT_FALSE(receive());
    EXPECT_EQ(0, m_living);
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ(-1, m_receiver->sock_send("x", 1, first));
    EXPECT_FALSE(m_receiver->disconnect_multicast("fourth"));
  }
  EXPECT_TRUE(kav_test::library_threads().empty());
  EXPECT_TRUE(m_events.events().empty());
  EXPECT_TRUE(receive());  // nothing is left to open
}

TEST_F(socket_multicast_test, what_could_not_be_opened_is_told_with_the_systems_reason) {
  const auto failure_after = [this](const std::string& group_ip, const std::string& local_ip) {
    add(1);
    const int bad = m_receiver->add_multicast_param(group_ip, m_port.number(), local_ip, 0, "");
    EXPECT_FALSE(receive());
    EXPECT_EQ(bad, m_receiver->get_open_failure().id);
    return m_receiver->get_open_failure().error;
  };
  EXPECT_EQ(EINVAL, failure_after("no address", k_local));
  EXPECT_EQ(EINVAL, failure_after("10.0.0.1", k_local));
  EXPECT_EQ(ENODEV, failure_after(group(2), "192.0.2.77"));
  const owned_fd alone(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = endpoint("0.0.0.0", 0);
  socklen_t size = sizeof(address);
  ASSERT_EQ(0, ::bind(alone.get(), reinterpret_cast<sockaddr*>(&address), size));
  ASSERT_EQ(0, ::getsockname(alone.get(), reinterpret_cast<sockaddr*>(&address), &size));
  const int in_use =
      m_receiver->add_multicast_param(group(3), ntohs(address.sin_port), k_local, 0, "");
  EXPECT_FALSE(receive());
  EXPECT_EQ(in_use, m_receiver->get_open_failure().id);
  EXPECT_EQ(EADDRINUSE, m_receiver->get_open_failure().error);
  EXPECT_TRUE(receive());
  EXPECT_EQ(-1, m_receiver->get_open_failure().id);
  EXPECT_EQ(0, m_receiver->get_open_failure().error);
}

TEST_F(socket_multicast_test, a_thread_that_cannot_be_created_is_no_units_failure) {
  add(1);
  const kav_test::failing_thread_creation failing;
  EXPECT_FALSE(receive());
  EXPECT_EQ(-1, m_receiver->get_open_failure().id);
  EXPECT_NE(0, m_receiver->get_open_failure().error);
}

TEST_F(socket_multicast_test, a_sender_whose_local_address_is_none_fails) {
  socket_multicast sender;
  sender.add_multicast_param(group(1), m_port.number(), "localhost", 0, "");
  EXPECT_FALSE(sender.sock_init(MULTICAST_SEND, event_recorder::callback, &m_events));
}

TEST_F(socket_multicast_test, a_thread_that_cannot_be_created_fails_and_leaves_the_units) {
  const int id = add(1);
  {
    const kav_test::failing_thread_creation failing;
    EXPECT_FALSE(receive());
  }
  EXPECT_TRUE(m_receiver->sock_close());
  ASSERT_TRUE(open_both());
  ASSERT_TRUE(send("x", id));
  EXPECT_TRUE(wait_received(1));
}

TEST_F(socket_multicast_test, opening_again_replaces_the_earlier_opening) {
  const int id = add(1);
  ASSERT_TRUE(open_both());
  const std::size_t before = open_descriptors();
  ASSERT_TRUE(receive());
  EXPECT_EQ(before, open_descriptors());
  ASSERT_TRUE(send("x", id));
  ASSERT_TRUE(wait_received(1));
  EXPECT_TRUE(wait_library_threads({"kav-multicast", "kav-multicast"}));
  EXPECT_EQ((event_list{EVENT_RECEIVE}), m_events.types());
}

// ---- Receiving and sending

TEST_F(socket_multicast_test, a_datagram_arrives_with_id_alias_and_socket_on_the_event_thread) {
  add(1, "first");
  const int id = add(2, "second");
  ASSERT_TRUE(open_both());
  ASSERT_TRUE(send("quote", id));
  ASSERT_TRUE(wait_received(1));
  const kav_test::seen_event event = m_events.events().at(0);
  EXPECT_EQ("quote", event.data);
  EXPECT_EQ(id, event.id);
  EXPECT_EQ("second", event.alias);
  EXPECT_TRUE(is_open_descriptor(event.socket));
  EXPECT_EQ("kav-multicast", event.thread_name);
}

TEST_F(socket_multicast_test, sending_reports_the_bytes_on_the_sending_thread) {
  const int id = add(1, "first");
  ASSERT_TRUE(open_both());
  EXPECT_EQ(3, m_sender.sock_send("abc", 3, id));
  ASSERT_EQ((event_list{EVENT_SEND}), m_sender_events.types());
  const kav_test::seen_event event = m_sender_events.events().at(0);
  EXPECT_EQ("abc", event.data);
  EXPECT_EQ("first", event.alias);
  EXPECT_NE("kav-multicast", event.thread_name);
}

struct failed_send {
  int calls = 0;
  unsigned size = 0;
  static int callback(socket_param& param, void* seen) {
    ++static_cast<failed_send*>(seen)->calls;
    static_cast<failed_send*>(seen)->size = param.get_buff_size();
    return 0;
  }
};

TEST_F(socket_multicast_test, a_failed_send_is_reported_with_its_negative_result) {
  failed_send seen;
  const int id = m_sender.add_multicast_param(group(1), m_port.number(), k_local, 0, "");
  ASSERT_TRUE(m_sender.sock_init(MULTICAST_SEND, failed_send::callback, &seen));
  const std::string too_long(70'000, 'x');
  EXPECT_EQ(-1, m_sender.sock_send(too_long.data(), 70'000, id));
  EXPECT_EQ(1, seen.calls);
  EXPECT_EQ(static_cast<unsigned>(-1), seen.size);
  EXPECT_EQ(-1, m_sender.sock_send("x", -5, id));
  EXPECT_EQ(-1, m_sender.sock_send(nullptr, 5, id));
  EXPECT_TRUE(m_sender.sock_close());
  EXPECT_EQ(-1, m_sender.sock_send("x", 1, id));
  EXPECT_EQ(4, seen.calls);
}

TEST_F(socket_multicast_test, groups_on_one_port_deliver_only_their_own) {
  for (int number = 1; number <= 3; ++number) add(number);
  socket_multicast other;  // joins one more group, which must not show
  event_recorder other_events;
  other.add_multicast_param(group(9), m_port.number(), k_local, 0, "");
  ASSERT_TRUE(other.sock_init(MULTICAST_RECEIVE, event_recorder::callback, &other_events));
  const int stranger = m_sender.add_multicast_param(group(9), m_port.number(), k_local, 0, "");
  ASSERT_TRUE(open_both());
  ASSERT_TRUE(send("for the other", stranger));
  ASSERT_TRUE(other_events.wait_count(EVENT_RECEIVE, 1));
  for (int id = 0; id < 3; ++id) ASSERT_TRUE(send(std::to_string(id), id));
  ASSERT_TRUE(wait_received(3));
  other.sock_close();
  m_receiver->sock_close();
  EXPECT_EQ(3u, m_events.count(EVENT_RECEIVE));
  EXPECT_EQ("for the other", other_events.received());
  for (const kav_test::seen_event& event : m_events.events()) {
    EXPECT_EQ(std::to_string(event.id), event.data);
  }
}

TEST_F(socket_multicast_test, a_datagram_to_the_host_itself_is_not_delivered_nor_closes_its_unit) {
  const int id = add(1);
  ASSERT_TRUE(open_both());
  const sockaddr_in to = endpoint(k_local, m_port.number());
  const owned_fd stranger(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  for (const std::string& bytes : {std::string("for the host"), std::string()}) {
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
              ::sendto(stranger.get(), bytes.data(), bytes.size(), 0,
                       reinterpret_cast<const sockaddr*>(&to), sizeof(to)));
  }
  ASSERT_TRUE(send("for the group", id));
  ASSERT_TRUE(wait_received(1));
  EXPECT_EQ("for the group", m_events.received());
  EXPECT_EQ((event_list{EVENT_RECEIVE}), m_events.types());
}

TEST_F(socket_multicast_test, everything_behind_a_datagram_is_zero_also_after_a_longer_one) {
  constexpr unsigned k_behind = 264;
  std::atomic<int> dirty{0};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() != EVENT_RECEIVE) return;
    const char* const end = param.get_buff_addr() + param.get_buff_size();
    if (!std::all_of(end, end + k_behind, [](char byte) { return byte == 0; })) ++dirty;
    const char* const last = param.get_buff_addr() + 65'535;
    if (!std::all_of(end, last, [](char byte) { return byte == 0; })) ++dirty;
  });
  const int id = add(1);
  ASSERT_TRUE(open_both());
  std::size_t sent = 0;
  for (const std::size_t length : {10u, 3u, 65'507u, 1u, 300u, 299u, 65'507u, 65'000u, 2u}) {
    ASSERT_TRUE(send(std::string(length, '\xff'), id));
    ASSERT_TRUE(wait_received(++sent));
    EXPECT_EQ(length, m_events.events().back().data.size());
  }
  EXPECT_EQ(0, dirty);
}

TEST_F(socket_multicast_test, datagrams_that_the_system_dropped_are_counted) {
  gate blocked;
  m_events.set_hook([&](socket_param&) { blocked.pass(); });
  const int id = add(1), idle = add(2);
  ASSERT_TRUE(open_both());
  const std::string bytes(1000, 'x');
  std::size_t sent = 0;
  for (; sent < 500; ++sent) ASSERT_TRUE(send(bytes, id));
  ASSERT_TRUE(blocked.wait_reached());
  const unsigned long long dropped = m_receiver->get_dropped(id);
  EXPECT_GT(dropped, 0u);
  blocked.open();
  ASSERT_TRUE(wait_received(sent - dropped));
  m_receiver->sock_close();
  EXPECT_EQ(sent - dropped, m_events.count(EVENT_RECEIVE));
  EXPECT_EQ(dropped, m_receiver->get_dropped(id));
  EXPECT_EQ(0u, m_receiver->get_dropped(idle));
}

// ---- Closing

TEST_F(socket_multicast_test, an_empty_datagram_closes_its_unit_and_no_other) {
  const int id = add(1, "first"), other = add(2);
  ASSERT_TRUE(open_both());
  EXPECT_EQ(0, m_sender.sock_send("", 0, id));
  ASSERT_TRUE(m_events.wait_count(EVENT_REMOTE_DISCONNECT, 1));
  const kav_test::seen_event end = m_events.events().at(0);
  EXPECT_EQ(id, end.id);
  EXPECT_EQ("first", end.alias);
  EXPECT_FALSE(end.has_data);
  EXPECT_TRUE(wait_until([&] { return m_living == 1; }, k_soon));
  EXPECT_TRUE(wait_until([&] { return !is_open_descriptor(end.socket); }, k_soon));
  EXPECT_FALSE(m_receiver->disconnect_multicast(id));
  EXPECT_FALSE(m_receiver->disconnect_multicast("first"));
  ASSERT_TRUE(send("x", other));
  EXPECT_TRUE(wait_received(1));
}

TEST_F(socket_multicast_test, a_unit_whose_end_opens_all_anew_takes_no_other_units_socket_along) {
  const int other = add(1), ending = add(2);
  std::atomic<int> opened{0};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() == EVENT_REMOTE_DISCONNECT) opened.fetch_add(receive() ? 1 : 2);
  });
  ASSERT_TRUE(open_both());
  EXPECT_EQ(0, m_sender.sock_send("", 0, ending));
  ASSERT_TRUE(wait_until([&] { return opened.load() == 1; }, k_soon));
  for (std::size_t i = 1; i <= 3; ++i) {
    ASSERT_TRUE(send("x", other));
    ASSERT_TRUE(wait_received(i));
  }
}

TEST_F(socket_multicast_test, disconnecting_a_unit_reports_it_once_and_frees_it) {
  const int id = add(1, "first");
  ASSERT_TRUE(receive());
  EXPECT_TRUE(m_receiver->disconnect_multicast("first"));
  EXPECT_EQ((event_list{EVENT_LOCALE_DISCONNECT}), m_events.types());
  EXPECT_EQ("first", m_events.events().at(0).alias);
  EXPECT_EQ(0, m_living);
  EXPECT_FALSE(is_open_descriptor(m_events.events().at(0).socket));
  EXPECT_FALSE(m_receiver->disconnect_multicast(id));
}

TEST_F(socket_multicast_test, a_unit_that_was_never_opened_stays_when_disconnected) {
  const int id = add(1);
  EXPECT_TRUE(m_receiver->disconnect_multicast(id));
  EXPECT_EQ(1, m_living);
}

TEST_F(socket_multicast_test, a_callback_may_disconnect_its_own_unit) {
  const int id = add(1), other = add(2);
  std::atomic<bool> result{false};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() == EVENT_RECEIVE && param.get_socket_id() == id) {
      result = m_receiver->disconnect_multicast(id);
    }
  });
  ASSERT_TRUE(open_both());
  ASSERT_TRUE(send("x", id) && send("y", id));
  ASSERT_TRUE(m_events.wait_count(EVENT_LOCALE_DISCONNECT, 1));
  ASSERT_TRUE(send("z", other));
  ASSERT_TRUE(wait_received(2));
  EXPECT_EQ("xz", m_events.received());
  EXPECT_TRUE(result);
  EXPECT_EQ(1, m_living);
}

TEST_F(socket_multicast_test, a_callback_may_close_and_nothing_follows) {
  const int first = add(1), second = add(2);
  gate blocked;
  std::atomic<bool> closed{false};
  m_events.set_hook([&](socket_param&) {
    blocked.pass();
    m_receiver->sock_close();
    closed = true;
  });
  ASSERT_TRUE(open_both());
  ASSERT_TRUE(send("x", first));
  ASSERT_TRUE(blocked.wait_reached());
  ASSERT_TRUE(send("y", first) && send("z", second));
  blocked.open();
  ASSERT_TRUE(wait_library_threads({"kav-multicast"}));  // the sender's
  EXPECT_TRUE(closed);
  EXPECT_EQ("x", m_events.received());
  EXPECT_EQ(1u, m_events.events().size());
  m_receiver.reset();
  EXPECT_EQ(0, m_living);
}

TEST_F(socket_multicast_test, a_callback_may_close_and_open_again_on_the_same_thread) {
  const int id = add(1);
  std::atomic<int> opened{0};
  m_events.set_hook([&](socket_param& param) {
    if (param.get_event_type() == EVENT_RECEIVE && opened == 0) opened = receive() ? 1 : -1;
  });
  ASSERT_TRUE(open_both());
  ASSERT_TRUE(send("x", id));
  ASSERT_TRUE(wait_until([&] { return opened != 0; }, k_soon));
  EXPECT_EQ(1, opened);
  ASSERT_TRUE(send("y", id));
  ASSERT_TRUE(wait_received(2));
  EXPECT_TRUE(wait_library_threads({"kav-multicast", "kav-multicast"}));
}

TEST_F(socket_multicast_test, a_callback_may_delete_the_receiver) {
  const std::size_t before = open_descriptors();
  const int first = add(1), second = add(2);
  m_events.set_hook([&](socket_param&) { m_receiver.reset(); });
  ASSERT_TRUE(receive());
  ASSERT_TRUE(m_sender.sock_init(MULTICAST_SEND, nullptr, nullptr));
  ASSERT_TRUE(wait_both_threads());
  ASSERT_TRUE(send("x", first) && send("y", second) && send("", first));
  ASSERT_TRUE(wait_library_threads({"kav-multicast"}));
  EXPECT_EQ(1u, m_events.events().size());
  EXPECT_EQ(0, m_living);
  EXPECT_EQ(before + 3, open_descriptors());  // the sender's
}

TEST_F(socket_multicast_test, a_callback_may_delete_the_receiver_at_the_end_of_a_unit) {
  const int id = add(1);
  m_events.set_hook([&](socket_param&) { m_receiver.reset(); });
  ASSERT_TRUE(open_both());
  ASSERT_TRUE(send("", id));
  ASSERT_TRUE(wait_library_threads({"kav-multicast"}));
  EXPECT_EQ((event_list{EVENT_REMOTE_DISCONNECT}), m_events.types());
  EXPECT_EQ(0, m_living);
}

TEST_F(socket_multicast_test, closing_waits_for_a_callback_without_a_limit_and_is_a_barrier) {
  const int id = add(1);
  gate blocked;
  m_events.set_hook([&](socket_param&) { blocked.pass(); });
  ASSERT_TRUE(open_both());
  ASSERT_TRUE(send("x", id));
  ASSERT_TRUE(blocked.wait_reached());
  std::atomic<bool> closed{false};
  std::thread closer([&] {
    m_receiver->sock_close();
    closed = true;
  });
  EXPECT_FALSE(wait_until([&] { return closed.load(); }, 5'500ms));
  blocked.open();
  closer.join();
  m_receiver.reset();
  EXPECT_EQ(1u, m_events.events().size());
  EXPECT_EQ(0, m_living);
}

TEST_F(socket_multicast_test, closing_reports_nothing_and_leaves_units_and_numbers) {
  const int id = add(1);
  ASSERT_TRUE(open_both());
  ASSERT_TRUE(send("x", id));
  ASSERT_TRUE(wait_received(1));
  const int sock = m_events.events().at(0).socket;
  EXPECT_TRUE(m_receiver->sock_close());
  EXPECT_EQ(1u, m_events.events().size());
  EXPECT_FALSE(is_open_descriptor(sock));
  // The number is somebody else's now, and stays untouched.
  const owned_fd mine(::dup2(STDERR_FILENO, sock));
  ASSERT_EQ(sock, mine.get());
  EXPECT_TRUE(m_receiver->sock_close());
  EXPECT_FALSE(m_receiver->event_multicast_client_receive(sock));
  EXPECT_TRUE(m_receiver->disconnect_multicast(id));
  EXPECT_EQ(EVENT_LOCALE_DISCONNECT, m_events.types().back());
  EXPECT_TRUE(m_receiver->event_multicast_client_close(sock, true));
  EXPECT_TRUE(is_open_descriptor(sock));
}

TEST_F(socket_multicast_test, a_socket_that_was_never_a_units_is_read_and_closed_without_events) {
  int pair[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair));
  const owned_fd other(pair[1]);
  ASSERT_EQ(1, ::send(other.get(), "x", 1, 0));
  EXPECT_TRUE(m_receiver->event_multicast_client_receive(pair[0]));
  EXPECT_TRUE(m_receiver->event_multicast_client_send(pair[0]));
  EXPECT_TRUE(m_receiver->event_multicast_client_close(pair[0], false));
  EXPECT_FALSE(is_open_descriptor(pair[0]));
}

TEST_F(socket_multicast_test, deleting_without_closing_ends_the_thread_and_frees_everything) {
  const std::size_t before = open_descriptors();
  add(1);
  add(2);
  ASSERT_TRUE(receive());
  m_receiver.reset();
  EXPECT_EQ(0, m_living);
  EXPECT_EQ(before, open_descriptors());
  EXPECT_TRUE(wait_library_threads({}));
}

TEST_F(socket_multicast_test, sending_and_disconnecting_from_many_threads_meet_no_freed_unit) {
  constexpr int k_units = 16;
  for (int number = 1; number <= k_units; ++number) add(number, std::to_string(number));
  // Looks at no data: a send that comes too late is reported with a size of -1.
  const socket_callback count_calls = [](socket_param&, void* calls) {
    return ++*static_cast<std::atomic<int>*>(calls);
  };
  std::atomic<int> sender_calls{0};
  ASSERT_TRUE(receive());
  ASSERT_TRUE(m_sender.sock_init(MULTICAST_SEND, count_calls, &sender_calls));
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 2; ++thread) {
    threads.emplace_back([this] {
      for (int round = 0; round < 200; ++round) {
        m_sender.sock_send(round % 20 == 19 ? "" : "x", round % 20 == 19 ? 0 : 1, round % k_units);
        m_receiver->get_dropped(round % k_units);
      }
    });
    threads.emplace_back([this] {
      for (int id = 0; id < k_units; ++id) m_receiver->disconnect_multicast(id);
      for (int id = 0; id < k_units / 2; ++id) m_sender.disconnect_multicast(id);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(wait_until([&] { return m_living == 0; }, k_soon));
  m_receiver->sock_close();
  m_sender.sock_close();
  EXPECT_GT(sender_calls, 0);
  // Each unit ended once, whoever ended it.
  EXPECT_EQ(std::size_t{k_units},
            m_events.count(EVENT_LOCALE_DISCONNECT) + m_events.count(EVENT_REMOTE_DISCONNECT));
}

// ---- Datagrams that come at once: they are received with one system call and wait in the object.

// The callback of the first datagram is held until the test has sent the others.
class socket_multicast_batch_test : public socket_multicast_test {
 protected:
  // `act` is called behind the gate, for every datagram.
  bool open_held(const event_recorder::hook& act = {}) {
    m_events.set_hook([this, act](socket_param& param) {
      if (param.get_event_type() != EVENT_RECEIVE) return;
      m_held.pass();
      if (act) act(param);
    });
    return open_both();
  }
  bool send_first(int id) { return send("first", id) && m_held.wait_reached(); }
  bool send_to_host(const std::string& bytes) {
    const sockaddr_in to = endpoint(k_local, m_port.number());
    return ::sendto(m_stranger.get(), bytes.data(), bytes.size(), 0,
                    reinterpret_cast<const sockaddr*>(&to),
                    sizeof(to)) == static_cast<ssize_t>(bytes.size());
  }
  std::vector<std::string> received() const {
    std::vector<std::string> texts;
    for (const kav_test::seen_event& event : m_events.events(EVENT_RECEIVE)) {
      texts.push_back(event.data);
    }
    return texts;
  }
  // Which event of all has that text; past the end for none.
  std::size_t place_of(const std::string& text) const {
    const std::vector<std::string> texts = received();
    return static_cast<std::size_t>(std::find(texts.begin(), texts.end(), text) - texts.begin());
  }

  const owned_fd m_stranger{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  gate m_held;
};

TEST_F(socket_multicast_batch_test, many_datagrams_come_in_order_with_zeros_behind_each) {
  constexpr int k_datagrams = 60;
  std::atomic<int> dirty{0};
  const int id = add(1, "alias");
  ASSERT_TRUE(open_held([&](socket_param& param) {
    const char* const end = param.get_buff_addr() + param.get_buff_size();
    if (!std::all_of(end, end + 2'000, [](char byte) { return byte == 0; })) ++dirty;
  }));
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(send("first", id));
    ASSERT_TRUE(m_held.wait_reached());
    for (int i = 0; i < k_datagrams; ++i) {
      ASSERT_TRUE(send(std::string(static_cast<std::size_t>(1 + (i * 37 + round) % 1'200),
                                   static_cast<char>('!' + i)),
                       id));
    }
    m_held.open();
    ASSERT_TRUE(wait_received(static_cast<std::size_t>((round + 1) * (k_datagrams + 1))));
  }
  EXPECT_EQ(0, dirty);
  const std::vector<kav_test::seen_event> events = m_events.events();
  for (std::size_t i = 0; i < events.size(); ++i) {
    const std::size_t place = i % (k_datagrams + 1);
    const char expected = place == 0 ? 'f' : static_cast<char>('!' + place - 1);
    EXPECT_EQ(expected, events[i].data.at(0)) << i;
    EXPECT_EQ("alias", events[i].alias);
    EXPECT_EQ(id, events[i].id);
  }
}

TEST_F(socket_multicast_batch_test,
       a_stop_between_two_datagrams_keeps_the_rest_for_the_next_start) {
  const int id = add(1);
  std::atomic<bool> stops{true};
  ASSERT_TRUE(open_held([&](socket_param& param) {
    const bool third = std::string(param.get_buff_addr(), param.get_buff_size()) == "3";
    if (third && stops.exchange(false)) m_receiver->stop_server_event_thread();
  }));
  ASSERT_TRUE(send_first(id));
  for (int i = 2; i <= 6; ++i) ASSERT_TRUE(send(std::to_string(i), id));
  m_held.open();
  ASSERT_TRUE(wait_library_threads({"kav-multicast"}));  // the sender's
  EXPECT_EQ((line_list{"first", "2", "3"}), received());
  ASSERT_TRUE(send("7", id));
  ASSERT_TRUE(m_receiver->start_server_event_thread());
  ASSERT_TRUE(wait_received(7));
  EXPECT_EQ((line_list{"first", "2", "3", "4", "5", "6", "7"}), received());
}

TEST_F(socket_multicast_batch_test, a_stop_from_outside_waits_for_one_callback_not_for_the_rest) {
  const int id = add(1);
  gate second;
  ASSERT_TRUE(open_held([&](socket_param& param) {
    if (std::string(param.get_buff_addr(), param.get_buff_size()) == "2") second.pass();
  }));
  ASSERT_TRUE(send_first(id));
  for (int i = 2; i <= 6; ++i) ASSERT_TRUE(send(std::to_string(i), id));
  m_held.open();
  ASSERT_TRUE(second.wait_reached());
  const int sock = m_events.events().at(0).socket;
  std::thread closer([&] { m_receiver->sock_close(); });
  // Refused as long as somebody waits for the end.
  EXPECT_TRUE(wait_until([&] { return !m_receiver->start_server_event_thread(); }, k_soon));
  EXPECT_TRUE(is_open_descriptor(sock));
  second.open();
  closer.join();
  const line_list at_return = received();
  EXPECT_EQ((line_list{"first", "2"}), at_return);
  EXPECT_FALSE(is_open_descriptor(sock));
  ASSERT_TRUE(m_receiver->start_server_event_thread());  // on closed sockets: nothing is left
  m_receiver->sock_close();
  EXPECT_EQ(at_return, received());
}

TEST_F(socket_multicast_batch_test, the_callback_of_one_datagram_may_end_the_unit_of_the_next) {
  const int id = add(1), other = add(2);
  ASSERT_TRUE(open_held([&](socket_param& param) {
    const std::string text(param.get_buff_addr(), param.get_buff_size());
    if (text == "2") m_receiver->disconnect_multicast(id);
  }));
  ASSERT_TRUE(send_first(id));
  for (int i = 2; i <= 6; ++i) ASSERT_TRUE(send(std::to_string(i), id));
  ASSERT_TRUE(send("other", other));
  m_held.open();
  ASSERT_TRUE(m_events.wait_count(EVENT_LOCALE_DISCONNECT, 1));
  ASSERT_TRUE(wait_until([&] { return place_of("other") < received().size(); }, k_soon));
  ASSERT_TRUE(send("last", other));
  ASSERT_TRUE(wait_until([&] { return place_of("last") < received().size(); }, k_soon));
  EXPECT_EQ("2", received().at(place_of("2")));
  EXPECT_EQ(received().size(), place_of("3"));
  EXPECT_EQ(4u, received().size());
  EXPECT_EQ(1, m_living);
}

TEST_F(socket_multicast_batch_test, another_thread_may_end_the_unit_between_two_datagrams) {
  const int id = add(1);
  ASSERT_TRUE(open_held());
  ASSERT_TRUE(send_first(id));
  for (int i = 2; i <= 6; ++i) ASSERT_TRUE(send(std::to_string(i), id));
  ASSERT_TRUE(m_receiver->disconnect_multicast(id));
  m_held.open();
  m_receiver->sock_close();
  EXPECT_EQ((event_list{EVENT_RECEIVE, EVENT_LOCALE_DISCONNECT}), m_events.types());
}

TEST_F(socket_multicast_batch_test, an_empty_datagram_ends_the_unit_in_its_turn) {
  const int id = add(1);
  ASSERT_TRUE(open_held());
  ASSERT_TRUE(send_first(id));
  ASSERT_TRUE(send("2", id) && send("", id) && send("3", id) && send("", id));
  m_held.open();
  ASSERT_TRUE(m_events.wait_count(EVENT_REMOTE_DISCONNECT, 1));
  m_receiver->sock_close();
  EXPECT_EQ((event_list{EVENT_RECEIVE, EVENT_RECEIVE, EVENT_REMOTE_DISCONNECT}), m_events.types());
  EXPECT_EQ("first2", m_events.received());
  EXPECT_EQ(0, m_living);
}

TEST_F(socket_multicast_batch_test, what_others_send_between_is_left_out) {
  const int id = add(1);
  const int stranger = m_sender.add_multicast_param(group(9), m_port.number(), k_local, 0, "");
  ASSERT_TRUE(open_held());
  ASSERT_TRUE(send_first(id));
  ASSERT_TRUE(send("2", id) && send_to_host("host") && send("3", id) && send_to_host("") &&
              send("group", stranger) && send("4", id) && send_to_host("host"));
  m_held.open();
  ASSERT_TRUE(wait_received(4));
  ASSERT_TRUE(send("5", id));
  ASSERT_TRUE(wait_received(5));
  EXPECT_EQ((line_list{"first", "2", "3", "4", "5"}), received());
  EXPECT_EQ(5u, m_events.events().size());
}

TEST_F(socket_multicast_batch_test, opening_again_in_a_callback_forgets_what_came_before) {
  const int id = add(1);
  std::atomic<bool> opens{true};
  ASSERT_TRUE(open_held([&](socket_param&) {
    if (opens.exchange(false)) receive();
  }));
  ASSERT_TRUE(send_first(id));
  for (int i = 2; i <= 6; ++i) ASSERT_TRUE(send(std::to_string(i), id));
  m_held.open();
  // From the new opening on: one of these arrives.
  ASSERT_TRUE(wait_until(
      [&] {
        send("new", id);
        return received().size() > 1;
      },
      k_soon));
  m_receiver->sock_close();
  const line_list texts = received();
  EXPECT_TRUE(std::all_of(texts.begin() + 1, texts.end(),
                          [](const std::string& text) { return text == "new"; }));
}

TEST_F(socket_multicast_batch_test, the_object_may_be_deleted_between_two_datagrams) {
  const int id = add(1);
  m_events.set_hook([&](socket_param&) {
    m_held.pass();
    m_receiver.reset();
  });
  ASSERT_TRUE(open_both());
  ASSERT_TRUE(send_first(id));
  for (int i = 2; i <= 6; ++i) ASSERT_TRUE(send(std::to_string(i), id));
  m_held.open();
  ASSERT_TRUE(wait_library_threads({"kav-multicast"}));
  EXPECT_EQ(line_list{"first"}, received());
  EXPECT_EQ(0, m_living);
}

TEST_F(socket_multicast_batch_test, a_callback_that_receives_gets_the_next_datagrams_in_order) {
  const int id = add(1);
  std::atomic<bool> nested{true};
  ASSERT_TRUE(open_held([&](socket_param& param) {
    const int sock = param.get_socket();
    if (std::string(param.get_buff_addr(), param.get_buff_size()) != "2") return;
    if (nested.exchange(false)) m_receiver->event_multicast_client_receive(sock);
    // Untouched by what came meanwhile.
    EXPECT_EQ("2", std::string(param.get_buff_addr(), param.get_buff_size()));
  }));
  ASSERT_TRUE(send_first(id));
  line_list sent{"first"};
  for (int i = 2; i <= 40; ++i) {
    sent.push_back(std::to_string(i));
    ASSERT_TRUE(send(sent.back(), id));
  }
  m_held.open();
  ASSERT_TRUE(wait_received(sent.size()));
  EXPECT_EQ(sent, received());
}

TEST_F(socket_multicast_batch_test, a_slow_callback_does_not_make_other_groups_wait_for_the_rest) {
  const int busy = add(1), quiet = add(2);
  ASSERT_TRUE(open_held([&](socket_param& param) {
    std::this_thread::sleep_for(2ms);  // the slow callback
    if (std::string(param.get_buff_addr(), param.get_buff_size()) == "5") send("later", quiet);
  }));
  ASSERT_TRUE(send_first(busy));
  for (int i = 2; i <= 40; ++i) ASSERT_TRUE(send(std::to_string(i), busy));
  ASSERT_TRUE(send("waiting", quiet));
  m_held.open();
  ASSERT_TRUE(wait_received(42));
  EXPECT_LE(place_of("waiting"), place_of("2") + 1);
  EXPECT_LE(place_of("later"), place_of("5") + 2);
  line_list numbers = received(), in_order;
  std::erase_if(numbers, [](const std::string& text) { return text.size() > 2; });
  for (int i = 2; i <= 40; ++i) in_order.push_back(std::to_string(i));
  EXPECT_EQ(in_order, numbers);
}

// ---- The event thread

TEST_F(socket_multicast_test, the_static_entry_ignores_null) {
  EXPECT_EQ(nullptr, socket_multicast::socket_server_event_thread(nullptr));
}

TEST_F(socket_multicast_test, a_thread_without_an_epoll_instance_tells_that_once) {
  ASSERT_TRUE(m_receiver->start_server_event_thread());
  ASSERT_TRUE(wait_until([&] { return !m_log.lines().empty(); }, k_soon));
  std::this_thread::sleep_for(50ms);  // some more errors, of which nothing may be told
  EXPECT_TRUE(m_receiver->stop_server_event_thread());
  EXPECT_EQ((line_list{"epoll_waite error! epoll_handle:-1  is not a valid file descriptor. error "
                       "times(1) \n"}),
            m_log.lines());
}

TEST_F(socket_multicast_test, an_epoll_handle_that_is_none_is_told_once) {
  ASSERT_TRUE(receive());
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    if (std::filesystem::read_symlink(entry.path(), error) == "anon_inode:[eventpoll]") {
      ::dup2(STDERR_FILENO, std::stoi(entry.path().filename()));
    }
  }
  ASSERT_TRUE(wait_until([&] { return !m_log.lines().empty(); }, k_soon));
  m_receiver->sock_close();
  EXPECT_EQ((line_list{"epoll_waite error! m_epoll_handle is not an epoll file descriptor, or "
                       "maxevents is less than or equal to zero. error times(1)"}),
            m_log.lines());
}

TEST_F(socket_multicast_test, an_interrupted_wait_is_told_once_and_goes_on) {
  const int id = add(1);
  ASSERT_TRUE(receive());
  m_receiver->stop_server_event_thread();
  {
    const kav_test::failing_thread_creation failing;  // takes back the stop, and brings no thread
    EXPECT_FALSE(m_receiver->start_server_event_thread());
  }
  struct sigaction action {
  }, before{};
  action.sa_handler = [](int) {};
  ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, &before));
  m_events.set_hook([&](socket_param&) { m_receiver->stop_server_event_thread(); });
  std::atomic<bool> ended{false};
  gate left;
  std::thread runner([&] {
    socket_multicast::socket_server_event_thread(m_receiver.get());
    ended = true;
    left.pass();  // alive for the signals
  });
  const bool told = wait_until(
      [&] {
        ::pthread_kill(runner.native_handle(), SIGUSR1);
        return !m_log.lines().empty();
      },
      k_soon);
  for (int more = 0; more < 3; ++more) ::pthread_kill(runner.native_handle(), SIGUSR1);
  m_sender.sock_init(MULTICAST_SEND, nullptr, nullptr);
  EXPECT_TRUE(send("x", id));
  EXPECT_TRUE(wait_until([&] { return ended.load(); }, k_soon));  // stopped by the callback
  left.open();
  runner.join();
  ::sigaction(SIGUSR1, &before, nullptr);
  EXPECT_TRUE(told);
  EXPECT_EQ((line_list{"epoll_waite error! the call was interrupted by a signal handler before any "
                       "of the requested events occurred or timeout expired. error times(1)\n "}),
            m_log.lines());
}

TEST_F(socket_multicast_test, a_start_at_any_moment_of_a_stop_is_not_lost) {
  constexpr int k_rounds = 1500;
  const int id = add(1);
  std::atomic<int> stops{0};
  m_events.set_hook([&](socket_param&) {
    m_receiver->stop_server_event_thread();
    stops.fetch_add(1);
  });
  ASSERT_TRUE(open_both());
  for (int round = 0; round < k_rounds; ++round) {
    ASSERT_TRUE(send("x", id));
    const auto deadline = std::chrono::steady_clock::now() + k_soon;
    while (stops.load() == round && std::chrono::steady_clock::now() < deadline) continue;
    ASSERT_EQ(round + 1, stops.load()) << "nobody receives since the last start";
    for (volatile int wait = round % 500; wait > 0;) wait = wait - 1;
    ASSERT_TRUE(m_receiver->start_server_event_thread());
  }
}

TEST_F(socket_multicast_test, the_thread_can_be_stopped_and_started_again) {
  const int id = add(1);
  ASSERT_TRUE(open_both());
  const std::size_t before = kav_test::threads().size();
  EXPECT_TRUE(m_receiver->start_server_event_thread());  // runs already
  EXPECT_LE(kav_test::threads().size(), before);
  EXPECT_TRUE(m_receiver->stop_server_event_thread());
  ASSERT_TRUE(send("x", id));
  EXPECT_TRUE(m_receiver->start_server_event_thread());
  EXPECT_TRUE(wait_received(1));
}

TEST_F(socket_multicast_test, the_socket_options_are_those_of_tcp) {
  const owned_fd tcp(::socket(AF_INET, SOCK_STREAM, 0)), udp(::socket(AF_INET, SOCK_DGRAM, 0));
  EXPECT_TRUE(m_receiver->set_sock_options(tcp.get()));
  EXPECT_FALSE(m_receiver->set_sock_options(udp.get()));
  int no_delay = 0;
  socklen_t size = sizeof(no_delay);
  ::getsockopt(tcp.get(), IPPROTO_TCP, TCP_NODELAY, &no_delay, &size);
  EXPECT_NE(0, no_delay);
}

}  // namespace
