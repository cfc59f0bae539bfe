#include "apps/watch/text_safety.h"

#include <algorithm>  // std::min
#include <cstdint>    // std::uint32_t
#include <iterator>   // std::back_inserter

namespace kav_watch {
namespace {

struct utf8_lead {
  std::size_t bytes;     // 0: not a first byte
  std::uint32_t bits;    // the character's bits that the first byte carries
  std::uint32_t lowest;  // smaller characters must be written with fewer bytes
};

utf8_lead decode_lead(unsigned char first) {
  if (first < 0x80) return {1, first, 0};
  if ((first & 0xE0) == 0xC0) return {2, first & 0x1Fu, 0x80};
  if ((first & 0xF0) == 0xE0) return {3, first & 0x0Fu, 0x800};
  if ((first & 0xF8) == 0xF0) return {4, first & 0x07u, 0x10000};
  return {0, 0, 0};
}

bool is_control(std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (character.size() == 1) return first < 0x20 || first == 0x7F;
  // U+0080 to U+009F: some terminals obey them like escape sequences.
  return character.size() == 2 && first == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0;
}

void append(fmt::memory_buffer& out, std::string_view text) {
  out.append(text.data(), text.data() + text.size());
}

void append_json_character(fmt::memory_buffer& out, std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (first == '"' || first == '\\') out.push_back('\\');
  if (first < 0x20 || first == 0x7F) {
    fmt::format_to(std::back_inserter(out), "\\u{:04x}", unsigned{first});
  } else {
    append(out, character);
  }
}

}  // namespace

std::size_t utf8_character_bytes(std::string_view text) {
  if (text.empty()) return 0;
  const utf8_lead lead = decode_lead(static_cast<unsigned char>(text[0]));
  if (lead.bytes == 0 || text.size() < lead.bytes) return 0;
  std::uint32_t character = lead.bits;
  for (std::size_t i = 1; i < lead.bytes; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xC0) != 0x80) return 0;
    character = character << 6 | (next & 0x3Fu);
  }
  const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
  return character < lead.lowest || character > 0x10FFFF || surrogate ? 0 : lead.bytes;
}

std::string printable_text(std::string_view text) {
  std::string out;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t bytes = utf8_character_bytes(text.substr(at));
    const std::string_view character = text.substr(at, bytes);
    if (bytes == 0 || is_control(character)) {
      out += '?';
    } else {
      out += character;
    }
    at += bytes == 0 ? 1 : bytes;
  }
  return out;
}

std::string ascii_text(std::string_view text) {
  std::string out{text};
  for (char& c : out) {
    if (c < 0x20 || c > 0x7E) c = '?';
  }
  return out;
}

std::string first_texts(const std::vector<std::string>& texts, std::size_t most) {
  const std::size_t shown = std::min(texts.size(), most);
  std::string out;
  for (std::size_t i = 0; i < shown; ++i) {
    if (i > 0) out += ", ";
    out += texts[i];
  }
  if (shown < texts.size()) out += fmt::format(" and {} more", texts.size() - shown);
  return out;
}

void append_json_text(fmt::memory_buffer& out, std::string_view text) {
  out.push_back('"');
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t bytes = utf8_character_bytes(text.substr(at));
    if (bytes == 0) {
      append(out, "\\ufffd");
    } else {
      append_json_character(out, text.substr(at, bytes));
    }
    at += bytes == 0 ? 1 : bytes;
  }
  out.push_back('"');
}

void append_csv_text(fmt::memory_buffer& out, std::string_view text) {
  if (text.find_first_of(",\"\r\n") == std::string_view::npos) return append(out, text);
  out.push_back('"');
  for (const char c : text) {
    if (c == '"') out.push_back('"');
    out.push_back(c);
  }
  out.push_back('"');
}

}  // namespace kav_watch
