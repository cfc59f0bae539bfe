// A TCP connection with a stream of received bytes, an optional queue of bytes to send, and an
// optional reconnection.
#pragma once

#include <atomic>   // std::atomic
#include <cstdint>  // std::uint32_t
#include <memory>   // std::unique_ptr
#include <string>   // std::string

#include "sock/reading_loan.h"
#include "sock/socket_client.h"
#include "sock/vorlan_socket_thread.h"
#include "tools/data_pool.h"
#include "tools/data_queue.h"
#include "tools/stream_buffer.h"

namespace VORLAN {
namespace SOCK {

// Joins what arrives into one stream and offers it to the user until nothing more is consumed.
//
// Threads:   sock_init() starts "kav-receive", the only thread that calls back for EVENT_RECEIVE;
//            "kav-send", which writes queued bytes; "kav-reconnect"; and the event thread of the
//            base, which reports all other events at once, so that a disconnect may overtake bytes
//            that were received before it. The receive thread reads what arrives while it has
//            nothing else to do; during a long callback the event thread reads, and queues it.
//            sock_init() and sock_close() by one thread at a time, callbacks included; sock_send()
//            and clear_data() by any.
// Shutdown:  sock_close() stops all four. It waits for a callback that is running, without limit
//            for one on the receive thread. Owners call it before they delete the object;
//            inside a callback that is allowed for EVENT_REMOTE_DISCONNECT only.
// Ownership: the callback's user pointer stays the caller's and outlives the connection.
class socket_cache_client : public socket_client {
 public:
  // `stream_size`: bytes that the stream holds before it grows.
  explicit socket_cache_client(unsigned stream_size);
  ~socket_cache_client() override;

  // As in socket_client; also false when one of the first two threads cannot be had. `queue_sends`:
  // sock_send() leaves the writing to the send thread.
  bool sock_init(const std::string& ip, unsigned short port, socket_callback cb, void* user,
                 bool queue_sends);
  bool sock_init(const std::string& ip, unsigned short port, const std::string& local_ip,
                 unsigned short local_port, socket_callback cb, void* user, bool queue_sends);
  // `len` when queued (also without a connection), else as in socket_client.
  int sock_send(const char* data, int len);
  bool sock_close();
  // Forgets what was received and not consumed, and what was queued and not sent.
  void clear_data();
  // Waits until the user has been offered all that had arrived by now, `limit` at most. On any
  // thread but the receive thread.
  void wait_offered(std::chrono::milliseconds limit) const;
  // While `on`, a lost connection is renewed; looked at every `seconds` (1 at least). True.
  bool set_auto_reconn_falg(bool on, int seconds);

  static int cache_callback(socket_param& param, void* client);
  int on_cache_callback(socket_param& param);
  static int thread_receive_proc(void* client);
  static int thread_send_proc(void* client);
  static int thread_auto_reconn(void* client);
  // Each returns 0: idle.
  int on_thread_receive_proc();
  int on_thread_send_proc();
  int on_thread_auto_reconn();

 private:
  using buffer = VORLAN::TOOLS::stream_buffer;
  static constexpr std::size_t k_read_bytes = 65'536;  // by the receive thread, at once
  static constexpr std::size_t k_chunk_bytes = 8192;   // by the event thread

  struct endpoint {
    std::string ip;
    int port = -1;  // -1: not set
    std::string local_ip;
    int local_port = -1;
    bool has_local() const { return !local_ip.empty() && local_port != -1; }
  };

  struct give_back {
    VORLAN::TOOLS::data_pool<buffer>* pool;
    void operator()(buffer* item) const { pool->put(item); }
  };
  using pooled_buffer = std::unique_ptr<buffer, give_back>;

  struct stream_content {
    const char* data;
    std::size_t length;
  };

  bool init_with(const endpoint& target, bool local_form, socket_callback cb, void* user,
                 bool queue_sends);
  bool start_thread(vorlan_socket_thread& thread, const char* name, const endpoint& target,
                    bool local_form);
  bool connect_to(const endpoint& target, bool local_form);
  pooled_buffer take_buffer();
  int deliver_received();
  bool receive_ends() const;
  void lose_stream();
  void offer(stream_content content);
  stream_content offered_content();
  bool take_queued();
  void take_over_reading();
  bool take_from_socket();
  bool read_into_stream();
  bool take_held_back();
  std::size_t held_back_chunks();
  static void wait_for_bytes(void* client, std::uint32_t ticket);
  bool take_in_flight();
  void drop_in_flight();
  void stop_threads();

  // Set by sock_init(), read by every reporting thread.
  std::atomic<void*> m_user{nullptr};
  std::atomic<socket_callback> m_callback{nullptr};
  std::atomic<bool> m_queue_sends{true};
  std::atomic<bool> m_auto_reconnect{false};
  // Locked inside. The stream is the receive thread's, but for clear_data().
  buffer m_stream;
  VORLAN::TOOLS::data_queue<buffer*> m_send_queue;
  VORLAN::TOOLS::data_queue<buffer*> m_receive_queue;
  VORLAN::TOOLS::data_pool<buffer> m_pool;
  // Chunks that were put into the receive queue, and those that left it for good. Any thread.
  std::atomic<std::uint64_t> m_chunks_received{0};
  std::atomic<std::uint64_t> m_chunks_done{0};
  // Send thread only (the closing one once it has stopped): taken from the queue, not yet sent.
  buffer* m_in_flight = nullptr;
  std::uint32_t m_in_flight_generation = 0;
  std::atomic<std::uint32_t> m_send_generation{0};  // counts clear_data(), by any thread
  // Constant between constructor and destructor.
  std::unique_ptr<vorlan_socket_thread> m_send_thread;
  std::unique_ptr<vorlan_socket_thread> m_receive_thread;
  std::unique_ptr<vorlan_socket_thread> m_reconnect_thread;
  reading_loan m_loan;  // receive thread only
  // Set by the receive thread as long as not all is offered that it has read itself.
  std::atomic<bool> m_offering{false};
  // Set by the receive thread when there was no memory: what follows is not offered any more.
  std::atomic<bool> m_stream_lost{false};
  std::size_t m_held_back = 0;  // at the stream's end, not yet offered; under the stream's lock
  VORLAN::TOOLS::mutex_lock m_endpoint_lock;
  endpoint m_endpoint KAV_GUARDED_BY(m_endpoint_lock);
  // One connection attempt at a time: a caller's, or the reconnect thread's.
  VORLAN::TOOLS::mutex_lock m_connect_lock;
};

}  // namespace SOCK
}  // namespace VORLAN
