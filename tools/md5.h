// The MD5 message digest (RFC 1321).
#pragma once

#include <cstdint>  // uint64_t

namespace VORLAN {
namespace TOOLS {

// A digest in the making. Only the low 32 bits of the words in `state` mean anything.
struct md5_context {
  std::uint64_t total[2];    // bytes so far: low word (kept to 32 bits), high word
  std::uint64_t state[4];    // A, B, C, D
  unsigned char buffer[64];  // the block being collected
};

// In this order: start, update as often as there is input, finish. One context per thread.
void md5_starts(md5_context* context);
void md5_update(md5_context* context, const unsigned char* input, unsigned long length);

// The compression of one 64-byte block.
void md5_process(md5_context* context, const unsigned char* block);

// Pads and writes the 16 bytes of the digest; the context is used up.
void md5_finish(md5_context* context, unsigned char* digest);

// The digest of `length` bytes as 32 upper-case hexadecimal digits and a NUL: `output` holds at
// least 33 bytes. A negative length and a null input count as no bytes. Leaves no copy of the
// input behind in memory. Any thread.
void encrypt_md5(const char* input, int length, char* output);

}  // namespace TOOLS
}  // namespace VORLAN
