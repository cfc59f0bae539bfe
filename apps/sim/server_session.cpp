// What the server answers.
#include <fmt/format.h>

#include <algorithm>  // std::min

#include "apps/sim/quote_server_impl.h"

namespace kav_sim {

namespace {

constexpr char k_accepted = 'Y';
constexpr char k_unknown_symbol = '1';                // any character but '0' and '2' refuses
constexpr std::chrono::seconds k_drop_tell_pause{1};  // between two lines about a slow client

text_fill fill_of(bool full_width) { return full_width ? text_fill::full_width : text_fill::zero; }

}  // namespace

void quote_server::impl::tell(const server_connection& c, const std::string& what) {
  if (!options.log) return;
  log_lines.push_back(fmt::format("client {}: {}", c.number, what));
  wake();  // we may be on a caller's thread
}

void quote_server::impl::cut_input(server_connection& c) {
  std::size_t used = 0;
  while (used < c.input.size() && c.open()) {
    const std::size_t length = client_message_bytes(c.input[used]);
    const std::size_t left = c.input.size() - used;
    if (length == 0) {  // nobody knows where the next message begins
      tell(c, fmt::format("unknown message type {}, {} bytes thrown away",
                          int{static_cast<unsigned char>(c.input[used])}, left));
      record(c, c.input.substr(used), true);
      used = c.input.size();
    } else if (left < length) {
      break;
    } else {
      const std::string message = c.input.substr(used, length);
      used += length;
      handle_message(c, message);
    }
  }
  c.input.erase(0, used);
}

void quote_server::impl::record(server_connection& c, std::string bytes, bool malformed) {
  if (malformed) {
    ++sums.malformed_messages;
  } else {
    ++c.received_by_type[bytes[0]];
  }
  if (!options.record_received) return;
  c.received.push_back({std::move(bytes), std::chrono::steady_clock::now(), malformed});
}

void quote_server::impl::handle_message(server_connection& c, const std::string& message) {
  const std::string fault = client_message_fault(message);
  record(c, message, !fault.empty());
  if (!fault.empty()) return tell(c, fmt::format("malformed \"{}\": {}", message[0], fault));
  if (message[0] == 'L') return on_login(c, message);
  if (message[0] == 'H') {
    ++sums.heartbeats_received;
    return;
  }
  if (!c.logged_in) {
    ++sums.out_of_turn_messages;
    return tell(c, fmt::format("\"{}\" before an accepted login, not answered", message[0]));
  }
  if (message[0] == 'S') return on_list_request(c);
  on_symbol_request(c, message);
}

std::string quote_server::impl::refusal_for(const std::string& message, bool& refuse) const {
  refuse = true;
  if (how.login == login_answer::refuse) return how.login_refusal_reason;
  if (options.user && login_user(message) != *options.user) return "unknown user";
  if (options.password && login_digest(message) != wanted_digest) return "wrong password";
  refuse = false;
  return "";
}

void quote_server::impl::on_login(server_connection& c, const std::string& message) {
  c.user = login_user(message);
  c.logged_in = false;
  if (how.login == login_answer::ignore) return tell(c, "login of " + c.user + " ignored");
  if (how.garbage_when == garbage_time::instead_of_login_answer) {
    return queue_later(c, how.login_delay, how.garbage);
  }
  bool refuse = false;
  const std::string reason = refusal_for(message, refuse);
  if (refuse) {
    ++sums.logins_refused;
    tell(c, fmt::format("login of {} refused: {}", c.user, reason));
    return answer_login(
        c, login_answer_message(how.login_refusal_result, reason, fill_of(how.full_width_reason)));
  }
  ++sums.logins_accepted;
  c.logged_in = true;
  c.last_write = std::chrono::steady_clock::now() + how.login_delay;
  tell(c, "logged in as " + c.user);
  answer_login(c, login_answer_message(k_accepted, "", text_fill::zero));
  if (how.garbage_when == garbage_time::after_login_answer) {
    queue_later(c, how.login_delay, how.garbage);
  }
}

void quote_server::impl::answer_login(server_connection& c, const std::string& answer) {
  for (unsigned i = 0; i < how.login_copies; ++i) queue_later(c, how.login_delay, answer);
}

void quote_server::impl::on_list_request(server_connection& c) {
  if (how.list == list_answer::ignore) return tell(c, "list query ignored");
  ++sums.lists_sent;
  if (how.list != list_answer::empty) {
    for (const listed_symbol& symbol : options.symbols) {
      queue(c, list_entry_message(symbol.type, symbol.name, fill_of(how.full_width_list)));
    }
  }
  if (how.list == list_answer::no_end_mark) return;
  queue_later(c, how.end_mark_delay, list_end_message());
}

char quote_server::impl::register_result_for(const server_connection& c, const std::string& symbol,
                                             char type) {
  const auto known = listed.find(symbol);
  if (known != listed.end() && known->second == type) return how.register_result;
  tell(c, fmt::format("registration of {} with type {} refused: not in the list", symbol,
                      int{static_cast<signed char>(type)}));
  return k_unknown_symbol;
}

void quote_server::impl::on_symbol_request(server_connection& c, const std::string& message) {
  const std::string symbol = request_symbol(message);
  const char type = request_type(message);
  const bool add = message[0] == 'N';
  ++(add ? sums.register_requests : sums.unregister_requests);
  if (!(add ? how.answer_register : how.answer_unregister)) return;
  const char result = add ? register_result_for(c, symbol, type) : how.unregister_result;
  const std::size_t before = c.registered.size();
  if (add && (result == '0' || result == '2')) c.registered.insert(symbol);
  if (!add && result == '0') c.registered.erase(symbol);
  if (c.registered.size() != before) {
    tell(c, fmt::format("{} {}, {} in all", add ? "registered" : "unregistered", symbol,
                        c.registered.size()));
  }
  const std::string answer =
      symbol_answer_message(add ? 'I' : 'F', result, type, symbol, fill_of(how.full_width_answers));
  for (unsigned i = 0; i < how.symbol_copies; ++i) queue(c, answer);
}

void quote_server::impl::queue_later(server_connection& c, std::chrono::milliseconds delay,
                                     std::string bytes) {
  if (delay.count() <= 0) return queue(c, std::move(bytes));
  c.delays.push_back({std::chrono::steady_clock::now() + delay, std::move(bytes)});
}

// Counts the message and, where a loss is due after it or inside it, lets nothing follow.
void quote_server::impl::queue(server_connection& c, std::string bytes, bool quote) {
  if (!c.open() || c.ending != loss_kind::none) return;
  const bool cut = how.loss == loss_kind::truncate && !c.loss_done && how.loss_after_messages &&
                   c.queued_messages >= *how.loss_after_messages &&
                   sums.losses_caused < how.loss_limit;
  if (cut) {
    bytes.resize(std::min(bytes.size(), how.truncate_bytes));
    quote = false;
    c.loss_done = true;
    c.ending = loss_kind::close;
    ++sums.losses_caused;
  }
  ++c.queued_messages;
  c.queued_bytes += bytes.size();
  c.queue.push_back({std::move(bytes), quote});
  if (!cut) check_loss(c, c.accepted_at);
}

bool quote_server::impl::wants(const server_connection& c, std::string_view symbol) const {
  return c.open() && c.logged_in && c.ending == loss_kind::none &&
         c.registered.find(symbol) != c.registered.end();
}

bool quote_server::impl::room_for_locked(std::string_view symbol) const {
  for (const auto& [number, c] : connections) {
    if (wants(c, symbol) && c.queued_bytes + k_quote_bytes > options.queue_limit_bytes)
      return false;
  }
  return true;
}

push_result quote_server::impl::push_locked(const KAVMarketDepthQuoteData& quote, char type) {
  const std::string_view symbol = field_text(quote.InstrumentID, sizeof quote.InstrumentID);
  push_result result;
  std::string bytes;
  for (auto& [number, c] : connections) {
    if (!wants(c, symbol)) continue;
    if (c.queued_bytes + k_quote_bytes > options.queue_limit_bytes) {
      ++result.dropped;
      ++c.quotes_dropped;
      ++sums.quotes_dropped;
      const steady_time now = std::chrono::steady_clock::now();
      if (now - c.drop_told_at > k_drop_tell_pause) {
        c.drop_told_at = now;
        tell(c, fmt::format("reads too slowly, {} quotes dropped so far", c.quotes_dropped));
      }
      continue;
    }
    if (bytes.empty()) bytes = quote_message(type, quote, fill_of(how.full_width_quotes));
    const bool was_idle = c.queue.empty();
    queue(c, bytes, true);
    ++result.queued;
    if (was_idle) flush(c);
  }
  return result;
}

}  // namespace kav_sim
