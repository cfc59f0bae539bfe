#include "sock/socket_multicast.h"

#include <arpa/inet.h>        // inet_pton
#include <fcntl.h>            // fcntl
#include <linux/sock_diag.h>  // SK_MEMINFO_DROPS
#include <netinet/in.h>       // IP_ADD_MEMBERSHIP
#include <netinet/tcp.h>      // TCP_NODELAY
#include <sys/epoll.h>        // epoll_wait
#include <sys/socket.h>       // send
#include <unistd.h>           // close

#include <cerrno>   // errno
#include <chrono>   // std::chrono::steady_clock
#include <cstdint>  // std::uint32_t
#include <map>      // std::map
#include <new>      // std::bad_alloc
#include <set>      // std::set
#include <utility>  // std::move

#include "sock/datagram_batch.h"
#include "sock/event_run.h"
#include "sock/shared_descriptor.h"
#include "sock/vorlan_socket_thread.h"
#include "tools/helpers.h"
#include "tools/locks.h"

namespace VORLAN {
namespace SOCK {
namespace {

using VORLAN::TOOLS::format_str;
using VORLAN::TOOLS::mutex_lock;
using VORLAN::TOOLS::mutex_locker;

constexpr std::uint32_t k_watched_events = EPOLLIN | EPOLLERR | EPOLLHUP;
constexpr int k_events_per_wait = 1024;
constexpr int k_epoll_wait_ms = 50;            // longest delay until the event thread sees a stop
constexpr unsigned k_thread_poll_ms = 1;       // how often a closer looks for the thread's end
constexpr int k_thread_polls = 5000;           // after that many the destructor gives up
constexpr unsigned k_error_pause_ms = 10;      // a broken epoll instance must not occupy a core
constexpr int k_multicast_ttl = 64;            // a sender's datagrams may pass so many routers
constexpr int k_receive_queue_bytes = 65'535;  // the system's buffer for each group
constexpr unsigned k_batch = 16;               // datagrams that one system call may bring
// So long a unit may deliver what came at once before the others are looked after.
constexpr std::chrono::microseconds k_slice{50};

// False, with errno EINVAL: no dotted IPv4 text.
bool parse_endpoint(const std::string& ip, unsigned short port, sockaddr_in& endpoint) {
  endpoint = {};
  endpoint.sin_family = AF_INET;
  endpoint.sin_port = htons(port);
  const bool valid = ip.find('\0') == std::string::npos &&
                     ::inet_pton(AF_INET, ip.c_str(), &endpoint.sin_addr) == 1;
  if (!valid) errno = EINVAL;
  return valid;
}

bool set_nonblocking(int sock) {
  const int flags = ::fcntl(sock, F_GETFL);
  return flags >= 0 && ::fcntl(sock, F_SETFL, flags | O_NONBLOCK) >= 0;
}

bool set_option(int sock, int level, int name, int value) {
  return ::setsockopt(sock, level, name, &value, sizeof(value)) == 0;
}

epoll_event receive_event(int sock) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = sock;
  return event;
}

const sockaddr* as_sockaddr(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

bool open_sender(int sock, const socket_multicast::multicast_unit& unit) {
  sockaddr_in group{}, local{};
  return parse_endpoint(unit.group_ip, unit.group_port, group) &&
         parse_endpoint(unit.local_ip, unit.local_port, local) &&
         set_option(sock, IPPROTO_IP, IP_MULTICAST_TTL, k_multicast_ttl) &&
         ::bind(sock, as_sockaddr(local), sizeof(local)) == 0 &&
         ::connect(sock, as_sockaddr(group), sizeof(group)) == 0;
}

bool join_group(int sock, in_addr group, in_addr interface) {
  ip_mreq request{};
  request.imr_multiaddr = group;
  request.imr_interface = interface;
  return ::setsockopt(sock, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)) == 0;
}

// `own_group`: the address whose datagrams it is to deliver.
bool open_receiver(int sock, const socket_multicast::multicast_unit& unit, in_addr& own_group) {
  sockaddr_in group{}, local{}, any{};
  if (!parse_endpoint(unit.group_ip, unit.group_port, group) ||
      !parse_endpoint(unit.local_ip, unit.local_port, local)) {
    return false;
  }
  own_group = group.sin_addr;
  any.sin_family = AF_INET;
  any.sin_port = group.sin_port;
  // Every socket of the host gets every group that anybody has joined unless it says that it does
  // not want to, and that before it is bound: nothing may slip in. What is sent to the host itself
  // can only be told by its destination.
  if (!set_option(sock, IPPROTO_IP, IP_MULTICAST_ALL, 0) ||
      !set_option(sock, IPPROTO_IP, IP_PKTINFO, 1)) {
    return false;
  }
  return set_option(sock, SOL_SOCKET, SO_REUSEADDR, 1) && set_nonblocking(sock) &&
         ::bind(sock, as_sockaddr(any), sizeof(any)) == 0 &&
         join_group(sock, group.sin_addr, local.sin_addr) &&
         set_option(sock, SOL_SOCKET, SO_RCVBUF, k_receive_queue_bytes);
}

// What the caller's thread is the event thread of, if it is one.
thread_local const void* t_shared = nullptr;

}  // namespace

// One unit's socket.
struct socket_multicast::channel {
  ~channel() { socket.close(); }

  // Asks the system, whose count wraps at 2^32; ours does not. A closed socket's is the last.
  unsigned long long count_drops() {
    const shared_descriptor::lease use(socket);
    std::uint32_t memory[SK_MEMINFO_VARS] = {};
    socklen_t size = sizeof(memory);
    const mutex_locker guard(drops_lock);
    if (::getsockopt(use.get(), SOL_SOCKET, SO_MEMINFO, memory, &size) == 0) {
      dropped += memory[SK_MEMINFO_DROPS] - system_drops;
      system_drops = memory[SK_MEMINFO_DROPS];
    }
    return dropped;
  }

  bool is_own(in_addr destination) const {
    return group.s_addr == INADDR_ANY || destination.s_addr == group.s_addr;
  }

  shared_descriptor socket;
  in_addr group{};  // that a receiver has joined; none for a sender. Constant once shared.
  mutex_lock drops_lock;
  std::uint32_t system_drops KAV_GUARDED_BY(drops_lock) = 0;
  unsigned long long dropped KAV_GUARDED_BY(drops_lock) = 0;
};

// What has been received from one socket and not been delivered yet. One thread at a time.
class socket_multicast::waiting_datagrams {
 public:
  explicit waiting_datagrams(unsigned most) : m_batch(most), m_most(most) {}

  bool is_empty() const { return m_batch.is_empty(); }
  int socket() const { return m_sock; }
  // What is left when the socket has been closed since is nobody's.
  void drop_late() {
    if (m_from != nullptr && !m_from->socket.is_open()) m_batch.drop_rest();
  }
  // Ready for that socket: to receive from it, or to go on with what is left of it.
  bool is_for(int sock) const { return is_empty() ? m_users == 0 : m_sock == sock; }
  // May more be waiting in the socket, and is there room for it?
  bool may_refill() const {
    return m_most > 1 && m_users == 0 && m_batch.is_used_up() && m_from != nullptr &&
           m_from->socket.is_open();
  }

  // `from`: null for a socket that is no unit's. The system's result.
  int receive(int leased, int sock, std::shared_ptr<channel> from) {
    m_sock = sock;
    m_from = std::move(from);
    return m_batch.receive(leased);
  }
  datagram_batch::datagram take() { return m_batch.take(); }
  bool is_own(const datagram_batch::datagram& which) const {
    return m_from == nullptr || m_from->is_own(which.destination);
  }

  // Somebody looks at a datagram, also when that was the last.
  class use {
   public:
    explicit use(waiting_datagrams& used) : m_used(used) { ++m_used.m_users; }
    use(const use&) = delete;
    use& operator=(const use&) = delete;
    ~use() { --m_used.m_users; }

   private:
    waiting_datagrams& m_used;
  };

 private:
  datagram_batch m_batch;
  const unsigned m_most;
  unsigned m_users = 0;
  int m_sock = -1;
  std::shared_ptr<channel> m_from;
};

// What one sock_init() has opened. Constant once it is shared; the descriptors close on their own.
struct socket_multicast::opening {
  ~opening() { epoll.close(); }

  void close_sockets() {
    for (const auto& [number, unit_channel] : channels) unit_channel->socket.close();
  }
  std::shared_ptr<channel> find(int sock) const {
    const auto at = channels.find(sock);
    return at == channels.end() ? nullptr : at->second;
  }

  shared_descriptor epoll;
  std::map<int, std::shared_ptr<channel>> channels;  // by descriptor
};

// What the event thread shares with the object. Lives as long as either of them.
struct socket_multicast::shared_state {
  std::shared_ptr<opening> current() {
    const mutex_locker guard(lock);
    return opened;
  }
  void note_change() KAV_REQUIRES(lock) { units_version.fetch_add(1, std::memory_order_release); }
  // Has the object gone, or does it wait for the event thread no longer?
  bool is_abandoned() const { return place.load() == k_place_abandoned; }
  bool leave_callback() {
    event_thread_place from = k_place_in_callback;
    return place.compare_exchange_strong(from, k_place_in_object) || from == k_place_in_object;
  }

  // Set by sock_init(), read by every reporting thread.
  std::atomic<socket_callback> callback{nullptr};
  std::atomic<void*> user{nullptr};

  mutex_lock lock;
  std::map<int, multicast_unit*> units_by_id KAV_GUARDED_BY(lock);
  std::map<int, multicast_unit*> units_by_socket KAV_GUARDED_BY(lock);
  // Counts the changes of units_by_socket, made under the lock and read without.
  std::atomic<unsigned> units_version{0};
  std::map<std::string, multicast_unit*> units_by_alias KAV_GUARDED_BY(lock);
  std::uint32_t next_id KAV_GUARDED_BY(lock) = 0;
  std::shared_ptr<opening> opened KAV_GUARDED_BY(lock);  // the last one, also when closed
  open_failure failure KAV_GUARDED_BY(lock);             // of the last sock_init()
  std::set<int> own_sockets KAV_GUARDED_BY(lock);  // every number that a unit's socket ever had

  // Starting, stopping and leaving happen one at a time, so that who starts knows whether the
  // thread that is there stays. Read by any thread without the lock.
  mutex_lock life_lock;
  std::atomic<bool> stop{false};
  int stop_waiters KAV_GUARDED_BY(life_lock) = 0;  // for the end: nobody may start it again
  std::atomic<bool> ended{true};  // cleared before the thread exists, set as its last touch

  enum class start_result { refused, runs, wants_thread };
  start_result start(bool on_own_thread) {
    const mutex_locker guard(life_lock);
    if (stop_waiters > 0) return start_result::refused;  // who waits for the end comes first
    stop.store(false);
    if (on_own_thread || !ended.load()) return start_result::runs;
    ended.store(false);
    place.store(k_place_not_started);
    return start_result::wants_thread;
  }
  void begin_to_wait_for_end() {
    const mutex_locker guard(life_lock);
    ++stop_waiters;
    stop.store(true);
  }
  void end_waiting() {
    const mutex_locker guard(life_lock);
    --stop_waiters;
  }
  // Event thread, when it has seen the stop: false, and that has been taken back.
  bool leave() {
    const mutex_locker guard(life_lock);
    if (!stop.load() && !is_abandoned()) return false;
    ended.store(true);  // last touch: the owner may delete the object
    return true;
  }

  // Any thread.
  std::atomic<bool> object_gone{false};
  std::atomic<event_thread_place> place{k_place_not_started};

  // The socket whose datagrams have been received, but not all delivered; -1 for none. Event
  // thread.
  int find_left() const {
    if (batch != nullptr) batch->drop_late();
    return batch == nullptr || batch->is_empty() ? -1 : batch->socket();
  }

  // Event thread only.
  std::unique_ptr<waiting_datagrams> batch;   // null until the first datagram
  std::unique_ptr<waiting_datagrams> single;  // for one when that is taken; null while in use
  bool has_several = false;                   // units that are watched
};

// The event thread's stay in the user's code: until it ends nothing of the object is looked at,
// which may go meanwhile. Nothing on other threads.
class socket_multicast::callback_stay {
 public:
  explicit callback_stay(shared_state& shared)
      : m_shared(shared),
        m_enters(t_shared == &shared && shared.place.load() == k_place_in_object) {
    if (m_enters) m_shared.place.store(k_place_in_callback);
  }
  callback_stay(const callback_stay&) = delete;
  callback_stay& operator=(const callback_stay&) = delete;
  ~callback_stay() {
    if (m_enters) m_shared.leave_callback();
  }

 private:
  shared_state& m_shared;
  const bool m_enters;
};

// Whom a socket's datagrams are for. One thread.
class socket_multicast::receiving_unit {
 public:
  // Costs next to nothing as long as no unit has come or gone.
  void look_up(shared_state& shared, int sock) {
    if (m_looked_up && m_version == shared.units_version.load(std::memory_order_acquire)) return;
    const mutex_locker guard(shared.lock);
    m_looked_up = true;
    m_version = shared.units_version.load(std::memory_order_relaxed);
    const auto at = shared.units_by_socket.find(sock);
    m_known = at != shared.units_by_socket.end();
    if (!m_known) return;
    m_id = at->second->id;
    m_socket = at->second->socket;
    m_alias = at->second->alias;
  }

  void report(const shared_state& shared, const char* data, unsigned length) const {
    const socket_callback callback = shared.callback.load();
    if (!m_known || callback == nullptr) return;
    socket_param param(EVENT_RECEIVE, m_id, &data, length, m_socket);
    if (!m_alias.empty()) param.set_alias(m_alias);
    callback(param, shared.user.load());
  }

 private:
  bool m_looked_up = false, m_known = false;
  unsigned m_version = 0;
  int m_id = -1, m_socket = -1;
  std::string m_alias;
};

// How long a unit may go on before others are looked after.
class socket_multicast::time_slice {
 public:
  explicit time_slice(bool has_others) : m_has_others(has_others) {}
  // In the middle of what has come at once.
  bool must_yield() const { return m_has_others && is_over(); }
  bool is_over() const { return std::chrono::steady_clock::now() >= m_end; }

 private:
  const bool m_has_others;
  const std::chrono::steady_clock::time_point m_end = std::chrono::steady_clock::now() + k_slice;
};

struct socket_multicast::wait_errors {
  int interrupted = 0;
  int bad_descriptor = 0;
  int bad_address = 0;
  int invalid_argument = 0;
  int other = 0;
};

struct socket_multicast::event_thread_start {
  socket_multicast* object;
  std::shared_ptr<shared_state> shared;
};

// The right to use a socket, by its number: a unit's while it is open, none once that is closed,
// and a number that was never a unit's as it is.
class socket_multicast::descriptor_use {
 public:
  descriptor_use(shared_state& shared, int sock)
      : m_channel(look_up(shared, sock, m_foreign)),
        m_leased(m_channel.get()),
        m_lease(m_leased != nullptr ? m_leased->socket : m_none) {}
  int get() const { return m_leased != nullptr ? m_lease.get() : m_foreign; }
  const std::shared_ptr<channel>& unit_channel() const { return m_channel; }
  void close() const {
    if (m_leased != nullptr) {
      m_leased->socket.close();
    } else if (m_foreign >= 0) {
      ::close(m_foreign);
    }
  }

 private:
  // The channel that has the number, null for none; `foreign` is the number when it was never
  // one's.
  static std::shared_ptr<channel> look_up(shared_state& shared, int sock, int& foreign) {
    const mutex_locker guard(shared.lock);
    std::shared_ptr<channel> found;
    if (shared.opened != nullptr) found = shared.opened->find(sock);
    if (found == nullptr && !shared.own_sockets.contains(sock)) foreign = sock;
    return found;
  }

  int m_foreign = -1;
  shared_descriptor m_none;  // what is leased without a channel
  const std::shared_ptr<channel> m_channel;
  channel* const m_leased;  // the same, null for none
  const shared_descriptor::lease m_lease;
};

socket_multicast::multicast_unit::~multicast_unit() = default;

socket_multicast::socket_multicast() : m_shared(std::make_shared<shared_state>()) {}

socket_multicast::~socket_multicast() {
  shared_state& shared = *m_shared;
  shared.object_gone.store(true);
  shared.begin_to_wait_for_end();  // for ever: it may not start again
  if (t_shared == &shared) {
    shared.place.store(k_place_abandoned);  // deleted by the callback that this thread is in
  } else {
    wait_thread_ended(true);
  }
  close_opening();
  forget_units();
}

void socket_multicast::forget_units() {
  std::map<int, multicast_unit*> units;
  {
    const mutex_locker guard(m_shared->lock);
    units.swap(m_shared->units_by_id);
    m_shared->units_by_socket.clear();
    m_shared->units_by_alias.clear();
    m_shared->note_change();
  }
  // In the destructor the base's own: a derived one is gone by then.
  // NOLINTNEXTLINE(clang-analyzer-optin.cplusplus.VirtualCall)
  for (const auto& [id, unit] : units) free_multicast_unit(unit);
}

socket_multicast::multicast_unit* socket_multicast::ensure_multicast_unit(
    const std::string& group_ip, unsigned short group_port, const std::string& local_ip,
    unsigned short local_port, const std::string& alias, int id, int sock) {
  auto unit = std::make_unique<multicast_unit>();
  unit->group_ip = group_ip;
  unit->group_port = group_port;
  unit->local_ip = local_ip;
  unit->local_port = local_port;
  unit->alias = alias;
  unit->id = id;
  unit->socket = sock;
  return unit.release();
}

void socket_multicast::free_multicast_unit(multicast_unit* unit) { delete unit; }

int socket_multicast::get_current_min_id() {
  const mutex_locker guard(m_shared->lock);
  const int id = static_cast<int>(m_shared->next_id);
  m_shared->next_id = (m_shared->next_id + 1) & 0x7fffffffu;
  return id;
}

int socket_multicast::add_multicast_param(const std::string& group_ip, unsigned short group_port,
                                          const std::string& local_ip, unsigned short local_port,
                                          const std::string& alias) {
  const int id = get_current_min_id();
  multicast_unit* const unit =
      ensure_multicast_unit(group_ip, group_port, local_ip, local_port, alias, id, -1);
  if (!note_unit(id, alias, unit)) {
    free_multicast_unit(unit);
    throw std::bad_alloc();
  }
  return id;
}

// False: without memory, and as if nothing had been asked.
bool socket_multicast::note_unit(int id, const std::string& alias, multicast_unit* unit) {
  const mutex_locker guard(m_shared->lock);
  try {
    m_shared->units_by_id[id] = unit;
    m_shared->units_by_alias[alias] = unit;
    return true;
  } catch (const std::bad_alloc&) {
    m_shared->units_by_id.erase(id);
    return false;
  }
}

bool socket_multicast::sock_init(SOCK_MULTICAST_TYPE type, socket_callback cb, void* user) {
  sock_close();
  m_shared->callback.store(cb);
  m_shared->user.store(user);
  set_open_failure(-1, 0);
  const std::shared_ptr<opening> opened = make_opening();
  if (opened == nullptr) return false;
  if (!open_units(type, *opened)) {
    forget_units();
    return false;
  }
  {
    const mutex_locker guard(m_shared->lock);
    m_shared->opened = opened;
  }
  const bool started = start_server_event_thread();
  if (!started) set_open_failure(-1, EAGAIN);  // what the system says when it has no thread to give
  return started;
}

// Null: without a descriptor, or without memory, as the failure tells.
std::shared_ptr<socket_multicast::opening> socket_multicast::make_opening() try {
  auto opened = std::make_shared<opening>();
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll < 0) {
    set_open_failure(-1, errno);
    return nullptr;
  }
  opened->epoll.open(epoll);
  return opened;
} catch (const std::bad_alloc&) {
  set_open_failure(-1, ENOMEM);
  return nullptr;
}

void socket_multicast::set_open_failure(int id, int error) {
  const mutex_locker guard(m_shared->lock);
  m_shared->failure = {id, error};
}

socket_multicast::open_failure socket_multicast::get_open_failure() {
  const mutex_locker guard(m_shared->lock);
  return m_shared->failure;
}

bool socket_multicast::open_units(SOCK_MULTICAST_TYPE type, opening& opened) {
  const mutex_locker guard(m_shared->lock);
  m_shared->units_by_socket.clear();
  m_shared->note_change();
  int opening_id = -1;
  try {
    for (const auto& [id, unit] : m_shared->units_by_id) {
      opening_id = id;
      if (unit == nullptr || !open_unit(type, *unit, opened)) {
        m_shared->failure = {id, unit == nullptr ? EINVAL : errno};
        return false;
      }
      m_shared->own_sockets.insert(unit->socket);
      m_shared->units_by_socket[unit->socket] = unit;
    }
    return true;
  } catch (const std::bad_alloc&) {
    m_shared->failure = {opening_id, ENOMEM};
    return false;
  }
}

bool socket_multicast::open_unit(SOCK_MULTICAST_TYPE type, multicast_unit& unit, opening& opened) {
  const auto unit_channel = std::make_shared<channel>();  // before the socket, which it closes
  const int sock = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  unit.socket = sock;
  if (sock < 0) return false;
  unit_channel->socket.open(sock);
  opened.channels[sock] = unit_channel;
  const bool ready = type == MULTICAST_SEND ? open_sender(sock, unit)
                                            : open_receiver(sock, unit, unit_channel->group);
  if (!ready) return false;
  const shared_descriptor::lease epoll(opened.epoll);
  epoll_event event{};
  event.events = k_watched_events;
  event.data.fd = sock;
  return ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, sock, &event) == 0;
}

bool socket_multicast::sock_close() {
  stop_server_event_thread();
  if (const std::shared_ptr<opening> opened = m_shared->current()) opened->close_sockets();
  return true;
}

void socket_multicast::close_opening() {
  const std::shared_ptr<opening> opened = m_shared->current();
  if (opened == nullptr) return;
  opened->close_sockets();
  opened->epoll.close();
}

int socket_multicast::colse_all_connect() { return 0; }

bool socket_multicast::start_server_event_thread() {
  shared_state& shared = *m_shared;
  // A callback that closes and opens goes on with the same thread.
  const shared_state::start_result result = shared.start(t_shared == &shared);
  if (result != shared_state::start_result::wants_thread) {
    return result == shared_state::start_result::runs;
  }
  if (create_event_thread()) return true;
  shared.ended.store(true);
  return false;
}

bool socket_multicast::create_event_thread() try {
  auto start = std::make_unique<event_thread_start>(event_thread_start{this, m_shared});
  unsigned long id = 0;
  if (vl_create_thread(event_thread_entry, start.get(), id) == 0) return false;
  static_cast<void>(start.release());  // the thread's now
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

bool socket_multicast::stop_server_event_thread() {
  shared_state& shared = *m_shared;
  if (t_shared == &shared) {
    shared.stop.store(true);
    return true;
  }
  shared.begin_to_wait_for_end();
  wait_thread_ended(false);
  shared.end_waiting();
  return true;
}

// Returns when the thread has ended or, when limited, after about 5 s inside a callback; then it is
// abandoned (false).
bool socket_multicast::wait_thread_ended(bool limited) {
  shared_state& shared = *m_shared;
  for (int polls = 0; !shared.ended.load(); polls += limited ? 1 : 0) {
    if (polls >= k_thread_polls) {
      for (event_thread_place place : {k_place_in_callback, k_place_not_started}) {
        if (shared.place.compare_exchange_strong(place, k_place_abandoned)) return false;
      }
    }
    vl_sleep(k_thread_poll_ms);
  }
  return true;
}

void* socket_multicast::event_thread_entry(void* start) {
  const std::unique_ptr<event_thread_start> owned(static_cast<event_thread_start*>(start));
  vl_name_thread("kav-multicast");
  event_thread_place place = k_place_not_started;
  if (owned->shared->place.compare_exchange_strong(place, k_place_in_object)) {
    owned->object->on_socket_server_event_thread();
  } else {
    owned->shared->ended.store(true);
  }
  return nullptr;
}

void* socket_multicast::socket_server_event_thread(void* multicast) {
  if (multicast != nullptr) {
    static_cast<socket_multicast*>(multicast)->on_socket_server_event_thread();
  }
  return nullptr;
}

void socket_multicast::on_socket_server_event_thread() {
  const std::shared_ptr<shared_state> shared = m_shared;  // outlives the object
  shared->ended.store(false);
  shared->place.store(k_place_in_object);
  t_shared = shared.get();
  wait_errors errors;
  bool stays = true;
  while (stays || !shared->leave()) {
    try {
      stays = event_loop_step(*shared, errors);
    } catch (const std::bad_alloc&) {  // one datagram is lost, as when the system lacks a buffer
      vl_sleep(k_error_pause_ms);
      stays = shared->leave_callback() && !shared->stop.load();
    }
  }
  t_shared = nullptr;
}

// False: the thread ends, and the object may be gone.
bool socket_multicast::event_loop_step(shared_state& shared, wait_errors& errors) {
  epoll_event events[k_events_per_wait];
  const std::shared_ptr<opening> opened = shared.current();
  shared.has_several = opened != nullptr && opened->channels.size() > 1;
  const int left = shared.find_left();
  int ready = -1;
  int error = EBADF;
  if (opened != nullptr) {
    const shared_descriptor::lease epoll(opened->epoll);
    ready = ::epoll_wait(epoll.get(), events, k_events_per_wait, left < 0 ? k_epoll_wait_ms : 0);
    error = errno;
  }
  if (ready < 0) {
    proc_thread_error(error, opened == nullptr ? -1 : opened->epoll.number(), errors);
    if (error != EINTR) vl_sleep(k_error_pause_ms);
  }
  if (left >= 0) {
    proc_event(receive_event(left));
    if (shared.is_abandoned()) return false;
  }
  for (int i = 0; i < ready; ++i) {
    if (events[i].data.fd == left) continue;  // has had its turn
    // A callback may have closed it, and the number may be somebody else's by now.
    const std::shared_ptr<channel> target = opened->find(events[i].data.fd);
    if (target == nullptr || !target->socket.is_open()) continue;
    proc_event(events[i]);
    if (shared.is_abandoned()) return false;
  }
  return !shared.stop.load();
}

bool socket_multicast::proc_event(const epoll_event& event) {
  const shared_state* const shared = m_shared.get();  // kept by the event thread
  const int sock = event.data.fd;
  bool stays = false;
  if ((event.events & EPOLLIN) != 0) {
    stays = event_multicast_client_receive(sock);
  } else if ((event.events & EPOLLOUT) == 0) {
    event_multicast_client_error(sock);
  } else {
    stays = event_multicast_client_send(sock);
  }
  if (shared->is_abandoned() || stays) return true;
  return event_multicast_client_close(sock, false);
}

bool socket_multicast::event_multicast_client_receive(const int& sock) {
  const std::shared_ptr<shared_state> shared = m_shared;  // outlives the object
  const int number = sock;                                // the caller's variable may be the unit's
  if (t_shared != shared.get()) {
    waiting_datagrams single(1);
    return receive_batches(*shared, single, number);
  }
  if (shared->batch == nullptr) shared->batch = std::make_unique<waiting_datagrams>(k_batch);
  shared->batch->drop_late();
  if (shared->batch->is_for(number)) return receive_batches(*shared, *shared->batch, number);
  std::unique_ptr<waiting_datagrams> single = std::move(shared->single);
  if (single == nullptr) single = std::make_unique<waiting_datagrams>(1);
  const bool stays = receive_batches(*shared, *single, number);
  shared->single = std::move(single);
  return stays;
}

// What is left in the batch and what is waiting in the socket, until its time is over. The object
// may be gone afterwards.
bool socket_multicast::receive_batches(shared_state& shared, waiting_datagrams& batch, int sock) {
  const time_slice slice(t_shared == &shared && shared.has_several);
  if (batch.is_empty() && !fill_batch(shared, batch, sock, false)) return false;
  bool stays = deliver_batch(shared, batch, sock, slice);
  while (stays && batch.may_refill() && !shared.stop.load() && !slice.is_over()) {
    stays = fill_batch(shared, batch, sock, true) && deliver_batch(shared, batch, sock, slice);
  }
  return stays;
}

// False: nothing was received, and that is a failure unless `may_be_none`.
bool socket_multicast::fill_batch(shared_state& shared, waiting_datagrams& batch, int sock,
                                  bool may_be_none) {
  int received = -1;
  int error = 0;
  {
    const descriptor_use use(shared, sock);
    received = batch.receive(use.get(), sock, use.unit_channel());
    error = errno;
  }
  if (received >= 0 || (may_be_none && error == EAGAIN)) return true;
  log_msg(format_str("server receive remote client readline error(n_recved=%d, errno=%d)", received,
                     error)
              .c_str());
  event_multicast_client_error(sock);
  return false;
}

// False: an empty datagram, which ends its unit; what came behind it is left. Looks at nothing of
// the object, which any callback may delete.
bool socket_multicast::deliver_batch(shared_state& shared, waiting_datagrams& batch, int sock,
                                     const time_slice& slice) {
  const waiting_datagrams::use use(batch);
  const callback_stay stay(shared);
  receiving_unit unit;
  while (!batch.is_empty()) {
    const datagram_batch::datagram next = batch.take();
    if (!batch.is_own(next)) continue;
    if (next.length == 0) return false;
    unit.look_up(shared, sock);
    unit.report(shared, next.data, next.length);
    batch.drop_late();
    if (shared.stop.load() || slice.must_yield()) break;
  }
  return true;
}

bool socket_multicast::event_multicast_client_send(const int& sock) {
  int id = -1;
  {
    const mutex_locker guard(m_shared->lock);
    const auto at = m_shared->units_by_socket.find(sock);
    if (at != m_shared->units_by_socket.end()) id = at->second->id;
  }
  if (id >= 0) report_user(EVENT_SEND, id, nullptr, 0, sock);
  return true;
}

bool socket_multicast::event_multicast_client_error(const int&) { return true; }

bool socket_multicast::event_multicast_client_close(const int& sock, bool local) {
  const std::shared_ptr<shared_state> shared = m_shared;
  const int number = sock;  // the caller's variable may be the unit's
  const std::shared_ptr<channel> closing = descriptor_use(*shared, number).unit_channel();
  int id = -1;
  {
    const mutex_locker guard(shared->lock);
    const auto at = shared->units_by_socket.find(number);
    if (at != shared->units_by_socket.end()) {
      id = at->second->id;
      shared->units_by_socket.erase(at);  // nobody else closes it
      shared->note_change();
    }
  }
  if (id >= 0) {
    report_user(local ? EVENT_LOCALE_DISCONNECT : EVENT_REMOTE_DISCONNECT, id, nullptr, 0, number);
    if (shared->object_gone.load()) return true;  // which has closed and deleted everything
    delete_unit(id);
  }
  if (closing != nullptr) {
    closing->socket
        .close();  // a callback that has opened anew may have given the number to another
  } else {
    descriptor_use(*shared, number).close();
  }
  return true;
}

void socket_multicast::delete_unit(int id) {
  multicast_unit* unit = nullptr;
  int reopened = -1;
  {
    const mutex_locker guard(m_shared->lock);
    const auto at = m_shared->units_by_id.find(id);
    if (at == m_shared->units_by_id.end())
      return;  // a callback has lost it in a failed sock_init()
    unit = at->second;
    m_shared->units_by_id.erase(at);
    // The alias goes, also when it names a later unit by now; an empty one stays with that.
    const auto named = m_shared->units_by_alias.find(unit->alias);
    if (named != m_shared->units_by_alias.end() &&
        (!unit->alias.empty() || named->second == unit)) {
      m_shared->units_by_alias.erase(named);
    }
    const auto opened = m_shared->units_by_socket.find(unit->socket);
    if (opened != m_shared->units_by_socket.end() && opened->second == unit) {
      reopened = unit->socket;  // by the callback that was told of its end
      m_shared->units_by_socket.erase(opened);
      m_shared->note_change();
    }
  }
  if (reopened >= 0) descriptor_use(*m_shared, reopened).close();
  free_multicast_unit(unit);
}

bool socket_multicast::report_user(SOCKET_EVENT event, int id, const char* data, unsigned size,
                                   int sock) {
  shared_state& shared = *m_shared;
  const socket_callback callback = shared.callback.load();
  if (callback == nullptr) return false;
  void* const user = shared.user.load();
  socket_param param(event, id, &data, size, sock);
  {
    const mutex_locker guard(shared.lock);
    const auto at = shared.units_by_id.find(id);
    if (at != shared.units_by_id.end()) {
      if (at->second == nullptr) return false;
      param.set_alias(at->second->alias);
    }
  }
  const callback_stay stay(shared);  // only the event thread, which keeps the state, looks at it
  callback(param, user);
  return true;
}

int socket_multicast::sock_send(const char* data, int len, int id) {
  int sock = -1;
  bool known = false;
  {
    const mutex_locker guard(m_shared->lock);
    const auto at = m_shared->units_by_id.find(id);
    known = at != m_shared->units_by_id.end() && at->second != nullptr;
    if (known) sock = at->second->socket;
  }
  if (!known) {
    log_msg(format_str("find the sock failed by id (%d)\n", id).c_str());
    return -1;
  }
  int sent = -1;
  if (len >= 0 && (len == 0 || data != nullptr)) {
    const descriptor_use use(*m_shared, sock);
    sent = static_cast<int>(::send(use.get(), data, static_cast<std::size_t>(len), MSG_NOSIGNAL));
  }
  report_user(EVENT_SEND, id, data, static_cast<unsigned>(sent), sock);
  return sent;
}

int socket_multicast::sock_send(const char* data, int len, const std::string& alias) {
  int id = -1;
  {
    const mutex_locker guard(m_shared->lock);
    const auto at = m_shared->units_by_alias.find(alias);
    if (at == m_shared->units_by_alias.end() || at->second == nullptr) return -1;
    id = at->second->id;
  }
  return sock_send(data, len, id);
}

bool socket_multicast::disconnect_multicast(int id) {
  int sock = -1;
  bool known = false;
  {
    const mutex_locker guard(m_shared->lock);
    const auto at = m_shared->units_by_id.find(id);
    known = at != m_shared->units_by_id.end() && at->second != nullptr;
    if (known) sock = at->second->socket;
  }
  if (known) return event_multicast_client_close(sock, true);
  log_msg(format_str("disconnect client but, find the sock failed by id (%d) \n", id).c_str());
  return false;
}

bool socket_multicast::disconnect_multicast(const std::string& alias) {
  int id = -1;
  {
    const mutex_locker guard(m_shared->lock);
    const auto at = m_shared->units_by_alias.find(alias);
    if (at == m_shared->units_by_alias.end() || at->second == nullptr) return false;
    id = at->second->id;
  }
  return disconnect_multicast(id);
}

unsigned long long socket_multicast::get_dropped(int id) {
  std::shared_ptr<channel> unit_channel;
  {
    const mutex_locker guard(m_shared->lock);
    const auto at = m_shared->units_by_id.find(id);
    if (at == m_shared->units_by_id.end() || at->second == nullptr) return 0;
    if (m_shared->opened != nullptr) unit_channel = m_shared->opened->find(at->second->socket);
  }
  return unit_channel == nullptr ? 0 : unit_channel->count_drops();
}

bool socket_multicast::set_sock_options(const int& sock) {
  const linger reset{1, 0};
  return set_option(sock, IPPROTO_TCP, TCP_NODELAY, 1) &&
         ::setsockopt(sock, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset)) == 0;
}

// Only the first error of each kind is told.
void socket_multicast::proc_thread_error(int error, int epoll, wait_errors& errors) {
  switch (error) {
    case EINTR:
      if (++errors.interrupted == 1) {
        log_msg(
            "epoll_waite error! the call was interrupted by a signal handler before any of the "
            "requested events occurred or timeout expired. error times(1)\n ");
      }
      break;
    case EBADF:
      if (++errors.bad_descriptor == 1) {
        log_msg(format_str("epoll_waite error! epoll_handle:%d  is not a valid file descriptor. "
                           "error times(1) \n",
                           epoll)
                    .c_str());
      }
      break;
    case EFAULT:
      if (++errors.bad_address == 1) {
        log_msg("epoll_waite error! epoll_event is not accessible with write. error times(1)\n ");
      }
      break;
    case EINVAL:
      if (++errors.invalid_argument == 1) {
        log_msg(
            "epoll_waite error! m_epoll_handle is not an epoll file descriptor, or maxevents is "
            "less than or equal to zero. error times(1)");
      }
      break;
    default:
      if (++errors.other == 1) {
        log_msg("epoll_waite error! undefine wait error. error times(1)\n");
      }
      break;
  }
}

void socket_multicast::sock_set_context(socket_context* context) {
  m_context.store(context, std::memory_order_release);
}

void socket_multicast::log_msg(const char* text) {
  write_log_text(m_context.load(std::memory_order_acquire), text);
}

}  // namespace SOCK
}  // namespace VORLAN
