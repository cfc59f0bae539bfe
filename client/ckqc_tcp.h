// The one client behind KAVQuoteApi: a session with a quote server, kept alive on its own threads.
#pragma once

#include <atomic>    // std::atomic
#include <chrono>    // std::chrono::milliseconds
#include <cstdint>   // std::int32_t
#include <deque>     // std::deque
#include <memory>    // std::shared_ptr
#include <new>       // std::destroying_delete_t
#include <optional>  // std::optional
#include <string>    // std::string
#include <vector>    // std::vector

#include "api/kav_quote_api.h"
#include "client/client_life.h"
#include "client/kqc_connection.h"
#include "client/kqc_multicast.h"
#include "client/kqs_messages.h"
#include "feeds/multicast_decoder.h"
#include "sock/socket_cache_client.h"
#include "sock/socket_param.h"
#include "sock/wake_event.h"
#include "tools/helpers.h"
#include "tools/locks.h"
#include "tools/map_str.h"

// Connection status, as the log line about a login in the wrong state prints it.
enum KqcStatus : int {
  KqcStatusNone = 0,       // no connection
  KqcStatusConnected = 1,  // connection set up; not logged in, or login not confirmed yet
  KqcStatusLogon = 2,      // logged in, first symbol list received
};

// One symbol of the registration tables.
struct kqs_symbol_info {
  signed char type;  // instrument type
  char symbol[20];   // as the server knows it; NUL-terminated when shorter than 20
};

enum kqc_event_kind : int {
  kqc_event_send = 0,        // data to send; data that begins with "S" asks for a list replay
  kqc_event_reconnect = 1,   // the connection was lost
  kqc_event_bad_stream = 2,  // the received stream cannot be understood any more
};

// One work item of the worker thread. Made with new, owned by the queue until the worker frees it.
struct kqc_data_and_event {
  std::int32_t kind;         // kqc_event_kind
  char* data;                // kind 0: the bytes, from new[]; else null
  std::int32_t length;       // number of bytes in data
  std::uint32_t connection;  // kinds 1 and 2: serial of the connection, 0 for whichever is held
};

// Threads:   the caller's threads run the operations of KAVQuoteApi; the receive thread of the held
//            connection runs the message handlers; its event thread reports losses; the worker
//            ("kav-worker", one at most, from an accepted login to the end of the session) runs the
//            functions named _th_...; short-lived threads ("kav-close") close broken connections;
//            the thread of a reception of multicast groups ("kav-multicast") decodes. All of them
//            are visitors of m_life meanwhile.
// Shutdown:  the destructor ends the session and waits until nobody is inside. `delete` does so
//            too, but gives up waiting after about ten seconds, or at once inside a callback, and
//            leaves the deletion to the last thread that leaves.
// Ownership: the event object stays the caller's. A connection still held at the end stays open.
class Ckqc_tcp : public KAVQuoteApi {
 public:
  Ckqc_tcp();
  Ckqc_tcp(const Ckqc_tcp&) = delete;
  Ckqc_tcp& operator=(const Ckqc_tcp&) = delete;
  ~Ckqc_tcp() override;
  static void* operator new(std::size_t size);
  static void operator delete(Ckqc_tcp* client, std::destroying_delete_t);
  static void operator delete(void* memory);  // after a constructor that threw

  bool ConnServer(std::vector<KqsTcpInfo>& servers, KAVQuoteEvent* event) override;
  bool ConnServer(KqsTcpInfo& info, KAVQuoteEvent* event) override;
  int InitMulticast(std::vector<KqsMulticastInfo>& groups, KAVQuoteEvent* event) override;
  int LoginToKqs(KqsLoginParam& param) override;
  int QuerySymbolList() override;
  int RegisterSymbol(KavKqsIntrumentType type, const char* symbol) override;
  int UnregisterSymbol(KavKqsIntrumentType type, const char* symbol) override;
  void DisConnServer() override;

  // ---- Connection and login
  bool init_tcp_client();
  void set_logon_info(KqsLoginParam& param);
  // True when the whole request was taken.
  bool send_logon_req();
  // Takes the held connection away; a thread of its own closes and deletes it 10 ms later.
  void async_close_tcp_client();
  // The body of that thread for a client that nobody else uses: `tcp` is a socket_cache_client from
  // new. Null.
  static void* lazy_recycle_tcp_cleint(void* tcp);
  // The buffered client's callback; `client` is the Ckqc_tcp. 0.
  static int cache_callback(VORLAN::SOCK::socket_param& param, void* client);
  int on_cache_callback(VORLAN::SOCK::socket_param& param);
  // An event of one of this client's connections. The loss of one that is held no more is only
  // traced; bytes of one that a newer has followed are thrown away.
  int on_connection_event(VORLAN::SOCK::socket_param& param, kqc_connection& from);
  // One line to the caller's OnLog, cut to 1023 characters; dropped without an event object. 0.
  int write_log(KavKqsLogLevel level, const char* format, ...) KAV_PRINTF_LIKE(3, 4);

  // ---- Messages, on the receive thread. Each gets the bytes available and returns how many it
  // took, 0 when its message is not complete yet.
  unsigned int on_tcp_client_data_recv(const char* data, unsigned int length);
  unsigned int on_login_resp(const char* data, unsigned int length);
  unsigned int on_quote_snapshot(const char* data, unsigned int length);
  unsigned int on_reg_symbol_resp(const char* data, unsigned int length);
  unsigned int on_unreg_symbol_resp(const char* data, unsigned int length);
  unsigned int on_symbol_list_resp(const char* data, unsigned int length);

  // ---- Worker thread
  static void* kqc_send_and_reconn_thread(void* client);
  void _th_kqc_send_and_reconn();
  bool _th_try_query_symbol_list();
  // 1 success, 0 a failure worth retrying, -1 give up.
  int _th_reconn_and_logon_and_query_symbol();
  bool _th_try_reconn();
  void _th_clear_deque();
  void _th_reset();
  // Result of sock_send().
  int send_heartbeat();
  // Milliseconds until the next pass: 100 nothing to do, 500 requests sent; all ones: a send
  // failed.
  unsigned int _th_check_and_register_symbol();

  void reset_register_symbol();

  // ---- Multicast quotes, on the receiving thread: one at a time, since the decoder has no lock.
  // A multicast receiver's callback; `context` is the McQuoteContext of the group. Decodes
  // datagrams and ignores other events. The buffer's size, always: all of it has been dealt with.
  static int mc_event_callback(VORLAN::SOCK::socket_param& param, void* context);
  int on_receive_mc_data(VORLAN::SOCK::socket_param& param, int ignored, int exchange);
  // What the last datagram was.
  multicast_record last_mc_record() const { return m_last_mc_record; }

  // ---- Reception of multicast groups beside the session; see api/kav_multicast.h.
  int start_multicast(const KqsMulticastInfo* groups, unsigned count, KAVQuoteEvent* event,
                      int* results);
  void stop_multicast();
  bool multicast_statistics(unsigned index, KAVMulticastStatistics* statistics);

 private:
  using connection_ptr = std::shared_ptr<kqc_connection>;
  using symbol_table = VORLAN::TOOLS::map_str<kqs_symbol_info, 128>;

  struct item_deleter {
    void operator()(kqc_data_and_event* item) const;
  };
  using item_ptr = std::unique_ptr<kqc_data_and_event, item_deleter>;

  enum class loss_outcome { mended, gave_up };

  // Calls without a visit, for the public operations and for each other.
  bool is_busy();
  bool refuse_connect_params();
  void set_endpoint(const KqsTcpInfo& server);
  KqsTcpInfo endpoint();
  kqs_login_req login_request();
  void stop_worker();
  void ask_to_stop();
  bool shut_down(std::chrono::steady_clock::time_point deadline);
  static void say_farewell(void* client);
  bool is_stopping() const;
  class event_call;
  // One call of the caller's object. False: it had no memory for what it was told.
  template <class CALL>
  bool tell(CALL call) const;
  bool has_event() const;

  // Connections. A serial names one, 0 whichever is held: what the caller's callbacks return to may
  // have been freed meanwhile.
  connection_ptr make_connection();
  connection_ptr open_connection(const KqsTcpInfo& server, kqc_connection::setup_phase phase);
  connection_ptr establish(const KqsTcpInfo& server);
  bool announce(const connection_ptr& established, const KqsTcpInfo& server);
  void close_connection_before();
  bool is_left_over(std::uint32_t from) const;
  connection_ptr held_connection();
  connection_ptr take_connection();
  bool is_held(std::uint32_t which) const KAV_REQUIRES(m_connection_lock);
  bool take_out(std::uint32_t which, connection_ptr& out) KAV_REQUIRES(m_connection_lock);
  bool drop_connection(std::uint32_t which);
  void cancel_connecting();
  int send_now(const void* data, int length);
  int send_whole(const void* data, int length);

  // Events.
  int handle_event(VORLAN::SOCK::socket_param& param, std::uint32_t from);
  void on_connection_lost(std::uint32_t from);
  void deal_with_loss(kqc_event_kind kind, std::uint32_t from);
  void on_data(VORLAN::SOCK::socket_param& param, std::uint32_t from);
  unsigned cut_messages(const char* data, unsigned size, std::uint32_t from);
  unsigned int dispatch(const char* data, unsigned int length, std::uint32_t from);
  static unsigned int deliver_quote(const char* data, unsigned int length, const event_call& to);
  unsigned int handle_login_resp(const char* data, unsigned int length, std::uint32_t from);
  void on_relogin_resp(char result);
  void start_worker(std::uint32_t from);
  void refuse_login(char result, const char* reason, std::uint32_t from);
  void end_without_worker(const char* reason, bool dropped);
  void tell_disconnected() const;

  // Queue.
  void queue_item(item_ptr item);
  void queue_loss(kqc_event_kind kind, std::uint32_t from);
  item_ptr take_front_item();
  std::optional<kqc_data_and_event> take_unqueued_loss();

  // Worker.
  static void* worker_entry(void* client);
  bool _th_confirm_login();
  bool _th_step(std::int64_t start);
  bool _th_handle_item(const kqc_data_and_event& item);
  void _th_replay_symbol_list();
  void _th_send_item(const kqc_data_and_event& item);
  bool _th_handle_loss(const kqc_data_and_event& item);
  loss_outcome _th_mend_loss();
  void _th_requeue_fresh_loss();
  void _th_give_connection_up();
  void _th_idle_step(std::int64_t start);
  void _th_finish();
  void _th_close_connection();
  void _th_forget_registered();
  void wipe_credentials() KAV_REQUIRES(m_session_lock);
  void _th_sleep(std::chrono::milliseconds time);
  // Sleeps until `done()`, as told by m_wake (true), or until the time is over or the client is to
  // stop (false).
  template <class CONDITION>
  bool _th_wait(CONDITION done, std::chrono::milliseconds limit);

  // Symbols. No exchange lists nearly as many; the limit is for a server gone wild.
  static constexpr std::size_t k_most_symbols = 262'144;
  bool add_to_symbol_list(const char* symbol, int type);
  bool copy_symbol_list(std::vector<std::pair<std::string, int>>& out);
  bool want_symbol(const kqs_symbol_info& info);
  kqs_symbol_info symbol_info(KavKqsIntrumentType type, const char* symbol) const;
  struct pending_requests {
    std::vector<kqs_symbol_req> registrations;
    std::vector<kqs_symbol_req> unregistrations;
    unsigned valid = 0, registered = 0, wanted = 0;  // sizes of the three tables
  };
  bool collect_requests(pending_requests& out);
  bool send_requests(const std::vector<kqs_symbol_req>& requests, const char* failure);

  // Shared with every visitor and connection; constant.
  const std::shared_ptr<client_life> m_life;

  // Polled by every thread, without a lock.
  std::atomic<KAVQuoteEvent*> m_event{nullptr};       // set by the caller's thread in ConnServer()
  std::atomic<std::int32_t> m_status{KqcStatusNone};  // KqcStatus
  std::atomic<bool> m_connecting{false};  // a ConnServer() has no connection yet; set under
                                          // m_connection_lock
  // Set under m_connection_lock before the worker exists, cleared as it ends.
  std::atomic<bool> m_thread_running{false};
  std::atomic<bool> m_stop{false};                // asks the worker to end
  std::atomic<std::int32_t> m_relogin_result{0};  // 0 none yet, 1 accepted, -1 refused
  std::atomic<bool> m_symbol_list_ready{false};   // set by the end-of-list message
  VORLAN::SOCK::wake_event
      m_wake;  // the worker sleeps on it; whoever changes a flag above notifies

  VORLAN::TOOLS::mutex_lock m_session_lock;
  KqsTcpInfo m_endpoint KAV_GUARDED_BY(m_session_lock){};
  char m_user[16] KAV_GUARDED_BY(m_session_lock) = {};
  char m_digest[33] KAV_GUARDED_BY(m_session_lock) = {};

  VORLAN::TOOLS::mutex_lock m_connection_lock;
  connection_ptr m_connection KAV_GUARDED_BY(m_connection_lock);  // null: none held
  std::atomic<std::uint32_t> m_last_serial{0};  // changed under the lock, read by any thread

  VORLAN::TOOLS::mutex_lock m_queue_lock;
  std::deque<item_ptr> m_queue KAV_GUARDED_BY(m_queue_lock);
  // A loss that there was no memory to queue; the worker's when the queue is empty.
  std::optional<kqc_data_and_event> m_unqueued_loss KAV_GUARDED_BY(m_queue_lock);

  // Orders all work on the three tables.
  VORLAN::TOOLS::mutex_lock m_symbol_list_lock;
  VORLAN::TOOLS::map_str<int, 128> m_symbol_list KAV_GUARDED_BY(m_symbol_list_lock);
  symbol_table m_registered KAV_GUARDED_BY(m_symbol_list_lock);
  symbol_table m_to_register KAV_GUARDED_BY(m_symbol_list_lock);

  // Where decoded quotes go: to the object that multicast reception was started with, else to the
  // session's.
  class mc_quote_target : public KAVQuoteEvent {
   public:
    explicit mc_quote_target(Ckqc_tcp& client) : m_client(client) {}
    void OnServerConnected() override {}
    void OnServerDisconnected() override {}
    void OnLoginResult(bool, const char*) override {}
    void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) override;
    void OnLog(KavKqsLogLevel, const char*, int) override {}
    void OnSymbolRegistered(KavKqsIntrumentType, const char*, bool) override {}
    void OnSymbolUnregistered(KavKqsIntrumentType, const char*, bool) override {}
    void OnSymbolList(KavKqsIntrumentType, const char*, bool) override {}

   private:
    Ckqc_tcp& m_client;
  };
  using reception_ptr = std::shared_ptr<kqc_multicast>;
  reception_ptr reception();
  int begin_reception(KAVQuoteEvent& event, unsigned groups, reception_ptr& out);
  void end_reception(const reception_ptr& which);
  void tell_out_of_memory(KAVQuoteEvent& event);

  mc_quote_target m_mc_target{*this};
  std::atomic<KAVQuoteEvent*> m_mc_event{nullptr};  // changed while nothing is received
  // Receiving thread only.
  multicast_decoder m_mc_decoder;
  multicast_record m_last_mc_record = multicast_record::ignored;

  VORLAN::TOOLS::mutex_lock m_reception_lock;
  reception_ptr m_reception KAV_GUARDED_BY(m_reception_lock);  // null: none, not even one that ends

  bool m_registration_pending = true;  // worker only: requests went out since the last quiet pass
};

// One call of the caller's object, which exists and may be called if this is true; or several in a
// row, each after another look at next().
class Ckqc_tcp::event_call {
 public:
  explicit event_call(const Ckqc_tcp& client)
      : m_client(client),
        m_call(*client.m_life),
        m_event(client.m_event.load(std::memory_order_acquire)) {}
  explicit operator bool() const { return m_event != nullptr && static_cast<bool>(m_call); }
  KAVQuoteEvent* operator->() const { return m_event; }
  KAVQuoteEvent& operator*() const { return *m_event; }
  // The object to call now, null when there is none.
  KAVQuoteEvent* next() const {
    return m_call.still_allowed() ? m_client.m_event.load(std::memory_order_acquire) : nullptr;
  }

 private:
  const Ckqc_tcp& m_client;
  const client_life::call m_call;
  KAVQuoteEvent* const m_event;
};

template <class CALL>
bool Ckqc_tcp::tell(CALL call) const {
  try {
    if (const event_call receiver{*this}) call(*receiver);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

template <class CONDITION>
bool Ckqc_tcp::_th_wait(CONDITION done, std::chrono::milliseconds limit) {
  using clock = std::chrono::steady_clock;
  const clock::time_point end = clock::now() + limit;
  for (;;) {
    const std::uint32_t ticket = m_wake.ticket();
    if (done()) return true;
    const clock::duration left = end - clock::now();
    if (left <= left.zero() || is_stopping()) return false;
    m_wake.wait(ticket, left);
  }
}
