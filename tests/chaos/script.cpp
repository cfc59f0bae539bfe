// Making scripts.
#include "tests/chaos/script.h"

#include <iterator>  // std::size

#include "apps/sim/wire.h"
#include "tests/chaos/dice.h"

namespace kav_chaos {
namespace {

using std::chrono::milliseconds;

constexpr unsigned k_longest_short_pause_ms = 250;
constexpr unsigned k_reconnection_ms = 2300;  // the library's pause of 2 s, and a little
constexpr unsigned k_garbage_percent = 20;    // of the lives
constexpr unsigned k_unterminated_percent = 15;

template <std::size_t N>
unsigned number_of(const symbol_names (&)[N], dice& d) {
  return d.roll(N);
}

template <class T>
T one_of(std::initializer_list<T> choices, dice& d) {
  return choices.begin()[d.roll(static_cast<unsigned>(choices.size()))];
}

// ---- The server

void choose_login(kav_sim::behaviour& how, dice& d) {
  using namespace kav_sim;
  if (d.one_in(3)) how.login = one_of({login_answer::refuse, login_answer::ignore}, d);
  if (d.one_in(4)) how.login_delay = milliseconds{d.roll(60)};
  if (d.one_in(4)) how.login_copies = d.between(2, 3);
  how.full_width_reason = d.one_in(3);
  how.login_refusal_result = one_of({'N', 'n', '\0', '\xff'}, d);
  if (d.one_in(5)) how.list = one_of({list_answer::no_end_mark, list_answer::empty}, d);
  if (d.one_in(12)) how.list = list_answer::ignore;
  if (d.one_in(4)) how.end_mark_delay = milliseconds{d.roll(200)};
}

void choose_registration(kav_sim::behaviour& how, dice& d) {
  how.answer_register = !d.one_in(5);
  how.answer_unregister = !d.one_in(5);
  how.register_result = one_of({'0', '0', '2', '5', '\0'}, d);
  how.unregister_result = one_of({'0', '0', '2', '5'}, d);
  if (d.one_in(4)) how.symbol_copies = d.between(2, 3);
  how.full_width_list = d.one_in(12);
  how.full_width_answers = d.one_in(8);
}

void choose_loss(kav_sim::behaviour& how, dice& d) {
  using namespace kav_sim;
  how.loss = one_of({loss_kind::close, loss_kind::reset, loss_kind::stall, loss_kind::truncate}, d);
  how.loss_after_messages = d.roll(25);
  if (d.one_in(3)) how.loss_after_time = milliseconds{d.roll(400)};
  how.truncate_bytes = d.roll(368);
  how.loss_limit = d.between(1, 3);
}

// One size after which the writing stops for long: a stall in the middle of a message, which goes
// on later.
void choose_pieces(kav_sim::behaviour& how, dice& d) {
  if (d.one_in(4)) {
    how.chunk_sizes = {d.between(1, 700)};
    how.chunk_pause = milliseconds{d.between(50, 900)};
    return;
  }
  const unsigned sizes = d.between(1, 8);
  for (unsigned i = 0; i < sizes; ++i) how.chunk_sizes.push_back(d.between(1, 500));
  how.chunk_pause = milliseconds{d.between(1, 3)};
}

// Well-formed messages in the place of garbage come at the very moment of the login.
void choose_garbage(kav_sim::behaviour& how, const server_facts& facts, dice& d) {
  using kav_sim::garbage_time;
  const bool message = facts.whole_messages || d.one_in(2);
  // A quote is not among them: it would come as one that nobody has asked for.
  how.garbage = message ? unasked_message(1 + d.roll(k_unasked_kinds - 1))
                        : std::string(d.between(1, 60), static_cast<char>(d.roll(256)));
  how.garbage_when = one_of({garbage_time::after_login_answer, garbage_time::after_login_answer,
                             garbage_time::instead_of_login_answer},
                            d);
}

kav_sim::behaviour make_behaviour(const server_facts& facts, dice& d) {
  using kav_sim::accept_answer;
  kav_sim::behaviour how;
  if (d.one_in(6)) {
    how.on_accept =
        one_of({accept_answer::close, accept_answer::reset, accept_answer::never_read}, d);
  }
  if (d.one_in(2)) choose_login(how, d);
  if (d.one_in(2)) choose_registration(how, d);
  if (d.one_in(3)) choose_loss(how, d);
  if (d.one_in(3)) choose_pieces(how, d);
  if (d.one_in(5)) choose_garbage(how, facts, d);
  how.full_width_quotes = !facts.terminated_quotes && d.one_in(2);
  return how;
}

server_step random_server_step(const server_facts& facts, dice& d) {
  switch (d.roll(20)) {
    case 0:
    case 1:
    case 2:
      return {server_deed::misbehave, 0, make_behaviour(facts, d)};
    case 3:
      return {server_deed::behave, 0, {}};
    case 4:
      return {server_deed::drop, 0, {}};
    case 5:
      return {server_deed::reset, 0, {}};
    case 6:
      return {server_deed::stall, 0, {}};
    case 7:
      return {server_deed::outage, d.between(1, 900), {}};
    case 8:
      return {server_deed::unasked, d.roll(k_unasked_kinds), {}};
    case 9:
      if (facts.whole_messages) return {server_deed::go_on, 0, {}};
      return {server_deed::garbage, d.between(1, 400), {}};
    case 10:
      return {server_deed::pause, d.roll(k_longest_short_pause_ms), {}};
    default:
      return {server_deed::push, d.between(1, 80), {}};
  }
}

void add_facts(life_script& script) {
  server_facts& facts = script.facts;
  facts.complete_lists = facts.whole_messages;
  for (const server_step& step : script.server) {
    if (step.what == server_deed::unasked && step.value == 0) facts.asked_quotes_only = false;
    if (step.how.full_width_list || step.how.list == kav_sim::list_answer::empty) {
      facts.complete_lists = false;
    }
  }
}

void make_server_track(life_script& script, dice& d) {
  if (d.one_in(4)) {
    script.server.push_back({server_deed::misbehave, 0, make_behaviour(script.facts, d)});
  } else {
    script.server.push_back({server_deed::pause, d.between(100, 500), {}});
  }
  const unsigned steps = d.between(6, 30);
  bool long_pause_left = d.one_in(3);
  for (unsigned i = 0; i < steps; ++i) {
    const server_step step = random_server_step(script.facts, d);
    script.server.push_back(step);
    const bool loss = step.what == server_deed::drop || step.what == server_deed::reset ||
                      step.what == server_deed::outage;
    const bool wait_long = loss && long_pause_left;
    if (wait_long) long_pause_left = false;
    script.server.push_back(
        {server_deed::pause, wait_long ? k_reconnection_ms : d.roll(d.one_in(4) ? 200 : 30), {}});
    if (step.what == server_deed::stall) script.server.push_back({server_deed::go_on, 0, {}});
  }
  add_facts(script);
}

// ---- A client

action random_action(dice& d) {
  switch (d.roll(24)) {
    case 0:
    case 1:
      return {deed::connect, 0};
    case 2:
      return {deed::connect_to_nobody, 0};
    case 3:
      return {deed::connect_to_bad_address, d.roll(8)};
    case 4:
    case 5:
    case 6:
      return {deed::log_in, 0};
    case 7:
      return {deed::log_in_wrongly, 0};
    case 8:
    case 9:
      return {deed::register_own, number_of(k_own_symbols, d)};
    case 10:
      return {deed::unregister_own, number_of(k_own_symbols, d)};
    case 11:
    case 12:
      return {deed::register_shared, number_of(k_shared_symbols, d)};
    case 13:
      return {deed::unregister_shared, number_of(k_shared_symbols, d)};
    case 14:
      return {deed::register_unknown, d.roll(static_cast<unsigned>(std::size(k_unknown_symbols)))};
    case 15:
      return {deed::unregister_unknown,
              d.roll(static_cast<unsigned>(std::size(k_unknown_symbols)))};
    case 16:
      return {deed::query_list, 0};
    case 17:
      return {d.one_in(2) ? deed::disconnect : deed::query_list, 0};
    default:
      return {deed::pause, d.roll(k_longest_short_pause_ms)};
  }
}

// What any thread may do at any time.
action action_of_anyone(dice& d) {
  switch (d.roll(10)) {
    case 0:
    case 1:
      return {deed::connect, 0};
    case 2:
    case 3:
      return {deed::log_in, 0};
    case 4:
    case 5:
      return {deed::register_shared, number_of(k_shared_symbols, d)};
    case 6:
      return {deed::unregister_shared, number_of(k_shared_symbols, d)};
    case 7:
      return {deed::disconnect, 0};
    default:
      return {deed::query_list, 0};
  }
}

callback_kind random_kind(dice& d) {
  using enum callback_kind;
  return one_of(
      {server_connected, server_disconnected, server_disconnected, login_result, login_result,
       quote, quote, log, symbol_registered, symbol_unregistered, symbol_list},
      d);
}

unsigned random_count_of(callback_kind kind, dice& d) {
  if (kind == callback_kind::quote) return d.roll(120);
  if (kind == callback_kind::log) return d.roll(40);
  return d.roll(kind == callback_kind::symbol_list ? 6 : 3);
}

void make_inside_actions(client_script& client, dice& d) {
  if (d.one_in(4)) {  // tries again as soon as it has failed
    client.inside.push_back({callback_kind::server_disconnected, 0, 3, {deed::connect, 0}});
    client.inside.push_back({callback_kind::server_disconnected, 0, 3, {deed::log_in, 0}});
  }
  if (d.one_in(3)) {
    client.inside.push_back({callback_kind::quote,
                             d.roll(40),
                             3,
                             {deed::register_shared, number_of(k_shared_symbols, d)}});
  }
  for (unsigned left = d.roll(3); left > 0; --left) {
    const callback_kind kind = random_kind(d);
    client.inside.push_back({kind, random_count_of(kind, d), d.between(1, 3), action_of_anyone(d)});
  }
  if (d.one_in(5)) {
    const callback_kind kind = random_kind(d);
    client.inside.push_back({kind, random_count_of(kind, d), 1, {deed::destroy, 0}});
  }
}

void make_good_start(client_script& client, dice& d) {
  client.steps.push_back({{deed::connect, 0}, {}});
  client.steps.push_back({{deed::log_in, 0}, {}});
  if (d.one_in(8)) return;
  client.steps.push_back({{deed::await_login, 1500}, {}});
  for (unsigned i = 0; i < std::size(k_own_symbols); ++i) {
    if (d.percent(70)) client.steps.push_back({{deed::register_own, i}, {}});
  }
  if (d.percent(70)) client.steps.push_back({{deed::await_registration, 800}, {}});
}

void make_client_steps(client_script& client, dice& d) {
  if (d.percent(80)) make_good_start(client, d);
  const unsigned steps = d.between(1, 14);
  for (unsigned i = 0; i < steps; ++i) {
    client_step step{random_action(d), {}};
    if (d.one_in(6)) step = {action_of_anyone(d), action_of_anyone(d)};
    client.steps.push_back(step);
  }
  if (d.one_in(10)) {
    client.steps.push_back({{deed::disconnect, 0}, {}});
    client.steps.push_back({{deed::connect_to_silence, d.roll(2)}, {}});
  }
  if (d.percent(20)) client.steps.resize(d.between(1, static_cast<unsigned>(client.steps.size())));
  if (d.percent(35)) client.steps.push_back({{deed::destroy, 0}, {}});
}

client_script make_client(unsigned number, dice& d) {
  client_script client;
  client.user = "user" + std::to_string(number);
  if (d.one_in(4)) {
    client.slow_kind = random_kind(d);
    client.slow_ms = d.between(1, 8);
  }
  make_inside_actions(client, d);
  make_client_steps(client, d);
  return client;
}

}  // namespace

life_script make_script(std::uint64_t seed, unsigned number) {
  dice d(seed, number);
  life_script script;
  script.seed = seed;
  script.number = number;
  script.facts.whole_messages = !d.percent(k_garbage_percent);
  script.facts.terminated_quotes = !d.percent(k_unterminated_percent);
  // The client skips a heartbeat by its length without looking whether all of it is there, so that
  // one in two pieces takes bytes of the next message with it.
  if (!script.facts.whole_messages && d.one_in(2)) script.heartbeat_ms = d.between(5, 200);
  if (d.one_in(3)) script.send_buffer_bytes = 4096;
  script.recovers = d.percent(70);
  make_server_track(script, d);
  const unsigned clients = d.percent(70) ? 1 : d.between(2, 3);
  for (unsigned i = 0; i < clients; ++i) script.clients.push_back(make_client(i, d));
  return script;
}

std::string unasked_message(unsigned which) {
  using namespace kav_sim;
  const char* const listed = k_own_symbols[0].server;
  switch (which) {
    case 0: {
      KAVMarketDepthQuoteData quote{};
      std::char_traits<char>::copy(quote.InstrumentID, k_unasked_symbol, sizeof k_unasked_symbol);
      return quote_message('1', quote, text_fill::zero);
    }
    case 1:
      return symbol_answer_message('I', '0', '1', listed, text_fill::zero);
    case 2:
      return symbol_answer_message('I', '0', '1', "never listed", text_fill::full_width);
    case 3:
      return symbol_answer_message('F', '0', '1', listed, text_fill::zero);
    case 4:
      return login_answer_message('Y', "", text_fill::zero);
    case 5:
      return login_answer_message('N', "go away", text_fill::full_width);
    default:
      return list_entry_message('1', "late", text_fill::zero);
  }
}

}  // namespace kav_chaos
