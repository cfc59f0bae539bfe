// Text, number and system helpers: plain functions, callable from any thread.
#pragma once

#include <time.h>  // time_t, tm

#include <string>
#include <vector>

#if defined(__GNUC__)
#define KAV_PRINTF_LIKE(format_index, first_argument) \
  __attribute__((format(printf, format_index, first_argument)))
#else
#define KAV_PRINTF_LIKE(format_index, first_argument)
#endif

namespace VORLAN {
namespace TOOLS {

// ---- Texts in fixed fields, formatting, pauses: what the rest of the library stands on.

// Copies at most size - 1 characters of src, always followed by a NUL; what does not fit is cut
// silently. At most size - 1 bytes of src are read. A size of 0 wraps and means no limit at all. A
// null src stores an empty text (nothing when size is 0), a null dst nothing.
void strncpy_vl(char* dst, unsigned int size, const char* src);

// vsnprintf() into buf; the number of characters that are stored there, never more than size - 1.
// 0 for a null argument, a size of 0 (buf is not touched) or a format that cannot be printed.
int snprintf_vl(char* buf, unsigned int size, const char* fmt, ...) KAV_PRINTF_LIKE(3, 4);

// The formatted text, cut to 40959 characters.
std::string format_str(const char* fmt, ...) KAV_PRINTF_LIKE(1, 2);

// The formatted text in a buffer of the calling thread's, cut to 40959 characters and good until
// the same thread calls again. Null when there is no memory for the thread's buffer, which is
// never freed: a later thread with the same id takes it over.
char* format_pchar(const char* fmt, ...) KAV_PRINTF_LIKE(1, 2);

// Sleeps by usleep(ms * 1000), the product wrapping in 32 bits (4294 s and more start again at 0).
// A signal handler that runs in this thread ends the sleep early, as it ends usleep().
void sleep_vl(unsigned int ms);

// ---- The system.

// dlopen(path, RTLD_LAZY), dlsym(), dlerror(), dlclose(). A null name has no address; freeing a
// null handle gives -1.
void* load_library(const char* path);
void* get_function_address(void* handle, const char* name);
char* get_dll_error();
int free_library(void* handle);

// Forks and runs `path` with the argument vector {"%s", argument}. The parent gets the child's id,
// or -1 when there is none. When the program cannot be run the CHILD returns -1 from here and goes
// on with a copy of everything: check getpid().
int create_process_vl(const char* path, const char* argument);

// The local time, by localtime_r(); null when the year does not fit.
tm* localtime_vl(time_t seconds, tm* result);
template <class TIME>
tm* localtime_vl(const TIME* seconds, tm* result) {
  return seconds != nullptr ? localtime_vl(*seconds, result) : nullptr;
}

bool file_exists(const char* path);
bool move_file_vl(const char* old_path, const char* new_path);

// Always true; removes nothing.
bool rm_old_file(const char* directory, time_t older_than);

// ---- Numbers and texts.

// Decimal, as strtoll() and strtoull() read it; 0 for a null text.
long long atoi64_vl(const char* text);
unsigned long long atou64_vl(const char* text);

// As a string stream prints it.
std::string to_string(int value);
bool convert(int value, std::string& out);
bool convert(long long value, std::string& out);
bool convert(float value, std::string& out);
bool convert(double value, std::string& out);

// As strtol(), strtoll() and strtod() read it, without error detection. Always true.
bool convert(const std::string& text, int& out);
bool convert(const std::string& text, long long& out);
bool convert(const std::string& text, float& out);
bool convert(const std::string& text, double& out);

// The same for a NUL-terminated text; false, with `out` unchanged, for a null one or a length
// below 1. The length is not used otherwise.
bool convert(const char* text, int length, int& out);
bool convert(const char* text, int length, long long& out);
bool convert(const char* text, int length, float& out);
bool convert(const char* text, int length, double& out);

// ---- Comparisons to `precision` decimals.

bool equal_float(double a, double b, unsigned int precision);
bool is_zero_float(double a, unsigned int precision);
bool less_than_float(double a, double b, unsigned int precision);
bool large_than_float(double a, double b, unsigned int precision);

// 0 equal, -1 less, 1 otherwise.
int float_compare(double a, double b, unsigned int precision);

// Compares as sets: 0 the same, -1 a shorter and within b, 1 the other way round, -2 otherwise.
int vector_compare(const std::vector<int>& a, const std::vector<int>& b);

// ---- Looking into texts.

// The first occurrence of the needle's bytes, or null.
const char* find_bytes(const void* haystack, unsigned int haystack_bytes, const void* needle,
                       unsigned int needle_bytes);

// Replaces every occurrence from left to right; what a replacement creates is not replaced again.
// An empty `from` does nothing.
void string_replace(std::string& text, const std::string& from, const std::string& to);

// Whether the text begins with bytes of 0x80 or more; `count` is then their number.
bool is_chinese(const char* text, int& count);

// Whether the NUL-terminated text has a byte that is no ASCII digit, no ASCII letter and below
// 0x80. A NUL before `length` is such a byte; what follows behind `length` is examined too.
bool check_special_character(const char* text, int length);

// Whether each of the first `length` bytes is a digit or a point; a negative length is always true.
bool is_float(const char* text, int length);

// Cuts at each character of `delimiters`; empty pieces are dropped. The search goes on behind the
// hit by the length of ALL delimiters, so that several of them skip as many characters.
// Piece i goes to out + i * field_width. False when there is no piece, there are more than
// max_count, or one does not fit its field (those before it stay written).
bool string_split(const char* src, char* out, int max_count, int field_width,
                  const std::string& delimiters);
// The pieces replace what was in `pieces`; false for a null src or no delimiters.
bool string_split(const char* src, std::vector<std::string>& pieces, const std::string& delimiters);
bool wstring_split(const wchar_t* src, std::vector<std::wstring>& pieces,
                   const std::wstring& delimiters);

}  // namespace TOOLS
}  // namespace VORLAN
