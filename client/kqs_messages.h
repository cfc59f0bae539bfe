// The messages of the quote server: one type character, a fixed length for each type, no header.
#pragma once

#include <cstddef>      // offsetof
#include <cstdint>      // std::int64_t
#include <type_traits>  // std::is_trivially_copyable

#include "api/kav_quote_api.h"

// First byte of each message.
enum kqs_message_type : char {
  k_kqs_login_req = 'L',
  k_kqs_login_resp = 'A',
  k_kqs_heartbeat = 'H',  // both directions
  k_kqs_quote = 'Q',
  k_kqs_symbol_list_req = 'S',
  k_kqs_symbol_list_resp = 'M',
  k_kqs_reg_symbol_req = 'N',
  k_kqs_reg_symbol_resp = 'I',
  k_kqs_unreg_symbol_req = 'R',
  k_kqs_unreg_symbol_resp = 'F',
};

constexpr char k_kqs_login_accepted = 'Y';
constexpr char k_kqs_list_end = '1';
constexpr char k_kqs_registered = '0';
constexpr char k_kqs_registered_already = '2';

#pragma pack(push, 1)

// Login request "L", client to server.
struct kqs_login_req {
  char type;        //  0  'L'
  char version[2];  //  1  '1', '0'
  char user[16];    //  3
  char digest[33];  // 19  MD5 of the password, 32 upper-case hexadecimal digits and NUL
  char zero[2];     // 52
  char tail[2];     // 54  13, 10 (CR LF)
};

// Login response "A", server to client.
struct kqs_login_resp {
  char type;        // 0  'A'
  char result;      // 1  'Y' accepted, anything else refused
  char reason[22];  // 2  why it was refused
};

// Heartbeat "H", both directions; the server's body is not read.
struct kqs_heartbeat {
  char type;                   //  0  'H'
  char zero[2];                //  1
  std::int64_t epoch_seconds;  //  3  sender's clock, seconds since 1970-01-01 UTC; unaligned
  char tail[2];                // 11  13, 10 (CR LF)
};

// Quote snapshot "Q", server to client.
struct kqs_quote {
  char type;                      //  0  'Q'
  signed char instrument_type;    //  1
  char not_read[20];              //  2
  KAVMarketDepthQuoteData quote;  // 22
};

// Symbol list query "S", client to server.
struct kqs_symbol_list_req {
  char type;     // 0  'S'
  char fixed;    // 1  '0'
  char zero[4];  // 2
  char tail[2];  // 6  13, 10 (CR LF)
};

// Symbol list response "M", server to client: one symbol, or the end of the list.
struct kqs_symbol_list_resp {
  char type;                    // 0  'M'
  char not_read;                // 1
  char end_mark;                // 2  '1': the list is complete and nothing else here counts
  signed char instrument_type;  // 3
  char symbol[28];              // 4  without a NUL the text runs on into what follows
};

// Register request "N" and unregister request "R", client to server.
struct kqs_symbol_req {
  char type;             //  0  'N' or 'R'
  char fixed;            //  1  '0'
  char instrument_type;  //  2
  char symbol[20];       //  3
  char not_read[7];      // 23
  char tail[2];          // 30  13, 10 (CR LF)
};

// Register response "I" and unregister response "F", server to client.
struct kqs_symbol_resp {
  char type;                    // 0  'I' or 'F'
  char result;                  // 1  '0' done; "I": '2' done before; anything else refused
  char not_read;                // 2
  signed char instrument_type;  // 3
  char symbol[28];              // 4
};

#pragma pack(pop)

static_assert(sizeof(kqs_login_req) == 56, "login request length on the wire");
static_assert(offsetof(kqs_login_req, version) == 1, "login version");
static_assert(offsetof(kqs_login_req, user) == 3, "login user");
static_assert(offsetof(kqs_login_req, digest) == 19, "login digest");
static_assert(offsetof(kqs_login_req, zero) == 52, "login zeros");
static_assert(offsetof(kqs_login_req, tail) == 54, "login CR LF");
static_assert(sizeof(kqs_login_resp) == 24, "login response length on the wire");
static_assert(offsetof(kqs_login_resp, result) == 1, "login result");
static_assert(offsetof(kqs_login_resp, reason) == 2, "login reason");
static_assert(sizeof(kqs_heartbeat) == 13, "heartbeat length on the wire");
static_assert(offsetof(kqs_heartbeat, epoch_seconds) == 3, "heartbeat time");
static_assert(offsetof(kqs_heartbeat, tail) == 11, "heartbeat CR LF");
static_assert(sizeof(kqs_quote) == 367, "quote length on the wire");
static_assert(offsetof(kqs_quote, instrument_type) == 1, "quote instrument type");
static_assert(offsetof(kqs_quote, quote) == 22, "quote record");
static_assert(offsetof(kqs_quote, quote.InstrumentID) == 31, "quote symbol");
static_assert(sizeof(kqs_symbol_list_req) == 8, "symbol list query length on the wire");
static_assert(offsetof(kqs_symbol_list_req, zero) == 2, "symbol list query zeros");
static_assert(offsetof(kqs_symbol_list_req, tail) == 6, "symbol list query CR LF");
static_assert(sizeof(kqs_symbol_list_resp) == 32, "symbol list response length on the wire");
static_assert(offsetof(kqs_symbol_list_resp, end_mark) == 2, "symbol list end mark");
static_assert(offsetof(kqs_symbol_list_resp, instrument_type) == 3, "symbol list type");
static_assert(offsetof(kqs_symbol_list_resp, symbol) == 4, "symbol list symbol");
static_assert(sizeof(kqs_symbol_req) == 32, "symbol request length on the wire");
static_assert(offsetof(kqs_symbol_req, instrument_type) == 2, "symbol request type");
static_assert(offsetof(kqs_symbol_req, symbol) == 3, "symbol request symbol");
static_assert(offsetof(kqs_symbol_req, not_read) == 23, "symbol request rest");
static_assert(offsetof(kqs_symbol_req, tail) == 30, "symbol request CR LF");
static_assert(sizeof(kqs_symbol_resp) == 32, "symbol response length on the wire");
static_assert(offsetof(kqs_symbol_resp, result) == 1, "symbol response result");
static_assert(offsetof(kqs_symbol_resp, instrument_type) == 3, "symbol response type");
static_assert(offsetof(kqs_symbol_resp, symbol) == 4, "symbol response symbol");
static_assert(std::is_trivially_copyable<kqs_login_req>::value, "sent as bytes");
static_assert(std::is_trivially_copyable<kqs_quote>::value, "received as bytes");

// Builders: complete messages, ready to be sent as they lie in memory. Texts are cut to their
// field.
kqs_login_req make_login_req(const char* user, const char* digest);
kqs_heartbeat make_heartbeat(std::int64_t epoch_seconds);
kqs_symbol_list_req make_symbol_list_req();
// `type`: k_kqs_reg_symbol_req or k_kqs_unreg_symbol_req.
kqs_symbol_req make_symbol_req(kqs_message_type type, char instrument_type, const char* symbol);
