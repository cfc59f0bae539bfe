// The inside of quote_server, shared by its three source files: quote_server.cpp (operations),
// server_loop.cpp (sockets, time, endings), server_session.cpp (messages).
#pragma once

#include <condition_variable>  // std::condition_variable
#include <mutex>               // std::mutex
#include <string>              // std::string
#include <thread>              // std::thread
#include <unordered_map>       // std::unordered_map

#include "apps/sim/quote_server.h"
#include "apps/sim/server_connection.h"
#include "apps/sim/wire.h"

namespace kav_sim {

// One lock guards everything; the server's thread gives it back while it waits and while it hands
// out log lines. Functions named ..._locked, and those of the sections below, are called under it.
struct quote_server::impl {
  explicit impl(server_options o) : options(std::move(o)) {
    for (const listed_symbol& symbol : options.symbols) listed.emplace(symbol.name, symbol.type);
  }

  // Constant after construction.
  const server_options options;
  std::unordered_map<std::string, char> listed;  // the type of each symbol; the first one counts

  // Set by start() before the thread exists, closed by stop() after it has ended.
  int epoll_fd = -1, wake_fd = -1;
  int reservation_fd = -1;  // bound, never listening: keeps the port ours while we are down
  unsigned short port = 0;
  std::string start_error;
  std::thread thread;

  mutable std::mutex lock;
  std::condition_variable room;  // a queue became shorter, or a connection ended
  // Protected by lock.
  int listen_fd = -1;
  bool stop = false, running = false;
  bool stall_all = false;
  steady_time accept_again_at{};  // no descriptors left: a pause instead of a busy loop
  bool accept_paused = false;
  std::optional<steady_time> come_back_at;  // the end of an outage
  behaviour how;
  std::string wanted_digest;
  std::map<std::size_t, server_connection> connections;  // by number, gone ones too
  std::size_t accepted = 0;
  server_counters sums;
  std::vector<std::string> log_lines;  // handed out by the thread, lock released

  // server_loop.cpp: sockets.
  bool open_sockets();
  void close_sockets();
  bool bind_and_maybe_listen(int fd, bool listen_too, std::string& error);
  bool listen_again();
  void run();
  void wake() const;
  void handle_event(std::uint64_t id, unsigned events);
  void accept_all();
  void take_connection(int fd);
  void on_readable(server_connection& c);
  void flush(server_connection& c);
  void watch(server_connection& c);

  // server_loop.cpp: time. on_time() does what is due and returns the wait until the next deed.
  int on_time();
  void connection_on_time(server_connection& c, steady_time now, steady_time& next);
  void send_delayed(server_connection& c, steady_time now, steady_time& next);
  void send_heartbeat(server_connection& c, steady_time now, steady_time& next);

  // server_loop.cpp: endings.
  void check_loss(server_connection& c, steady_time now);
  void carry_out_ending(server_connection& c);
  void end_with_fin(server_connection& c, const char* why);
  void end_with_reset(server_connection& c, const char* why);
  void gone(server_connection& c, const char* why);
  void forget_queue(server_connection& c);
  void forget_if_unrecorded();
  void go_down();

  // server_session.cpp.
  void cut_input(server_connection& c);
  void record(server_connection& c, std::string bytes, bool malformed);
  void handle_message(server_connection& c, const std::string& message);
  void on_login(server_connection& c, const std::string& message);
  void answer_login(server_connection& c, const std::string& answer);
  void on_list_request(server_connection& c);
  void on_symbol_request(server_connection& c, const std::string& message);
  char register_result_for(const server_connection& c, const std::string& symbol, char type);
  std::string refusal_for(const std::string& message, bool& refuse) const;
  void queue(server_connection& c, std::string bytes, bool quote = false);
  void queue_later(server_connection& c, std::chrono::milliseconds delay, std::string bytes);
  bool wants(const server_connection& c, std::string_view symbol) const;
  push_result push_locked(const KAVMarketDepthQuoteData& quote, char type);
  bool room_for_locked(std::string_view symbol) const;

  void tell(const server_connection& c, const std::string& what);
};

}  // namespace kav_sim
