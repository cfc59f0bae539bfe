#include "tools/helpers.h"

#include <dlfcn.h>    // dlopen, dlsym, dlerror, dlclose
#include <pthread.h>  // pthread_self
#include <unistd.h>   // access, execl, fork, usleep

#include <cmath>    // fabs, pow
#include <cstdarg>  // va_list
#include <cstddef>  // size_t
#include <cstdint>  // int64_t
#include <cstdio>   // rename, vsnprintf
#include <cstdlib>  // malloc, free, strtol, strtoll, strtod
#include <cstring>  // memchr, memcmp, memmove, strlen, strnlen
#include <new>      // bad_alloc
#include <sstream>  // ostringstream

#include "tools/date_time.h"
#include "tools/locks.h"
#include "tools/map_int.h"

namespace VORLAN {
namespace TOOLS {

namespace {

constexpr std::size_t k_format_bytes = 40960;  // the longest formatted text and its NUL

// vsnprintf() that leaves an empty text when it fails; size is not 0.
void print_into(char* buf, std::size_t size, const char* fmt, va_list args) {
  if (fmt == nullptr || std::vsnprintf(buf, size, fmt, args) < 0) buf[0] = '\0';
}

}  // namespace

void strncpy_vl(char* dst, unsigned int size, const char* src) {
  if (dst == nullptr || (src == nullptr && size == 0)) return;
  const std::size_t length = src != nullptr ? ::strnlen(src, size - 1u) : 0;
  if (length > 0) std::memmove(dst, src, length);
  dst[length] = '\0';
}

int snprintf_vl(char* buf, unsigned int size, const char* fmt, ...) {
  if (buf == nullptr || size == 0) return 0;
  va_list args;
  va_start(args, fmt);
  print_into(buf, size, fmt, args);
  va_end(args);
  return static_cast<int>(std::strlen(buf));
}

std::string format_str(const char* fmt, ...) {
  char buffer[k_format_bytes];
  va_list args;
  va_start(args, fmt);
  print_into(buffer, sizeof(buffer), fmt, args);
  va_end(args);
  return buffer;
}

namespace {

// The calling thread's buffer; null without memory. The table and its lock live until the process
// ends, so that threads may format while static objects are being destroyed.
char* thread_format_buffer() {
  static mutex_lock& lock = *new mutex_lock;
  static map_int<char*, null_lock>& buffers = *new map_int<char*, null_lock>;
  const long long thread = static_cast<long long>(::pthread_self());

  mutex_locker guard(lock);
  if (char** known = buffers.find(thread)) return *known;
  char* const buffer = static_cast<char*>(std::malloc(k_format_bytes));
  if (buffer == nullptr) return nullptr;
  try {
    buffers.set(thread, buffer);
  } catch (const std::bad_alloc&) {
    // Either the entry is missing, or it is there and only the table could not grow.
    if (buffers.find(thread) != nullptr) return buffer;
    std::free(buffer);
    return nullptr;
  }
  return buffer;
}

}  // namespace

char* format_pchar(const char* fmt, ...) {
  char* const buffer = thread_format_buffer();
  if (buffer == nullptr) return nullptr;
  va_list args;
  va_start(args, fmt);
  print_into(buffer, k_format_bytes, fmt, args);
  va_end(args);
  return buffer;
}

void sleep_vl(unsigned int ms) { ::usleep(ms * 1000u); }

void* load_library(const char* path) { return ::dlopen(path, RTLD_LAZY); }

void* get_function_address(void* handle, const char* name) {
  return name != nullptr ? ::dlsym(handle, name) : nullptr;
}

char* get_dll_error() { return ::dlerror(); }

int free_library(void* handle) { return handle != nullptr ? ::dlclose(handle) : -1; }

int create_process_vl(const char* path, const char* argument) {
  if (path == nullptr) return -1;
  const pid_t child = ::fork();
  if (child != 0) return child;
  return ::execl(path, "%s", argument, static_cast<char*>(nullptr));
}

tm* localtime_vl(time_t seconds, tm* result) {
  return result != nullptr ? ::localtime_r(&seconds, result) : nullptr;
}

bool file_exists(const char* path) {
  return path != nullptr && path[0] != '\0' && ::access(path, F_OK) == 0;
}

bool move_file_vl(const char* old_path, const char* new_path) {
  if (old_path == nullptr || new_path == nullptr) return false;
  return std::rename(old_path, new_path) >= 0;
}

bool rm_old_file(const char* /*directory*/, time_t older_than) {
  const date_time limit(older_than, 0);
  static_cast<void>(limit);
  return true;
}

long long atoi64_vl(const char* text) {
  return text != nullptr ? std::strtoll(text, nullptr, 10) : 0;
}

unsigned long long atou64_vl(const char* text) {
  return text != nullptr ? std::strtoull(text, nullptr, 10) : 0;
}

namespace {

template <class VALUE>
bool print(VALUE value, std::string& out) {
  std::ostringstream stream;
  stream << value;
  out = stream.str();
  return true;
}

bool scan(const char* text, int& out) {
  out = static_cast<int>(std::strtol(text, nullptr, 10));
  return true;
}

bool scan(const char* text, long long& out) {
  out = std::strtoll(text, nullptr, 10);
  return true;
}

bool scan(const char* text, double& out) {
  out = std::strtod(text, nullptr);
  return true;
}

bool scan(const char* text, float& out) {
  out = static_cast<float>(std::strtod(text, nullptr));
  return true;
}

template <class VALUE>
bool scan(const char* text, int length, VALUE& out) {
  return text != nullptr && length >= 1 && scan(text, out);
}

}  // namespace

std::string to_string(int value) {
  std::string text;
  print(value, text);
  return text;
}

bool convert(int value, std::string& out) { return print(value, out); }
bool convert(long long value, std::string& out) { return print(value, out); }
bool convert(float value, std::string& out) { return print(value, out); }
bool convert(double value, std::string& out) { return print(value, out); }

bool convert(const std::string& text, int& out) { return scan(text.c_str(), out); }
bool convert(const std::string& text, long long& out) { return scan(text.c_str(), out); }
bool convert(const std::string& text, float& out) { return scan(text.c_str(), out); }
bool convert(const std::string& text, double& out) { return scan(text.c_str(), out); }

bool convert(const char* text, int length, int& out) { return scan(text, length, out); }
bool convert(const char* text, int length, long long& out) { return scan(text, length, out); }
bool convert(const char* text, int length, float& out) { return scan(text, length, out); }
bool convert(const char* text, int length, double& out) { return scan(text, length, out); }

namespace {

constexpr unsigned int k_table_precisions = 6;  // 0 to 5
constexpr double k_steps[k_table_precisions] = {1.0, 0.1, 0.01, 0.001, 0.0001, 0.00001};
constexpr double k_scales[k_table_precisions] = {1, 10, 100, 1000, 10000, 100000};
constexpr double k_biases[k_table_precisions] = {0.1, 0.01, 0.001, 0.0001, 0.00001, 0.000001};

// Keeps a value times the largest scale inside a 64-bit integer.
constexpr double k_scalable_limit = 23058430092130.0;

// False for a NaN as well.
bool is_scalable(double value) { return std::fabs(value) <= k_scalable_limit; }

double step_by_power(unsigned int precision) { return 1.0 / std::pow(10.0, precision); }

std::int64_t scaled(double value, unsigned int precision) {
  return static_cast<std::int64_t>(value * k_scales[precision] + k_biases[precision]);
}

}  // namespace

bool equal_float(double a, double b, unsigned int precision) {
  const double step =
      precision < k_table_precisions ? k_steps[precision] : step_by_power(precision);
  return std::fabs(a - b) < step;
}

bool is_zero_float(double a, unsigned int precision) { return equal_float(a, 0.0, precision); }

bool less_than_float(double a, double b, unsigned int precision) {
  if (!is_scalable(a) || !is_scalable(b) || precision >= k_table_precisions) {
    return b - a > step_by_power(precision);
  }
  return scaled(a, precision) < scaled(b, precision);
}

bool large_than_float(double a, double b, unsigned int precision) {
  return less_than_float(b, a, precision);
}

int float_compare(double a, double b, unsigned int precision) {
  if (equal_float(a, b, precision)) return 0;
  return less_than_float(a, b, precision) ? -1 : 1;
}

namespace {

using int_set = map_int<int, null_lock>;

void insert_all(int_set& set, const std::vector<int>& values) {
  for (const int value : values) set.set(value, value);
}

bool contains_all(const int_set& set, const std::vector<int>& values) {
  for (const int value : values) {
    if (set.find(value) == nullptr) return false;
  }
  return true;
}

}  // namespace

int vector_compare(const std::vector<int>& a, const std::vector<int>& b) {
  const bool a_is_shorter = a.size() < b.size();
  int_set set;
  insert_all(set, a_is_shorter ? b : a);
  if (!contains_all(set, a_is_shorter ? a : b)) return -2;
  if (a_is_shorter) return -1;
  if (a.size() > b.size()) return 1;
  return b.size() == set.size() ? 0 : -2;
}

const char* find_bytes(const void* haystack, unsigned int haystack_bytes, const void* needle,
                       unsigned int needle_bytes) {
  if (haystack == nullptr || needle == nullptr || needle_bytes == 0) return nullptr;
  const char* at = static_cast<const char*>(haystack);
  const char first = *static_cast<const char*>(needle);
  std::size_t left = haystack_bytes;
  while (left >= needle_bytes) {
    const void* const hit = std::memchr(at, first, left - needle_bytes + 1);
    if (hit == nullptr) return nullptr;
    if (std::memcmp(hit, needle, needle_bytes) == 0) return static_cast<const char*>(hit);
    left -= static_cast<std::size_t>(static_cast<const char*>(hit) + 1 - at);
    at = static_cast<const char*>(hit) + 1;
  }
  return nullptr;
}

void string_replace(std::string& text, const std::string& from, const std::string& to) {
  if (from.empty()) return;
  std::string replaced;
  std::size_t copied = 0;
  for (std::size_t hit; (hit = text.find(from, copied)) != std::string::npos;) {
    replaced.append(text, copied, hit - copied).append(to);
    copied = hit + from.size();
  }
  replaced.append(text, copied, std::string::npos);
  text.swap(replaced);  // last: from and to may be the text itself
}

namespace {

bool is_high_byte(char c) { return static_cast<unsigned char>(c) >= 0x80; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

}  // namespace

bool is_chinese(const char* text, int& count) {
  if (text == nullptr || !is_high_byte(text[0])) return false;
  count = 0;
  while (is_high_byte(text[count])) ++count;
  return true;
}

bool check_special_character(const char* text, int length) {
  if (text == nullptr || length <= 0) return false;
  const std::size_t least = static_cast<std::size_t>(length);
  std::size_t index = 0;
  while (index < least || text[index] != '\0') {
    int run = 1;
    const bool ordinary =
        is_digit(text[index]) || is_letter(text[index]) || is_chinese(text + index, run);
    if (!ordinary) return true;
    index += static_cast<std::size_t>(run);
  }
  return false;
}

bool is_float(const char* text, int length) {
  if (length == 0) return false;
  if (length > 0 && text == nullptr) return false;
  for (int i = 0; i < length; ++i) {
    if (!is_digit(text[i]) && text[i] != '.') return false;
  }
  return true;
}

namespace {

// The pieces of `text` that are not empty. The delimiters behind the text end its last piece.
template <class STRING>
std::vector<STRING> cut(STRING text, const STRING& delimiters) {
  std::vector<STRING> pieces;
  text += delimiters;
  std::size_t begin = 0;
  for (std::size_t hit; (hit = text.find_first_of(delimiters, begin)) != STRING::npos;) {
    if (hit > begin) pieces.push_back(text.substr(begin, hit - begin));
    begin = hit + delimiters.size();
  }
  return pieces;
}

template <class CHARACTER, class STRING>
bool split(const CHARACTER* src, std::vector<STRING>& pieces, const STRING& delimiters) {
  if (src == nullptr) return false;
  const bool can_cut = !delimiters.empty();
  std::vector<STRING> found = cut(STRING(src), delimiters);
  pieces.swap(found);  // last: src and delimiters may be among the old pieces
  return can_cut;
}

}  // namespace

bool string_split(const char* src, char* out, int max_count, int field_width,
                  const std::string& delimiters) {
  if (src == nullptr || out == nullptr || max_count < 1 || field_width < 1) return false;
  const std::vector<std::string> pieces = cut(std::string(src), delimiters);
  if (pieces.empty() || pieces.size() > static_cast<std::size_t>(max_count)) return false;
  const std::size_t width = static_cast<std::size_t>(field_width);
  for (const std::string& piece : pieces) {
    if (piece.size() >= width) return false;
    std::memcpy(out, piece.c_str(), piece.size() + 1);
    out += width;
  }
  return true;
}

bool string_split(const char* src, std::vector<std::string>& pieces,
                  const std::string& delimiters) {
  return split(src, pieces, delimiters);
}

bool wstring_split(const wchar_t* src, std::vector<std::wstring>& pieces,
                   const std::wstring& delimiters) {
  return split(src, pieces, delimiters);
}

}  // namespace TOOLS
}  // namespace VORLAN
