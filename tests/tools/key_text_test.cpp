#include "tools/key_text.h"

#include <gtest/gtest.h>

#include <algorithm>  // std::copy
#include <cstdint>    // std::uint64_t
#include <memory>     // std::unique_ptr
#include <random>     // std::mt19937
#include <string>     // std::string

namespace {

using VORLAN::TOOLS::hash_text;
using VORLAN::TOOLS::same_text;

// In a heap block of exactly its size, so that AddressSanitizer sees a read behind it.
class heap_text {
 public:
  explicit heap_text(const std::string& text) : m_text(new char[text.size()]), m_size(text.size()) {
    std::copy(text.begin(), text.end(), m_text.get());
  }
  std::uint64_t hash() const { return hash_text(m_text.get(), m_size); }
  bool operator==(const heap_text& other) const {
    return same_text(m_text.get(), other.m_text.get(), m_size);
  }

 private:
  const std::unique_ptr<char[]> m_text;
  const std::size_t m_size;
};

std::uint64_t hash_by_character(const std::string& text) {
  std::uint64_t hash = 0;
  for (const char c : text) {
    hash = hash * 33 + static_cast<std::uint64_t>(static_cast<signed char>(c));
  }
  return hash;
}

std::string random_text(std::mt19937& dice, std::size_t length) {
  std::string text(length, '\0');
  for (char& c : text) c = static_cast<char>(1 + dice() % 255);
  return text;
}

TEST(key_text, hashes_as_one_character_after_the_other_would) {
  EXPECT_EQ(0u, heap_text("").hash());
  EXPECT_EQ(3299u, heap_text("ab").hash());
  EXPECT_EQ(static_cast<std::uint64_t>(-1), heap_text("\xff").hash());
  std::mt19937 dice(1);
  for (std::size_t length = 0; length <= 130; ++length) {
    for (int i = 0; i < 50; ++i) {
      const std::string text = random_text(dice, length);
      ASSERT_EQ(hash_by_character(text), heap_text(text).hash()) << "length " << length;
    }
    for (const char extreme : {'\x01', '\x7f', '\x80', '\xff'}) {
      const std::string text(length, extreme);
      ASSERT_EQ(hash_by_character(text), heap_text(text).hash()) << "length " << length;
    }
  }
}

TEST(key_text, sees_a_difference_in_every_place) {
  std::mt19937 dice(2);
  for (std::size_t length = 0; length <= 40; ++length) {
    const std::string text = random_text(dice, length);
    EXPECT_TRUE(heap_text(text) == heap_text(text)) << "length " << length;
    for (std::size_t at = 0; at < length; ++at) {
      std::string other = text;
      other[at] = static_cast<char>(other[at] ^ (1 << dice() % 8));
      EXPECT_FALSE(heap_text(text) == heap_text(other)) << length << " characters, at " << at;
    }
  }
}

}  // namespace
