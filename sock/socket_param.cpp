#include "sock/socket_param.h"

#include <utility>  // std::move

namespace VORLAN {
namespace SOCK {

socket_param::socket_param(SOCKET_EVENT event, int id, const char** buff, unsigned size, int sock)
    : m_buff(buff), m_buff_size(size), m_event(event), m_socket_id(id), m_socket(sock) {}

socket_param::socket_param(const socket_param& other)
    : m_buff(other.m_buff),
      m_buff_size(other.m_buff_size),
      m_event(other.m_event),
      m_socket_id(other.m_socket_id),
      m_proc_len(other.m_proc_len),
      m_socket(other.m_socket) {}

socket_param& socket_param::operator=(const socket_param& other) {
  if (this == &other) return *this;
  m_buff = other.m_buff;
  m_buff_size = other.m_buff_size;
  m_event = other.m_event;
  m_socket_id = other.m_socket_id;
  m_proc_len = other.m_proc_len;
  m_socket = other.m_socket;
  return *this;
}

bool socket_param::set_event_type(SOCKET_EVENT event) {
  m_event = event;
  return true;
}

bool socket_param::set_socket_id(int id) {
  m_socket_id = id;
  return true;
}

bool socket_param::set_alias(std::string alias) {
  m_alias = std::move(alias);
  return true;
}

bool socket_param::set_alias(const char* alias) {
  if (alias != nullptr) m_alias = alias;
  return true;
}

bool socket_param::set_buff(const char** buff, unsigned size) {
  if (buff == nullptr || size == 0) return false;
  m_buff = buff;
  m_buff_size = size;
  return true;
}

bool socket_param::set_proc_len(unsigned length) {
  m_proc_len = length;
  return true;
}

bool socket_param::set_sock(int sock) {
  m_socket = sock;
  return true;
}

}  // namespace SOCK
}  // namespace VORLAN
