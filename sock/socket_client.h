// One outgoing TCP connection, driven by an event thread of its own.
#pragma once

#include <atomic>  // std::atomic
#include <chrono>  // std::chrono::milliseconds
#include <memory>  // std::shared_ptr
#include <string>  // std::string
#include <vector>  // std::vector

#include "sock/socket_context.h"
#include "sock/socket_param.h"
#include "tools/locks.h"

struct epoll_event;

namespace VORLAN {
namespace SOCK {

// How often epoll_wait() failed, by kind. Never reset.
struct epoll_error {
  unsigned bad_descriptor = 0;    // EBADF
  unsigned bad_address = 0;       // EFAULT
  unsigned interrupted = 0;       // EINTR
  unsigned invalid_argument = 0;  // EINVAL
  unsigned other = 0;
};

struct event_run;

// One outgoing IPv4 TCP connection, watched by an epoll instance of its own.
//
// Threads:   sock_init() starts one detached event thread ("kav-event"). It calls back for
//            EVENT_CONNECT, EVENT_RECEIVE and EVENT_REMOTE_DISCONNECT; EVENT_SEND comes on the
//            sending thread, EVENT_LOCALE_DISCONNECT on the closing one. sock_init() and
//            sock_close() by one thread at a time, sock_send() and the getters by any.
// Shutdown:  sock_close() asks the event thread to end and waits for it, about 5 s while that
//            thread is inside a callback. Owners call it before they delete the object; the
//            destructor parts the event thread from the object and leaves the connection open.
// Ownership: the callback's user pointer stays the caller's and outlives the connection.
class socket_client {
 public:
  socket_client();
  socket_client(const socket_client&) = delete;
  socket_client& operator=(const socket_client&) = delete;
  virtual ~socket_client();

  virtual bool is_connected();
  // Closes the descriptors of the connection.
  virtual bool event_client_close();
  virtual bool event_client_error();
  virtual bool event_client_connect();
  virtual bool event_client_disconnect(bool local);
  // False: the connection is broken or at its end.
  virtual bool event_client_receive();
  virtual bool event_client_send();

  // Connects (waiting until that has succeeded or failed, or 20 s without an answer) and starts the
  // event thread. False: no event of this connection will come. `ip` is dotted IPv4 text; anything
  // else fails like a refused connection. A peer that vanishes later without a word is a lost
  // connection after at most 20 s.
  bool sock_init(const std::string& ip, unsigned short port, socket_callback cb, void* user);
  // The same from a given local address and port.
  bool sock_init(const std::string& ip, unsigned short port, const std::string& local_ip,
                 unsigned short local_port, socket_callback cb, void* user);
  // Bytes taken (1..len); 0 when the socket would block (nothing was kept, offer the rest again) or
  // when there was nothing to send; -1 on an error, after a close, or before sock_init().
  int sock_send(const char* data, int len);
  // Waits until a send would be taken, the connection is broken, or `limit` has passed.
  void wait_sendable(std::chrono::milliseconds limit);
  bool sock_close();
  // Lets the event thread find the connection lost. Any thread, its own included.
  void break_connection();
  // Makes a sock_init() that is connecting fail soon, and each later one at once. Any thread.
  void cancel_connect();

  // The connection's local address, network byte order. False: there never was a socket.
  bool get_local_ip(unsigned char* out4);
  // The hardware address of the interface with that address.
  bool get_local_mac(unsigned char* out6);

  // Where log lines go instead of standard output. The context outlives this object.
  void sock_set_context(socket_context* context);
  void log_msg(const char* text);

  bool set_sock_options(const int& sock);
  bool start_client_event_thread();
  bool stop_client_event_thread();
  static void* event_client_thread(void* client);
  void on_event_client_thread();
  bool proc_event(epoll_event* events, int count);
  void proc_thread_error(int error);
  bool report_user(SOCKET_EVENT event, int id, const char* data, unsigned size, int sock);

 protected:
  // For destructors: parts a living event thread from this object, so that it touches it no more.
  // The connection stays open.
  void detach_event_thread();
  // For a derived class that stands between this one and the user: its callback runs as part of
  // the object, and it calls the user through call_user().
  void set_internal_callback() { m_callback_is_internal = true; }
  void call_user(socket_callback cb, socket_param& param, void* user);
  // While set, every connection attempt fails soon.
  void abort_connecting(bool abort);
  // The present connection, or null.
  std::shared_ptr<event_run> current_run();

 private:
  struct local_endpoint;
  struct event_thread_start;
  static void* event_thread_entry(void* start);

  bool init_connection(const std::string& ip, unsigned short port, const local_endpoint* local,
                       socket_callback cb, void* user);
  bool set_up_connection(event_run& run, const local_endpoint* local);
  bool bind_local(int sock, const local_endpoint& local);
  bool connect_to_server(int sock);
  bool wait_connected(int sock) const;
  bool watch_socket(event_run& run, int sock);
  std::shared_ptr<event_run> run_of_caller();
  void set_current_run(std::shared_ptr<event_run> run);
  std::shared_ptr<event_run> earlier_run();
  static bool end_run(event_run& run);
  void end_earlier_runs();
  static void wait_thread_ended(event_run& run);
  void lose_connection();
  bool event_loop_step(event_run& run);
  static void look_after_loan(event_run& run, bool at_end);
  static void end_loan(event_run& run);  // on any thread

  std::atomic<bool> m_connected{false};  // polled by every thread
  // Set by sock_init() before the event thread exists; read by every reporting thread.
  std::atomic<void*> m_user{nullptr};
  std::atomic<socket_callback> m_callback{nullptr};
  bool m_callback_is_internal = false;  // constant after construction
  epoll_error m_errors;                 // event thread only
  std::atomic<int> m_socket{-1};  // the last descriptor, also after its close: -1 means never any
  // sock_init() only.
  std::string m_server_ip;
  unsigned short m_server_port = 0;
  std::atomic<bool> m_connect_cancelled{false};  // raised by any thread, never cleared
  std::atomic<bool> m_abort_connecting{false};   // set by whoever closes a derived object
  std::atomic<bool> m_closing{false};            // raised by sock_close(), cleared by sock_init()
  std::atomic<socket_context*> m_context{nullptr};
  VORLAN::TOOLS::mutex_lock m_run_lock;
  // Descriptors and flags of the present connection; also held by its event thread.
  std::shared_ptr<event_run> m_run KAV_GUARDED_BY(m_run_lock);
  // Connections whose event threads connected anew inside a callback, and may still be in it.
  std::vector<std::shared_ptr<event_run>> m_earlier_runs KAV_GUARDED_BY(m_run_lock);
};

}  // namespace SOCK
}  // namespace VORLAN
