// The digest of a password as text, beside the system's MD5 library with the same work around it.
#include "tools/md5.h"

#include <md5.h>  // MD5_CTX, MD5Init, MD5Update, MD5Final

#include <array>   // std::array
#include <string>  // std::string

#include "bench/pieces/piece.h"

namespace {

using digest_text = std::array<char, 33>;

void digest_libmd(const std::string& password, digest_text& text) {
  MD5_CTX context;
  MD5Init(&context);
  MD5Update(&context, reinterpret_cast<const std::uint8_t*>(password.data()), password.size());
  std::uint8_t digest[MD5_DIGEST_LENGTH];
  MD5Final(digest, &context);
  static const char digits[] = "0123456789ABCDEF";
  std::size_t at = 0;
  for (const std::uint8_t byte : digest) {
    text[at++] = digits[byte >> 4];
    text[at++] = digits[byte & 15];
  }
  text[at] = '\0';
}

void digest_kav(const std::string& password, digest_text& text) {
  VORLAN::TOOLS::encrypt_md5(password.data(), static_cast<int>(password.size()), text.data());
}

template <void (*DIGEST)(const std::string&, digest_text&)>
void run(benchmark::State& state, std::size_t length) {
  std::string password(length, 'p');
  digest_text text{};
  for ([[maybe_unused]] auto _ : state) {
    DIGEST(password, text);
    password[0] = text[0];  // the next one is another
  }
  benchmark::DoNotOptimize(text);
}

constexpr std::size_t k_lengths[] = {8, 16, 32};

const kav_bench::at_start k_passwords([] {
  for (const std::size_t length : k_lengths) {
    kav_bench::add_piece("md5/password", length, "kav", run<digest_kav>);
    kav_bench::add_piece("md5/password", length, "libmd", run<digest_libmd>);
  }
});

}  // namespace
