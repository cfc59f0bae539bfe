#include "tools/md5.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using namespace VORLAN::TOOLS;

std::string md5_text(const std::string& input) {
  char output[40];
  std::fill(std::begin(output), std::end(output), '#');
  encrypt_md5(input.data(), static_cast<int>(input.size()), output);
  EXPECT_EQ('\0', output[32]);
  EXPECT_EQ('#', output[33]) << "wrote beyond 33 bytes";
  return output;
}

void update(md5_context& context, const std::string& input) {
  md5_update(&context, reinterpret_cast<const unsigned char*>(input.data()), input.size());
}

std::string finish_text(md5_context& context) {
  unsigned char digest[16];
  md5_finish(&context, digest);
  std::string text;
  for (const unsigned char byte : digest) {
    text += "0123456789ABCDEF"[byte >> 4];
    text += "0123456789ABCDEF"[byte & 15];
  }
  return text;
}

}  // namespace

TEST(md5, empty_input_gives_the_rfc_value) {
  EXPECT_EQ("D41D8CD98F00B204E9800998ECF8427E", md5_text(""));
}

TEST(md5, the_other_rfc_values_hold) {
  EXPECT_EQ("0CC175B9C0F1B6A831C399E269772661", md5_text("a"));
  EXPECT_EQ("900150983CD24FB0D6963F7D28E17F72", md5_text("abc"));
  EXPECT_EQ("F96B697D7CB7938D525A2F31AAF161D0", md5_text("message digest"));
  EXPECT_EQ("C3FCD3D76192E4007DFB496CCA67E13B", md5_text("abcdefghijklmnopqrstuvwxyz"));
  EXPECT_EQ("D174AB98D277D9F5A5611C2C9F419D9F",
            md5_text("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"));
  EXPECT_EQ("57EDF4A22BE3C955AC49DA2E2107B67A",
            md5_text("1234567890123456789012345678901234567890"
                     "1234567890123456789012345678901234567890"));
}

TEST(md5, holds_around_the_block_and_padding_limits) {
  EXPECT_EQ("EF1772B6DFF9A122358552954AD0DF65", md5_text(std::string(55, 'a')));
  EXPECT_EQ("3B0C8AC703F828B04C6C197006D17218", md5_text(std::string(56, 'a')));
  EXPECT_EQ("652B906D60AF96844EBD21B674F35E93", md5_text(std::string(57, 'a')));
  EXPECT_EQ("B06521F39153D618550606BE297466D5", md5_text(std::string(63, 'a')));
  EXPECT_EQ("014842D480B571495A4A0363793F7367", md5_text(std::string(64, 'a')));
  EXPECT_EQ("C743A45E0D2E6A95CB859ADAE0248435", md5_text(std::string(65, 'a')));
  EXPECT_EQ("7707D6AE4E027C70EEA2A935C2296F21", md5_text(std::string(1000000, 'a')));
}

TEST(md5, hashes_every_byte_value) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  EXPECT_EQ("E2C865DB4162BED963BFAA9EF6AC18F0", md5_text(all));
}

TEST(md5, chunks_of_any_size_give_the_digest_of_the_whole) {
  std::string whole;
  for (int i = 0; i < 500; ++i) whole += static_cast<char>(i * 7);
  const std::string expected = md5_text(whole);
  for (std::size_t chunk = 1; chunk <= 200; ++chunk) {
    md5_context context;
    md5_starts(&context);
    for (std::size_t at = 0; at < whole.size(); at += chunk)
      update(context, whole.substr(at, chunk));
    EXPECT_EQ(whole.size(), context.total[0]);
    EXPECT_EQ(expected, finish_text(context)) << chunk;
  }
}

TEST(md5, reads_no_byte_beyond_its_input) {
  for (std::size_t length = 1; length <= 130; ++length) {
    const std::vector<char> exact(length, 'a');  // the sanitizer sees a byte too many
    char output[33];
    encrypt_md5(exact.data(), static_cast<int>(length), output);
    EXPECT_EQ(md5_text(std::string(length, 'a')), output);
  }
}

TEST(md5, starts_with_the_rfc_state) {
  md5_context context;
  md5_starts(&context);
  EXPECT_EQ(0u, context.total[0]);
  EXPECT_EQ(0u, context.total[1]);
  EXPECT_EQ(0x67452301u, context.state[0]);
  EXPECT_EQ(0xEFCDAB89u, context.state[1]);
  EXPECT_EQ(0x98BADCFEu, context.state[2]);
  EXPECT_EQ(0x10325476u, context.state[3]);
}

TEST(md5, context_is_made_of_64_bit_words) {
  EXPECT_EQ(112u, sizeof(md5_context));
  EXPECT_EQ(8u, sizeof(md5_context::state) / 4);
}

TEST(md5, carries_from_the_low_word_of_the_length) {
  md5_context context;
  md5_starts(&context);
  context.total[0] = 0xFFFFFFC0;
  update(context, std::string(128, 'a'));
  EXPECT_EQ(64u, context.total[0]);
  EXPECT_EQ(1u, context.total[1]);
  EXPECT_EQ("5255268CAF38BA8D1F29D14D5CA172EF", finish_text(context));
}

TEST(md5, counts_bits_modulo_two_to_the_64) {
  md5_context context;
  md5_starts(&context);
  context.total[0] = 0xFFFFFFC0;
  context.total[1] = 0x1FFFFFFF;
  update(context, std::string(70, 'a'));
  EXPECT_EQ("72E1668C6D552D59A94274758E076C9F", finish_text(context));
}

TEST(md5, ignores_the_high_bits_of_the_state_words) {
  md5_context plain;
  md5_context dirty;
  md5_starts(&plain);
  md5_starts(&dirty);
  for (std::uint64_t& word : dirty.state) word |= std::uint64_t{0xDEADBEEF} << 32;
  update(plain, std::string(100, 'x'));
  update(dirty, std::string(100, 'x'));
  EXPECT_EQ(finish_text(plain), finish_text(dirty));
}

TEST(md5, process_compresses_one_block_as_update_does) {
  const std::string block(64, 'b');
  md5_context updated;
  md5_context processed;
  md5_starts(&updated);
  md5_starts(&processed);
  update(updated, block);
  md5_process(&processed, reinterpret_cast<const unsigned char*>(block.data()));
  for (int i = 0; i < 4; ++i) EXPECT_EQ(updated.state[i], processed.state[i]);
}

TEST(encrypt_md5, takes_a_negative_length_and_null_as_no_bytes) {
  char output[33];
  encrypt_md5("abc", -1, output);
  EXPECT_EQ(md5_text(""), output);
  encrypt_md5("abc", INT_MIN, output);
  EXPECT_EQ(md5_text(""), output);
  encrypt_md5(nullptr, 0, output);
  EXPECT_EQ(md5_text(""), output);
  encrypt_md5(nullptr, 10, output);
  EXPECT_EQ(md5_text(""), output);
}

TEST(encrypt_md5, ignores_a_null_output) {
  encrypt_md5("abc", 3, nullptr);
  SUCCEED();
}

TEST(encrypt_md5, hashes_exactly_the_length_asked_for) {
  char output[33];
  encrypt_md5("abcdef", 3, output);
  EXPECT_STREQ("900150983CD24FB0D6963F7D28E17F72", output);
}
