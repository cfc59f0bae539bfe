#include "feeds/feed_convert.h"

#include <gtest/gtest.h>

#include <algorithm>   // std::min
#include <bit>         // std::bit_cast
#include <cmath>       // std::nextafter
#include <cstdio>      // snprintf
#include <cstdlib>     // strtol
#include <functional>  // std::function
#include <iterator>    // std::size
#include <limits>      // std::numeric_limits
#include <string>      // std::string
#include <utility>     // std::pair

#include "tests/feeds/feed_bytes.h"

namespace {

using feed_test::bytes;
using feed_test::dice;
using feed_test::exact_buffer;
using feed_test::get;
using feed_test::k_quote_bytes;
using feed_test::put;
using feed_test::put_text;

// ---- The layouts once more, as bare numbers that share nothing with the structs.

enum class field {
  f64,      // eight bytes as they are
  i32,      // four bytes as they are
  u32_f64,  // an unsigned number, widened
  text,     // a bounded text
};

struct row {
  field kind;
  std::size_t from;       // offset in the source
  std::size_t to;         // offset in the quote
  std::size_t width = 0;  // of a text in the source
  std::size_t room = 0;   // of a text in the quote
};

struct layout {
  std::size_t described;  // bytes of the source that may be read
  const char* exchange;
  std::vector<row> rows;
};

const layout k_ftdc{
    356,
    "CFFEX",
    {{field::text, 0, 0, 9, 9}, {field::text, 168, 9, 31, 31}, {field::text, 168, 49, 31, 31},
     {field::f64, 24, 80},      {field::f64, 32, 88},          {field::f64, 40, 96},
     {field::f64, 48, 104},     {field::f64, 56, 112},         {field::f64, 64, 120},
     {field::f64, 72, 128},     {field::i32, 80, 136},         {field::f64, 88, 140},
     {field::f64, 96, 148},     {field::f64, 104, 156},        {field::f64, 112, 164},
     {field::f64, 120, 172},    {field::f64, 128, 180},        {field::f64, 136, 188},
     {field::f64, 144, 196},    {field::text, 152, 204, 9, 9}, {field::i32, 164, 213},
     {field::f64, 200, 217},    {field::i32, 208, 225},        {field::f64, 216, 229},
     {field::i32, 224, 237},    {field::f64, 232, 241},        {field::i32, 240, 249},
     {field::f64, 248, 253},    {field::i32, 256, 261},        {field::f64, 264, 265},
     {field::i32, 272, 273},    {field::f64, 280, 277},        {field::i32, 288, 285},
     {field::f64, 296, 289},    {field::i32, 304, 297},        {field::f64, 312, 301},
     {field::i32, 320, 309},    {field::f64, 328, 313},        {field::i32, 336, 321},
     {field::f64, 344, 325},    {field::i32, 352, 333}}};

const layout k_czce{
    208,
    "CZCE",
    {{field::text, 0, 9, 23, 31}, {field::text, 0, 49, 23, 31}, {field::f64, 75, 80},
     {field::f64, 31, 88},        {field::f64, 23, 96},         {field::u32_f64, 39, 104},
     {field::f64, 43, 112},       {field::f64, 99, 120},        {field::f64, 107, 128},
     {field::i32, 204, 136},      {field::u32_f64, 91, 140},    {field::u32_f64, 95, 148},
     {field::f64, 115, 156},      {field::f64, 131, 164},       {field::f64, 163, 172},
     {field::f64, 171, 180},      {field::i32, 190, 213},       {field::f64, 51, 217},
     {field::i32, 59, 225},       {field::f64, 63, 229},        {field::i32, 71, 237},
     {field::f64, 139, 337}}};

const layout k_gfex{
    264,
    "GFEX",
    {{field::text, 0, 0, 9, 9},  {field::text, 9, 9, 71, 31}, {field::text, 9, 49, 71, 31},
     {field::f64, 80, 80},       {field::f64, 176, 88},       {field::f64, 184, 96},
     {field::u32_f64, 120, 104}, {field::f64, 248, 112},      {field::f64, 88, 120},
     {field::f64, 96, 128},      {field::i32, 108, 136},      {field::f64, 112, 140},
     {field::u32_f64, 124, 148}, {field::f64, 256, 156},      {field::f64, 136, 164},
     {field::f64, 160, 172},     {field::f64, 168, 180},      {field::f64, 192, 217},
     {field::i32, 200, 225},     {field::f64, 208, 229},      {field::i32, 216, 237},
     {field::f64, 224, 337}}};

const layout k_lumen_head{56,
                          nullptr,
                          {{field::text, 11, 9, 31, 31},
                           {field::text, 11, 49, 31, 31},
                           {field::text, 42, 204, 9, 9},
                           {field::i32, 51, 213}}};

const std::vector<row> k_lumen_summary_rows = {
    {field::f64, 0, 112},  {field::f64, 8, 120},  {field::f64, 16, 128}, {field::f64, 24, 156},
    {field::f64, 32, 172}, {field::f64, 40, 180}, {field::f64, 48, 164}, {field::f64, 56, 196}};

constexpr std::size_t k_tick_bytes = 52;
constexpr std::size_t k_summary_bytes = 64;
const std::vector<std::size_t> k_tick_doubles = {0, 12, 20, 28, 40};
const std::vector<std::size_t> k_tick_integers = {8, 36, 48};

// ---- What a conversion has to give.

void expect_text(bytes& quote, std::size_t to, std::size_t room, const bytes& source,
                 std::size_t from, std::size_t width) {
  std::size_t length = 0;
  while (length < width && length < room - 1 && source.at(from + length) != 0) {
    quote.at(to + length) = source.at(from + length);
    ++length;
  }
  quote.at(to + length) = 0;
}

void expect_literal(bytes& quote, std::size_t to, const std::string& text) {
  for (std::size_t i = 0; i <= text.size(); ++i) {
    quote.at(to + i) = i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
  }
}

void expect_zeros(bytes& quote, std::size_t first, std::size_t end) {
  for (std::size_t i = first; i < end; ++i) quote.at(i) = 0;
}

void expect_row(bytes& quote, const bytes& source, const row& r) {
  switch (r.kind) {
    case field::f64:
      return put(quote, r.to, get<std::uint64_t>(source, r.from));
    case field::i32:
      return put(quote, r.to, get<std::uint32_t>(source, r.from));
    case field::u32_f64:
      return put(quote, r.to, static_cast<double>(get<std::uint32_t>(source, r.from)));
    case field::text:
      return expect_text(quote, r.to, r.room, source, r.from, r.width);
  }
}

void expect_layout(bytes& quote, const bytes& source, const layout& l) {
  for (const row& r : l.rows) expect_row(quote, source, r);
  if (l.exchange != nullptr) expect_literal(quote, 40, l.exchange);
}

// No deltas, one level.
void expect_one_level(bytes& quote) {
  expect_zeros(quote, 188, 204);
  expect_zeros(quote, 241, 337);
}

void expect_ftdc(bytes& quote, const bytes& source) { expect_layout(quote, source, k_ftdc); }

void expect_czce(bytes& quote, const bytes& source) {
  expect_layout(quote, source, k_czce);
  char date[9];
  const int year = get<std::uint16_t>(source, 183);
  const std::string text = std::to_string(100000 + year).substr(year < 10000 ? 2 : 1) +
                           std::to_string(1000 + source.at(185)).substr(source[185] < 100 ? 2 : 1) +
                           std::to_string(1000 + source.at(186)).substr(source[186] < 100 ? 2 : 1);
  std::snprintf(date, sizeof(date), "%s", text.c_str());
  expect_literal(quote, 0, date);
  expect_literal(quote, 204, date);
  expect_one_level(quote);
}

void expect_gfex(bytes& quote, const bytes& source) {
  expect_layout(quote, source, k_gfex);
  for (std::size_t i = 0; i < 8; ++i) quote.at(204 + i) = source.at(232 + i);
  quote.at(212) = 0;
  char digits[4] = {};
  for (std::size_t i = 0; i < 3; ++i) digits[i] = static_cast<char>(source.at(241 + i));
  put(quote, 213, static_cast<std::int32_t>(std::strtol(digits, nullptr, 10)));
  expect_one_level(quote);
}

void expect_if_valid(bytes& quote, std::size_t to, const bytes& body, std::size_t from) {
  const double value = get<double>(body, from);
  if (value > 0.0 && value < 9999999999999.9) put(quote, to, value);
}

void expect_lumen_head(bytes& quote, const bytes& head) {
  expect_layout(quote, head, k_lumen_head);
  expect_literal(quote, 40, head.at(4) != 0 ? "SHFE" : "CFFEX");
}

void expect_tick(bytes& quote, const bytes& head, const bytes& body) {
  expect_lumen_head(quote, head);
  expect_if_valid(quote, 148, body, 20);
  expect_if_valid(quote, 140, body, 12);
  const int flag = head.at(55);
  if (flag == 1 || flag == 3) {
    expect_if_valid(quote, 80, body, 0);
    put(quote, 136, get<std::uint32_t>(quote, 136) + get<std::uint32_t>(body, 8));
  }
  if (flag == 2 || flag == 3) {
    expect_if_valid(quote, 217, body, 28);
    put(quote, 225, get<std::uint32_t>(body, 36));
    expect_if_valid(quote, 229, body, 40);
    put(quote, 237, get<std::uint32_t>(body, 48));
  }
}

void expect_summary(bytes& quote, const bytes& head, const bytes& body) {
  expect_lumen_head(quote, head);
  for (const row& r : k_lumen_summary_rows) expect_if_valid(quote, r.to, body, r.from);
}

// ---- Random records that visit the corners.

constexpr double k_lumen_limit = 9999999999999.9;

std::uint64_t random_double_bits(dice& d) {
  using limits = std::numeric_limits<double>;
  const double special[] = {0.0,
                            -0.0,
                            1.0,
                            -1.0,
                            3521.4,
                            limits::infinity(),
                            limits::max(),
                            limits::min(),
                            limits::denorm_min(),
                            k_lumen_limit,
                            limits::lowest(),
                            -limits::infinity(),
                            std::nextafter(k_lumen_limit, 0.0),
                            std::nextafter(k_lumen_limit, limits::infinity()),
                            -limits::denorm_min()};
  switch (d.below(4)) {
    case 0:
      return std::bit_cast<std::uint64_t>(special[d.below(std::size(special))]);
    case 1:  // NaN, quiet or signalling, of either sign, with a payload
      return 0x7ff0000000000001u | (d.below(2) << 63) | (d.below(1u << 20) << 32);
    case 2:  // an ordinary price
      return std::bit_cast<std::uint64_t>(static_cast<double>(d.below(100'000'000)) / 10);
    default: {
      const bytes any = d.random_bytes(8);
      return get<std::uint64_t>(any, 0);
    }
  }
}

std::uint32_t random_integer(dice& d) {
  const std::uint32_t special[] = {0, 1, 0x7fffffff, 0x80000000, 0xffffffff, 0x80000001};
  if (d.below(2) == 0) return special[d.below(std::size(special))];
  const bytes any = d.random_bytes(4);
  return get<std::uint32_t>(any, 0);
}

// Any length up to the full width, where no NUL follows; random bytes behind the NUL.
void put_random_text(dice& d, bytes& source, std::size_t from, std::size_t width) {
  const std::size_t length = d.below(2) == 0 ? d.below(width + 1) : width - d.below(3);
  for (std::size_t i = 0; i < length; ++i) {
    source.at(from + i) = static_cast<unsigned char>(1 + d.below(255));
  }
  if (length < width) source.at(from + length) = 0;
}

bytes random_record(dice& d, const layout& l) {
  bytes source = d.random_bytes(l.described);
  for (const row& r : l.rows) {
    if (r.kind == field::text) put_random_text(d, source, r.from, r.width);
    if (r.kind == field::f64) put(source, r.from, random_double_bits(d));
    if (r.kind == field::i32 || r.kind == field::u32_f64) put(source, r.from, random_integer(d));
  }
  return source;
}

bytes random_tick(dice& d) {
  bytes body(k_tick_bytes);
  for (const std::size_t at : k_tick_doubles) put(body, at, random_double_bits(d));
  for (const std::size_t at : k_tick_integers) put(body, at, random_integer(d));
  return body;
}

bytes random_summary(dice& d) {
  bytes body(k_summary_bytes);
  for (const row& r : k_lumen_summary_rows) put(body, r.from, random_double_bits(d));
  return body;
}

// Zeros, or what a longer life has left in the record.
bytes random_quote(dice& d) {
  return d.below(2) == 0 ? bytes(k_quote_bytes) : d.random_bytes(k_quote_bytes);
}

// ---- One conversion in buffers that end where the records end.

std::string first_difference(const bytes& expected, const bytes& actual) {
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (expected[i] != actual[i]) {
      return "byte " + std::to_string(i) + ": expected " + std::to_string(expected[i]) + ", got " +
             std::to_string(actual[i]);
    }
  }
  return "";
}

template <class RECORD>
bytes convert(void (*converter)(RECORD*, KAVMarketDepthQuoteData*), const bytes& source,
              const bytes& before, std::size_t shift = 0) {
  exact_buffer from(source, shift);
  exact_buffer to(before, shift);
  converter(from.as<RECORD>(), to.as<KAVMarketDepthQuoteData>());
  EXPECT_EQ(source, from.content()) << "the source is left alone";
  return to.content();
}

template <class BODY>
bytes convert(void (*converter)(lumen_udp_head*, BODY*, KAVMarketDepthQuoteData*),
              const bytes& head, const bytes& body, const bytes& before, std::size_t shift = 0) {
  exact_buffer head_buffer(head, shift);
  exact_buffer body_buffer(body, shift);
  exact_buffer to(before, shift);
  converter(head_buffer.as<lumen_udp_head>(), body_buffer.as<BODY>(),
            to.as<KAVMarketDepthQuoteData>());
  EXPECT_EQ(head, head_buffer.content()) << "the head is left alone";
  EXPECT_EQ(body, body_buffer.content()) << "the body is left alone";
  return to.content();
}

constexpr int k_rounds = 4000;

template <class RECORD>
void compare_random_records(void (*converter)(RECORD*, KAVMarketDepthQuoteData*), const layout& l,
                            void (*expect)(bytes&, const bytes&), std::uint64_t seed,
                            const std::function<void(dice&, bytes&)>& adjust = {}) {
  dice d(seed);
  for (int i = 0; i < k_rounds; ++i) {
    bytes source = random_record(d, l);
    if (adjust) adjust(d, source);
    const bytes before = random_quote(d);
    bytes expected = before;
    expect(expected, source);
    const bytes actual = convert(converter, source, before, d.below(8));
    ASSERT_EQ("", first_difference(expected, actual)) << "round " << i;
  }
}

// The text at `offset`, which has to end within `room` bytes.
std::string text_at(const bytes& quote, std::size_t offset, std::size_t room) {
  std::size_t length = 0;
  while (length < room && quote.at(offset + length) != 0) ++length;
  EXPECT_LT(length, room) << "no NUL";
  const auto start = quote.begin() + static_cast<std::ptrdiff_t>(offset);
  return std::string(start, start + static_cast<std::ptrdiff_t>(length));
}

bytes lumen_head(unsigned char market, unsigned char flag, const char* symbol = "ag2506") {
  bytes head(56);
  head[4] = market;
  head[55] = flag;
  put_text(head, 11, 31, symbol);
  put_text(head, 42, 9, "09:30:01");
  return head;
}

// ---- Whole records, byte by byte.

TEST(feed_convert, shfe_records_give_the_expected_bytes) {
  compare_random_records(convert_shfe_quote_to_kav_quote, k_ftdc, expect_ftdc, 1);
}

TEST(feed_convert, cffex_records_give_the_expected_bytes) {
  compare_random_records(convert_ffex_quote_to_kav_quote, k_ftdc, expect_ftdc, 2);
}

TEST(feed_convert, czce_records_give_the_expected_bytes) {
  const auto plausible_date = [](dice& d, bytes& source) {
    if (d.below(2) == 0) return;
    put(source, 183, static_cast<std::uint16_t>(d.below(10000)));
    source[185] = static_cast<unsigned char>(d.below(13));
    source[186] = static_cast<unsigned char>(d.below(32));
  };
  compare_random_records(convert_zce_quote_to_kav_quote, k_czce, expect_czce, 3, plausible_date);
}

TEST(feed_convert, gfex_records_give_the_expected_bytes) {
  const auto odd_milliseconds = [](dice& d, bytes& source) {
    const char alphabet[] = "0123456789 +-x\t";
    for (std::size_t i = 241; i < 244; ++i) {
      source[i] = static_cast<unsigned char>(alphabet[d.below(sizeof(alphabet))]);
    }
  };
  compare_random_records(convert_gfex_quote_to_kav_quote, k_gfex, expect_gfex, 4, odd_milliseconds);
}

TEST(feed_convert, lumen_ticks_give_the_expected_bytes_with_every_quote_flag) {
  dice d(5);
  for (int i = 0; i < 256 * 40; ++i) {
    bytes head = random_record(d, k_lumen_head);
    head[55] = static_cast<unsigned char>(i);
    if (i % 3 == 0) head[4] = 0;
    const bytes body = random_tick(d);
    const bytes before = random_quote(d);
    bytes expected = before;
    expect_tick(expected, head, body);
    const bytes actual =
        convert(convert_lumen_normal_quote_to_kav_quote, head, body, before, d.below(8));
    ASSERT_EQ("", first_difference(expected, actual)) << "round " << i;
  }
}

TEST(feed_convert, lumen_summaries_give_the_expected_bytes) {
  dice d(6);
  for (int i = 0; i < k_rounds; ++i) {
    bytes head = random_record(d, k_lumen_head);
    if (i % 3 == 0) head[4] = 0;
    const bytes body = random_summary(d);
    const bytes before = random_quote(d);
    bytes expected = before;
    expect_summary(expected, head, body);
    const bytes actual =
        convert(convert_lumen_summary_quote_to_kav_quote, head, body, before, d.below(8));
    ASSERT_EQ("", first_difference(expected, actual)) << "round " << i;
  }
}

// Each byte of a source changed alone: it has an effect exactly if it belongs to a field.
TEST(feed_convert, bytes_between_the_fields_have_no_effect) {
  const auto check = [](auto converter, const layout& l,
                        const std::vector<std::pair<std::size_t, std::size_t>>& more_fields) {
    std::vector<bool> is_read(l.described);
    const auto mark = [&](std::size_t at, std::size_t n) {
      for (std::size_t i = at; i < at + n; ++i) is_read.at(i) = true;
    };
    for (const row& r : l.rows) {
      mark(r.from,
           r.kind == field::text ? std::min(r.width, r.room - 1) : (r.kind == field::f64 ? 8 : 4));
    }
    for (const auto& [at, n] : more_fields) mark(at, n);
    const bytes source(l.described, '1');  // full texts, digits everywhere
    const bytes before(k_quote_bytes);
    const bytes plain = convert(converter, source, before);
    for (std::size_t i = 0; i < l.described; ++i) {
      bytes changed = source;
      changed[i] = '2';
      EXPECT_EQ(is_read[i], convert(converter, changed, before) != plain) << "byte " << i;
    }
  };
  check(convert_shfe_quote_to_kav_quote, k_ftdc, {});
  check(convert_ffex_quote_to_kav_quote, k_ftdc, {});
  check(convert_gfex_quote_to_kav_quote, k_gfex, {{232, 8}, {241, 3}});
  // As numbers, '1' bytes are 12593, 49 and 49: the date 12593494 still shows part of the day.
  check(convert_zce_quote_to_kav_quote, k_czce, {{183, 4}});
}

// ---- Texts.

TEST(feed_convert, texts_without_a_nul_end_with_their_field) {
  const std::string full(100, 'x');
  bytes source(k_ftdc.described, 'x');
  bytes quote = convert(convert_shfe_quote_to_kav_quote, source, bytes(k_quote_bytes));
  EXPECT_EQ(full.substr(0, 8), text_at(quote, 0, 9));
  EXPECT_EQ(full.substr(0, 30), text_at(quote, 9, 31));
  EXPECT_EQ(full.substr(0, 30), text_at(quote, 49, 31));
  EXPECT_EQ(full.substr(0, 8), text_at(quote, 204, 9));

  source.assign(k_czce.described, 'x');
  quote = convert(convert_zce_quote_to_kav_quote, source, bytes(k_quote_bytes));
  EXPECT_EQ(full.substr(0, 23), text_at(quote, 9, 31));
  EXPECT_EQ(full.substr(0, 23), text_at(quote, 49, 31));

  source.assign(k_gfex.described, 'x');
  quote = convert(convert_gfex_quote_to_kav_quote, source, bytes(k_quote_bytes));
  EXPECT_EQ(full.substr(0, 30), text_at(quote, 9, 31));
  EXPECT_EQ(full.substr(0, 8), text_at(quote, 204, 9));

  const bytes head(56, 'x');
  quote = convert(convert_lumen_summary_quote_to_kav_quote, head, bytes(k_summary_bytes),
                  bytes(k_quote_bytes));
  EXPECT_EQ(full.substr(0, 30), text_at(quote, 9, 31));
  EXPECT_EQ(full.substr(0, 8), text_at(quote, 204, 9));
}

TEST(feed_convert, texts_of_every_length_arrive_and_what_lies_behind_them_stays) {
  for (std::size_t length = 0; length <= 31; ++length) {
    const std::string symbol = std::string("abcdefghijklmnopqrstuvwxyz01234").substr(0, length);
    const bytes head = lumen_head(1, 2, symbol.c_str());
    const bytes quote = convert(convert_lumen_normal_quote_to_kav_quote, head, bytes(k_tick_bytes),
                                bytes(k_quote_bytes, '#'));
    const std::string stored = symbol.substr(0, 30);
    EXPECT_EQ(stored, text_at(quote, 9, 31));
    EXPECT_EQ(stored, text_at(quote, 49, 31));
    for (std::size_t i = stored.size() + 1; i < 31; ++i) {
      EXPECT_EQ('#', quote[9 + i]) << length << " characters, byte " << i;
      EXPECT_EQ('#', quote[49 + i]) << length << " characters, byte " << i;
    }
    EXPECT_EQ('#', quote[8]);
  }
}

// ---- Exchanges.

TEST(feed_convert, an_shfe_record_carries_the_name_cffex) {
  const bytes quote =
      convert(convert_shfe_quote_to_kav_quote, bytes(k_ftdc.described), bytes(k_quote_bytes));
  EXPECT_EQ("CFFEX", text_at(quote, 40, 9));
}

std::string czce_date(unsigned year, unsigned month, unsigned day) {
  bytes source(k_czce.described);
  put(source, 183, static_cast<std::uint16_t>(year));
  source[185] = static_cast<unsigned char>(month);
  source[186] = static_cast<unsigned char>(day);
  const bytes quote = convert(convert_zce_quote_to_kav_quote, source, bytes(k_quote_bytes, '#'));
  EXPECT_EQ(text_at(quote, 0, 9), text_at(quote, 204, 9)) << "UpdateTime is the date as well";
  return text_at(quote, 0, 9);
}

TEST(feed_convert, a_czce_date_is_in_both_texts) {
  EXPECT_EQ("20240305", czce_date(2024, 3, 5));
  EXPECT_EQ("20241231", czce_date(2024, 12, 31));
  EXPECT_EQ("00000000", czce_date(0, 0, 0));
  EXPECT_EQ("99999999", czce_date(9999, 99, 99));
}

TEST(feed_convert, a_czce_date_of_too_many_digits_is_cut) {
  EXPECT_EQ("10000010", czce_date(10000, 1, 1));
  EXPECT_EQ("65535255", czce_date(65535, 255, 255));
  EXPECT_EQ("20241000", czce_date(2024, 100, 5));
  EXPECT_EQ("20240110", czce_date(2024, 1, 100));
}

TEST(feed_convert, czce_counts_above_the_signed_range_keep_their_value_as_doubles) {
  bytes source(k_czce.described);
  put(source, 39, std::uint32_t{0xffffffff});
  put(source, 91, std::uint32_t{0x80000000});
  put(source, 204, std::uint32_t{0xfffffffe});
  const bytes quote = convert(convert_zce_quote_to_kav_quote, source, bytes(k_quote_bytes));
  EXPECT_EQ(4294967295.0, get<double>(quote, 104));
  EXPECT_EQ(2147483648.0, get<double>(quote, 140));
  EXPECT_EQ(-2, get<std::int32_t>(quote, 136));
}

std::int32_t gfex_milliseconds(const char (&three)[4]) {
  bytes source(k_gfex.described);
  put_text(source, 232, 8, "09:30:01");
  source[240] = '.';
  for (std::size_t i = 0; i < 3; ++i) source[241 + i] = static_cast<unsigned char>(three[i]);
  source[244] = '9';  // a fourth digit, which does not count
  const bytes quote = convert(convert_gfex_quote_to_kav_quote, source, bytes(k_quote_bytes));
  EXPECT_EQ("09:30:01", text_at(quote, 204, 9));
  return get<std::int32_t>(quote, 213);
}

TEST(feed_convert, gfex_milliseconds_are_read_as_a_decimal_number) {
  EXPECT_EQ(250, gfex_milliseconds("250"));
  EXPECT_EQ(45, gfex_milliseconds("045"));
  EXPECT_EQ(999, gfex_milliseconds("999"));
  EXPECT_EQ(0, gfex_milliseconds("000"));
}

TEST(feed_convert, gfex_milliseconds_end_at_the_first_non_digit) {
  EXPECT_EQ(4, gfex_milliseconds("4x5"));
  EXPECT_EQ(25, gfex_milliseconds("25:"));
  EXPECT_EQ(0, gfex_milliseconds("x25"));
  EXPECT_EQ(7, gfex_milliseconds("  7"));
  EXPECT_EQ(-12, gfex_milliseconds("-12"));
  EXPECT_EQ(12, gfex_milliseconds("+12"));
  EXPECT_EQ(8, gfex_milliseconds({'8', '\0', '8', '\0'}));
}

// ---- Lumen.

TEST(feed_convert, lumen_values_outside_the_range_leave_the_field_alone) {
  using limits = std::numeric_limits<double>;
  for (const double value : {0.0, -0.0, -1.0, k_lumen_limit, 1e300, limits::infinity(),
                             -limits::infinity(), limits::quiet_NaN(), -limits::denorm_min()}) {
    bytes body(k_summary_bytes);
    for (std::size_t at = 0; at < k_summary_bytes; at += 8) put(body, at, value);
    bytes before(k_quote_bytes);
    for (const row& r : k_lumen_summary_rows) put(before, r.to, 77.5);
    const bytes quote =
        convert(convert_lumen_summary_quote_to_kav_quote, lumen_head(1, 0), body, before);
    for (const row& r : k_lumen_summary_rows) EXPECT_EQ(77.5, get<double>(quote, r.to)) << value;
  }
}

TEST(feed_convert, lumen_values_at_the_inner_ends_of_the_range_are_stored) {
  for (const double value : {std::numeric_limits<double>::denorm_min(), 9999999999999.8,
                             std::nextafter(k_lumen_limit, 0.0)}) {
    bytes body(k_tick_bytes);
    for (const std::size_t at : k_tick_doubles) put(body, at, value);
    const bytes quote = convert(convert_lumen_normal_quote_to_kav_quote, lumen_head(0, 3), body,
                                bytes(k_quote_bytes));
    for (const std::size_t to : {80u, 140u, 148u, 217u, 229u})
      EXPECT_EQ(value, get<double>(quote, to));
  }
}

TEST(feed_convert, lumen_book_updates_leave_the_trade_alone) {
  bytes body(k_tick_bytes);
  put(body, 0, 3500.0);
  put(body, 8, std::int32_t{9});
  put(body, 28, 3499.0);
  put(body, 36, std::int32_t{4});
  const bytes quote = convert(convert_lumen_normal_quote_to_kav_quote, lumen_head(1, 2), body,
                              bytes(k_quote_bytes));
  EXPECT_EQ(0.0, get<double>(quote, 80));
  EXPECT_EQ(0, get<std::int32_t>(quote, 136));
  EXPECT_EQ(3499.0, get<double>(quote, 217));
  EXPECT_EQ(4, get<std::int32_t>(quote, 225));
}

std::int32_t volume_after_trade(std::int32_t before, std::int32_t trade) {
  bytes body(k_tick_bytes);
  put(body, 8, trade);
  bytes quote(k_quote_bytes);
  put(quote, 136, before);
  quote = convert(convert_lumen_normal_quote_to_kav_quote, lumen_head(1, 1), body, quote);
  return get<std::int32_t>(quote, 136);
}

TEST(feed_convert, lumen_trade_volumes_add_up) {
  EXPECT_EQ(7, volume_after_trade(volume_after_trade(0, 3), 4));
  EXPECT_EQ(2, volume_after_trade(5, -3));
}

TEST(feed_convert, a_lumen_volume_past_the_end_wraps) {
  constexpr std::int32_t k_max = std::numeric_limits<std::int32_t>::max();
  constexpr std::int32_t k_min = std::numeric_limits<std::int32_t>::min();
  EXPECT_EQ(k_min, volume_after_trade(k_max, 1));
  EXPECT_EQ(k_max, volume_after_trade(k_min, -1));
}

TEST(feed_convert, a_lumen_bid_volume_of_zero_counts_although_its_price_does_not) {
  bytes before(k_quote_bytes);
  put(before, 217, 3499.0);
  put(before, 225, std::int32_t{12});
  const bytes quote = convert(convert_lumen_normal_quote_to_kav_quote, lumen_head(1, 2),
                              bytes(k_tick_bytes), before);
  EXPECT_EQ(3499.0, get<double>(quote, 217));
  EXPECT_EQ(0, get<std::int32_t>(quote, 225));
}

TEST(feed_convert, any_lumen_market_byte_but_zero_is_shfe) {
  for (int market = 0; market < 256; ++market) {
    const bytes head = lumen_head(static_cast<unsigned char>(market), 0);
    const bytes quote = convert(convert_lumen_summary_quote_to_kav_quote, head,
                                bytes(k_summary_bytes), bytes(k_quote_bytes));
    EXPECT_EQ(market == 0 ? "CFFEX" : "SHFE", text_at(quote, 40, 9)) << market;
  }
}

// ---- Arguments.

TEST(feed_convert, null_arguments_are_ignored) {
  const bytes zeros(400);
  const bytes marked(k_quote_bytes, '#');
  exact_buffer source(zeros);
  exact_buffer to(marked);
  auto* const quote = to.as<KAVMarketDepthQuoteData>();
  auto* const head = source.as<lumen_udp_head>();
  convert_shfe_quote_to_kav_quote(nullptr, quote);
  convert_ffex_quote_to_kav_quote(nullptr, quote);
  convert_zce_quote_to_kav_quote(nullptr, quote);
  convert_gfex_quote_to_kav_quote(nullptr, quote);
  convert_lumen_normal_quote_to_kav_quote(nullptr, source.as<lumen_udp_normal>(), quote);
  convert_lumen_normal_quote_to_kav_quote(head, nullptr, quote);
  convert_lumen_summary_quote_to_kav_quote(nullptr, source.as<lumen_udp_summary>(), quote);
  convert_lumen_summary_quote_to_kav_quote(head, nullptr, quote);
  EXPECT_EQ(marked, to.content());
  convert_shfe_quote_to_kav_quote(source.as<KQC_CShfeFtdcDepthMarketDataField>(), nullptr);
  convert_ffex_quote_to_kav_quote(source.as<KQC_CFfexFtdcDepthMarketDataField>(), nullptr);
  convert_zce_quote_to_kav_quote(source.as<MarketMatchData>(), nullptr);
  convert_gfex_quote_to_kav_quote(source.as<_fldGfexBestQuot>(), nullptr);
  convert_lumen_normal_quote_to_kav_quote(head, source.as<lumen_udp_normal>(), nullptr);
  convert_lumen_summary_quote_to_kav_quote(head, source.as<lumen_udp_summary>(), nullptr);
  EXPECT_EQ(zeros, source.content());
}

}  // namespace
