// The bytes that travel between quote server and client, by offset.
//
// Written apart from the client library on purpose: whoever tests the library against this server
// has two independent hands on every layout.
#pragma once

#include <cstddef>      // std::size_t
#include <cstdint>      // std::int64_t
#include <optional>     // std::optional
#include <string>       // std::string
#include <string_view>  // std::string_view

#include "api/kav_quote_api.h"

namespace kav_sim {

// Whole lengths, by type character; the type alone decides the length.
constexpr std::size_t k_login_request_bytes = 56;   // "L"
constexpr std::size_t k_login_answer_bytes = 24;    // "A"
constexpr std::size_t k_heartbeat_bytes = 13;       // "H"
constexpr std::size_t k_quote_bytes = 367;          // "Q"
constexpr std::size_t k_list_request_bytes = 8;     // "S"
constexpr std::size_t k_list_entry_bytes = 32;      // "M"
constexpr std::size_t k_symbol_message_bytes = 32;  // "N", "I", "R", "F"

constexpr std::size_t k_quote_record_offset = 22;   // in "Q"
constexpr std::size_t k_reason_bytes = 22;          // in "A"
constexpr std::size_t k_list_symbol_bytes = 28;     // in "M", "I", "F"
constexpr std::size_t k_request_symbol_bytes = 20;  // in "N", "R", with its NUL

// How texts fill their field: with NUL behind, or with 'x' up to the last byte.
enum class text_fill { zero, full_width };

// The length of a client's message that begins with `type`, 0 for a type that no client sends.
std::size_t client_message_bytes(char type);

// What is wrong with a whole message of a client; empty when nothing is. Looks at every fixed byte,
// at the texts and at CR LF.
std::string client_message_fault(std::string_view message);

// Fields of well-formed messages.
std::string login_user(std::string_view login_request);
std::string login_digest(std::string_view login_request);
std::int64_t heartbeat_seconds(std::string_view heartbeat);
char request_type(std::string_view symbol_request);
std::string request_symbol(std::string_view symbol_request);

// Messages of the server.
std::string login_answer_message(char result, std::string_view reason, text_fill fill);
std::string heartbeat_message(std::int64_t epoch_seconds);
std::string list_entry_message(char type, std::string_view symbol, text_fill fill);
std::string list_end_message();
// kind: 'I' answers a registration, 'F' an unregistration.
std::string symbol_answer_message(char kind, char result, char type, std::string_view symbol,
                                  text_fill fill);
std::string quote_message(char type, const KAVMarketDepthQuoteData& quote, text_fill fill);

// The MD5 digest of a text as 32 upper-case hexadecimal characters.
std::string md5_text(std::string_view text);

// The text in a fixed field: up to its NUL, or all of it.
std::string_view field_text(const char* field, std::size_t width);

}  // namespace kav_sim
