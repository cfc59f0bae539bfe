// Multicast groups whose quotes go into the inbox.
#pragma once

#include <atomic>         // std::atomic
#include <cstdint>        // std::uint64_t
#include <functional>     // std::hash
#include <mutex>          // std::mutex
#include <optional>       // std::optional
#include <string>         // std::string
#include <string_view>    // std::string_view
#include <unordered_set>  // std::unordered_set
#include <vector>         // std::vector

#include "api/kav_multicast.h"
#include "apps/watch/multicast_group.h"
#include "apps/watch/quote_inbox.h"

namespace kav_watch {

// Takes the callbacks of a reception: the groups carry every symbol, only those that were named
// reach the inbox.
//
// Threads: the callbacks come on the library's multicast thread, log lines on the main thread too.
class multicast_filter : public KAVQuoteEvent {
 public:
  // No symbols: all pass.
  multicast_filter(quote_inbox& inbox, const std::vector<std::string>& symbols);

  // Quotes that came, whether they passed or not. Any thread.
  std::uint64_t quotes() const { return m_quotes.load(std::memory_order_acquire); }
  // The log lines since the last call, fit for a terminal. The inbox gets them too.
  std::vector<std::string> take_log();

  void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override;
  void OnLog(KavKqsLogLevel level, const char* text, int length) override;
  // Nothing of a session comes here.
  void OnServerConnected() override {}
  void OnServerDisconnected() override {}
  void OnLoginResult(bool, const char*) override {}
  void OnSymbolRegistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolUnregistered(KavKqsIntrumentType, const char*, bool) override {}
  void OnSymbolList(KavKqsIntrumentType, const char*, bool) override {}

 private:
  struct text_hash : std::hash<std::string_view> {
    using is_transparent = void;
  };

  quote_inbox& m_inbox;
  const std::unordered_set<std::string, text_hash, std::equal_to<>> m_symbols;  // constant
  std::atomic<std::uint64_t> m_quotes{0};
  std::mutex m_lock;
  std::vector<std::string> m_log;  // under m_lock
};

// Threads:  main thread only.
// Shutdown: close() leaves the groups. It closes the inbox first, or a callback that waits for
//           room in there would never return.
class multicast_feed {
 public:
  // The client and the inbox outlive the feed.
  multicast_feed(KAVQuoteApi* client, quote_inbox& inbox, std::vector<watched_group> groups,
                 const std::vector<std::string>& symbols);
  ~multicast_feed();
  multicast_feed(const multicast_feed&) = delete;
  multicast_feed& operator=(const multicast_feed&) = delete;

  const std::vector<watched_group>& groups() const { return m_groups; }
  bool is_wanted() const { return !m_groups.empty(); }
  bool is_receiving() const { return m_started; }
  // Receives all groups. Else one line for each that is in the way, and none is received.
  std::vector<std::string> start();
  // The counts of each group, in their order; all zero before start().
  std::vector<KAVMulticastStatistics> counts() const;
  // The same for the end: they hold every quote that has come. Closes the inbox.
  std::vector<KAVMulticastStatistics> last_counts();
  void close();

 private:
  std::vector<std::string> refusals(const std::vector<int>& results);

  KAVQuoteApi* const m_client;
  quote_inbox& m_inbox;
  const std::vector<watched_group> m_groups;
  multicast_filter m_filter;
  bool m_started = false;
};

}  // namespace kav_watch
