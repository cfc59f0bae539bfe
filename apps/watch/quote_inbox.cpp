#include "apps/watch/quote_inbox.h"

#include <sys/eventfd.h>  // eventfd
#include <unistd.h>       // read, write, close

#include <cerrno>        // errno
#include <system_error>  // std::system_error
#include <utility>       // std::exchange

#include "apps/watch/quote_format.h"
#include "apps/watch/text_safety.h"

namespace kav_watch {
namespace {

constexpr std::size_t k_most_log_lines = 256;
constexpr std::size_t k_most_refusals = 100'000;  // a server that invents names stays harmless

int make_eventfd() {
  const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  return fd;
}

std::string safe_text(const char* text) { return printable_text(text == nullptr ? "" : text); }

}  // namespace

quote_inbox::quote_inbox(keep_quotes keep) : m_keep(keep), m_wake_fd(make_eventfd()) {}

quote_inbox::quote_inbox(quote_taker& taker)
    : m_keep(keep_quotes::every), m_taker(&taker), m_wake_fd(make_eventfd()) {}

quote_inbox::~quote_inbox() { ::close(m_wake_fd); }

void quote_inbox::wake() {
  const std::uint64_t one = 1;
  // Fails only when the counter is full, and then the main thread wakes anyway.
  [[maybe_unused]] const ssize_t written = ::write(m_wake_fd, &one, sizeof(one));
}

void quote_inbox::clear_wake() {
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t taken = ::read(m_wake_fd, &count, sizeof(count));
}

session_facts quote_inbox::facts() const {
  const std::lock_guard lock(m_lock);
  session_facts facts = m_facts;
  facts.state = m_tracker.state();
  facts.reconnections = m_tracker.reconnections();
  facts.relogin_refused = m_tracker.relogin_refused();
  return facts;
}

void quote_inbox::take_quotes(std::vector<KAVMarketDepthQuoteData>& quotes) {
  quotes.clear();
  {
    const std::lock_guard lock(m_lock);
    quotes.swap(m_waiting);
    m_waiting_index.clear();
  }
  m_room.notify_all();
}

std::vector<std::string> quote_inbox::take_log() {
  const std::lock_guard lock(m_lock);
  std::vector<std::string> lines(m_log.begin(), m_log.end());
  m_log.clear();
  return lines;
}

std::vector<std::string> quote_inbox::take_refusals() {
  const std::lock_guard lock(m_lock);
  std::vector<std::string> fresh;
  for (auto& [symbol, told] : m_refused) {
    if (!std::exchange(told, true)) fresh.push_back(symbol);
  }
  return fresh;
}

std::vector<listed_symbol> quote_inbox::symbols() const {
  const std::lock_guard lock(m_lock);
  return m_symbols;
}

void quote_inbox::close() {
  {
    const std::lock_guard lock(m_lock);
    m_closed = true;
  }
  m_room.notify_all();
}

void quote_inbox::set_connected(bool connected) {
  {
    const std::lock_guard lock(m_lock);
    m_facts.connected = connected;
  }
  wake();
}

void quote_inbox::OnServerDisconnected() {
  {
    const std::lock_guard lock(m_lock);
    m_facts.disconnected_before_login = true;
  }
  wake();
}

void quote_inbox::OnLoginResult(bool success, const char* reason) {
  {
    const std::lock_guard lock(m_lock);
    if (success) m_tracker.login_accepted();
    m_facts.login = login_answer{success, m_tracker.login_refused(), safe_text(reason)};
  }
  wake();
}

bool quote_inbox::replace_waiting(const KAVMarketDepthQuoteData& quote) {
  const auto [known, fresh] =
      m_waiting_index.try_emplace(std::string{field_text(quote.InstrumentID)}, m_waiting.size());
  if (!fresh) m_waiting[known->second] = quote;
  return !fresh;
}

void quote_inbox::OnQuote(KavKqsIntrumentType, KAVMarketDepthQuoteData* quote) {
  if (m_taker != nullptr) return m_taker->take(*quote);
  bool first = false;
  {
    std::unique_lock lock(m_lock);
    m_room.wait(lock, [this] { return m_closed || m_waiting.size() < k_most_waiting; });
    if (m_closed) return;
    ++m_facts.quotes;
    if (m_keep == keep_quotes::latest && replace_waiting(*quote)) return;
    first = m_waiting.empty();
    m_waiting.push_back(*quote);
  }
  if (first) wake();  // the others are found with it
}

void quote_inbox::keep_log_line(std::string line) {
  m_log.push_back(std::move(line));
  if (m_log.size() > k_most_log_lines) m_log.pop_front();
}

void quote_inbox::add_log_line(const char* text) {
  std::string line = safe_text(text);
  {
    const std::lock_guard lock(m_lock);
    keep_log_line(std::move(line));
  }
  wake();
}

void quote_inbox::OnLog(KavKqsLogLevel, const char* text, int) {
  std::string line = safe_text(text);
  {
    const std::lock_guard lock(m_lock);
    m_tracker.read_log_line(line);
    keep_log_line(std::move(line));
  }
  wake();
}

void quote_inbox::OnSymbolRegistered(KavKqsIntrumentType, const char* symbol, bool success) {
  if (success) return;
  {
    const std::lock_guard lock(m_lock);
    if (m_refused.size() < k_most_refusals) m_refused.try_emplace(safe_text(symbol), false);
  }
  wake();
}

void quote_inbox::OnSymbolList(KavKqsIntrumentType type, const char* symbol, bool last) {
  {
    const std::lock_guard lock(m_lock);
    if (m_facts.symbols_complete) return;  // the answer to a question that was repeated
    if (last) {
      m_facts.symbols_complete = true;
    } else {
      m_symbols.push_back({symbol, type});
    }
  }
  if (last) wake();
}

}  // namespace kav_watch
