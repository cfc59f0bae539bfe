// Layouts of the messages, against bytes written out by hand.
#include <gtest/gtest.h>

#include "apps/sim/wire.h"
#include "tests/apps/sim_raw_client.h"

namespace kav_sim_test {

using kav_sim::text_fill;

TEST(sim_wire, client_messages_have_their_lengths_by_type) {
  EXPECT_EQ(56u, kav_sim::client_message_bytes('L'));
  EXPECT_EQ(13u, kav_sim::client_message_bytes('H'));
  EXPECT_EQ(8u, kav_sim::client_message_bytes('S'));
  EXPECT_EQ(32u, kav_sim::client_message_bytes('N'));
  EXPECT_EQ(32u, kav_sim::client_message_bytes('R'));
  for (const char type : {'A', 'Q', 'M', 'I', 'F', 'l', '\0'}) {
    EXPECT_EQ(0u, kav_sim::client_message_bytes(type)) << type;
  }
}

TEST(sim_wire, well_formed_client_messages_have_no_fault) {
  EXPECT_EQ("", kav_sim::client_message_fault(login_bytes("trader", k_abc_digest)));
  EXPECT_EQ("", kav_sim::client_message_fault(list_query_bytes()));
  EXPECT_EQ("", kav_sim::client_message_fault(heartbeat_bytes()));
  EXPECT_EQ("", kav_sim::client_message_fault(symbol_request_bytes('N', '1', "IF2509")));
  EXPECT_EQ("",
            kav_sim::client_message_fault(symbol_request_bytes('R', '1', std::string(19, 'a'))));
}

// Every byte that has one fixed value is looked at.
TEST(sim_wire, a_changed_fixed_byte_is_a_fault) {
  const auto changed_is_fault = [](std::string message, std::size_t at) {
    message[at] = static_cast<char>(message[at] ^ 0x11);
    return !kav_sim::client_message_fault(message).empty();
  };
  for (const std::size_t at :
       std::initializer_list<std::size_t>{0, 1, 2, 10, 18, 51, 52, 53, 54, 55}) {
    EXPECT_TRUE(changed_is_fault(login_bytes("trader", k_abc_digest), at)) << at;
  }
  for (std::size_t at = 0; at < 8; ++at) EXPECT_TRUE(changed_is_fault(list_query_bytes(), at));
  for (const std::size_t at : std::initializer_list<std::size_t>{0, 1, 2, 11, 12}) {
    EXPECT_TRUE(changed_is_fault(heartbeat_bytes(), at)) << at;
  }
  for (const std::size_t at : std::initializer_list<std::size_t>{0, 1, 30, 31}) {
    EXPECT_TRUE(changed_is_fault(symbol_request_bytes('N', '1', "IF2509"), at)) << at;
  }
}

TEST(sim_wire, texts_without_an_end_and_lower_case_digests_are_faults) {
  std::string login = login_bytes("0123456789abcdef", k_abc_digest);
  EXPECT_NE("", kav_sim::client_message_fault(login));
  login = login_bytes("trader", "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_NE("", kav_sim::client_message_fault(login));
  std::string request = symbol_request_bytes('N', '1', std::string(19, 'a'));
  request[22] = 'a';
  EXPECT_NE("", kav_sim::client_message_fault(request));
  EXPECT_NE("", kav_sim::client_message_fault(symbol_request_bytes('R', '1', "")));
}

TEST(sim_wire, login_answer_is_24_bytes_with_the_reason_at_2) {
  EXPECT_EQ("AY" + std::string(22, '\0'), kav_sim::login_answer_message('Y', "", text_fill::zero));
  EXPECT_EQ(padded("ANno", 24), kav_sim::login_answer_message('N', "no", text_fill::zero));
  EXPECT_EQ("ANno" + std::string(20, 'x'),
            kav_sim::login_answer_message('N', "no", text_fill::full_width));
  EXPECT_EQ("AN" + std::string(22, 'r'),
            kav_sim::login_answer_message('N', std::string(40, 'r'), text_fill::zero));
}

TEST(sim_wire, list_entries_carry_type_at_3_and_symbol_at_4_and_the_end_mark_is_at_2) {
  EXPECT_EQ(padded("M001IF2509", 32), kav_sim::list_entry_message('1', "IF2509", text_fill::zero));
  EXPECT_EQ(padded("M01", 32), kav_sim::list_end_message());
}

TEST(sim_wire, symbol_answers_carry_result_at_1_type_at_3_and_symbol_at_4) {
  const std::string answer =
      kav_sim::symbol_answer_message('I', '2', '\x81', "cs1709", text_fill::zero);
  EXPECT_EQ(padded(std::string("I2\0\x81", 4) + "cs1709", 32), answer);
  EXPECT_EQ(std::string("F0\0\x31", 4) + "cs" + std::string(26, 'x'),
            kav_sim::symbol_answer_message('F', '0', '1', "cs", text_fill::full_width));
}

TEST(sim_wire, heartbeat_carries_its_seconds_at_3_and_ends_in_cr_lf) {
  EXPECT_EQ(std::string("H\0\0\x08\x07\x06\x05\x04\x03\x02\x01\x0d\x0a", 13),
            kav_sim::heartbeat_message(0x0102030405060708));
  EXPECT_EQ(0x04030201, kav_sim::heartbeat_seconds(heartbeat_bytes()));
}

TEST(sim_wire, quote_is_367_bytes_with_the_record_at_22) {
  KAVMarketDepthQuoteData quote{};
  std::strcpy(quote.InstrumentID, "IF2509");
  quote.LastPrice = 3999.8;
  quote.AskVolume5 = 0x01020304;
  const std::string message = kav_sim::quote_message('1', quote, text_fill::zero);
  ASSERT_EQ(367u, message.size());
  EXPECT_EQ("Q1" + std::string(20, '\0'), message.substr(0, 22));
  EXPECT_EQ("IF2509", message.substr(31, 6));
  double last = 0;
  std::memcpy(&last, message.data() + 22 + 80, sizeof last);
  EXPECT_EQ(3999.8, last);
  EXPECT_EQ("\x04\x03\x02\x01", message.substr(22 + 333, 4));
}

TEST(sim_wire, full_width_quotes_hold_no_nul_in_any_text) {
  KAVMarketDepthQuoteData quote{};
  std::strcpy(quote.InstrumentID, "IF2509");
  const std::string message = kav_sim::quote_message('1', quote, text_fill::full_width);
  EXPECT_EQ(std::string::npos, message.substr(22, 80).find('\0'));
  EXPECT_EQ(std::string(9, 'x'), message.substr(22 + 204, 9));
  EXPECT_EQ("IF2509x", message.substr(31, 7));
  EXPECT_EQ(std::string(8, '\0'), message.substr(22 + 80, 8));
}

TEST(sim_wire, md5_gives_the_rfc_values_in_upper_case) {
  EXPECT_EQ("D41D8CD98F00B204E9800998ECF8427E", kav_sim::md5_text(""));
  EXPECT_EQ(k_abc_digest, kav_sim::md5_text("abc"));
  EXPECT_EQ("F96B697D7CB7938D525A2F31AAF161D0", kav_sim::md5_text("message digest"));
}

}  // namespace kav_sim_test
