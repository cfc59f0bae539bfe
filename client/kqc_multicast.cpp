#include "client/kqc_multicast.h"

#include <arpa/inet.h>   // inet_pton
#include <netinet/in.h>  // IN_MULTICAST
#include <sys/socket.h>  // getsockopt

#include <algorithm>  // std::all_of, std::any_of
#include <cerrno>     // EADDRINUSE
#include <cstring>    // strerror, strnlen
#include <new>        // std::bad_alloc
#include <utility>    // std::move

#include "client/ckqc_tcp.h"
#include "feeds/exchange_id.h"
#include "sock/vorlan_socket_thread.h"
#include "tools/helpers.h"

using VORLAN::SOCK::socket_multicast;
using VORLAN::SOCK::socket_param;
using VORLAN::TOOLS::format_str;
using VORLAN::TOOLS::mutex_locker;

namespace {

constexpr char k_lumen[] = "LUMEN";  // the name of a group that carries no exchange's records
constexpr char k_any_address[] = "0.0.0.0";
constexpr unsigned k_error_pause_ms = 10;  // a socket that keeps failing must not occupy a core

// The reception whose datagrams this thread delivers, as a visitor of the client.
thread_local const kqc_multicast* t_reception = nullptr;

class callback_mark {
 public:
  explicit callback_mark(const kqc_multicast* reception) { t_reception = reception; }
  callback_mark(const callback_mark&) = delete;
  callback_mark& operator=(const callback_mark&) = delete;
  ~callback_mark() { t_reception = nullptr; }
};

template <std::size_t SIZE>
std::string field_text(const char (&field)[SIZE]) {
  return std::string(field, ::strnlen(field, SIZE));
}

bool is_dotted(const std::string& ip, in_addr& address) {
  return ::inet_pton(AF_INET, ip.c_str(), &address) == 1;
}

int ignore_event(socket_param& param, void*) { return static_cast<int>(param.get_buff_size()); }

void count_one(std::atomic<std::uint64_t>& counter) {  // by the only thread that writes it
  counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

}  // namespace

// Stays open whatever arrives: an empty datagram or a passing error ends a unit of its base, and
// would silence a feed for the rest of the day.
class kqc_multicast::feed_receiver : public socket_multicast {
 public:
  feed_receiver(const kqc_multicast& reception, std::shared_ptr<client_life> life)
      : m_reception(reception), m_life(std::move(life)) {}
  ~feed_receiver() override { sock_close(); }  // no call of ours is under way any more

  // One visit for all datagrams that have come at once. Its end may be the end of the client, and
  // of this object.
  bool event_multicast_client_receive(const int& sock) override {
    const client_life::visit visit(m_life, client_life::visitor::caller);
    const callback_mark mark(visit ? &m_reception : nullptr);
    return socket_multicast::event_multicast_client_receive(sock);
  }

  bool event_multicast_client_close(const int& sock, bool local) override {
    if (local) return socket_multicast::event_multicast_client_close(sock, local);
    int error = 0;
    socklen_t size = sizeof(error);
    const bool read = ::getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &size) == 0;
    if (!read || error != 0) VORLAN::SOCK::vl_sleep(k_error_pause_ms);
    return true;
  }

 private:
  const kqc_multicast& m_reception;
  const std::shared_ptr<client_life> m_life;
};

kqc_multicast::kqc_multicast(Ckqc_tcp& client, std::shared_ptr<client_life> life,
                             KAVQuoteEvent& event, std::size_t groups)
    : m_client(client),
      m_life(std::move(life)),
      m_event(event),
      m_groups(groups),
      m_receiver(std::make_unique<feed_receiver>(*this, m_life)) {}

kqc_multicast::~kqc_multicast() = default;

// ---- Opening

int kqc_multicast::open(const KqsMulticastInfo* groups, int* results) {
  for (std::size_t i = 0; i < m_groups.size(); ++i) {
    read_group(groups[i], m_groups[i]);
    results[i] = check(i);
  }
  const bool valid = std::all_of(results, results + m_groups.size(),
                                 [](int result) { return result == KAVMulticastStarted; });
  if (valid && open_all()) {
    m_open.store(true, std::memory_order_release);
    write_log(LogLevelInfo,
              format_str("[QuoteClient] multicast: receiving %zu groups.", m_groups.size()));
    return KAVMulticastStarted;
  }
  find_failures(results);
  const bool told = std::any_of(results, results + m_groups.size(),
                                [](int result) { return result != KAVMulticastNotOpened; });
  return told ? KAVMulticastGroupFailed : KAVMulticastSystemError;
}

void kqc_multicast::read_group(const KqsMulticastInfo& info, group& out) const {
  out.ip = field_text(info.m_GroupIp);
  out.port = info.m_GroupPort;
  out.local_ip = field_text(info.m_LocalIp);
  if (out.local_ip.empty()) out.local_ip = k_any_address;
  out.exchange = field_text(info.m_ExchangeId);
  out.context = {&m_client, 0, get_int_exchange_id(out.exchange.c_str())};
}

// What the texts of a group tell; KAVMulticastStarted when there is nothing wrong with them.
int kqc_multicast::check(std::size_t index) const {
  const group& it = m_groups[index];
  in_addr address{}, local{};
  if (it.context.exchange == k_exchange_number_unknown && it.exchange != k_lumen) {
    return KAVMulticastUnknownExchange;
  }
  if (!is_dotted(it.ip, address) || !IN_MULTICAST(ntohl(address.s_addr))) {
    return KAVMulticastInvalidGroup;
  }
  if (it.port == 0) return KAVMulticastInvalidPort;
  if (!is_dotted(it.local_ip, local)) return KAVMulticastInvalidLocalIp;
  for (std::size_t i = 0; i < index; ++i) {
    const group& earlier = m_groups[i];
    if (earlier.ip == it.ip && earlier.port == it.port && earlier.local_ip == it.local_ip) {
      return KAVMulticastDuplicateGroup;
    }
  }
  return KAVMulticastStarted;
}

void kqc_multicast::add_unit(feed_receiver& receiver, const group& which) const {
  receiver.add_multicast_param(which.ip, which.port, which.local_ip, 0, "");
}

bool kqc_multicast::open_all() {
  for (const group& it : m_groups) add_unit(*m_receiver, it);
  if (m_receiver->sock_init(VORLAN::SOCK::MULTICAST_RECEIVE, receive_callback, this)) return true;
  judge(m_receiver->get_open_failure());
  return false;
}

// What a failed opening means to the caller; remembers the system's reason where it says no more
// than that.
int kqc_multicast::judge(const socket_multicast::open_failure& failure) {
  switch (failure.error) {
    case EADDRINUSE:
      return KAVMulticastPortInUse;
    case ENODEV:
    case EADDRNOTAVAIL:
      return KAVMulticastNoInterface;
    default:
      m_system_error = failure.error;
      return KAVMulticastSystemError;
  }
}

// Tries the groups that are still good without those that are not, until they open: each group's
// failure is told, not only the first. Nothing of it stays open.
void kqc_multicast::find_failures(int* results) {
  for (bool again = true; again;) {
    feed_receiver trial(*this, m_life);
    std::vector<std::size_t> group_of_unit;
    for (std::size_t i = 0; i < m_groups.size(); ++i) {
      if (results[i] != KAVMulticastStarted) continue;
      add_unit(trial, m_groups[i]);
      group_of_unit.push_back(i);
    }
    again = !trial.sock_init(VORLAN::SOCK::MULTICAST_RECEIVE, ignore_event, nullptr);
    if (!again) break;
    const socket_multicast::open_failure failure = trial.get_open_failure();
    const int result = judge(failure);
    if (failure.id >= 0) results[group_of_unit[static_cast<std::size_t>(failure.id)]] = result;
    again = result != KAVMulticastSystemError;  // others would fail for the same reason
  }
  for (std::size_t i = 0; i < m_groups.size(); ++i) {
    if (results[i] == KAVMulticastStarted) results[i] = KAVMulticastNotOpened;
  }
}

void kqc_multicast::explain(int request, const int* results) {
  const std::string reason =
      m_system_error == 0 ? "" : std::string(": ") + std::strerror(m_system_error);
  for (std::size_t i = 0; i < m_groups.size(); ++i) {
    if (results[i] == KAVMulticastNotOpened) continue;
    const group& it = m_groups[i];
    const bool system = results[i] == KAVMulticastSystemError;
    write_log(LogLevelError,
              format_str("[QuoteClient] multicast: group %zu (%s:%u %s at %s): %s%s.", i,
                         it.ip.c_str(), unsigned{it.port}, it.exchange.c_str(), it.local_ip.c_str(),
                         KAVMulticastResultText(results[i]), system ? reason.c_str() : ""));
  }
  if (request == KAVMulticastSystemError) {
    write_log(LogLevelError,
              format_str("[QuoteClient] multicast: no group was opened%s.", reason.c_str()));
  }
}

// ---- Closing

void kqc_multicast::close() {
  m_closed.store(true, std::memory_order_release);
  if (in_callback()) {
    m_receiver->sock_close();  // another thread may hold the lock and wait for this callback
  } else {
    const mutex_locker guard(m_close_lock);
    m_receiver->sock_close();
  }
}

bool kqc_multicast::in_callback() const { return t_reception == this; }

// ---- Receiving

int kqc_multicast::receive_callback(socket_param& param, void* reception) {
  auto* const self = static_cast<kqc_multicast*>(reception);
  const int size = static_cast<int>(param.get_buff_size());
  const bool visits = self->in_callback();
  if (visits && !self->m_life->is_closed() && !self->is_closed()) self->receive(param);
  return size;
}

void kqc_multicast::receive(socket_param& param) {
  if (param.get_event_type() != VORLAN::SOCK::EVENT_RECEIVE) return;
  group& from = m_groups[static_cast<std::size_t>(param.get_socket_id())];
  Ckqc_tcp::mc_event_callback(param, &from.context);
  switch (m_client.last_mc_record()) {
    case multicast_record::ignored:
      count_one(from.ignored);
      break;
    case multicast_record::lumen_refused:
      count_one(from.refused);
      break;
    default:
      count_one(from.quotes);
  }
}

bool kqc_multicast::statistics(std::size_t index, KAVMulticastStatistics& out) const {
  if (!is_open() || is_closed() || index >= m_groups.size()) return false;
  const group& it = m_groups[index];
  out.m_Quotes = it.quotes.load(std::memory_order_relaxed);
  out.m_Ignored = it.ignored.load(std::memory_order_relaxed);
  out.m_Refused = it.refused.load(std::memory_order_relaxed);
  out.m_Datagrams = out.m_Quotes + out.m_Ignored + out.m_Refused;
  out.m_Dropped = m_receiver->get_dropped(static_cast<int>(index));
  return true;
}

// ---- Log

void kqc_multicast::write_log(KavKqsLogLevel level, const std::string& line) {
  const client_life::call call(*m_life);
  try {
    if (call) m_event.OnLog(level, line.c_str(), static_cast<int>(line.size()));
  } catch (const std::bad_alloc&) {
    // A line that its receiver has no memory for is lost.
  }
}
