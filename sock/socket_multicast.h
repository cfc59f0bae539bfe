// A set of UDP multicast groups behind one event thread.
#pragma once

#include <atomic>  // std::atomic
#include <memory>  // std::shared_ptr
#include <string>  // std::string

#include "sock/socket_context.h"
#include "sock/socket_param.h"

struct epoll_event;

namespace VORLAN {
namespace SOCK {

enum SOCK_MULTICAST_TYPE : int {
  MULTICAST_SEND = 0,     // units send to their group
  MULTICAST_RECEIVE = 1,  // units join their group
};

// Several multicast groups, called units, each with a socket of its own. They are described first
// and then opened all at once, either to receive or to send. A receiving unit gets the datagrams of
// its own group and no others: what is sent to the host's own address is left out.
//
// What waits in a socket is received up to 16 datagrams at once. When the event thread is stopped
// between two of them, the rest is delivered after the next start, unless the sockets have been
// closed meanwhile. While other units exist, one whose callbacks are slow gives way to them after
// each; without traffic on them, or with fast callbacks, it goes on for 50 us.
//
// Threads:   sock_init() starts one detached event thread. It calls back for EVENT_RECEIVE and
//            EVENT_REMOTE_DISCONNECT; EVENT_SEND comes on the sending thread and
//            EVENT_LOCALE_DISCONNECT on the one that disconnects. Units are added, opened, stopped
//            and closed by one thread at a time; sending, disconnecting a unit and the getters are
//            for any. A callback may call every operation. No lock is held during a callback, so
//            that one which has begun may end after another thread has disconnected its unit.
// Shutdown:  sock_close() waits for the event thread, without a limit while that is inside a
//            callback; in a callback it returns at once and no event follows. The destructor does
//            the same, but waits for a callback no longer than about 5 s; the object may also be
//            deleted by one of its own callbacks.
// Ownership: the callback's user pointer stays the caller's and outlives the receiver.
class socket_multicast {
 public:
  // One group. What is in here changes only under the lock of its socket_multicast.
  class multicast_unit {
   public:
    multicast_unit() = default;
    multicast_unit(const multicast_unit&) = delete;
    multicast_unit& operator=(const multicast_unit&) = delete;
    virtual ~multicast_unit();

    std::string group_ip;  // dotted IPv4 text, as the local one
    unsigned short group_port = 0;
    std::string local_ip;
    unsigned short local_port = 0;
    std::string alias;
    int id = 0;
    int socket = -1;  // -1 until opened; keeps its value after the close
  };

  socket_multicast();
  socket_multicast(const socket_multicast&) = delete;
  socket_multicast& operator=(const socket_multicast&) = delete;
  virtual ~socket_multicast();

  // Receives and reports; on the event thread all that is waiting, up to a limit. False: the unit
  // is to be closed.
  virtual bool event_multicast_client_receive(const int& sock);
  virtual bool event_multicast_client_send(const int& sock);
  // Reports the end of the unit with that socket, deletes the unit and closes the socket.
  virtual bool event_multicast_client_close(const int& sock, bool local);
  virtual bool event_multicast_client_error(const int& sock);
  // Make and delete the units; a derived class that makes its own overrides both. Units that are
  // left when the object dies are deleted with delete.
  virtual multicast_unit* ensure_multicast_unit(const std::string& group_ip,
                                                unsigned short group_port,
                                                const std::string& local_ip,
                                                unsigned short local_port, const std::string& alias,
                                                int id, int sock);
  // The destructor means its own class's.
  // cppcheck-suppress virtualCallInConstructor
  virtual void free_multicast_unit(multicast_unit* unit);

  // Returns the unit's id: 0, 1, 2, ..., none twice. An alias that is in use names the new unit
  // from now on. The unit is opened by the next sock_init(). std::bad_alloc: there is no such unit.
  int add_multicast_param(const std::string& group_ip, unsigned short group_port,
                          const std::string& local_ip, unsigned short local_port,
                          const std::string& alias);
  // Opens every unit and starts the event thread; an earlier opening is closed first. False: no
  // event will come, and when a unit could not be opened, all of them are gone.
  bool sock_init(SOCK_MULTICAST_TYPE type, socket_callback cb, void* user);
  // What send() returned; -1 for an unknown unit. An empty datagram makes its receivers close.
  int sock_send(const char* data, int len, int id);
  int sock_send(const char* data, int len, const std::string& alias);
  // Closes and deletes one unit. False: there is none.
  bool disconnect_multicast(int id);
  bool disconnect_multicast(const std::string& alias);
  // Closes the sockets; the units stay, for another sock_init().
  bool sock_close();
  // Does nothing and returns 0.
  int colse_all_connect();

  // The unit that made the last sock_init() fail, and errno; -1 when it was no unit's fault, and 0
  // after a success.
  struct open_failure {
    int id = -1;
    int error = 0;
  };
  open_failure get_open_failure();

  // Datagrams for the unit that the system has dropped since it was opened, for want of buffer. 0
  // for an unknown unit.
  unsigned long long get_dropped(int id);

  bool start_server_event_thread();
  bool stop_server_event_thread();
  // The next unit's id, which is used up by that.
  int get_current_min_id();
  bool set_sock_options(const int& sock);
  // Where log lines go instead of standard output. The context outlives this object.
  void sock_set_context(socket_context* context);
  void log_msg(const char* text);

  static void* socket_server_event_thread(void* multicast);
  void on_socket_server_event_thread();
  bool report_user(SOCKET_EVENT event, int id, const char* data, unsigned size, int sock);

 private:
  struct channel;
  struct opening;
  struct shared_state;
  struct wait_errors;
  struct event_thread_start;
  class descriptor_use;
  class waiting_datagrams;
  class callback_stay;
  class receiving_unit;
  class time_slice;
  static void* event_thread_entry(void* start);

  bool note_unit(int id, const std::string& alias, multicast_unit* unit);
  void set_open_failure(int id, int error);
  std::shared_ptr<opening> make_opening();
  bool open_units(SOCK_MULTICAST_TYPE type, opening& opened);
  bool open_unit(SOCK_MULTICAST_TYPE type, multicast_unit& unit, opening& opened);
  bool create_event_thread();
  void forget_units();
  void close_opening();
  void delete_unit(int id);
  bool wait_thread_ended(bool limited);
  bool event_loop_step(shared_state& shared, wait_errors& errors);
  bool proc_event(const epoll_event& event);
  bool receive_batches(shared_state& shared, waiting_datagrams& batch, int sock);
  bool fill_batch(shared_state& shared, waiting_datagrams& batch, int sock, bool may_be_none);
  static bool deliver_batch(shared_state& shared, waiting_datagrams& batch, int sock,
                            const time_slice& slice);
  void proc_thread_error(int error, int epoll, wait_errors& errors);

  // Maps, descriptors and flags; constant, and also held by the event thread.
  const std::shared_ptr<shared_state> m_shared;
  std::atomic<socket_context*> m_context{nullptr};  // any thread
};

}  // namespace SOCK
}  // namespace VORLAN
