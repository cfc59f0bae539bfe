#include "tools/helpers.h"

#include <gtest/gtest.h>
#include <sys/wait.h>  // waitpid
#include <unistd.h>    // dup, dup2, getpid, pipe, read, _exit

#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace {

// Not the whole namespace: its to_string would meet others.
namespace T = VORLAN::TOOLS;

// A file in the test's temporary directory, removed afterwards.
class temporary_file {
 public:
  explicit temporary_file(const std::string& name)
      : m_path(testing::TempDir() + "kav_" + std::to_string(::getpid()) + "_" + name) {
    std::ofstream(m_path) << "content";
  }
  ~temporary_file() { std::remove(m_path.c_str()); }
  temporary_file(const temporary_file&) = delete;
  temporary_file& operator=(const temporary_file&) = delete;

  const std::string& path() const { return m_path; }

 private:
  std::string m_path;
};

// What `run` and the processes that it starts write to standard output.
template <class RUN>
std::string captured_output(RUN run) {
  int ends[2];
  if (::pipe(ends) != 0) return "no pipe";
  std::fflush(stdout);
  const int saved = ::dup(STDOUT_FILENO);
  ::dup2(ends[1], STDOUT_FILENO);
  ::close(ends[1]);
  run();
  ::dup2(saved, STDOUT_FILENO);
  ::close(saved);
  std::string output;
  char chunk[256];
  for (ssize_t got; (got = ::read(ends[0], chunk, sizeof(chunk))) > 0;) {
    output.append(chunk, static_cast<std::size_t>(got));
  }
  ::close(ends[0]);
  return output;
}

std::vector<std::string> split(const char* text, const std::string& delimiters) {
  std::vector<std::string> pieces{"old"};
  EXPECT_TRUE(T::string_split(text, pieces, delimiters));
  return pieces;
}

using texts = std::vector<std::string>;

}  // namespace

TEST(strncpy_vl, cuts_to_the_field_and_terminates) {
  char field[8];
  std::memset(field, '#', sizeof(field));
  T::strncpy_vl(field, 4, "ABCDEFG");
  EXPECT_EQ(std::string("ABC\0####", 8), std::string(field, 8));
}

TEST(strncpy_vl, of_size_1_stores_only_the_terminator) {
  char field[2] = {'#', '#'};
  T::strncpy_vl(field, 1, "anything");
  EXPECT_EQ('\0', field[0]);
  EXPECT_EQ('#', field[1]);
}

TEST(strncpy_vl, of_size_0_has_no_limit) {
  char field[32];
  T::strncpy_vl(field, 0, "longer than nothing");
  EXPECT_STREQ("longer than nothing", field);
}

TEST(strncpy_vl, writes_nothing_behind_the_terminator) {
  char field[8];
  std::memset(field, '#', sizeof(field));
  T::strncpy_vl(field, sizeof(field), "ab");
  EXPECT_EQ(std::string("ab\0#####", 8), std::string(field, 8));
}

TEST(strncpy_vl, reads_a_field_without_terminator_up_to_its_end) {
  const std::vector<char> field(16, 'x');
  char copy[16];
  T::strncpy_vl(copy, sizeof(copy), field.data());
  EXPECT_EQ(std::string(15, 'x'), copy);
}

TEST(strncpy_vl, of_null_stores_an_empty_text) {
  char field[4] = "abc";
  T::strncpy_vl(field, sizeof(field), nullptr);
  EXPECT_STREQ("", field);
  field[0] = 'z';
  T::strncpy_vl(field, 0, nullptr);
  EXPECT_EQ('z', field[0]);
  T::strncpy_vl(nullptr, 4, "abc");
}

TEST(snprintf_vl, returns_what_is_stored) {
  char buffer[10];
  EXPECT_EQ(9, T::snprintf_vl(buffer, sizeof(buffer), "%s", "12345678901234567890"));
  EXPECT_STREQ("123456789", buffer);
  EXPECT_EQ(4, T::snprintf_vl(buffer, sizeof(buffer), "%d-%c", 12, 'x'));
  EXPECT_STREQ("12-x", buffer);
  EXPECT_EQ(0, T::snprintf_vl(buffer, 1, "%d", 12));
  EXPECT_EQ(1, T::snprintf_vl(buffer, sizeof(buffer), "a%cb", 0)) << "a text ends at its NUL";
}

TEST(snprintf_vl, refuses_null_and_no_room) {
  char buffer[4] = "abc";
  EXPECT_EQ(0, T::snprintf_vl(buffer, 0, "%d", 1));
  EXPECT_STREQ("abc", buffer);
  EXPECT_EQ(0, T::snprintf_vl(nullptr, 4, "%d", 1));
  const char* const none = nullptr;
  EXPECT_EQ(0, T::snprintf_vl(buffer, sizeof(buffer), none));
  EXPECT_STREQ("", buffer);
}

TEST(snprintf_vl, stores_an_empty_text_for_a_format_that_cannot_be_printed) {
  char buffer[16] = "abc";
  const wchar_t impossible[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
  EXPECT_EQ(0, T::snprintf_vl(buffer, sizeof(buffer), "%ls", impossible));
  EXPECT_STREQ("", buffer);
}

TEST(format_str, gives_the_text_up_to_40959_characters) {
  EXPECT_EQ("7 and x", T::format_str("%d and %s", 7, "x"));
  const std::string longer(50000, 'l');
  EXPECT_EQ(std::string(40959, 'l'), T::format_str("%s", longer.c_str()));
  const char* const none = nullptr;
  EXPECT_EQ("", T::format_str(none));
}

TEST(format_pchar, reuses_the_buffer_of_the_thread) {
  char* const first = T::format_pchar("%d", 1);
  EXPECT_STREQ("1", first);
  EXPECT_EQ(first, T::format_pchar("%d", 2));
  EXPECT_STREQ("2", first);
  const std::string longer(50000, 'l');
  EXPECT_EQ(40959u, std::strlen(T::format_pchar("%s", longer.c_str())));
}

TEST(format_pchar, gives_each_thread_its_own_buffer) {
  char* const mine = T::format_pchar("%s", "mine");
  char* others = nullptr;
  std::thread([&] { others = T::format_pchar("%s", "others"); }).join();
  EXPECT_NE(mine, others);
  EXPECT_STREQ("mine", mine);
  EXPECT_STREQ("others", others) << "the buffer outlives its thread";
}

TEST(format_pchar, serves_more_threads_than_its_first_table_has_buckets) {
  constexpr int k_threads = 70;
  std::vector<std::thread> threads;
  threads.reserve(k_threads);
  std::vector<int> wrong(k_threads, 0);
  for (int t = 0; t < k_threads; ++t) {
    threads.emplace_back([&wrong, t] {
      const std::string expected = "thread " + std::to_string(t);
      for (int i = 0; i < 100; ++i) {
        if (expected != T::format_pchar("thread %d", t)) ++wrong[static_cast<std::size_t>(t)];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::vector<int>(k_threads, 0), wrong);
}

TEST(sleep_vl, pauses_for_the_milliseconds) {
  const auto begin = std::chrono::steady_clock::now();
  T::sleep_vl(5);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(5));
}

TEST(sleep_vl, wraps_in_32_bits) {
  const auto begin = std::chrono::steady_clock::now();
  T::sleep_vl(4294968);  // 4294968000 us are 704 more than 2^32
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
}

TEST(libraries, are_loaded_searched_and_freed) {
  void* const handle = T::load_library("libm.so.6");
  ASSERT_NE(nullptr, handle);
  EXPECT_NE(nullptr, T::get_function_address(handle, "cos"));
  EXPECT_EQ(nullptr, T::get_function_address(handle, "no_such_function_here"));
  EXPECT_NE(nullptr, T::get_dll_error());
  EXPECT_EQ(nullptr, T::get_dll_error()) << "an error is told once";
  EXPECT_EQ(nullptr, T::get_function_address(handle, nullptr));
  EXPECT_EQ(0, T::free_library(handle));
}

TEST(libraries, that_do_not_exist_are_null) {
  EXPECT_EQ(nullptr, T::load_library("/no/such/library.so"));
  const char* const error = T::get_dll_error();
  ASSERT_NE(nullptr, error);
  EXPECT_NE(nullptr, std::strstr(error, "/no/such/library.so"));
  EXPECT_NE(0, T::free_library(nullptr));
}

TEST(create_process_vl, runs_the_program_with_its_odd_argument_vector) {
  int status = -1;
  const std::string output = captured_output([&] {
    const int child = T::create_process_vl("/bin/cat", "/proc/self/cmdline");
    ASSERT_GT(child, 0);
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
  });
  EXPECT_EQ(0, status);
  EXPECT_EQ(std::string("%s\0/proc/self/cmdline\0", 22), output);
}

TEST(create_process_vl, returns_minus_one_in_the_child_when_the_program_cannot_run) {
  const pid_t parent = ::getpid();
  const int result = T::create_process_vl("/no/such/program", "argument");
  if (::getpid() != parent) ::_exit(result == -1 ? 42 : 43);
  ASSERT_GT(result, 0);
  int status = 0;
  ASSERT_EQ(result, ::waitpid(result, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(42, WEXITSTATUS(status));
}

TEST(create_process_vl, refuses_a_null_path) { EXPECT_EQ(-1, T::create_process_vl(nullptr, "x")); }

TEST(localtime_vl, fills_the_record_that_it_returns) {
  const time_t seconds = 1709600823;
  tm expected{};
  tm result{};
  ::localtime_r(&seconds, &expected);
  EXPECT_EQ(&result, T::localtime_vl(seconds, &result));
  EXPECT_EQ(expected.tm_hour, result.tm_hour);
  EXPECT_EQ(124, result.tm_year);
  tm other{};
  EXPECT_EQ(&other, T::localtime_vl(&seconds, &other));
  EXPECT_EQ(expected.tm_min, other.tm_min);
}

TEST(localtime_vl, refuses_null_and_years_that_do_not_fit) {
  tm result{};
  const time_t* const none = nullptr;
  EXPECT_EQ(nullptr, T::localtime_vl(none, &result));
  EXPECT_EQ(nullptr, T::localtime_vl(time_t{5}, nullptr));
  EXPECT_EQ(nullptr, T::localtime_vl(std::numeric_limits<time_t>::max(), &result));
}

TEST(file_exists, tells_files_and_directories_from_nothing) {
  const temporary_file file("exists");
  EXPECT_TRUE(T::file_exists(file.path().c_str()));
  EXPECT_TRUE(T::file_exists("/"));
  EXPECT_FALSE(T::file_exists((file.path() + "_not").c_str()));
  EXPECT_FALSE(T::file_exists(""));
  EXPECT_FALSE(T::file_exists(nullptr));
}

TEST(move_file_vl, renames) {
  const temporary_file from("from");
  const temporary_file to("to");
  EXPECT_TRUE(T::move_file_vl(from.path().c_str(), to.path().c_str()));
  EXPECT_FALSE(T::file_exists(from.path().c_str()));
  EXPECT_FALSE(T::move_file_vl(from.path().c_str(), to.path().c_str()));
  EXPECT_TRUE(T::file_exists(to.path().c_str()));
  EXPECT_FALSE(T::move_file_vl(nullptr, "x"));
  EXPECT_FALSE(T::move_file_vl("x", nullptr));
}

TEST(rm_old_file, is_true_and_leaves_every_file) {
  const temporary_file file("old");
  EXPECT_TRUE(T::rm_old_file(testing::TempDir().c_str(), std::numeric_limits<int>::max()));
  EXPECT_TRUE(T::rm_old_file(file.path().c_str(), 0));
  EXPECT_TRUE(T::rm_old_file("/no/such/directory", -1));
  EXPECT_TRUE(T::rm_old_file(nullptr, 0));
  EXPECT_TRUE(T::file_exists(file.path().c_str()));
}

TEST(atoi64_vl, reads_decimal_numbers) {
  EXPECT_EQ(-12, T::atoi64_vl(" -12x"));
  EXPECT_EQ(LLONG_MAX, T::atoi64_vl("9223372036854775807"));
  EXPECT_EQ(LLONG_MAX, T::atoi64_vl("9223372036854775808"));
  EXPECT_EQ(0, T::atoi64_vl("x"));
  EXPECT_EQ(0, T::atoi64_vl(nullptr));
  EXPECT_EQ(ULLONG_MAX, T::atou64_vl("18446744073709551615"));
  EXPECT_EQ(8u, T::atou64_vl("08")) << "never octal";
  EXPECT_EQ(0u, T::atou64_vl(nullptr));
}

TEST(to_string, prints_decimal) {
  EXPECT_EQ("0", T::to_string(0));
  EXPECT_EQ("-2147483648", T::to_string(INT_MIN));
}

TEST(convert, prints_numbers_as_a_stream_does) {
  std::string text = "old";
  EXPECT_TRUE(T::convert(-7, text));
  EXPECT_EQ("-7", text);
  EXPECT_TRUE(T::convert(LLONG_MIN, text));
  EXPECT_EQ("-9223372036854775808", text);
  EXPECT_TRUE(T::convert(1.5f, text));
  EXPECT_EQ("1.5", text);
  EXPECT_TRUE(T::convert(3.14159265, text));
  EXPECT_EQ("3.14159", text);
  EXPECT_TRUE(T::convert(1234567.0, text));
  EXPECT_EQ("1.23457e+06", text);
  EXPECT_TRUE(T::convert(100000.0, text));
  EXPECT_EQ("100000", text);
}

TEST(convert, reads_numbers_from_strings) {
  int i = 0;
  long long l = 0;
  float f = 0;
  double d = 0;
  EXPECT_TRUE(T::convert(std::string("12x"), i));
  EXPECT_EQ(12, i);
  EXPECT_TRUE(T::convert(std::string("-9000000000"), l));
  EXPECT_EQ(-9000000000, l);
  EXPECT_TRUE(T::convert(std::string("0.1"), f));
  EXPECT_EQ(0.1f, f);
  EXPECT_TRUE(T::convert(std::string("1e3"), d));
  EXPECT_EQ(1000.0, d);
  EXPECT_TRUE(T::convert(std::string("none"), i));
  EXPECT_EQ(0, i);
}

TEST(convert, reads_numbers_from_texts_with_a_length) {
  char text[] = "12345";
  int i = 1;
  long long l = 1;
  float f = 1;
  double d = 1;
  EXPECT_TRUE(T::convert(text, 2, i));
  EXPECT_EQ(12345, i) << "the length is no limit";
  EXPECT_TRUE(T::convert(text, 5, l));
  EXPECT_EQ(12345, l);
  EXPECT_TRUE(T::convert(text, 5, f));
  EXPECT_EQ(12345.0f, f);
  EXPECT_TRUE(T::convert(text, 5, d));
  EXPECT_EQ(12345.0, d);
}

TEST(convert, leaves_its_output_alone_without_a_text) {
  const char* const none = nullptr;
  int i = 7;
  double d = 7;
  EXPECT_FALSE(T::convert(none, 5, i));
  EXPECT_FALSE(T::convert("12", 0, i));
  EXPECT_FALSE(T::convert("12", -1, d));
  EXPECT_EQ(7, i);
  EXPECT_EQ(7.0, d);
}

TEST(equal_float, compares_strictly_below_the_step) {
  EXPECT_TRUE(T::equal_float(1.04, 1.05, 1));
  EXPECT_FALSE(T::equal_float(1.0, 2.0, 0));
  EXPECT_TRUE(T::equal_float(1.0, 1.9, 0));
  EXPECT_FALSE(T::equal_float(0.0, 0.1, 1));
  EXPECT_TRUE(T::equal_float(0.0, 0.000009, 5));
  EXPECT_FALSE(T::equal_float(0.0, 0.000009, 6));
  EXPECT_FALSE(T::equal_float(NAN, NAN, 2));
  EXPECT_TRUE(T::is_zero_float(-0.004, 2));
  EXPECT_FALSE(T::is_zero_float(0.01, 2));
}

TEST(less_than_float, compares_what_is_left_after_scaling) {
  EXPECT_FALSE(T::less_than_float(1.04, 1.05, 1));
  EXPECT_TRUE(T::less_than_float(1.04, 1.15, 1));
  EXPECT_FALSE(T::less_than_float(1.15, 1.04, 1));
  EXPECT_TRUE(T::less_than_float(1.0, 2.0, 0));
  EXPECT_FALSE(T::less_than_float(1.0, 1.8, 0));
  EXPECT_TRUE(T::less_than_float(1.0, 1.95, 0)) << "the bias lifts 1.95 to 2";
  EXPECT_TRUE(T::large_than_float(1.15, 1.04, 1));
  EXPECT_FALSE(T::large_than_float(1.05, 1.04, 1));
}

TEST(less_than_float, compares_by_difference_beyond_the_scalable_range) {
  const double limit = 23058430092130.0;
  EXPECT_TRUE(T::less_than_float(limit, limit + 1, 5));
  EXPECT_FALSE(T::less_than_float(limit + 1, limit, 5));
  EXPECT_TRUE(T::less_than_float(-limit, limit, 5)) << "still scaled";
  EXPECT_TRUE(T::less_than_float(1.0, 1.00001, 6));
  EXPECT_FALSE(T::less_than_float(1.0, 1.0000001, 6));
  EXPECT_TRUE(T::less_than_float(-1e300, 1e300, 0));
}

TEST(less_than_float, is_false_for_what_is_no_number) {
  for (const unsigned int precision : {0u, 3u, 9u}) {
    EXPECT_FALSE(T::less_than_float(NAN, 1.0, precision));
    EXPECT_FALSE(T::less_than_float(1.0, NAN, precision));
    EXPECT_TRUE(T::less_than_float(1.0, INFINITY, precision));
    EXPECT_TRUE(T::large_than_float(1.0, -INFINITY, precision));
  }
}

TEST(float_compare, orders_by_precision) {
  EXPECT_EQ(0, T::float_compare(1.001, 1.002, 2));
  EXPECT_EQ(-1, T::float_compare(1.0, 1.5, 2));
  EXPECT_EQ(1, T::float_compare(1.5, 1.0, 2));
}

TEST(vector_compare, compares_as_sets) {
  EXPECT_EQ(-2, T::vector_compare({1, 1, 2}, {1, 2, 3}));
  EXPECT_EQ(0, T::vector_compare({1, 2}, {2, 1}));
  EXPECT_EQ(-1, T::vector_compare({1}, {1, 2}));
  EXPECT_EQ(1, T::vector_compare({1, 2}, {2}));
  EXPECT_EQ(-2, T::vector_compare({3}, {1, 2}));
  EXPECT_EQ(-2, T::vector_compare({1, 2}, {3}));
  EXPECT_EQ(0, T::vector_compare({}, {}));
  EXPECT_EQ(-1, T::vector_compare({}, {1}));
  EXPECT_EQ(1, T::vector_compare({1}, {}));
}

TEST(vector_compare, finds_equal_vectors_with_repetitions_different) {
  EXPECT_EQ(-2, T::vector_compare({1, 1}, {1, 1})) << "two elements, one value";
  EXPECT_EQ(-1, T::vector_compare({1, 1}, {1, 2, 3}));
}

TEST(is_chinese, counts_the_bytes_from_0x80) {
  int count = 7;
  EXPECT_FALSE(T::is_chinese("a\xb0", count));
  EXPECT_FALSE(T::is_chinese("", count));
  EXPECT_FALSE(T::is_chinese(nullptr, count));
  EXPECT_EQ(7, count);
  EXPECT_TRUE(T::is_chinese("\xb0\xa1\x80z\xb0", count));
  EXPECT_EQ(3, count);
}

TEST(check_special_character, passes_digits_letters_and_high_bytes) {
  EXPECT_FALSE(T::check_special_character("azAZ09", 6));
  EXPECT_FALSE(T::check_special_character("a\xb0\xa1z", 4));
  EXPECT_TRUE(T::check_special_character("a b", 3));
  EXPECT_TRUE(T::check_special_character("a_b", 3));
  EXPECT_TRUE(T::check_special_character("@", 1));
  EXPECT_TRUE(T::check_special_character("[", 1));
}

TEST(check_special_character, takes_the_length_as_a_minimum) {
  EXPECT_TRUE(T::check_special_character("abc-", 2)) << "examined to its end";
  EXPECT_FALSE(T::check_special_character("abcd", 2));
  EXPECT_TRUE(T::check_special_character("ab", 3)) << "a NUL inside the length is special";
  EXPECT_FALSE(T::check_special_character("a\xb0\xa1", 2)) << "a run may pass the length";
}

TEST(check_special_character, finds_nothing_in_nothing) {
  EXPECT_FALSE(T::check_special_character(nullptr, 5));
  EXPECT_FALSE(T::check_special_character("-", 0));
  EXPECT_FALSE(T::check_special_character("-", -1));
}

TEST(is_float, takes_digits_and_points) {
  EXPECT_TRUE(T::is_float("1.2.3", 5));
  EXPECT_FALSE(T::is_float("-1", 2));
  EXPECT_FALSE(T::is_float("1e5", 3));
  EXPECT_TRUE(T::is_float("1e5", 1));
  EXPECT_FALSE(T::is_float("12", 3)) << "the NUL is no digit";
  EXPECT_FALSE(T::is_float("1", 0));
  EXPECT_TRUE(T::is_float("x", -1));
  EXPECT_TRUE(T::is_float(nullptr, -1));
  EXPECT_FALSE(T::is_float(nullptr, 1));
}

TEST(find_bytes, finds_the_first_occurrence) {
  const char bytes[] = "aab\0aac";
  EXPECT_EQ(bytes + 4, T::find_bytes(bytes, 7, "aac", 3));
  EXPECT_EQ(bytes, T::find_bytes(bytes, 7, "aa", 2));
  EXPECT_EQ(bytes + 2, T::find_bytes(bytes, 7, "b\0a", 3));
  EXPECT_EQ(bytes, T::find_bytes(bytes, 7, bytes, 7));
}

TEST(find_bytes, is_null_without_an_occurrence) {
  const std::vector<char> bytes{'a', 'a', 'b'};
  EXPECT_EQ(nullptr, T::find_bytes(bytes.data(), 3, "bc", 2));
  EXPECT_EQ(nullptr, T::find_bytes(bytes.data(), 3, "aabb", 4));
  EXPECT_EQ(nullptr, T::find_bytes(bytes.data(), 3, "x", 1));
  EXPECT_EQ(nullptr, T::find_bytes(bytes.data(), 0, "a", 1));
  EXPECT_EQ(nullptr, T::find_bytes(bytes.data(), 3, "a", 0));
  EXPECT_EQ(nullptr, T::find_bytes(nullptr, 3, "a", 1));
  EXPECT_EQ(nullptr, T::find_bytes(bytes.data(), 3, nullptr, 1));
}

TEST(string_replace, replaces_every_occurrence_once) {
  std::string text = "aXbXc";
  T::string_replace(text, "X", "XX");
  EXPECT_EQ("aXXbXXc", text);
  T::string_replace(text, "XX", "");
  EXPECT_EQ("abc", text);
  T::string_replace(text, "z", "y");
  EXPECT_EQ("abc", text);
  text = "aaa";
  T::string_replace(text, "aa", "a");
  EXPECT_EQ("aa", text) << "what a replacement creates stays";
}

TEST(string_replace, does_nothing_for_an_empty_from) {
  std::string text = "abc";
  T::string_replace(text, "", "x");
  EXPECT_EQ("abc", text);
  T::string_replace(text, "", "");
  EXPECT_EQ("abc", text);
}

TEST(string_replace, accepts_the_text_itself_as_argument) {
  std::string text = "ab";
  T::string_replace(text, text, text);
  EXPECT_EQ("ab", text);
  T::string_replace(text, "b", text);
  EXPECT_EQ("aab", text);
}

TEST(string_split, fills_fields_with_the_pieces) {
  char out[4][8];
  std::memset(out, '#', sizeof(out));
  EXPECT_TRUE(T::string_split("a,,b", out[0], 4, 8, ","));
  EXPECT_STREQ("a", out[0]);
  EXPECT_STREQ("b", out[1]);
  EXPECT_EQ('#', out[2][0]);
}

TEST(string_split, refuses_nothing_to_split) {
  char out[16] = "old";
  EXPECT_FALSE(T::string_split(nullptr, out, 2, 8, ","));
  EXPECT_FALSE(T::string_split("", out, 2, 8, ","));
  EXPECT_FALSE(T::string_split(",,,", out, 2, 8, ","));
  EXPECT_FALSE(T::string_split("a", out, 2, 8, ""));
  EXPECT_STREQ("old", out);
  EXPECT_FALSE(T::string_split("a", nullptr, 2, 8, ","));
}

TEST(string_split, refuses_more_pieces_than_fields) {
  char out[24] = "old";
  EXPECT_FALSE(T::string_split("a,b,c", out, 2, 8, ","));
  EXPECT_STREQ("old", out);
  EXPECT_TRUE(T::string_split("a,b,c", out, 3, 8, ","));
}

TEST(string_split, keeps_the_fields_before_a_piece_that_is_too_long) {
  char out[3][4] = {"xx", "yy", "zz"};
  EXPECT_FALSE(T::string_split("ab,abcd,c", out[0], 3, 4, ","));
  EXPECT_STREQ("ab", out[0]);
  EXPECT_STREQ("yy", out[1]);
  EXPECT_STREQ("zz", out[2]);
  EXPECT_TRUE(T::string_split("abc", out[0], 3, 4, ","));
}

TEST(string_split, writes_nothing_for_negative_limits) {
  char out[8] = "old";
  for (const int limit : {0, -1, INT_MIN}) {
    EXPECT_FALSE(T::string_split("a,b", out, limit, 4, ","));
    EXPECT_FALSE(T::string_split("a,b", out, 2, limit, ","));
  }
  EXPECT_STREQ("old", out);
}

TEST(string_split, gives_the_pieces_without_empty_ones) {
  EXPECT_EQ((texts{"a", "b"}), split(",a,,b,", ","));
  EXPECT_EQ((texts{"abc"}), split("abc", ","));
  EXPECT_EQ(texts{}, split("", ","));
  EXPECT_EQ(texts{}, split(",,", ","));
}

TEST(string_split, goes_on_behind_the_hit_by_the_length_of_all_delimiters) {
  EXPECT_EQ((texts{"a", "c"}), split("a;,c", ";,"));
  EXPECT_EQ((texts{"a", "d"}), split("a,bcd", ",.;")) << "bc are skipped";
  EXPECT_EQ((texts{"ab"}), split("ab", ",;"));
  EXPECT_EQ((texts{"a"}), split("a,b", ",;")) << "the b is skipped";
}

TEST(string_split, of_null_or_without_delimiters_is_false) {
  texts pieces{"old"};
  EXPECT_FALSE(T::string_split(nullptr, pieces, ","));
  EXPECT_EQ(texts{"old"}, pieces);
  EXPECT_FALSE(T::string_split("a,b", pieces, ""));
  EXPECT_TRUE(pieces.empty());
}

TEST(string_split, accepts_one_of_the_old_pieces_as_text) {
  texts pieces{"a,b", ","};
  EXPECT_TRUE(T::string_split(pieces[0].c_str(), pieces, pieces[1]));
  EXPECT_EQ((texts{"a", "b"}), pieces);
}

TEST(wstring_split, splits_wide_texts_alike) {
  std::vector<std::wstring> pieces{L"old"};
  EXPECT_TRUE(T::wstring_split(L"\u91d1,,\u94f6", pieces, L","));
  EXPECT_EQ((std::vector<std::wstring>{L"\u91d1", L"\u94f6"}), pieces);
  EXPECT_TRUE(T::wstring_split(L"", pieces, L","));
  EXPECT_TRUE(pieces.empty());
  EXPECT_FALSE(T::wstring_split(nullptr, pieces, L","));
  EXPECT_FALSE(T::wstring_split(L"a", pieces, L""));
}
