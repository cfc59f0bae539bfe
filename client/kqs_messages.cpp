#include "client/kqs_messages.h"

#include "tools/helpers.h"

using VORLAN::TOOLS::strncpy_vl;

namespace {

void set_tail(char (&tail)[2]) {
  tail[0] = '\r';
  tail[1] = '\n';
}

}  // namespace

kqs_login_req make_login_req(const char* user, const char* digest) {
  kqs_login_req msg{};
  msg.type = k_kqs_login_req;
  msg.version[0] = '1';
  msg.version[1] = '0';
  strncpy_vl(msg.user, sizeof(msg.user), user);
  strncpy_vl(msg.digest, sizeof(msg.digest), digest);
  set_tail(msg.tail);
  return msg;
}

kqs_heartbeat make_heartbeat(std::int64_t epoch_seconds) {
  kqs_heartbeat msg{};
  msg.type = k_kqs_heartbeat;
  msg.epoch_seconds = epoch_seconds;
  set_tail(msg.tail);
  return msg;
}

kqs_symbol_list_req make_symbol_list_req() {
  kqs_symbol_list_req msg{};
  msg.type = k_kqs_symbol_list_req;
  msg.fixed = '0';
  set_tail(msg.tail);
  return msg;
}

kqs_symbol_req make_symbol_req(kqs_message_type type, char instrument_type, const char* symbol) {
  kqs_symbol_req msg{};
  msg.type = type;
  msg.fixed = '0';
  msg.instrument_type = instrument_type;
  strncpy_vl(msg.symbol, sizeof(msg.symbol), symbol);
  set_tail(msg.tail);
  return msg;
}
