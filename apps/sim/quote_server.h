// The quote server that the simulator and the session tests talk to.
//
//   kav_sim::server_options options;
//   options.symbols = {{"IF2509", '1'}, {"0", '2'}};
//   kav_sim::quote_server server{options};
//   ASSERT_TRUE(server.start());
//   ... connect to 127.0.0.1:server.port(), log in, register "IF2509" ...
//   server.push_quote(record, '1');          // to everyone who registered record.InstrumentID
//   server.drop_all();                       // or any other fault
//   for (const auto& message : server.received(0)) ...
#pragma once

#include <chrono>       // std::chrono::milliseconds
#include <cstddef>      // std::size_t
#include <cstdint>      // std::uint64_t
#include <functional>   // std::function
#include <limits>       // std::numeric_limits
#include <memory>       // std::unique_ptr
#include <optional>     // std::optional
#include <string>       // std::string
#include <string_view>  // std::string_view
#include <vector>       // std::vector

#include "api/kav_quote_api.h"
#include "apps/sim/tick_source.h"  // listed_symbol

namespace kav_sim {

using steady_time = std::chrono::steady_clock::time_point;

// Fixed for the life of a server.
struct server_options {
  std::string bind_address = "127.0.0.1";
  unsigned short port = 0;              // 0: the system picks one, port() tells it
  std::optional<std::string> user;      // none: any user name is accepted
  std::optional<std::string> password;  // plain text; none: any password is accepted
  std::vector<listed_symbol> symbols;   // the symbol list, sent in this order
  // A logged-in client gets a heartbeat when nothing has been written to it for so long, 0 for
  // never. Off by default: one that is split across two reads upsets the client by design.
  std::chrono::milliseconds heartbeat{0};
  // Most bytes kept for one client that reads too slowly; push_quote() drops beyond.
  std::size_t queue_limit_bytes = 4u << 20;
  // SO_SNDBUF of each connection, 0 for the system's choice. Small ones make backpressure early.
  int send_buffer_bytes = 0;
  bool record_received = true;  // keep every message for received(); off for endless runs
  // Status lines without line end, called on the server's thread with no lock held.
  std::function<void(const std::string& line)> log;
};

enum class accept_answer {
  serve,       // the normal life
  close,       // FIN right after accept
  reset,       // RST right after accept
  never_read,  // the connection stands, but nothing is ever read or written
};
enum class login_answer { accept, refuse, ignore };
enum class list_answer { normal, no_end_mark, empty, ignore };  // empty: the end mark alone
enum class garbage_time { never, instead_of_login_answer, after_login_answer };
enum class loss_kind {
  none,
  close,     // FIN
  reset,     // RST
  stall,     // the connection stands, nothing is read or written any more
  truncate,  // the first truncate_bytes of the next message, then FIN (needs loss_after_messages)
};

// What the server does wrong. A default one does nothing wrong. May be changed at any time, also
// for the connections that exist; each event looks at the values of its moment.
struct behaviour {
  accept_answer on_accept = accept_answer::serve;

  // Login. A wrong user or password is refused whatever `login` says, unless it says ignore.
  login_answer login = login_answer::accept;
  char login_refusal_result = 'N';               // the result character of a refusal
  std::string login_refusal_reason = "refused";  // cut to 22 bytes; 22 of them leave no NUL
  std::chrono::milliseconds login_delay{0};      // the answer comes so much later
  unsigned login_copies = 1;                     // the answer comes so many times in a row

  // Symbol list.
  list_answer list = list_answer::normal;
  std::chrono::milliseconds end_mark_delay{0};  // the end mark comes so much later

  // Registration. '0' and '2' register, other characters refuse; only '0' unregisters.
  bool answer_register = true;
  bool answer_unregister = true;
  char register_result = '0';
  char unregister_result = '0';
  unsigned symbol_copies = 1;  // each answer comes so many times in a row

  // Loss of a connection, once for each: after so many messages of any type were written to it, or
  // so long after accept; whichever comes first. At most loss_limit connections are hit.
  loss_kind loss = loss_kind::none;
  std::optional<std::size_t> loss_after_messages;
  std::optional<std::chrono::milliseconds> loss_after_time;
  std::size_t truncate_bytes = 1;
  std::size_t loss_limit = std::numeric_limits<std::size_t>::max();

  // Bytes that are no message.
  garbage_time garbage_when = garbage_time::never;
  std::string garbage = "\x7f?garbage";

  // Text fields are filled up to their full width with 'x', so that they hold no NUL.
  bool full_width_reason = false;   // login refusal, 22 bytes
  bool full_width_list = false;     // symbols of the list, 28 bytes
  bool full_width_answers = false;  // symbols of "I" and "F", 28 bytes
  bool full_width_quotes = false;   // all five texts of the quote record

  // The stream is written in pieces of these sizes, over and over, with a pause after each, so that
  // the reader sees the cuts. Empty: whole messages.
  std::vector<std::size_t> chunk_sizes;
  std::chrono::milliseconds chunk_pause{2};
};

// One message from a client: cut by its type, or what was thrown away as malformed.
struct received_message {
  std::string bytes;
  steady_time at;
  bool malformed = false;

  char type() const { return bytes.empty() ? '\0' : bytes[0]; }
};

struct connection_counts {
  std::size_t current = 0;  // open now
  std::size_t ever = 0;     // accepted since start()
};

// Sums over all connections since the server was made.
struct server_counters {
  std::uint64_t logins_accepted = 0;
  std::uint64_t logins_refused = 0;
  std::uint64_t lists_sent = 0;           // queries answered, in whatever way
  std::uint64_t register_requests = 0;    // well-formed "N"
  std::uint64_t unregister_requests = 0;  // well-formed "R"
  std::uint64_t heartbeats_received = 0;
  std::uint64_t heartbeats_sent = 0;
  std::uint64_t malformed_messages = 0;    // wrong type, fixed byte, text or CR LF
  std::uint64_t out_of_turn_messages = 0;  // well-formed, but before an accepted login
  std::uint64_t messages_sent = 0;         // written whole into the socket, any type
  std::uint64_t quotes_sent = 0;           // of these, quotes
  std::uint64_t quotes_dropped = 0;        // full queue, or unsent at the connection's end
  std::uint64_t losses_caused = 0;         // connections hit by behaviour::loss
};

// One connection, open or gone.
struct connection_state {
  bool open = false;
  bool logged_in = false;
  bool stalled = false;
  std::string user;                     // of the last well-formed login request
  std::vector<std::string> registered;  // sorted
  std::uint64_t quotes_sent = 0;
  std::uint64_t quotes_dropped = 0;
  std::size_t queued_bytes = 0;
};

// What push_quote() did with one quote.
struct push_result {
  std::size_t queued = 0;   // connections that will get it
  std::size_t dropped = 0;  // connections whose queue is full
};

// Listens on one address and serves any number of clients.
//
// Threads:   start() starts one thread that owns the epoll loop. Every operation may be called from
//            any thread; start() and stop() from one at a time.
// Shutdown:  stop() closes listener and connections and joins the thread; the destructor does it
//            too. What was received stays readable.
// Names:     a connection's number is 0 for the first accepted, 1 for the next, and never reused.
class quote_server {
 public:
  explicit quote_server(server_options options);
  ~quote_server();
  quote_server(const quote_server&) = delete;
  quote_server& operator=(const quote_server&) = delete;

  // Listens and starts the thread. False: start_error() says why (such as a port in use).
  bool start();
  const std::string& start_error() const;
  // The port that it listens on, also while go_down() lasts; 0 before start().
  unsigned short port() const;
  void stop();

  void set_behaviour(const behaviour& how);
  behaviour current_behaviour() const;
  // Changes some fields, from one thread at a time: server.change_behaviour([](behaviour& b) {
  // b.list = ...; }).
  void change_behaviour(const std::function<void(behaviour&)>& change);

  // Queues the quote for every logged-in connection that has registered its InstrumentID. Never
  // waits; a connection whose queue is full loses the quote, which is counted.
  push_result push_quote(const KAVMarketDepthQuoteData& quote, char type);
  // The same, but waits up to `limit` until all of these connections have room. False: one has
  // not; then nobody got the quote, and it may be offered again. result may be null.
  bool push_quote_waiting(const KAVMarketDepthQuoteData& quote, char type,
                          std::chrono::milliseconds limit, push_result* result = nullptr);
  // Queues bytes as they are; they count as one message. False: no such open connection.
  void send_raw(std::string_view bytes);
  bool send_raw(std::size_t connection, std::string_view bytes);

  // Ends all connections: what the socket takes at once still goes, then FIN, or RST.
  void drop_all();
  void reset_all();
  bool drop(std::size_t connection);
  bool reset(std::size_t connection);
  // Stops reading and writing on all connections, those to come included; off goes on with what
  // is still open. While stalled, an end that the peer makes goes unnoticed.
  void stall(bool on);
  // Closes the listener and all connections: connecting is refused until come_back(), which
  // listens on the same port again. outage() does both, with `length` between; it does not wait.
  void go_down();
  bool come_back();
  void outage(std::chrono::milliseconds length);
  bool listening() const;

  // All complete messages of a connection so far, in order; empty for an unknown number.
  std::vector<received_message> received(std::size_t connection) const;
  // How many messages of one type arrived well-formed, on one connection or on all.
  std::size_t received_count(std::size_t connection, char type) const;
  std::size_t received_count(char type) const;
  connection_counts connections() const;
  connection_state connection(std::size_t number) const;
  server_counters counters() const;
  // True when some open connection has registered the symbol; any symbol when it is empty.
  bool registered(std::string_view symbol = {}) const;
  // True when nothing waits to be written to any open connection.
  bool all_written() const;

  struct impl;  // quote_server_impl.h

 private:
  const std::unique_ptr<impl> m_impl;
};

}  // namespace kav_sim
