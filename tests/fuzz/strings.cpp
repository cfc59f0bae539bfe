// The text helpers against the simplest way to do the same.
#include "tests/fuzz/check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tools/helpers.h"

namespace {

using kav_fuzz::fuzz_input;
using kav_fuzz::heap_bytes;
using kav_fuzz::up_to_nul;
namespace tools = VORLAN::TOOLS;

// ---- Splitting.

template <class STRING>
bool is_in(typename STRING::value_type c, const STRING& set) {
  for (const auto member : set) {
    if (member == c) return true;
  }
  return false;
}

template <class STRING>
std::vector<STRING> pieces_of(const STRING& text, const STRING& delimiters) {
  const STRING all = text + delimiters;
  std::vector<STRING> pieces;
  STRING piece;
  for (std::size_t at = 0; at < all.size();) {
    if (!is_in(all[at], delimiters)) {
      piece += all[at++];
      continue;
    }
    if (!piece.empty()) pieces.push_back(piece);
    piece.clear();
    at += delimiters.size();
  }
  return pieces;  // what no delimiter ends is no piece
}

void check_split(fuzz_input& input) {
  const std::string delimiters = input.take_bytes(input.take_byte() % 8);
  const std::string text = up_to_nul(input.take_rest());
  const std::vector<std::string> expected = pieces_of(text, delimiters);
  heap_bytes copy(text + '\0');
  std::vector<std::string> pieces{"old"};
  KAV_CHECK(tools::string_split(copy.data(), pieces, delimiters) == !delimiters.empty());
  KAV_CHECK(pieces == expected);
  std::vector<std::string> own{text};
  tools::string_split(own[0].c_str(), own, delimiters);
  KAV_CHECK(own == expected);
}

// The caller's buffer has room for as many fields as he says.
void check_split_into_fields(fuzz_input& input) {
  const int most = input.take_signed_byte(), width = input.take_signed_byte();
  const std::string delimiters = input.take_bytes(input.take_byte() % 8);
  const std::string text = up_to_nul(input.take_rest());
  const std::vector<std::string> expected = pieces_of(text, delimiters);
  const bool has_room = most > 0 && width > 0;
  heap_bytes out(std::string(has_room ? static_cast<std::size_t>(most * width) : 0, '#'));
  bool fits = has_room && !expected.empty() && expected.size() <= static_cast<std::size_t>(most);
  const bool begins = fits;
  for (const std::string& piece : expected) {
    fits = fits && piece.size() < static_cast<std::size_t>(width);
  }
  KAV_CHECK(tools::string_split(text.c_str(), out.data(), most, width, delimiters) == fits);
  for (std::size_t i = 0; begins && i < expected.size(); ++i) {
    if (expected[i].size() >= static_cast<std::size_t>(width)) break;
    KAV_CHECK(expected[i] == out.data() + i * static_cast<std::size_t>(width));
  }
}

void check_wide_split(fuzz_input& input) {
  const auto widen = [](const std::string& narrow) {
    std::wstring wide;
    for (const char c : narrow) wide += static_cast<wchar_t>(c);
    return wide.substr(0, wide.find(L'\0'));
  };
  const std::wstring delimiters = widen(input.take_bytes(input.take_byte() % 8));
  const std::wstring text = widen(input.take_rest());
  std::vector<std::wstring> pieces;
  KAV_CHECK(tools::wstring_split(text.c_str(), pieces, delimiters) == !delimiters.empty());
  KAV_CHECK(pieces == pieces_of(text, delimiters));
}

// ---- Finding and replacing.

void check_find(fuzz_input& input) {
  const std::string needle = input.take_bytes(input.take_byte() % 8), text = input.take_rest();
  heap_bytes text_copy(text), needle_copy(needle);
  const char* const hit =
      tools::find_bytes(text_copy.data(), static_cast<unsigned>(text.size()), needle_copy.data(),
                        static_cast<unsigned>(needle.size()));
  const std::size_t expected = needle.empty() ? std::string::npos : text.find(needle);
  KAV_CHECK((hit == nullptr) == (expected == std::string::npos));
  KAV_CHECK(hit == nullptr || hit == text_copy.data() + expected);
}

std::string replaced(const std::string& text, const std::string& from, const std::string& to) {
  std::string result;
  for (std::size_t at = 0; at < text.size();) {
    const bool hit = !from.empty() && text.compare(at, from.size(), from) == 0;
    result += hit ? to : std::string(1, text[at]);
    at += hit ? from.size() : 1;
  }
  return result;
}

void check_replace(fuzz_input& input) {
  const std::string from = input.take_bytes(input.take_byte() % 8);
  const std::string to = input.take_bytes(input.take_byte() % 32), text = input.take_rest();
  std::string changed = text;
  tools::string_replace(changed, from, to);
  KAV_CHECK(changed == replaced(text, from, to));
  changed = text;
  tools::string_replace(changed, changed, to);
  KAV_CHECK(changed == replaced(text, text, to));
  changed = text;
  tools::string_replace(changed, from, changed);
  KAV_CHECK(changed == replaced(text, from, text));
}

// ---- Looking at characters.

bool is_plain(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Runs of high bytes are skipped whole, so that `length` may lie inside one.
bool has_special(const std::string& text, int length) {
  if (length <= 0) return false;
  for (const char c : text) {
    if (!is_plain(c) && static_cast<unsigned char>(c) < 0x80) return true;
  }
  return text.size() < static_cast<std::size_t>(length);  // the NUL is one
}

void check_characters(fuzz_input& input) {
  const int length = input.take<std::int16_t>();
  const std::string text = up_to_nul(input.take_rest());
  heap_bytes copy(text + '\0');
  KAV_CHECK(tools::check_special_character(copy.data(), length) == has_special(text, length));

  std::size_t high = 0;
  while (high < text.size() && static_cast<unsigned char>(text[high]) >= 0x80) ++high;
  int count = -1;
  KAV_CHECK(tools::is_chinese(copy.data(), count) == (high > 0));
  KAV_CHECK(count == (high > 0 ? static_cast<int>(high) : -1));

  // The caller has as many bytes as he says.
  const std::size_t looked_at = std::min<std::size_t>(text.size(), static_cast<unsigned>(length));
  heap_bytes digits(text.substr(0, looked_at));
  const bool number = text.find_first_not_of("0123456789.") >= looked_at;
  KAV_CHECK(tools::is_float(digits.data(), static_cast<int>(looked_at)) ==
            (looked_at > 0 && number));
}

// ---- Copying into a field.

void check_copy(fuzz_input& input) {
  const unsigned size = input.take_byte() + 1;  // 0 asks for no limit: the caller has the room
  const std::string text = up_to_nul(input.take_rest());
  heap_bytes source(text + '\0');
  heap_bytes field(std::string(size, '#'));
  tools::strncpy_vl(field.data(), size, source.data());
  KAV_CHECK(text.substr(0, size - 1) == field.data());
  KAV_CHECK(tools::snprintf_vl(field.data(), size, "%s", source.data()) ==
            static_cast<int>(std::min<std::size_t>(text.size(), size - 1)));
  KAV_CHECK(text.substr(0, size - 1) == field.data());
  KAV_CHECK(tools::format_str("<%s>", source.data()).substr(0, 100) ==
            ("<" + text + ">").substr(0, 100));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  constexpr void (*k_checks[])(fuzz_input&) = {
      check_split,   check_split_into_fields, check_wide_split, check_find,
      check_replace, check_characters,        check_copy};
  k_checks[input.take_byte() % std::size(k_checks)](input);
  return 0;
}
