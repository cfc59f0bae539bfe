// Ticks in, datagrams out: encoded, disturbed and sent when they are due.
#pragma once

#include <array>       // std::array
#include <cstdint>     // std::uint64_t
#include <functional>  // std::function
#include <optional>    // std::optional
#include <string>      // std::string
#include <vector>      // std::vector

#include "apps/feed/disturbance.h"
#include "apps/feed/feed_list.h"
#include "apps/feed/lumen_encoder.h"
#include "apps/feed/pace.h"
#include "apps/feed/sender.h"
#include "apps/sim/tick_source.h"

namespace kav_feed {

struct publisher_options {
  std::vector<feed_group> groups = default_groups();  // the feeds that are published, each once
  std::string interface = "127.0.0.1";                // address of the sending interface
  disturbance_options disturbed;
  std::uint64_t seed = 1;  // of the disturbance
};

struct run_options {
  double speed = 1;         // 1: the source's own pace; 10: ten times as fast; 0: at once
  double rate = 0;          // at most so many datagrams a second; 0: no limit
  std::uint64_t count = 0;  // end after so many datagrams, left out or sent; 0: no limit
  std::chrono::steady_clock::duration limit{0};  // end after so long; 0: no limit
  // Called at least every 50 ms; false ends the run. May be empty.
  std::function<bool()> keep_going;
};

// Of one feed.
struct feed_counts {
  std::uint64_t sent = 0;
  std::uint64_t left_out = 0;  // by the loss
  std::uint64_t swapped = 0;   // pairs
};

struct publisher_counts {
  std::array<feed_counts, k_feed_count> feeds{};
  std::uint64_t ticks = 0;           // taken from the source
  std::uint64_t without_record = 0;  // of an exchange that has none

  const feed_counts& of(feed which) const { return feeds[index_of(which)]; }
};

enum class run_end {
  source_ended,
  count_reached,
  time_over,
  told_to_stop,  // by keep_going()
  failed,        // a datagram could not be sent
};

// Publishes any number of sources, one after the other; lumen goes on with the state of the one
// before. Everything on the caller's thread; the counts may be read in keep_going().
class publisher {
 public:
  explicit publisher(const publisher_options& options);

  // Opens the groups. False: `error` tells cause and way out in one line.
  bool open(std::string& error);
  // Publishes until the source ends or the options say so. `error` is set when it failed.
  run_end run(kav_sim::tick_source& source, const run_options& options, std::string& error);
  publisher_counts counts() const;

 private:
  class timing;
  using stop = std::optional<run_end>;  // nothing: go on
  struct published {
    bool wanted;
    disturbance disturbed;
    std::uint64_t sent = 0;
  };

  published& state(feed which) { return m_feeds[index_of(which)]; }
  stop publish_all(kav_sim::tick_source& source, timing& when, std::string& error);
  stop publish_tick(const KAVMarketDepthQuoteData& tick, timing& when, std::string& error);
  stop publish_made(feed which, timing& when, std::string& error);
  stop send_passed(feed which, timing& when, std::string& error);
  bool send_held(std::string& error);

  const publisher_options m_options;
  sender m_sender;
  lumen_encoder m_lumen;
  std::vector<published> m_feeds;  // by index_of()
  std::vector<datagram> m_made;    // of one tick and feed
  std::vector<datagram> m_passed;  // what the disturbance lets out
  std::uint64_t m_ticks = 0, m_without_record = 0;
};

}  // namespace kav_feed
