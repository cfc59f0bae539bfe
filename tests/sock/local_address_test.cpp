#include "sock/local_address.h"

#include <arpa/inet.h>  // inet_pton
#include <gtest/gtest.h>
#include <sys/resource.h>  // setrlimit
#include <unistd.h>        // dup

#include <cstring>     // memcmp
#include <functional>  // std::function
#include <string>
#include <vector>

#include "tests/support/two_networks.h"

namespace {

using VORLAN::SOCK::get_all_network_card_ip;
using VORLAN::SOCK::get_local_ip;
using VORLAN::SOCK::ip_and_mac;
using VORLAN::SOCK::k_ip_and_mac_entries;
using VORLAN::SOCK::load_ip_and_mac;

using texts = std::vector<std::string>;

// Calls body() on a thread with an empty network of its own, to which `commands` ("link set lo up")
// have been applied by the ip program. Returns why that is not possible here, or "".
std::string in_own_network(const texts& commands, const std::function<void()>& body) {
  kav_test::network_thread network;
  if (!network.obstacle().empty()) return network.obstacle();
  for (const std::string& command : commands) {
    if (!network.ip(command)) return "refused: ip " + command;
  }
  network.run(body);
  return "";
}

// Runs the rest of a test, a function body, in such a network; skips the test where there is none.
#define IN_OWN_NETWORK(commands, ...)                                   \
  do {                                                                  \
    const std::string obstacle = in_own_network(commands, __VA_ARGS__); \
    if (!obstacle.empty()) GTEST_SKIP() << obstacle;                    \
  } while (false)

texts all_addresses() {
  texts result;
  EXPECT_TRUE(get_all_network_card_ip(result));
  return result;
}

std::vector<ip_and_mac> loaded_entries() {
  std::vector<ip_and_mac> table(k_ip_and_mac_entries);
  table.resize(static_cast<std::size_t>(load_ip_and_mac(table.data(), k_ip_and_mac_entries)));
  return table;
}

std::string dotted(const ip_and_mac& entry) {
  char text[INET_ADDRSTRLEN] = "";
  ::inet_ntop(AF_INET, entry.ip, text, sizeof(text));
  return text;
}

texts loaded_addresses() {
  texts result;
  for (const ip_and_mac& entry : loaded_entries()) result.push_back(dotted(entry));
  return result;
}

// `count` addresses on a bridge, 10.9.0.1 first.
texts many_addresses(int count) {
  texts result;
  for (int i = 1; i <= count; ++i) result.push_back("10.9.0." + std::to_string(i));
  return result;
}

texts bridge_with(const texts& addresses) {
  texts commands = {"link set lo up", "link add name cards type bridge"};
  for (const std::string& a : addresses) commands.push_back("addr add " + a + "/32 dev cards");
  return commands;
}

const texts k_three_cards = {
    "link set lo up",
    "link add name first type bridge",
    "link add name second address 02:00:00:00:00:02 type bridge",
    "link add name third address 02:00:00:00:00:03 type bridge",
    "addr add 10.1.0.1/24 dev first",
    "addr add 10.2.0.1/24 dev second",
    "addr add 10.3.0.1/24 dev third",
};

// ---- The address of one interface.

TEST(get_local_ip, the_loopback_interface_has_its_address) {
  IN_OWN_NETWORK({"link set lo up"}, [] { EXPECT_EQ("127.0.0.1", get_local_ip("lo")); });
}

TEST(get_local_ip, an_unknown_name_gives_an_empty_text) {
  EXPECT_EQ("", get_local_ip("no-such-card"));
  EXPECT_EQ("", get_local_ip(""));
  EXPECT_EQ("", get_local_ip(std::string(500, 'x')));
}

TEST(get_local_ip, an_interface_without_an_address_gives_an_empty_text) {
  IN_OWN_NETWORK({"link add name bare type bridge"}, [] { EXPECT_EQ("", get_local_ip("bare")); });
}

TEST(get_local_ip, each_interface_tells_its_own_address) {
  IN_OWN_NETWORK(k_three_cards, [] {
    EXPECT_EQ("10.1.0.1", get_local_ip("first"));
    EXPECT_EQ("10.2.0.1", get_local_ip("second"));
    EXPECT_EQ("10.3.0.1", get_local_ip("third"));
  });
}

TEST(get_local_ip, fifteen_characters_of_a_name_count) {
  IN_OWN_NETWORK((texts{"link add name abcdefghijklmno type bridge",
                        "addr add 10.1.0.1/24 dev abcdefghijklmno"}),
                 [] {
                   EXPECT_EQ("10.1.0.1", get_local_ip("abcdefghijklmno"));
                   EXPECT_EQ("10.1.0.1", get_local_ip("abcdefghijklmnopqrst"));
                   EXPECT_EQ("", get_local_ip("abcdefghijklmn"));
                 });
}

// ---- The addresses of all interfaces.

TEST(get_all_network_card_ip, the_first_interface_is_left_out) {
  IN_OWN_NETWORK(k_three_cards, [] {
    EXPECT_EQ((texts{"10.1.0.1", "10.2.0.1", "10.3.0.1"}), all_addresses());
  });
}

TEST(get_all_network_card_ip, without_loopback_the_first_card_is_left_out) {
  const texts cards(k_three_cards.begin() + 1, k_three_cards.end());
  IN_OWN_NETWORK(cards, [] { EXPECT_EQ((texts{"10.2.0.1", "10.3.0.1"}), all_addresses()); });
}

TEST(get_all_network_card_ip, loopback_alone_gives_nothing) {
  IN_OWN_NETWORK({"link set lo up"}, [] { EXPECT_EQ(texts{}, all_addresses()); });
}

TEST(get_all_network_card_ip, a_host_without_addresses_gives_nothing) {
  IN_OWN_NETWORK({}, [] { EXPECT_EQ(texts{}, all_addresses()); });
}

TEST(get_all_network_card_ip, addresses_are_appended) {
  IN_OWN_NETWORK(k_three_cards, [] {
    texts out = {"kept"};
    EXPECT_TRUE(get_all_network_card_ip(out));
    EXPECT_EQ((texts{"kept", "10.1.0.1", "10.2.0.1", "10.3.0.1"}), out);
  });
}

TEST(get_all_network_card_ip, several_addresses_of_one_interface_are_told_apart) {
  IN_OWN_NETWORK(bridge_with(many_addresses(5)),
                 [] { EXPECT_EQ(many_addresses(5), all_addresses()); });
}

// The system's list has 25 entries at most, the first of which is loopback.
TEST(get_all_network_card_ip, of_thirty_addresses_the_first_24_are_listed) {
  IN_OWN_NETWORK(bridge_with(many_addresses(30)),
                 [] { EXPECT_EQ(many_addresses(24), all_addresses()); });
}

TEST(get_all_network_card_ip, exactly_24_addresses_are_all_listed) {
  IN_OWN_NETWORK(bridge_with(many_addresses(24)),
                 [] { EXPECT_EQ(many_addresses(24), all_addresses()); });
}

// ---- The table of addresses and hardware addresses.

TEST(load_ip_and_mac, cards_are_listed_with_their_hardware_addresses) {
  IN_OWN_NETWORK(k_three_cards, [] {
    const std::vector<ip_and_mac> entries = loaded_entries();
    ASSERT_EQ(3u, entries.size());
    EXPECT_EQ((texts{"10.1.0.1", "10.2.0.1", "10.3.0.1"}), loaded_addresses());
    EXPECT_EQ(0, std::memcmp("\2\0\0\0\0\2", entries[1].mac, 6));
    EXPECT_EQ(0, std::memcmp("\2\0\0\0\0\3", entries[2].mac, 6));
  });
}

TEST(load_ip_and_mac, only_the_exact_name_lo_is_left_out) {
  IN_OWN_NETWORK((texts{"link set lo up", "link add name lox type bridge",
                        "link add name lo1 type bridge", "addr add 10.1.0.1/24 dev lox",
                        "addr add 10.2.0.1/24 dev lo1", "addr add 10.3.0.1/24 dev lo"}),
                 [] {
                   EXPECT_EQ((texts{"10.1.0.1", "10.2.0.1"}), loaded_addresses());
                 });
}

TEST(load_ip_and_mac, loopback_alone_gives_nothing) {
  IN_OWN_NETWORK({"link set lo up"}, [] { EXPECT_EQ(texts{}, loaded_addresses()); });
}

TEST(load_ip_and_mac, thirty_addresses_are_all_listed) {
  IN_OWN_NETWORK(bridge_with(many_addresses(30)),
                 [] { EXPECT_EQ(many_addresses(30), loaded_addresses()); });
}

TEST(load_ip_and_mac, the_table_is_not_filled_past_its_end) {
  IN_OWN_NETWORK(bridge_with(many_addresses(30)), [] {
    const std::vector<unsigned char> untouched(sizeof(ip_and_mac), 0xee);
    std::vector<ip_and_mac> table(5);
    std::memcpy(&table[4], untouched.data(), untouched.size());
    EXPECT_EQ(4, load_ip_and_mac(table.data(), 4));
    EXPECT_EQ("10.9.0.4", dotted(table[3]));
    EXPECT_EQ(0, std::memcmp(&table[4], untouched.data(), untouched.size()));
  });
}

TEST(load_ip_and_mac, no_table_or_no_room_gives_nothing) {
  EXPECT_EQ(0, load_ip_and_mac(nullptr, k_ip_and_mac_entries));
  ip_and_mac entry{};
  EXPECT_EQ(0, load_ip_and_mac(&entry, 0));
  EXPECT_EQ(0, load_ip_and_mac(&entry, -1));
}

// ---- Without descriptors, and afterwards.

// The number that the next descriptor gets.
int next_descriptor() {
  const int fd = ::dup(STDERR_FILENO);
  if (fd >= 0) ::close(fd);
  return fd;
}

// Lets the process open no further descriptor while it lives.
class no_descriptors_left {
 public:
  no_descriptors_left() {
    ::getrlimit(RLIMIT_NOFILE, &m_before);
    rlimit none = m_before;
    none.rlim_cur = static_cast<rlim_t>(next_descriptor());
    m_applied = ::setrlimit(RLIMIT_NOFILE, &none) == 0;
  }
  ~no_descriptors_left() { ::setrlimit(RLIMIT_NOFILE, &m_before); }
  no_descriptors_left(const no_descriptors_left&) = delete;
  no_descriptors_left& operator=(const no_descriptors_left&) = delete;
  bool applied() const { return m_applied && next_descriptor() < 0; }

 private:
  rlimit m_before{};
  bool m_applied = false;
};

TEST(local_address, without_a_socket_there_is_no_answer) {
  texts out = {"kept"};
  bool asked = true;
  std::string local = "unset";
  {
    const no_descriptors_left limit;
    ASSERT_TRUE(limit.applied());
    asked = get_all_network_card_ip(out);
    local = get_local_ip("lo");
  }
  EXPECT_FALSE(asked);
  EXPECT_EQ(texts{"kept"}, out);
  EXPECT_EQ("", local);
}

TEST(local_address, no_descriptor_stays_open) {
  const int before = next_descriptor();
  for (int i = 0; i < 100; ++i) {
    get_local_ip("lo");
    get_local_ip("no-such-card");
    all_addresses();
    loaded_entries();
  }
  EXPECT_EQ(before, next_descriptor());
}

}  // namespace
