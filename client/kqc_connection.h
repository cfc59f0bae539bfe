// One TCP connection of a client to its quote server, and the way back from it to the client.
#pragma once

#include <atomic>   // std::atomic
#include <cstdint>  // std::uint32_t
#include <memory>   // std::shared_ptr

#include "client/client_life.h"
#include "sock/socket_cache_client.h"

class Ckqc_tcp;

// Threads:   the callback on the socket threads; the rest as each member says.
// Ownership: shared by the client and by whoever is using or closing the connection. A connection
//            whose client has gone is kept open by keep_without_client() until the server ends it.
class kqc_connection : public std::enable_shared_from_this<kqc_connection> {
 public:
  enum setup_phase : int {
    k_setting_up,  // what the server sends has to wait
    k_connected,   // the client has taken note of the connection
    k_announced,   // the caller knows of it: a loss may be told now
  };

  kqc_connection(std::shared_ptr<client_life> life, Ckqc_tcp* client, std::uint32_t serial);
  kqc_connection(const kqc_connection&) = delete;
  kqc_connection& operator=(const kqc_connection&) = delete;
  // Whoever still waits for a phase need not any more.
  ~kqc_connection();

  VORLAN::SOCK::socket_cache_client& tcp() { return m_tcp; }
  // Distinguishes the connections of one client; never 0.
  std::uint32_t serial() const { return m_serial; }

  // Connects. Any thread.
  bool open(const char* ip, unsigned short port);
  void set_phase(setup_phase phase) { m_phase.store(phase, std::memory_order_release); }
  // Waits until `phase` is reached; for the announcement 1 s at most, since the caller may be doing
  // anything meanwhile.
  void wait_phase(setup_phase phase) const;

  // Has the loss of this connection been reported? Any thread.
  bool is_lost() const { return m_lost.load(std::memory_order_acquire); }
  void set_lost() { m_lost.store(true, std::memory_order_release); }

  // Closes and frees `connection` 10 ms from now on a thread of its own ("kav-close"), which is a
  // visitor of the client until then. To be called by a visitor. When no thread can be had, the
  // connection is cut at once and is freed by whoever can do it next: the next such thread of any
  // client, retry_closing(), or the end of the client.
  static void close_later(std::shared_ptr<kqc_connection> connection);
  // The client goes; the connection stays until the server closes it.
  static void keep_without_client(std::shared_ptr<kqc_connection> connection);
  // Another try with what has found no closing thread. Any thread.
  static void retry_closing();
  // Closes and frees here what has found none; null: of every client. By a thread that is not one
  // of theirs.
  static void close_unclosed(const client_life* of);

 private:
  class ownerless;
  enum class closes_for : int { nobody, client };

  static ownerless& kept();
  static ownerless& unclosed();
  static bool take_from_kept(const kqc_connection* which);
  static void* closing_thread(void* closing);
  static int on_socket_event(VORLAN::SOCK::socket_param& param, void* connection);
  static void start_closing_thread(std::shared_ptr<kqc_connection> connection, closes_for whom);
  void on_event_without_client(VORLAN::SOCK::socket_param& param);

  // Constant.
  const std::shared_ptr<client_life> m_life;
  Ckqc_tcp* const m_client;  // valid for visitors
  const std::uint32_t m_serial;
  // Any thread.
  std::atomic<setup_phase> m_phase{k_setting_up};
  std::atomic<bool> m_lost{false};
  // In a list of ownerless connections: the next one, under its lock.
  std::shared_ptr<kqc_connection> m_next;
  // Of the closing thread, from before its creation on: its share, and whom it visits.
  std::shared_ptr<kqc_connection> m_closing;
  closes_for m_closes_for = closes_for::nobody;
  // Last: its threads use the members above.
  VORLAN::SOCK::socket_cache_client m_tcp;
};
