// Scripts as text for people.
#include <fmt/format.h>

#include "tests/chaos/script.h"

namespace kav_chaos {
namespace {

const char* name_of(deed what) {
  switch (what) {
    case deed::connect:
      return "connect";
    case deed::connect_to_nobody:
      return "connect to a port that refuses";
    case deed::connect_to_bad_address:
      return "connect to bad address";
    case deed::connect_to_silence:
      return "connect to a silent port, ended by another thread (0 disconnects, 1 destroys)";
    case deed::log_in:
      return "log in";
    case deed::log_in_wrongly:
      return "log in with a wrong password";
    case deed::register_own:
      return "register own symbol";
    case deed::unregister_own:
      return "unregister own symbol";
    case deed::register_shared:
      return "register shared symbol";
    case deed::unregister_shared:
      return "unregister shared symbol";
    case deed::register_unknown:
      return "register unknown symbol";
    case deed::unregister_unknown:
      return "unregister unknown symbol";
    case deed::query_list:
      return "query the symbol list";
    case deed::disconnect:
      return "disconnect";
    case deed::destroy:
      return "destroy";
    case deed::await_login:
      return "wait for a login's result, ms";
    case deed::await_registration:
      return "wait for the registrations, ms";
    case deed::pause:
      return "pause, ms";
  }
  return "?";
}

const char* name_of(server_deed what) {
  switch (what) {
    case server_deed::behave:
      return "behave";
    case server_deed::misbehave:
      return "misbehave";
    case server_deed::drop:
      return "close all connections";
    case server_deed::reset:
      return "reset all connections";
    case server_deed::stall:
      return "stall";
    case server_deed::go_on:
      return "go on";
    case server_deed::outage:
      return "outage, ms";
    case server_deed::push:
      return "quotes";
    case server_deed::unasked:
      return "message that nobody asked for, number";
    case server_deed::garbage:
      return "garbage, bytes";
    case server_deed::pause:
      return "pause, ms";
  }
  return "?";
}

std::string text_of(const action& what) {
  switch (what.what) {
    case deed::connect:
    case deed::connect_to_nobody:
    case deed::log_in:
    case deed::log_in_wrongly:
    case deed::query_list:
    case deed::disconnect:
    case deed::destroy:
      return name_of(what.what);
    default:
      return fmt::format("{} {}", name_of(what.what), what.value);
  }
}

std::string hex(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) text += fmt::format("{:02x}", static_cast<unsigned char>(byte));
  return text;
}

std::string numbers(const std::vector<std::size_t>& sizes) {
  return fmt::format("{}", fmt::join(sizes, "+"));
}

// Only what differs from good behaviour.
std::string text_of(const kav_sim::behaviour& how) {
  const kav_sim::behaviour good;
  std::string text;
  const auto add = [&text](bool differs, const char* name, const auto& value) {
    if (differs) text += fmt::format(" {}={}", name, value);
  };
  add(how.on_accept != good.on_accept, "accept", static_cast<int>(how.on_accept));
  add(how.login != good.login, "login", static_cast<int>(how.login));
  add(how.login_delay != good.login_delay, "login-delay", how.login_delay.count());
  add(how.login_copies != good.login_copies, "login-copies", how.login_copies);
  add(how.login_refusal_result != good.login_refusal_result, "refusal",
      static_cast<int>(how.login_refusal_result));
  add(how.full_width_reason, "full-width-reason", 1);
  add(how.list != good.list, "list", static_cast<int>(how.list));
  add(how.end_mark_delay != good.end_mark_delay, "end-mark-delay", how.end_mark_delay.count());
  add(!how.answer_register, "answer-register", 0);
  add(!how.answer_unregister, "answer-unregister", 0);
  add(how.register_result != good.register_result, "register",
      static_cast<int>(how.register_result));
  add(how.unregister_result != good.unregister_result, "unregister",
      static_cast<int>(how.unregister_result));
  add(how.symbol_copies != good.symbol_copies, "symbol-copies", how.symbol_copies);
  add(how.full_width_list, "full-width-list", 1);
  add(how.full_width_answers, "full-width-answers", 1);
  add(how.full_width_quotes, "full-width-quotes", 1);
  if (how.loss != good.loss) {
    add(true, "loss", static_cast<int>(how.loss));
    add(how.loss_after_messages.has_value(), "after-messages", how.loss_after_messages.value_or(0));
    add(how.loss_after_time.has_value(), "after-ms",
        how.loss_after_time.value_or(std::chrono::milliseconds{0}).count());
    add(true, "truncate", how.truncate_bytes);
    add(true, "limit", how.loss_limit);
  }
  if (!how.chunk_sizes.empty()) {
    add(true, "pieces", numbers(how.chunk_sizes));
    add(true, "piece-pause", how.chunk_pause.count());
  }
  if (how.garbage_when != good.garbage_when) {
    add(true, "garbage", static_cast<int>(how.garbage_when));
    add(true, "garbage-bytes", hex(how.garbage));
  }
  return text;
}

std::string text_of(const server_step& step) {
  switch (step.what) {
    case server_deed::misbehave:
      return name_of(step.what) + text_of(step.how);
    case server_deed::outage:
    case server_deed::push:
    case server_deed::unasked:
    case server_deed::garbage:
    case server_deed::pause:
      return fmt::format("{} {}", name_of(step.what), step.value);
    default:
      return name_of(step.what);
  }
}

std::string text_of(const client_script& client) {
  std::string text = fmt::format("  {}\n", client.user);
  if (client.slow_ms != 0) {
    text += fmt::format("    each {} takes {} ms\n", kav_test::name_of(client.slow_kind),
                        client.slow_ms);
  }
  for (const inside_action& inside : client.inside) {
    text += fmt::format("    inside {} number {}, {} times: {}\n", kav_test::name_of(inside.where),
                        inside.after, inside.times, text_of(inside.what));
  }
  for (const client_step& step : client.steps) {
    text += "    " + text_of(step.first);
    if (step.at_once) text += ", at once: " + text_of(*step.at_once);
    text += "\n";
  }
  return text;
}

}  // namespace

std::string text_of(const life_script& script) {
  std::string text = fmt::format("life {} of seed {}\n", script.number, script.seed);
  text += fmt::format("  server: send buffer {}, heartbeat {} ms{}{}{}{}\n",
                      script.send_buffer_bytes, script.heartbeat_ms,
                      script.facts.whole_messages ? "" : ", messages not always whole",
                      script.facts.terminated_quotes ? "" : ", quotes with full fields",
                      script.facts.asked_quotes_only ? "" : ", quotes that nobody asked for",
                      script.facts.complete_lists ? "" : ", symbol lists not always complete");
  for (const server_step& step : script.server) text += "    " + text_of(step) + "\n";
  for (const client_script& client : script.clients) text += text_of(client);
  text += script.recovers ? "  at the end everyone recovers\n" : "  at the end nobody recovers\n";
  return text;
}

}  // namespace kav_chaos
