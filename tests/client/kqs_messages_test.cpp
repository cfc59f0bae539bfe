// Every message against bytes that were written down by hand.
#include "client/kqs_messages.h"

#include <gtest/gtest.h>

#include <array>    // std::array
#include <cstring>  // memcpy
#include <string>   // std::string

namespace {

template <class MESSAGE>
std::string bytes_of(const MESSAGE& message) {
  return std::string(reinterpret_cast<const char*>(&message), sizeof(message));
}

template <std::size_t N>
std::string bytes_of(const std::array<unsigned char, N>& expected) {
  return std::string(expected.begin(), expected.end());
}

template <class MESSAGE>
MESSAGE message_of(const std::string& bytes) {
  MESSAGE message;
  EXPECT_EQ(sizeof(message), bytes.size());
  std::memcpy(&message, bytes.data(), sizeof(message));
  return message;
}

}  // namespace

TEST(kqs_messages, login_request_has_user_and_digest_in_their_fields_and_zeros_between) {
  const std::array<unsigned char, 56> expected = {
      'L', '1', '0',                                                                   //
      't', 'r', 'a', 'd', 'e', 'r', 0,   0,   0,   0,   0,   0,   0,   0,   0,   0,    // 3
      '9', '0', '0', '1', '5', '0', '9', '8', '3', 'C', 'D', '2', '4', 'F', 'B', '0',  // 19
      'D', '6', '9', '6', '3', 'F', '7', 'D', '2', '8', 'E', '1', '7', 'F', '7', '2',  // 35
      0,   0,   0,   13,  10};
  EXPECT_EQ(bytes_of(expected),
            bytes_of(make_login_req("trader", "900150983CD24FB0D6963F7D28E17F72")));
}

TEST(kqs_messages, login_request_cuts_overlong_texts_and_keeps_their_nul) {
  const std::array<unsigned char, 56> expected = {
      'L', '1', '0',                                                                   //
      'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l', 'm', 'n', 'o', 0,    // 3
      '0', '1', '2', '3', '4', '5', '6', '7', '8', '9', '0', '1', '2', '3', '4', '5',  // 19
      '6', '7', '8', '9', '0', '1', '2', '3', '4', '5', '6', '7', '8', '9', '0', '1',  // 35
      0,   0,   0,   13,  10};
  EXPECT_EQ(bytes_of(expected),
            bytes_of(make_login_req("abcdefghijklmnopq", "0123456789012345678901234567890123")));
}

TEST(kqs_messages, login_request_of_empty_texts_is_zeros) {
  std::string expected(56, '\0');
  expected.replace(0, 3, "L10");
  expected.replace(54, 2, "\r\n");
  EXPECT_EQ(expected, bytes_of(make_login_req("", "")));
  EXPECT_EQ(expected, bytes_of(make_login_req(nullptr, nullptr)));
}

TEST(kqs_messages, heartbeat_carries_the_time_little_endian_at_offset_3) {
  const std::array<unsigned char, 13> expected = {'H',  0,    0,    0x08, 0x07, 0x06, 0x05,
                                                  0x04, 0x03, 0x02, 0x01, 13,   10};
  EXPECT_EQ(bytes_of(expected), bytes_of(make_heartbeat(0x0102030405060708)));
}

TEST(kqs_messages, heartbeat_time_is_signed) {
  const std::array<unsigned char, 13> expected = {'H',  0,    0,    0xFE, 0xFF, 0xFF, 0xFF,
                                                  0xFF, 0xFF, 0xFF, 0xFF, 13,   10};
  EXPECT_EQ(bytes_of(expected), bytes_of(make_heartbeat(-2)));
}

TEST(kqs_messages, symbol_list_query_is_eight_bytes) {
  const std::array<unsigned char, 8> expected = {'S', '0', 0, 0, 0, 0, 13, 10};
  EXPECT_EQ(bytes_of(expected), bytes_of(make_symbol_list_req()));
}

TEST(kqs_messages, register_request_has_type_and_symbol) {
  const std::array<unsigned char, 32> expected = {'N', '0', '1', 'I', 'F', '2', '5', '0', '9', 0, 0,
                                                  0,   0,   0,   0,   0,   0,   0,   0,   0,   0, 0,
                                                  0,   0,   0,   0,   0,   0,   0,   0,   13,  10};
  EXPECT_EQ(bytes_of(expected), bytes_of(make_symbol_req(k_kqs_reg_symbol_req, '1', "IF2509")));
}

TEST(kqs_messages, unregister_request_cuts_the_symbol_to_19_characters) {
  const std::array<unsigned char, 32> expected = {
      'R', '0', 0xF0, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l', 'm',
      'n', 'o', 'p',  'q', 'r', 's', 0,   0,   0,   0,   0,   0,   0,   0,   13,  10};
  EXPECT_EQ(bytes_of(expected),
            bytes_of(make_symbol_req(k_kqs_unreg_symbol_req, static_cast<char>(0xF0),
                                     "abcdefghijklmnopqrstuvwxy")));
}

TEST(kqs_messages, login_response_fields_are_where_the_server_puts_them) {
  const std::string reason = "abcdefghijklmnopqrstuv";  // all 22 bytes
  const auto message = message_of<kqs_login_resp>("AN" + reason);
  EXPECT_EQ('A', message.type);
  EXPECT_EQ('N', message.result);
  EXPECT_EQ(reason, std::string(message.reason, sizeof(message.reason)));
}

TEST(kqs_messages, symbol_list_response_fields_are_where_the_server_puts_them) {
  const std::string symbol = "abcdefghijklmnopqrstuvwxyzAB";  // all 28 bytes
  const auto message = message_of<kqs_symbol_list_resp>("M?1\xF0" + symbol);
  EXPECT_EQ('M', message.type);
  EXPECT_EQ('1', message.end_mark);
  EXPECT_EQ(-16, int{message.instrument_type});
  EXPECT_EQ(symbol, std::string(message.symbol, sizeof(message.symbol)));
}

TEST(kqs_messages, symbol_response_fields_are_where_the_server_puts_them) {
  const std::string symbol = "abcdefghijklmnopqrstuvwxyzAB";
  const auto message = message_of<kqs_symbol_resp>("I2?\x80" + symbol);
  EXPECT_EQ('I', message.type);
  EXPECT_EQ('2', message.result);
  EXPECT_EQ(-128, int{message.instrument_type});
  EXPECT_EQ(symbol, std::string(message.symbol, sizeof(message.symbol)));
}

TEST(kqs_messages, quote_carries_the_record_at_offset_22_and_the_symbol_at_31) {
  std::string bytes(367, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i % 251);
  const auto message = message_of<kqs_quote>(bytes);
  EXPECT_EQ(1, int{message.instrument_type});
  EXPECT_EQ(bytes.substr(22), bytes_of(message.quote));
  EXPECT_EQ(bytes.substr(31, 31), std::string(message.quote.InstrumentID, 31));
}
