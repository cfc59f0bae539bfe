// The records that the exchanges and the lumen format multicast, one to a datagram, little-endian.
//
// The structs only give names to bytes. A record may lie at any address and may have arrived in
// part, so fields are read one by one with read_le() at the offset that offsetof() gives, never
// through a reference and never as a whole. Texts end at their NUL, or else with their field.
#pragma once

#include <cstddef>      // offsetof
#include <cstdint>      // std::int32_t, std::uint32_t
#include <cstring>      // memcpy
#include <type_traits>  // std::is_trivially_copyable

#pragma pack(push, 1)

// One depth level of the SHFE and CFFEX records.
struct ftdc_depth_level {
  double BidPrice;         //  0
  std::int32_t BidVolume;  //  8
  char not_read_1[4];      // 12
  double AskPrice;         // 16
  std::int32_t AskVolume;  // 24
  char not_read_2[4];      // 28
};

// What the SHFE and CFFEX records have in common.
struct ftdc_depth_market_data {
  char TradingDay[9];           //   0
  char not_read_1[15];          //   9
  double LastPrice;             //  24
  double PreSettlementPrice;    //  32
  double PreClosePrice;         //  40
  double PreOpenInterest;       //  48
  double OpenPrice;             //  56
  double HighestPrice;          //  64
  double LowestPrice;           //  72
  std::int32_t Volume;          //  80
  char not_read_2[4];           //  84
  double Turnover;              //  88
  double OpenInterest;          //  96
  double ClosePrice;            // 104
  double SettlementPrice;       // 112
  double UpperLimitPrice;       // 120
  double LowerLimitPrice;       // 128
  double PreDelta;              // 136
  double CurrDelta;             // 144
  char UpdateTime[9];           // 152
  char not_read_3[3];           // 161
  std::int32_t UpdateMillisec;  // 164
  char InstrumentID[31];        // 168
  char not_read_4[1];           // 199
  ftdc_depth_level Levels[5];   // 200  level 1 first
};

// SHFE and INE. The last byte read is at 355; the rest of the datagram's 368 bytes is not.
struct KQC_CShfeFtdcDepthMarketDataField : ftdc_depth_market_data {
  char not_read_5[8];  // 360
};

// CFFEX. The last byte read is at 355.
struct KQC_CFfexFtdcDepthMarketDataField : ftdc_depth_market_data {};

// CZCE.
struct MarketMatchData {
  char InstrumentID[23];          //   0
  double PreClosePrice;           //  23
  double PreSettlementPrice;      //  31
  std::uint32_t PreOpenInterest;  //  39
  double OpenPrice;               //  43
  double BidPrice1;               //  51
  std::uint32_t BidVolume1;       //  59
  double AskPrice1;               //  63
  std::uint32_t AskVolume1;       //  71
  double LastPrice;               //  75
  char not_read_1[8];             //  83
  std::uint32_t Turnover;         //  91
  std::uint32_t OpenInterest;     //  95
  double HighestPrice;            //  99
  double LowestPrice;             // 107
  double ClosePrice;              // 115
  char not_read_2[8];             // 123
  double SettlementPrice;         // 131
  double AveragePrice;            // 139
  char not_read_3[16];            // 147
  double UpperLimitPrice;         // 163
  double LowerLimitPrice;         // 171
  char not_read_4[4];             // 179
  std::uint16_t Year;             // 183
  std::uint8_t Month;             // 185
  std::uint8_t Day;               // 186
  char not_read_5[3];             // 187
  std::uint32_t UpdateMillisec;   // 190
  char not_read_6[10];            // 194
  std::uint32_t Volume;           // 204
  char not_read_7[31];            // 208
};

// GFEX. Longer than its datagram, which ends at 239: a decoder lets zeros follow.
struct _fldGfexBestQuot {
  char TradingDay[9];             //   0
  char InstrumentID[71];          //   9
  double LastPrice;               //  80
  double HighestPrice;            //  88
  double LowestPrice;             //  96
  char not_read_1[4];             // 104
  std::int32_t Volume;            // 108
  double Turnover;                // 112
  std::uint32_t PreOpenInterest;  // 120
  std::uint32_t OpenInterest;     // 124
  char not_read_2[8];             // 128
  double SettlementPrice;         // 136
  char not_read_3[16];            // 144
  double UpperLimitPrice;         // 160
  double LowerLimitPrice;         // 168
  double PreSettlementPrice;      // 176
  double PreClosePrice;           // 184
  double BidPrice1;               // 192
  std::int32_t BidVolume1;        // 200
  char not_read_4[4];             // 204
  double AskPrice1;               // 208
  std::int32_t AskVolume1;        // 216
  char not_read_5[4];             // 220
  double AveragePrice;            // 224
  char UpdateTime[8];             // 232  HH:MM:SS, no NUL
  char separator[1];              // 240
  char UpdateMillisec[3];         // 241  digits, no NUL
  char not_read_6[4];             // 244
  double OpenPrice;               // 248
  double ClosePrice;              // 256
};

// Starts every lumen datagram.
struct lumen_udp_head {
  char not_read_1[4];           //  0
  std::uint8_t Market;          //  4  SHFE, or 0 for CFFEX
  char not_read_2[6];           //  5
  char InstrumentID[31];        // 11
  char UpdateTime[9];           // 42
  std::int32_t UpdateMillisec;  // 51
  std::uint8_t QuoteFlag;       // 55  in a tick: a lumen_quote_flag
};

// What a tick tells.
enum lumen_quote_flag : int {
  k_lumen_trade = 1,
  k_lumen_book = 2,
  k_lumen_trade_and_book = 3,
};

// A tick, behind the head.
struct lumen_udp_normal {
  double LastPrice;          //  0
  std::int32_t TradeVolume;  //  8  of this trade alone
  double Turnover;           // 12
  double OpenInterest;       // 20
  double BidPrice1;          // 28
  std::int32_t BidVolume1;   // 36
  double AskPrice1;          // 40
  std::int32_t AskVolume1;   // 48
};

// A summary, behind the head.
struct lumen_udp_summary {
  double OpenPrice;        //  0
  double HighestPrice;     //  8
  double LowestPrice;      // 16
  double ClosePrice;       // 24
  double UpperLimitPrice;  // 32
  double LowerLimitPrice;  // 40
  double SettlementPrice;  // 48
  double CurrDelta;        // 56
};

#pragma pack(pop)

static_assert(sizeof(ftdc_depth_level) == 32, "depth level");
static_assert(offsetof(ftdc_depth_level, AskPrice) == 16, "depth level");
static_assert(offsetof(ftdc_depth_level, AskVolume) == 24, "depth level");

static_assert(sizeof(ftdc_depth_market_data) == 360, "SHFE and CFFEX record");
static_assert(offsetof(ftdc_depth_market_data, LastPrice) == 24, "SHFE and CFFEX prices");
static_assert(offsetof(ftdc_depth_market_data, Volume) == 80, "SHFE and CFFEX volume");
static_assert(offsetof(ftdc_depth_market_data, Turnover) == 88, "SHFE and CFFEX turnover");
static_assert(offsetof(ftdc_depth_market_data, UpdateTime) == 152, "SHFE and CFFEX time");
static_assert(offsetof(ftdc_depth_market_data, UpdateMillisec) == 164, "SHFE and CFFEX time");
static_assert(offsetof(ftdc_depth_market_data, InstrumentID) == 168, "SHFE and CFFEX instrument");
static_assert(offsetof(ftdc_depth_market_data, Levels) == 200, "SHFE and CFFEX levels");
static_assert(sizeof(KQC_CShfeFtdcDepthMarketDataField) == 368, "SHFE datagram");
static_assert(sizeof(KQC_CFfexFtdcDepthMarketDataField) == 360, "CFFEX datagram");

static_assert(sizeof(MarketMatchData) == 239, "CZCE datagram");
static_assert(offsetof(MarketMatchData, LastPrice) == 75, "CZCE last price");
static_assert(offsetof(MarketMatchData, Turnover) == 91, "CZCE turnover");
static_assert(offsetof(MarketMatchData, SettlementPrice) == 131, "CZCE settlement");
static_assert(offsetof(MarketMatchData, UpperLimitPrice) == 163, "CZCE limits");
static_assert(offsetof(MarketMatchData, Year) == 183, "CZCE date");
static_assert(offsetof(MarketMatchData, UpdateMillisec) == 190, "CZCE milliseconds");
static_assert(offsetof(MarketMatchData, Volume) == 204, "CZCE volume");

static_assert(sizeof(_fldGfexBestQuot) == 264, "GFEX record");
static_assert(offsetof(_fldGfexBestQuot, LastPrice) == 80, "GFEX last price");
static_assert(offsetof(_fldGfexBestQuot, Volume) == 108, "GFEX volume");
static_assert(offsetof(_fldGfexBestQuot, SettlementPrice) == 136, "GFEX settlement");
static_assert(offsetof(_fldGfexBestQuot, UpperLimitPrice) == 160, "GFEX limits");
static_assert(offsetof(_fldGfexBestQuot, BidPrice1) == 192, "GFEX level 1");
static_assert(offsetof(_fldGfexBestQuot, UpdateTime) == 232, "GFEX time");
static_assert(offsetof(_fldGfexBestQuot, UpdateMillisec) == 241, "GFEX milliseconds");
static_assert(offsetof(_fldGfexBestQuot, OpenPrice) == 248, "GFEX open");

static_assert(sizeof(lumen_udp_head) == 56, "lumen head");
static_assert(offsetof(lumen_udp_head, InstrumentID) == 11, "lumen symbol");
static_assert(offsetof(lumen_udp_head, UpdateTime) == 42, "lumen time");
static_assert(offsetof(lumen_udp_head, QuoteFlag) == 55, "lumen quote flag");
static_assert(sizeof(lumen_udp_normal) == 52, "lumen tick");
static_assert(offsetof(lumen_udp_normal, BidPrice1) == 28, "lumen tick level 1");
static_assert(sizeof(lumen_udp_summary) == 64, "lumen summary");

// The little-endian value at `offset` behind `record`, wherever that lies.
template <class T>
T read_le(const void* record, std::size_t offset) {
  static_assert(std::is_trivially_copyable<T>::value, "read as bytes");
  static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the host's order is the feeds'");
  T value;
  std::memcpy(&value, static_cast<const char*>(record) + offset, sizeof(value));
  return value;
}
