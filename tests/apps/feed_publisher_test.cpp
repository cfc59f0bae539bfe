// The publisher over this host's loopback interface.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>  // std::map

#include "apps/feed/encode.h"
#include "apps/feed/publisher.h"
#include "apps/sim/market.h"
#include "apps/sim/tick_file.h"
#include "tests/apps/feed_receiver.h"
#include "tests/apps/feed_ticks.h"

namespace kav_feed_test {

using namespace kav_feed;
using namespace std::chrono_literals;
using std::chrono::steady_clock;

using byte_texts = std::vector<std::string>;

// Ticks that tell their number as their volume.
std::vector<kav_sim::tick> numbered_ticks(const char* exchange, int count) {
  std::vector<kav_sim::tick> ticks;
  for (int i = 0; i < count; ++i) {
    kav_sim::tick next{};
    next.record = tick_of(exchange, "x");
    next.record.Volume = i;
    ticks.push_back(next);
  }
  return ticks;
}

// The volumes in SHFE datagrams.
std::vector<int> numbers_in(const byte_texts& datagrams) {
  std::vector<int> numbers;
  for (const std::string& each : datagrams) {
    EXPECT_EQ(368u, each.size());
    int number = -1;
    std::memcpy(&number, each.data() + 80, sizeof(number));
    numbers.push_back(number);
  }
  return numbers;
}

run_options at_once() {
  run_options options;
  options.speed = 0;
  return options;
}

class feed_publisher_test : public testing::Test {
 protected:
  publisher& open(const publisher_options& options) {
    m_publisher = std::make_unique<publisher>(options);
    EXPECT_TRUE(m_publisher->open(m_error)) << m_error;
    return *m_publisher;
  }
  run_end run(std::vector<kav_sim::tick> ticks, const run_options& options) {
    kav_sim::tick_replay source{std::move(ticks), false};
    return m_publisher->run(source, options, m_error);
  }

  std::string m_error;
  std::unique_ptr<publisher> m_publisher;
};

TEST_F(feed_publisher_test, every_feed_gets_the_ticks_of_its_exchange) {
  std::vector<std::unique_ptr<receiver>> receivers;
  publisher_options options;
  options.groups.clear();
  for (const feed which : k_all_feeds) {
    receivers.push_back(std::make_unique<receiver>(which, 1 + static_cast<int>(index_of(which))));
    options.groups.push_back(receivers.back()->group());
  }
  std::map<feed, byte_texts> expected;
  std::vector<kav_sim::tick> ticks;
  lumen_encoder lumen;
  random_ticks random{5};
  const std::pair<const char*, datagram (*)(const KAVMarketDepthQuoteData&)> exchanges[] = {
      {"SHFE", encode_shfe}, {"CFFEX", encode_cffex}, {"CZCE", encode_czce},
      {"GFEX", encode_gfex}, {"INE", encode_shfe},    {"DCE", nullptr}};
  for (int i = 0; i < 100; ++i) {
    const auto& [exchange, encode] = exchanges[random.below(6)];
    kav_sim::tick next{};
    next.record = random.next(exchange);
    ticks.push_back(next);
    const std::optional<feed> which = exchange_feed(next.record);
    if (!which) continue;
    expected[*which].emplace_back(bytes_of(encode(next.record)));
    if (!in_lumen(*which)) continue;
    std::vector<datagram> made;
    lumen.encode(next.record, made);
    for (const datagram& each : made) expected[feed::lumen].emplace_back(bytes_of(each));
  }
  publisher& feeds = open(options);
  EXPECT_EQ(run_end::source_ended, run(ticks, at_once()));
  std::size_t published = 0;
  for (const feed which : k_all_feeds) {
    EXPECT_EQ(expected[which], receivers[index_of(which)]->arrived()) << name_of(which);
    EXPECT_EQ(expected[which].size(), feeds.counts().of(which).sent) << name_of(which);
    if (which != feed::lumen) published += expected[which].size();
  }
  EXPECT_EQ(100u, feeds.counts().ticks);
  EXPECT_EQ(100u - published, feeds.counts().without_record);
  EXPECT_GT(feeds.counts().without_record, 0u);
}

TEST_F(feed_publisher_test, feeds_that_are_not_wanted_get_nothing) {
  receiver lumen{feed::lumen, 11};
  publisher_options options;
  options.groups = {lumen.group()};
  const publisher& feeds = open(options);
  EXPECT_EQ(run_end::source_ended, run(numbered_ticks("SHFE", 3), at_once()));
  EXPECT_EQ(run_end::source_ended, run(numbered_ticks("CZCE", 3), at_once()));
  EXPECT_EQ(4u, lumen.arrived().size());  // a summary and three ticks
  EXPECT_EQ(0u, feeds.counts().of(feed::shfe).sent);
  EXPECT_EQ(0u, feeds.counts().without_record);
}

TEST_F(feed_publisher_test, losses_and_swaps_are_counted_and_come_back_with_the_seed) {
  receiver shfe{feed::shfe, 12};
  publisher_options options;
  options.groups = {shfe.group()};
  options.disturbed = {0.2, 0.3};
  std::map<std::uint64_t, std::vector<int>> by_seed;
  for (const std::uint64_t seed : {1u, 2u, 1u}) {
    options.seed = seed;
    const publisher& feeds = open(options);
    EXPECT_EQ(run_end::source_ended, run(numbered_ticks("SHFE", k_buffered), at_once()));
    const std::vector<int> numbers = numbers_in(shfe.arrived());
    const feed_counts counts = feeds.counts().of(feed::shfe);
    std::uint64_t swapped = 0;
    for (std::size_t i = 1; i < numbers.size(); ++i) swapped += numbers[i] < numbers[i - 1];
    EXPECT_EQ(numbers.size(), counts.sent);
    EXPECT_EQ(std::uint64_t{k_buffered}, counts.sent + counts.left_out);
    EXPECT_EQ(swapped, counts.swapped);
    EXPECT_GT(counts.left_out, 0u);
    EXPECT_GT(swapped, 0u);
    if (by_seed.count(seed) == 1) {
      EXPECT_EQ(by_seed[seed], numbers);
    }
    by_seed[seed] = numbers;
  }
  EXPECT_NE(by_seed[1], by_seed[2]);
}

TEST_F(feed_publisher_test, one_that_waits_for_its_successor_leaves_at_the_end_at_the_latest) {
  receiver shfe{feed::shfe, 13};
  publisher_options options;
  options.groups = {shfe.group()};
  options.disturbed.reorder = 1;
  const publisher& feeds = open(options);
  EXPECT_EQ(run_end::source_ended, run(numbered_ticks("SHFE", 3), at_once()));
  EXPECT_EQ((std::vector<int>{1, 0, 2}), numbers_in(shfe.arrived()));
  EXPECT_EQ(1u, feeds.counts().of(feed::shfe).swapped);
}

TEST_F(feed_publisher_test, the_rate_is_kept) {
  receiver shfe{feed::shfe, 14};
  publisher_options options;
  options.groups = {shfe.group()};
  const publisher& feeds = open(options);
  run_options how = at_once();
  how.rate = 2000;
  how.limit = 1s;
  EXPECT_EQ(run_end::time_over, run(numbered_ticks("SHFE", 10'000), how));
  const std::uint64_t in_a_second = feeds.counts().of(feed::shfe).sent;
  EXPECT_GE(in_a_second, 1000u) << "2000 unless the machine stands still";
  EXPECT_LE(in_a_second, 2001u);

  how.limit = 0s;
  how.count = 1001;
  const auto start = steady_clock::now();
  EXPECT_EQ(run_end::count_reached, run(numbered_ticks("SHFE", 10'000), how));
  EXPECT_GE(steady_clock::now() - start, 499ms) << "a thousand intervals";
}

TEST_F(feed_publisher_test, the_sources_times_are_kept_and_divided_by_the_speed) {
  receiver shfe{feed::shfe, 15};
  publisher_options options;
  options.groups = {shfe.group()};
  open(options);
  std::vector<kav_sim::tick> ticks = numbered_ticks("SHFE", 3);
  ticks[2].source_ms = 2000;
  run_options how;
  how.speed = 10;
  const auto start = steady_clock::now();
  EXPECT_EQ(run_end::source_ended, run(ticks, how));
  EXPECT_GE(steady_clock::now() - start, 199ms);
  EXPECT_EQ((std::vector<int>{0, 1, 2}), numbers_in(shfe.arrived()));
}

TEST_F(feed_publisher_test, it_ends_when_it_is_told_to_also_while_it_waits) {
  receiver shfe{feed::shfe, 16};
  publisher_options options;
  options.groups = {shfe.group()};
  const publisher& feeds = open(options);
  std::vector<kav_sim::tick> ticks = numbered_ticks("SHFE", 2);
  ticks[1].source_ms = 3000;
  run_options how;
  how.speed = 0.001;
  int looks = 0;
  how.keep_going = [&looks] { return ++looks < 3; };
  EXPECT_EQ(run_end::told_to_stop, run(ticks, how));
  EXPECT_EQ(1u, feeds.counts().of(feed::shfe).sent);

  kav_sim::market endless{{}};
  how.speed = 0;
  looks = 0;
  std::string error;
  EXPECT_EQ(run_end::told_to_stop, m_publisher->run(endless, how, error));
}

TEST_F(feed_publisher_test, datagrams_that_were_left_out_count_too) {
  receiver shfe{feed::shfe, 17};
  publisher_options options;
  options.groups = {shfe.group()};
  options.disturbed.loss = 1;
  const publisher& feeds = open(options);
  run_options how = at_once();
  how.count = 7;
  EXPECT_EQ(run_end::count_reached, run(numbered_ticks("SHFE", 100), how));
  EXPECT_EQ(7u, feeds.counts().of(feed::shfe).left_out);
  EXPECT_TRUE(shfe.arrived().empty());
}

TEST(feed_publisher, an_address_that_is_none_of_this_machine_is_told) {
  publisher_options options;
  options.interface = "203.0.113.254";
  publisher feeds{options};
  std::string error;
  EXPECT_FALSE(feeds.open(error));
  EXPECT_EQ(
      "cannot publish SHFE 239.255.10.1:30001 from 203.0.113.254: Cannot assign requested address; "
      "give --interface an address of this machine, such as 127.0.0.1",
      error);
  options.interface = "here";
  publisher nowhere{options};
  EXPECT_FALSE(nowhere.open(error));
  EXPECT_THAT(error, testing::HasSubstr("from here: Invalid argument; "));
}

// The descriptor that is connected to the group; -1 when there is none.
int descriptor_of(const feed_group& group) {
  for (int fd = 0; fd < 1024; ++fd) {
    sockaddr_in peer{};
    socklen_t length = sizeof(peer);
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) continue;
    char text[INET_ADDRSTRLEN] = "";
    if (peer.sin_family == AF_INET && ntohs(peer.sin_port) == group.port &&
        ::inet_ntop(AF_INET, &peer.sin_addr, text, sizeof(text)) != nullptr &&
        text == group.address) {
      return fd;
    }
  }
  return -1;
}

TEST_F(feed_publisher_test, a_send_that_fails_ends_the_run_and_is_told) {
  receiver shfe{feed::shfe, 18};
  publisher_options options;
  options.groups = {shfe.group()};
  const publisher& feeds = open(options);
  EXPECT_EQ(run_end::source_ended, run(numbered_ticks("SHFE", 2), at_once()));
  const int sending = descriptor_of(shfe.group());
  ASSERT_GE(sending, 0);
  int no_sockets[2];
  ASSERT_EQ(0, ::pipe(no_sockets));
  ASSERT_EQ(sending, ::dup2(no_sockets[1], sending));
  EXPECT_EQ(run_end::failed, run(numbered_ticks("SHFE", 2), at_once()));
  EXPECT_EQ("cannot send to " + text_of(shfe.group()) +
                " from 127.0.0.1: Socket operation on non-socket; look at the interface with \"ip "
                "-br addr\", or give another --interface",
            m_error);
  EXPECT_EQ(2u, feeds.counts().of(feed::shfe).sent);
  m_publisher.reset();
  ::close(no_sockets[0]);
  ::close(no_sockets[1]);
}

}  // namespace kav_feed_test
