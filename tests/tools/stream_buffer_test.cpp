#include "tools/stream_buffer.h"

#include <gtest/gtest.h>
#include <sys/resource.h>  // setrlimit
#include <sys/wait.h>      // waitpid
#include <unistd.h>        // fork, _exit

#include <algorithm>
#include <cstring>
#include <limits>
#include <numeric>
#include <random>
#include <string>
#include <thread>

namespace {

using VORLAN::TOOLS::stream_buffer;

std::string content(const stream_buffer& buffer) {
  return std::string(buffer.get_data_ptr(), buffer.get_data_len());
}

bool push(stream_buffer& buffer, const std::string& text) {
  return buffer.push_data(text.data(), text.size());
}

std::string text_of(std::size_t length, char first = 'a') {
  std::string text(length, first);
  for (std::size_t i = 0; i < length; ++i)
    text[i] = static_cast<char>(first + static_cast<int>(i % 23));
  return text;
}

// Free bytes behind the write position, without making room.
std::size_t tail_room(stream_buffer& buffer, std::size_t capacity) {
  buffer.reset_data_buf();
  return capacity - buffer.get_data_len();
}

}  // namespace

TEST(stream_buffer, starts_empty_with_the_capacity_asked_for) {
  stream_buffer buffer(100);
  EXPECT_EQ(0u, buffer.get_data_len());
  EXPECT_EQ(100u, buffer.get_reserve_len());
  EXPECT_EQ(buffer.get_data_ptr(), buffer.get_reserve_ptr());
}

TEST(stream_buffer, appends_behind_and_consumes_in_front) {
  stream_buffer buffer(16);
  EXPECT_TRUE(push(buffer, "abc"));
  EXPECT_TRUE(push(buffer, "def"));
  EXPECT_TRUE(buffer.pop_data(2));
  EXPECT_EQ("cdef", content(buffer));
}

TEST(stream_buffer, popping_exactly_what_is_live_returns_to_the_start) {
  stream_buffer buffer(16);
  char* const start = buffer.get_data_ptr();
  push(buffer, "abcdef");
  buffer.pop_data(6);
  EXPECT_EQ(0u, buffer.get_data_len());
  EXPECT_EQ(start, buffer.get_data_ptr());
  EXPECT_EQ(16u, buffer.get_reserve_len());
}

TEST(stream_buffer, popping_more_than_is_live_empties_it) {
  stream_buffer buffer(16);
  push(buffer, "abcdef");
  EXPECT_TRUE(buffer.pop_data(std::numeric_limits<std::size_t>::max()));
  EXPECT_EQ(0u, buffer.get_data_len());
  EXPECT_EQ(16u, buffer.get_reserve_len());
}

TEST(stream_buffer, moves_the_live_bytes_rather_than_growing) {
  stream_buffer buffer(16);
  char* const start = buffer.get_data_ptr();
  push(buffer, text_of(14));
  buffer.pop_data(10);
  EXPECT_TRUE(push(buffer, "0123456789"));
  EXPECT_EQ(start, buffer.get_data_ptr());
  EXPECT_EQ(text_of(14).substr(10) + "0123456789", content(buffer));
  EXPECT_EQ(2u, buffer.get_reserve_len());
}

TEST(stream_buffer, doubles_when_moving_does_not_suffice) {
  stream_buffer buffer(16);
  push(buffer, text_of(16));
  EXPECT_TRUE(push(buffer, "x"));
  EXPECT_EQ(15u, buffer.get_reserve_len());
  EXPECT_EQ(text_of(16) + "x", content(buffer));
}

TEST(stream_buffer, grows_to_exactly_what_is_needed_beyond_twice_its_capacity) {
  stream_buffer buffer(16);
  push(buffer, "abcd");
  buffer.pop_data(1);
  EXPECT_TRUE(push(buffer, text_of(40)));
  EXPECT_EQ("bcd" + text_of(40), content(buffer));
  EXPECT_EQ(0u, tail_room(buffer, 43));
  EXPECT_EQ(43u, buffer.get_reserve_len()) << "full at 43 bytes, then doubled";
}

TEST(stream_buffer, without_capacity_grows_to_exactly_the_first_push) {
  stream_buffer buffer(0);
  EXPECT_TRUE(push(buffer, "abc"));
  EXPECT_EQ("abc", content(buffer));
  EXPECT_TRUE(push(buffer, "d"));
  EXPECT_EQ(2u, buffer.get_reserve_len()) << "3 bytes doubled to 6, 4 in use";
}

TEST(stream_buffer, make_room_leaves_enough_room_alone) {
  stream_buffer buffer(16);
  push(buffer, "abcd");
  buffer.pop_data(2);
  const char* const live = buffer.get_data_ptr();
  EXPECT_EQ(12u, buffer.make_room(12));
  EXPECT_EQ(live, buffer.get_data_ptr());
}

TEST(stream_buffer, make_room_moves_the_live_bytes_when_that_suffices) {
  stream_buffer buffer(16);
  push(buffer, "abcd");
  buffer.pop_data(2);
  EXPECT_EQ(14u, buffer.make_room(13));
  EXPECT_EQ("cd", content(buffer));
}

TEST(stream_buffer, make_room_grows_when_moving_does_not_suffice) {
  stream_buffer buffer(16);
  push(buffer, "abcd");
  buffer.pop_data(2);
  EXPECT_EQ(30u, buffer.make_room(15)) << "doubled";
  EXPECT_EQ(100u, buffer.make_room(100)) << "to what is needed";
  EXPECT_EQ("cd", content(buffer));
}

TEST(stream_buffer, make_room_for_more_than_any_host_has_changes_nothing) {
  stream_buffer buffer(16);
  push(buffer, "abcd");
  EXPECT_EQ(0u, buffer.make_room(std::numeric_limits<std::size_t>::max()));
  EXPECT_EQ("abcd", content(buffer));
  EXPECT_EQ(12u, buffer.get_reserve_len());
}

TEST(stream_buffer, without_capacity_still_makes_room_for_a_reader) {
  stream_buffer buffer(0);
  EXPECT_GT(buffer.get_reserve_len(), 0u);
  std::memcpy(buffer.get_reserve_ptr(), "abc", 3);
  EXPECT_EQ(3u, buffer.fill_reserve_len(3));
  EXPECT_EQ("abc", content(buffer));
}

TEST(stream_buffer, takes_nothing_from_an_empty_push) {
  stream_buffer buffer(0);
  EXPECT_TRUE(buffer.push_data(nullptr, 0));
  EXPECT_TRUE(buffer.push_data("", 0));
  EXPECT_EQ(0u, buffer.get_data_len());
}

TEST(stream_buffer, refuses_bytes_from_null) {
  stream_buffer buffer(16);
  push(buffer, "abc");
  EXPECT_FALSE(buffer.push_data(nullptr, 1));
  EXPECT_EQ("abc", content(buffer));
}

TEST(stream_buffer, refuses_lengths_that_no_host_has) {
  stream_buffer buffer(16);
  push(buffer, "abc");
  const std::size_t most = std::numeric_limits<std::size_t>::max();
  for (const std::size_t length : {most, most - 2, most / 2, most / 4, std::size_t{1} << 41}) {
    EXPECT_FALSE(buffer.push_data("x", length)) << length;
  }
  EXPECT_FALSE(buffer.push_data("x", static_cast<std::size_t>(-1)));
  EXPECT_EQ("abc", content(buffer));
}

TEST(stream_buffer, fill_reserve_len_ends_at_the_capacity) {
  stream_buffer buffer(16);
  push(buffer, "abcd");
  std::memset(buffer.get_reserve_ptr(), 'x', 12);
  EXPECT_EQ(16u, buffer.fill_reserve_len(std::numeric_limits<std::size_t>::max()));
  EXPECT_EQ("abcdxxxxxxxxxxxx", content(buffer));
}

TEST(stream_buffer, get_reserve_len_moves_the_live_bytes_when_full) {
  stream_buffer buffer(16);
  push(buffer, text_of(16));
  buffer.pop_data(6);
  EXPECT_EQ(6u, buffer.get_reserve_len());
  EXPECT_EQ(text_of(16).substr(6), content(buffer));
}

TEST(stream_buffer, get_reserve_len_doubles_when_full_of_live_bytes) {
  stream_buffer buffer(16);
  push(buffer, text_of(16));
  EXPECT_EQ(16u, buffer.get_reserve_len());
  EXPECT_EQ(text_of(16), content(buffer));
}

TEST(stream_buffer, get_reserve_len_leaves_things_alone_while_there_is_room) {
  stream_buffer buffer(16);
  push(buffer, text_of(10));
  buffer.pop_data(5);
  char* const live = buffer.get_data_ptr();
  EXPECT_EQ(6u, buffer.get_reserve_len());
  EXPECT_EQ(live, buffer.get_data_ptr());
}

TEST(stream_buffer, reset_data_buf_moves_the_live_bytes_to_the_start) {
  stream_buffer buffer(64);
  char* const start = buffer.get_data_ptr();
  push(buffer, text_of(60));
  buffer.pop_data(7);
  EXPECT_TRUE(buffer.reset_data_buf());
  EXPECT_EQ(start, buffer.get_data_ptr());
  EXPECT_EQ(text_of(60).substr(7), content(buffer));
}

TEST(stream_buffer, clear_keeps_the_storage) {
  stream_buffer buffer(4);
  push(buffer, text_of(100));
  buffer.clear();
  EXPECT_EQ(0u, buffer.get_data_len());
  EXPECT_EQ(100u, buffer.get_reserve_len());
}

TEST(stream_buffer, reset_data_replaces_the_content) {
  stream_buffer buffer(16);
  push(buffer, "old bytes");
  EXPECT_TRUE(buffer.reset_data("new", 3));
  EXPECT_EQ("new", content(buffer));
  EXPECT_TRUE(buffer.reset_data("", 0));
  EXPECT_EQ(0u, buffer.get_data_len());
  EXPECT_FALSE(buffer.reset_data(nullptr, 3));
}

TEST(stream_buffer, reset_data_accepts_its_own_bytes) {
  stream_buffer buffer(64);
  push(buffer, text_of(64));
  buffer.pop_data(5);
  EXPECT_TRUE(buffer.reset_data(buffer.get_data_ptr(), 59));
  EXPECT_EQ(text_of(64).substr(5), content(buffer));
}

TEST(stream_buffer, mem_copy_copies_forwards_at_every_distance) {
  for (std::size_t to = 20; to <= 100; ++to) {
    std::string bytes = text_of(200);
    std::string expected = bytes;
    const std::size_t from = 60;
    for (std::size_t i = 0; i < 50; ++i) expected[to + i] = expected[from + i];
    stream_buffer::mem_copy(&bytes[to], &bytes[from], 50);
    EXPECT_EQ(expected, bytes) << to;
  }
}

TEST(stream_buffer, mem_copy_of_nothing_touches_nothing) {
  stream_buffer::mem_copy(nullptr, nullptr, 0);
  char byte = 'a';
  stream_buffer::mem_copy(&byte, "b", 0);
  EXPECT_EQ('a', byte);
}

TEST(stream_buffer, behaves_like_a_string_over_a_long_random_life) {
  std::mt19937 random(20240305);
  stream_buffer buffer(8);
  std::string model;
  for (int step = 0; step < 20000; ++step) {
    const std::size_t amount = random() % 200;
    switch (random() % 8) {
      case 0:
      case 1:
      case 2: {
        const std::string bytes = text_of(amount, "AKTZ"[random() % 4]);
        ASSERT_TRUE(push(buffer, bytes));
        model += bytes;
        break;
      }
      case 3:
      case 4:
      case 5: {
        buffer.pop_data(amount);
        model.erase(0, std::min(amount, model.size()));
        break;
      }
      case 6: {
        const std::size_t taken = std::min(amount, buffer.get_reserve_len());
        std::memset(buffer.get_reserve_ptr(), 'r', taken);
        buffer.fill_reserve_len(taken);
        model.append(taken, 'r');
        break;
      }
      default:
        buffer.reset_data_buf();
        if (amount == 0) model.clear(), buffer.clear();
    }
    ASSERT_EQ(model, content(buffer)) << step;
  }
}

TEST(stream_buffer, keeps_its_content_when_memory_is_short) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer's malloc does not fail";
#else
  constexpr std::size_t k_bytes = 64u << 20;
  stream_buffer buffer(k_bytes);
  ASSERT_EQ(k_bytes, buffer.get_reserve_len());
  buffer.fill_reserve_len(k_bytes);
  const pid_t child = ::fork();
  if (child == 0) {
    const rlimit none{1, 1};  // no further mapping
    ::setrlimit(RLIMIT_AS, &none);
    const bool held = buffer.get_reserve_len() == 0 && !buffer.push_data("x", 1) &&
                      buffer.get_data_len() == k_bytes;
    const bool starts_empty = stream_buffer(k_bytes).get_reserve_len() <= 2048;
    ::_exit(held && starts_empty ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
#endif
}

TEST(stream_buffer, passes_a_stream_between_two_threads) {
  constexpr std::size_t k_chunks = 2000;
  stream_buffer buffer(64);
  std::thread writer([&] {
    for (std::size_t i = 0; i < k_chunks; ++i) push(buffer, "0123456789");
  });
  std::size_t received = 0;
  bool ordered = true;
  while (received < k_chunks * 10) {
    buffer.lock_stream();
    const std::size_t length = buffer.get_data_len();
    for (std::size_t i = 0; i < length; ++i) {
      ordered = ordered && buffer.get_data_ptr()[i] == "0123456789"[(received + i) % 10];
    }
    buffer.pop_data(length);
    buffer.unlock_stream();
    received += length;
    if (length == 0) std::this_thread::yield();
  }
  writer.join();
  EXPECT_TRUE(ordered);
  EXPECT_EQ(0u, buffer.get_data_len());
}
