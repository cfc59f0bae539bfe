#include "apps/sim/wire.h"

#include <md5.h>  // MD5Init, MD5Update, MD5Final

#include <algorithm>  // std::all_of
#include <cstring>    // memcpy, memchr

namespace kav_sim {

namespace {

constexpr std::size_t k_user_offset = 3, k_user_bytes = 16;
constexpr std::size_t k_digest_offset = 19, k_digest_bytes = 33;
constexpr std::size_t k_heartbeat_time_offset = 3;
constexpr std::size_t k_request_symbol_offset = 3;
constexpr std::size_t k_answer_type_offset = 3, k_answer_symbol_offset = 4;

void put_text(char* field, std::size_t width, std::string_view text, text_fill fill) {
  std::memset(field, fill == text_fill::zero ? 0 : 'x', width);
  std::memcpy(field, text.data(), std::min(text.size(), width));
}

template <std::size_t N>
void fill_up(char (&field)[N]) {
  const std::size_t used = field_text(field, N).size();
  std::memset(field + used, 'x', N - used);
}

bool all_zero(std::string_view bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](char c) { return c == '\0'; });
}

bool upper_hex(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); });
}

std::string login_fault(std::string_view message) {
  const std::string_view user = message.substr(k_user_offset, k_user_bytes);
  const std::string_view digest = message.substr(k_digest_offset, k_digest_bytes);
  const std::size_t user_end = user.find('\0');
  if (message.substr(1, 2) != "10") return "bytes 1 and 2 are not \"10\"";
  if (user_end == std::string_view::npos) return "the user name has no NUL";
  if (!all_zero(user.substr(user_end))) return "the user name is not zero-padded";
  if (!upper_hex(digest.substr(0, 32))) return "the digest is not 32 upper-case hex characters";
  if (digest[32] != '\0') return "the digest has no NUL";
  if (!all_zero(message.substr(52, 2))) return "bytes 52 and 53 are not zero";
  return "";
}

std::string heartbeat_fault(std::string_view message) {
  return all_zero(message.substr(1, 2)) ? "" : "bytes 1 and 2 are not zero";
}

std::string list_request_fault(std::string_view message) {
  if (message[1] != '0') return "byte 1 is not \"0\"";
  return all_zero(message.substr(2, 4)) ? "" : "bytes 2 to 5 are not zero";
}

// Bytes behind the symbol's NUL are whatever the client's memory held.
std::string symbol_request_fault(std::string_view message) {
  const std::string_view symbol = message.substr(k_request_symbol_offset, k_request_symbol_bytes);
  if (message[1] != '0') return "byte 1 is not \"0\"";
  if (symbol.find('\0') == std::string_view::npos) return "the symbol has no NUL";
  return symbol[0] == '\0' ? "the symbol is empty" : "";
}

std::string body_fault(std::string_view message) {
  switch (message[0]) {
    case 'L':
      return login_fault(message);
    case 'H':
      return heartbeat_fault(message);
    case 'S':
      return list_request_fault(message);
    default:
      return symbol_request_fault(message);
  }
}

}  // namespace

std::string_view field_text(const char* field, std::size_t width) {
  const void* end = std::memchr(field, '\0', width);
  if (end == nullptr) return {field, width};
  return {field, static_cast<std::size_t>(static_cast<const char*>(end) - field)};
}

std::size_t client_message_bytes(char type) {
  switch (type) {
    case 'L':
      return k_login_request_bytes;
    case 'H':
      return k_heartbeat_bytes;
    case 'S':
      return k_list_request_bytes;
    case 'N':
    case 'R':
      return k_symbol_message_bytes;
    default:
      return 0;
  }
}

std::string client_message_fault(std::string_view message) {
  if (message.empty() || client_message_bytes(message[0]) == 0) return "unknown type";
  if (message.size() != client_message_bytes(message[0])) return "wrong length";
  if (message.substr(message.size() - 2) != "\r\n") return "no CR LF at the end";
  return body_fault(message);
}

std::string login_user(std::string_view login_request) {
  return std::string{field_text(login_request.data() + k_user_offset, k_user_bytes)};
}

std::string login_digest(std::string_view login_request) {
  return std::string{field_text(login_request.data() + k_digest_offset, k_digest_bytes)};
}

std::int64_t heartbeat_seconds(std::string_view heartbeat) {
  std::int64_t seconds = 0;
  std::memcpy(&seconds, heartbeat.data() + k_heartbeat_time_offset, sizeof seconds);
  return seconds;
}

char request_type(std::string_view symbol_request) { return symbol_request[2]; }

std::string request_symbol(std::string_view symbol_request) {
  return std::string{
      field_text(symbol_request.data() + k_request_symbol_offset, k_request_symbol_bytes)};
}

std::string login_answer_message(char result, std::string_view reason, text_fill fill) {
  std::string message(k_login_answer_bytes, '\0');
  message[0] = 'A';
  message[1] = result;
  put_text(&message[2], k_reason_bytes, reason, fill);
  return message;
}

std::string heartbeat_message(std::int64_t epoch_seconds) {
  std::string message(k_heartbeat_bytes, '\0');
  message[0] = 'H';
  std::memcpy(&message[k_heartbeat_time_offset], &epoch_seconds, sizeof epoch_seconds);
  message[11] = '\r';
  message[12] = '\n';
  return message;
}

std::string list_entry_message(char type, std::string_view symbol, text_fill fill) {
  std::string message(k_list_entry_bytes, '\0');
  message[0] = 'M';
  message[1] = '0';
  message[2] = '0';  // not the end mark
  message[k_answer_type_offset] = type;
  put_text(&message[k_answer_symbol_offset], k_list_symbol_bytes, symbol, fill);
  return message;
}

std::string list_end_message() {
  std::string message(k_list_entry_bytes, '\0');
  message[0] = 'M';
  message[1] = '0';
  message[2] = '1';
  return message;
}

std::string symbol_answer_message(char kind, char result, char type, std::string_view symbol,
                                  text_fill fill) {
  std::string message(k_symbol_message_bytes, '\0');
  message[0] = kind;
  message[1] = result;
  message[k_answer_type_offset] = type;
  put_text(&message[k_answer_symbol_offset], k_list_symbol_bytes, symbol, fill);
  return message;
}

std::string quote_message(char type, const KAVMarketDepthQuoteData& quote, text_fill fill) {
  std::string message(k_quote_bytes, '\0');
  message[0] = 'Q';
  message[1] = type;
  KAVMarketDepthQuoteData record = quote;
  if (fill == text_fill::full_width) {
    fill_up(record.TradingDay);
    fill_up(record.InstrumentID);
    fill_up(record.ExchangeID);
    fill_up(record.ExchangeInstID);
    fill_up(record.UpdateTime);
  }
  std::memcpy(&message[k_quote_record_offset], &record, sizeof record);
  return message;
}

std::string md5_text(std::string_view text) {
  MD5_CTX context;
  MD5Init(&context);
  MD5Update(&context, reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  std::uint8_t digest[MD5_DIGEST_LENGTH];
  MD5Final(digest, &context);
  constexpr char k_hex[] = "0123456789ABCDEF";
  std::string result;
  for (const std::uint8_t byte : digest) {
    result += k_hex[byte >> 4];
    result += k_hex[byte & 15];
  }
  return result;
}

}  // namespace kav_sim
