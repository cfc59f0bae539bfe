#include "apps/watch/multicast_feed.h"

#include <chrono>   // std::chrono::milliseconds
#include <thread>   // std::this_thread::sleep_for
#include <utility>  // std::exchange, std::move

#include "apps/watch/quote_format.h"
#include "apps/watch/reception_report.h"
#include "apps/watch/text_safety.h"

namespace kav_watch {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t k_most_start_lines = 64;  // they are read after start() only
constexpr std::chrono::milliseconds k_count_wait{
    500};  // far longer than a callback takes to return

}  // namespace

multicast_filter::multicast_filter(quote_inbox& inbox, const std::vector<std::string>& symbols)
    : m_inbox(inbox), m_symbols(symbols.begin(), symbols.end()) {}

std::vector<std::string> multicast_filter::take_log() {
  const std::lock_guard lock(m_lock);
  return std::exchange(m_log, {});
}

void multicast_filter::OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) {
  m_quotes.fetch_add(1, std::memory_order_acq_rel);
  if (!m_symbols.empty() && !m_symbols.contains(field_text(quote->InstrumentID))) return;
  m_inbox.OnQuote(type, quote);
}

void multicast_filter::OnLog(KavKqsLogLevel, const char* text, int) {
  m_inbox.add_log_line(text);
  const std::lock_guard lock(m_lock);
  if (m_log.size() < k_most_start_lines) m_log.push_back(printable_text(text));
}

multicast_feed::multicast_feed(KAVQuoteApi* client, quote_inbox& inbox,
                               std::vector<watched_group> groups,
                               const std::vector<std::string>& symbols)
    : m_client(client), m_inbox(inbox), m_groups(std::move(groups)), m_filter(inbox, symbols) {}

multicast_feed::~multicast_feed() { close(); }

std::vector<std::string> multicast_feed::start() {
  std::vector<KqsMulticastInfo> infos;
  for (const watched_group& group : m_groups) infos.push_back(group.info);
  std::vector<int> results(infos.size(), KAVMulticastInvalidArgument);
  const int result = StartKAVMulticast(m_client, infos.data(), static_cast<unsigned>(infos.size()),
                                       &m_filter, results.data());
  m_started = result == KAVMulticastStarted;
  if (m_started) return {};
  std::vector<std::string> lines = refusals(results);
  if (lines.empty()) lines.push_back(refusal_text(m_groups.front(), result, m_filter.take_log()));
  return lines;
}

std::vector<std::string> multicast_feed::refusals(const std::vector<int>& results) {
  const std::vector<std::string> log = m_filter.take_log();
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < results.size(); ++i) {
    if (results[i] == KAVMulticastNotOpened) continue;  // its line would hide those that matter
    lines.push_back(refusal_text(m_groups[i], results[i], log));
  }
  return lines;
}

std::vector<KAVMulticastStatistics> multicast_feed::counts() const {
  std::vector<KAVMulticastStatistics> all(m_groups.size());
  for (unsigned i = 0; i < all.size(); ++i) GetKAVMulticastStatistics(m_client, i, &all[i]);
  return all;
}

std::vector<KAVMulticastStatistics> multicast_feed::last_counts() {
  m_inbox.close();  // a callback that waits for room goes on
  // A quote is counted when its callback has returned, which may be later than it was shown.
  const std::uint64_t came = m_filter.quotes();
  const auto deadline = std::chrono::steady_clock::now() + k_count_wait;
  std::vector<KAVMulticastStatistics> all = counts();
  while (sum_of(all).m_Quotes < came && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
    all = counts();
  }
  return all;
}

void multicast_feed::close() {
  if (!std::exchange(m_started, false)) return;
  m_inbox.close();
  StopKAVMulticast(m_client);
}

}  // namespace kav_watch
