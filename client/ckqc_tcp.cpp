// The client object: construction, destruction, what its sockets report, its log.
#include "client/ckqc_tcp.h"

#include <strings.h>  // explicit_bzero

#include <algorithm>  // std::max
#include <cstdarg>    // va_list
#include <cstdio>     // vsnprintf
#include <cstring>    // strlen
#include <new>        // std::bad_alloc
#include <utility>    // std::move

using VORLAN::SOCK::socket_param;
using VORLAN::TOOLS::mutex_locker;

namespace {

constexpr std::size_t k_log_bytes = 1024;
constexpr unsigned k_broken_stream = 0xFFFFFFFF;  // a handler's mark for a malformed message
// How long `delete` waits for others to leave before it leaves the deletion to the last of them.
constexpr std::chrono::seconds k_leave_limit{10};
// How long a loss waits for what had been received before it to be handled.
constexpr std::chrono::milliseconds k_last_words_limit{200};
// How long `delete` inside a callback waits for calls that other threads have begun.
constexpr std::chrono::milliseconds k_other_calls_limit{500};
constexpr std::chrono::seconds k_least_leave_limit{1};  // after a stop that took long

}  // namespace

Ckqc_tcp::Ckqc_tcp() : m_life(std::make_shared<client_life>()) {
  m_mc_decoder.set_event(&m_mc_target);
}

Ckqc_tcp::~Ckqc_tcp() {
  if (m_life->visited_by_this_thread()) {
    ask_to_stop();  // waiting for oneself would never end
  } else {
    shut_down(std::chrono::steady_clock::time_point::max());
  }
  if (connection_ptr connection = take_connection()) {
    kqc_connection::keep_without_client(std::move(connection));
  }
  kqc_connection::retry_closing();
  const mutex_locker guard(m_session_lock);
  wipe_credentials();
}

void Ckqc_tcp::wipe_credentials() {
  ::explicit_bzero(m_user, sizeof(m_user));
  ::explicit_bzero(m_digest, sizeof(m_digest));
}

void* Ckqc_tcp::operator new(std::size_t size) { return ::operator new(size); }

void Ckqc_tcp::operator delete(Ckqc_tcp* client, std::destroying_delete_t) {
  const std::shared_ptr<client_life> life = client->m_life;
  if (life->visited_by_this_thread()) {
    client->ask_to_stop();
    life->wait_other_calls(k_other_calls_limit);
  } else if (client->shut_down(std::chrono::steady_clock::now() + k_leave_limit)) {
    kqc_connection::close_unclosed(life.get());  // not by the last visitor, which may be its thread
  }
  life->give_up(say_farewell, client);
}

void Ckqc_tcp::operator delete(void* memory) { ::operator delete(memory); }

void Ckqc_tcp::say_farewell(void* client) {
  auto* const self = static_cast<Ckqc_tcp*>(client);
  self->~Ckqc_tcp();
  ::operator delete(self);
}

// The session is to end and no callback is to begin any more. Waits for nothing.
void Ckqc_tcp::ask_to_stop() {
  m_life->close();
  m_stop.store(true, std::memory_order_release);
  m_wake.notify();
  cancel_connecting();
}

// True: nobody is inside any more.
bool Ckqc_tcp::shut_down(std::chrono::steady_clock::time_point deadline) {
  using clock = std::chrono::steady_clock;
  stop_worker();
  ask_to_stop();
  return m_life->wait_empty(std::max(deadline, clock::now() + k_least_leave_limit));
}

bool Ckqc_tcp::is_stopping() const {
  return m_stop.load(std::memory_order_acquire) || m_life->is_closed();
}

// Is there anybody to call?
bool Ckqc_tcp::has_event() const {
  return !m_life->is_closed() && m_event.load(std::memory_order_acquire) != nullptr;
}

int Ckqc_tcp::write_log(KavKqsLogLevel level, const char* format, ...) {
  if (!has_event() || format == nullptr) return 0;
  char text[k_log_bytes] = "";
  va_list arguments;
  va_start(arguments, format);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the analyzer loses sight of va_start
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  tell(
      [&](KAVQuoteEvent& event) { event.OnLog(level, text, static_cast<int>(std::strlen(text))); });
  return 0;
}

int Ckqc_tcp::cache_callback(socket_param& param, void* client) {
  return client == nullptr ? 0 : static_cast<Ckqc_tcp*>(client)->on_cache_callback(param);
}

int Ckqc_tcp::on_cache_callback(socket_param& param) { return handle_event(param, 0); }

int Ckqc_tcp::on_connection_event(socket_param& param, kqc_connection& from) {
  const bool lost = param.get_event_type() == VORLAN::SOCK::EVENT_REMOTE_DISCONNECT;
  if (lost && !m_thread_running.load(std::memory_order_acquire)) {
    // A refusal that the server sent before it closed is the reason that the caller wants to hear.
    from.tcp().wait_offered(k_last_words_limit);
  }
  return handle_event(param, from.serial());
}

int Ckqc_tcp::handle_event(socket_param& param, std::uint32_t from) {
  switch (param.get_event_type()) {
    case VORLAN::SOCK::EVENT_CONNECT:
      write_log(LogLevelDebug, "[on_cache_callback] EVENT_CONNECT");
      break;
    case VORLAN::SOCK::EVENT_REMOTE_DISCONNECT:
    case VORLAN::SOCK::EVENT_ERROR:
      on_connection_lost(from);
      break;
    case VORLAN::SOCK::EVENT_LOCALE_DISCONNECT:
      write_log(LogLevelDebug, "[on_cache_callback] EVENT_LOCALE_DISCONNECT");
      break;
    case VORLAN::SOCK::EVENT_RECEIVE:
      on_data(param, from);
      break;
    default:
      break;
  }
  return 0;
}

void Ckqc_tcp::on_connection_lost(std::uint32_t from) {
  write_log(LogLevelDebug, "[on_cache_callback] EVENT_REMOTE_DISCONNECT,thd_is_run:%d",
            int{m_thread_running.load(std::memory_order_acquire)});
  deal_with_loss(kqc_event_reconnect, from);
}

// The worker mends it; without one the session ends here.
void Ckqc_tcp::deal_with_loss(kqc_event_kind kind, std::uint32_t from) {
  connection_ptr dropped;
  bool for_worker = false, ended = false;
  {
    // A worker that starts meanwhile would live on with a connection that nobody mends.
    const mutex_locker guard(m_connection_lock);
    for_worker = m_thread_running.load(std::memory_order_acquire);
    ended = !for_worker && take_out(from, dropped);
  }
  if (for_worker) queue_loss(kind, from);
  if (dropped != nullptr) kqc_connection::close_later(std::move(dropped));
  if (ended) tell_disconnected();
}

void Ckqc_tcp::tell_disconnected() const {
  tell([](KAVQuoteEvent& event) { event.OnServerDisconnected(); });
}

void Ckqc_tcp::on_data(socket_param& param, std::uint32_t from) {
  const unsigned size = param.get_buff_size();
  const char* const data = param.get_buff_addr();
  if (is_left_over(from)) {
    param.set_proc_len(size);
    return;
  }
  const unsigned consumed = cut_messages(data, size, from);
  if (consumed == k_broken_stream) {
    write_log(LogLevelError, "[QuoteClient] reveive error length msg.");
    param.set_proc_len(size);
    deal_with_loss(kqc_event_bad_stream, from);
  } else {
    param.set_proc_len(consumed);
  }
}

// How many bytes the messages took.
unsigned Ckqc_tcp::cut_messages(const char* data, unsigned size, std::uint32_t from) try {
  const event_call receiver{*this};  // of all quotes in a row
  unsigned consumed = 0;
  while (data != nullptr && consumed < size) {
    const char* const next = data + consumed;
    const unsigned left = size - consumed;
    const bool is_quote = *next == k_kqs_quote;
    if (!is_quote && is_left_over(from))
      return size;  // the caller has connected anew in a callback
    const unsigned taken =
        is_quote ? deliver_quote(next, left, receiver) : dispatch(next, left, from);
    if (taken == 0) break;
    consumed += taken;
  }
  return consumed;
} catch (const std::bad_alloc&) {
  write_log(LogLevelError, "[QuoteClient] out of memory, connection given up.");
  throw;  // the connection throws the rest away and reports its loss
}
