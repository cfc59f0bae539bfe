// What a socket class tells its user: one event, one record, one callback.
#pragma once

#include <string>  // std::string

namespace VORLAN {
namespace SOCK {

enum SOCKET_EVENT : int {
  EVENT_CONNECT = 0,            // a TCP connection stands
  EVENT_REMOTE_DISCONNECT = 1,  // closed by the peer, or broken
  EVENT_LOCALE_DISCONNECT = 2,  // closed by sock_close()
  EVENT_ERROR = 3,              // never reported; treated like EVENT_REMOTE_DISCONNECT
  EVENT_RECEIVE = 4,            // bytes arrived; the record carries them
  EVENT_SEND = 5,               // bytes were taken by the system; the record carries them
  EVENT_NONE = 8,               // a record that nothing has been put into
};

// One event. Valid only during the callback, as are the bytes that it refers to: they belong to
// the reporting object. One thread at a time.
class socket_param {
 public:
  socket_param() = default;
  // `buff` is the address of the reporter's variable that holds the start of the data.
  socket_param(SOCKET_EVENT event, int id, const char** buff, unsigned size, int sock);
  // Copies take every field but the alias, which stays as it was.
  socket_param(const socket_param& other);
  socket_param& operator=(const socket_param& other);
  ~socket_param() = default;

  bool set_event_type(SOCKET_EVENT event);
  SOCKET_EVENT get_event_type() const { return m_event; }

  bool set_socket_id(int id);
  int get_socket_id() const { return m_socket_id; }

  bool set_alias(std::string alias);
  bool set_alias(const char* alias);  // null is ignored
  std::string get_alias() const { return m_alias; }

  // False, and nothing changed, for a null reference or a size of 0.
  bool set_buff(const char** buff, unsigned size);
  const char* get_buff_addr() const { return m_buff == nullptr ? nullptr : *m_buff; }
  unsigned get_buff_size() const { return m_buff_size; }

  // How many leading bytes the user has consumed; read by the buffered client only.
  bool set_proc_len(unsigned length);
  unsigned get_proc_len() const { return m_proc_len; }

  int get_socket() const { return m_socket; }
  bool set_sock(int sock);

 private:
  const char** m_buff = nullptr;
  unsigned m_buff_size = 0;
  SOCKET_EVENT m_event = EVENT_NONE;
  int m_socket_id = 0;
  std::string m_alias;
  unsigned m_proc_len = 0;
  int m_socket = 0;
};

// The user's function. The result is ignored everywhere. A std::bad_alloc that leaves it on a
// thread of a TCP client loses the connection: the thread goes on as after any other loss.
typedef int (*socket_callback)(socket_param&, void*);

}  // namespace SOCK
}  // namespace VORLAN
