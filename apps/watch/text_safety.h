// Texts that came from outside, made fit for a terminal or for JSON.
#pragma once

#include <fmt/format.h>  // fmt::memory_buffer

#include <cstddef>      // std::size_t
#include <string>       // std::string
#include <string_view>  // std::string_view
#include <vector>       // std::vector

namespace kav_watch {

// Bytes of the well-formed UTF-8 character that `text` begins with; 0 when there is none.
std::size_t utf8_character_bytes(std::string_view text);

// The text with every control character and every byte that is no UTF-8 replaced by '?': nothing
// in it can move the cursor or end the line.
std::string printable_text(std::string_view text);

// The same in plain ASCII, so that one byte is one column.
std::string ascii_text(std::string_view text);

// "a, b and 3 more": a list of which a message shows `most` at most.
std::string first_texts(const std::vector<std::string>& texts, std::size_t most);

// Appends a JSON string, quotes included. Bytes that are no UTF-8 become U+FFFD.
void append_json_text(fmt::memory_buffer& out, std::string_view text);

// Appends a CSV field, quoted as RFC 4180 wants it when it holds a comma, a quote or a line end.
void append_csv_text(fmt::memory_buffer& out, std::string_view text);

}  // namespace kav_watch
