#include "tools/md5.h"

#include <strings.h>  // explicit_bzero

#include <algorithm>  // min
#include <cstddef>    // size_t
#include <cstring>    // memcpy, memset

namespace VORLAN {
namespace TOOLS {

namespace {

constexpr std::size_t k_block_bytes = 64;
constexpr std::size_t k_length_offset = 56;  // where the last block holds the length in bits
constexpr std::uint64_t k_low_word = 0xFFFFFFFF;

// floor(2^32 * abs(sin(i + 1)))
constexpr std::uint32_t k_sines[64] = {
    0xD76AA478, 0xE8C7B756, 0x242070DB, 0xC1BDCEEE, 0xF57C0FAF, 0x4787C62A, 0xA8304613, 0xFD469501,
    0x698098D8, 0x8B44F7AF, 0xFFFF5BB1, 0x895CD7BE, 0x6B901122, 0xFD987193, 0xA679438E, 0x49B40821,
    0xF61E2562, 0xC040B340, 0x265E5A51, 0xE9B6C7AA, 0xD62F105D, 0x02441453, 0xD8A1E681, 0xE7D3FBC8,
    0x21E1CDE6, 0xC33707D6, 0xF4D50D87, 0x455A14ED, 0xA9E3E905, 0xFCEFA3F8, 0x676F02D9, 0x8D2A4C8A,
    0xFFFA3942, 0x8771F681, 0x6D9D6122, 0xFDE5380C, 0xA4BEEA44, 0x4BDECFA9, 0xF6BB4B60, 0xBEBFBC70,
    0x289B7EC6, 0xEAA127FA, 0xD4EF3085, 0x04881D05, 0xD9D4D039, 0xE6DB99E5, 0x1FA27CF8, 0xC4AC5665,
    0xF4292244, 0x432AFF97, 0xAB9423A7, 0xFC93A039, 0x655B59C3, 0x8F0CCC92, 0xFFEFF47D, 0x85845DD1,
    0x6FA87E4F, 0xFE2CE6E0, 0xA3014314, 0x4E0811A1, 0xF7537E82, 0xBD3AF235, 0x2AD7D2BB, 0xEB86D391};

// Left rotations of the four rounds, repeating every four steps.
constexpr int k_rotations[4][4] = {
    {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

struct chain {
  std::uint32_t a, b, c, d;
};

std::uint32_t load_word(const unsigned char* bytes) {
  return std::uint32_t{bytes[0]} | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 |
         std::uint32_t{bytes[3]} << 24;
}

void store_word(unsigned char* bytes, std::uint64_t word) {
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<unsigned char>(word >> (8 * i));
}

// Sixteen steps: `mix` is the round's function of B, C and D, and step i reads the word
// first + stride * i.
template <class MIX>
void run_round(chain& v, const std::uint32_t* words, unsigned round, unsigned first,
               unsigned stride, MIX mix) {
  for (unsigned i = 0; i < 16; ++i) {
    const std::uint32_t sum =
        v.a + mix(v.b, v.c, v.d) + words[(first + stride * i) % 16] + k_sines[16 * round + i];
    const int rotation = k_rotations[round][i % 4];
    const std::uint32_t turned = sum << rotation | sum >> (32 - rotation);
    v = {v.d, v.b + turned, v.b, v.c};
  }
}

void run_rounds(chain& v, const std::uint32_t* words) {
  using word = std::uint32_t;
  run_round(v, words, 0, 0, 1, [](word b, word c, word d) { return d ^ (b & (c ^ d)); });
  run_round(v, words, 1, 1, 5, [](word b, word c, word d) { return c ^ (d & (b ^ c)); });
  run_round(v, words, 2, 5, 3, [](word b, word c, word d) { return b ^ c ^ d; });
  run_round(v, words, 3, 0, 7, [](word b, word c, word d) { return c ^ (b | ~d); });
}

std::uint32_t low_word(std::uint64_t word) { return static_cast<std::uint32_t>(word); }

std::size_t collected_bytes(const md5_context& context) {
  return static_cast<std::size_t>(context.total[0] % k_block_bytes);
}

void count_bytes(md5_context& context, std::uint64_t length) {
  const std::uint64_t low = (context.total[0] & k_low_word) + (length & k_low_word);
  context.total[0] = low & k_low_word;
  context.total[1] += (length >> 32) + (low >> 32);
}

// What was copied may lie in vector registers still, which the dynamic linker and signals put on
// the stack. Those of the compiler's code are emptied here; the C library may have used wider ones,
// which a copy of the same length overwrites.
void forget_copied_bytes(md5_context& context, std::size_t length) {
  static const unsigned char zeros[k_block_bytes] = {};
  std::memcpy(context.buffer, zeros, length % k_block_bytes);
  ::explicit_bzero(&context, sizeof(context));
  asm volatile(
      "pxor %%xmm0, %%xmm0\n pxor %%xmm1, %%xmm1\n pxor %%xmm2, %%xmm2\n pxor %%xmm3, %%xmm3\n"
      "pxor %%xmm4, %%xmm4\n pxor %%xmm5, %%xmm5\n pxor %%xmm6, %%xmm6\n pxor %%xmm7, %%xmm7\n"
      "pxor %%xmm8, %%xmm8\n pxor %%xmm9, %%xmm9\n pxor %%xmm10, %%xmm10\n pxor %%xmm11, %%xmm11\n"
      "pxor %%xmm12, %%xmm12\n pxor %%xmm13, %%xmm13\n pxor %%xmm14, %%xmm14\n"
      "pxor %%xmm15, %%xmm15"
      :
      :
      : "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9", "xmm10",
        "xmm11", "xmm12", "xmm13", "xmm14", "xmm15");
}

}  // namespace

void md5_starts(md5_context* context) {
  *context = md5_context{{0, 0}, {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476}, {}};
}

void md5_process(md5_context* context, const unsigned char* block) {
  std::uint32_t words[16];
  for (std::size_t i = 0; i < 16; ++i) words[i] = load_word(block + 4 * i);
  std::uint64_t* const state = context->state;
  chain v{low_word(state[0]), low_word(state[1]), low_word(state[2]), low_word(state[3])};
  run_rounds(v, words);
  state[0] = low_word(state[0] + v.a);
  state[1] = low_word(state[1] + v.b);
  state[2] = low_word(state[2] + v.c);
  state[3] = low_word(state[3] + v.d);
  ::explicit_bzero(words, sizeof(words));  // the input may be a secret
}

void md5_update(md5_context* context, const unsigned char* input, unsigned long length) {
  if (length == 0 || input == nullptr) return;
  std::size_t collected = collected_bytes(*context);
  count_bytes(*context, length);
  if (collected > 0) {
    const std::size_t taken = std::min<std::size_t>(length, k_block_bytes - collected);
    std::memcpy(context->buffer + collected, input, taken);
    if (collected + taken < k_block_bytes) return;
    md5_process(context, context->buffer);
    input += taken;
    length -= taken;
  }
  for (; length >= k_block_bytes; input += k_block_bytes, length -= k_block_bytes) {
    md5_process(context, input);
  }
  if (length > 0) std::memcpy(context->buffer, input, length);
}

void md5_finish(md5_context* context, unsigned char* digest) {
  // The length is read first: padding counts as input below.
  unsigned char bit_length[8];
  store_word(bit_length, context->total[0] << 3);
  store_word(bit_length + 4, (context->total[0] & k_low_word) >> 29 | context->total[1] << 3);

  static const unsigned char padding[k_block_bytes] = {0x80};
  const std::size_t collected = collected_bytes(*context);
  md5_update(context, padding,
             (k_length_offset + k_block_bytes - 1 - collected) % k_block_bytes + 1);
  md5_update(context, bit_length, sizeof(bit_length));
  for (std::size_t i = 0; i < 4; ++i) store_word(digest + 4 * i, context->state[i]);
}

void encrypt_md5(const char* input, int length, char* output) {
  if (output == nullptr) return;
  md5_context context;
  md5_starts(&context);
  const unsigned long bytes = length > 0 ? static_cast<unsigned long>(length) : 0;
  md5_update(&context, reinterpret_cast<const unsigned char*>(input), bytes);
  unsigned char digest[16];
  md5_finish(&context, digest);
  static const char digits[] = "0123456789ABCDEF";
  for (std::size_t i = 0; i < 16; ++i) {
    output[2 * i] = digits[digest[i] >> 4];
    output[2 * i + 1] = digits[digest[i] & 15];
  }
  output[32] = '\0';
  ::explicit_bzero(digest, sizeof(digest));
  forget_copied_bytes(context, bytes);
}

}  // namespace TOOLS
}  // namespace VORLAN
