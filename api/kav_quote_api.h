// Market-data client for Chinese futures: sessions with a quote server. kav_multicast.h adds
// multicast groups.
//
// A program implements KAVQuoteEvent, takes a client from CreateKAVQuoteApi(), connects it, logs
// in, registers symbols and receives quotes:
//
//   KAVQuoteApi* api = CreateKAVQuoteApi();
//   api->ConnServer(server, &events);    // OnServerConnected() before it returns
//   api->LoginToKqs(login);              // OnLoginResult() later, on a thread of the library
//   api->RegisterSymbol(type, "IF2509"); // from OnLoginResult(true, "") on
//   ...                                  // OnQuote() on a thread of the library
//   DestroyKAVQuoteApi(api);             // afterwards no callback comes any more
//
// Compiles alone from C++11 on. All records are little-endian and shared byte for byte with the
// library, so none of them may be changed by the caller's packing options.
#pragma once

#include <cstddef>      // offsetof
#include <cstdint>      // std::int32_t, std::uint16_t
#include <type_traits>  // std::is_trivially_copyable
#include <vector>       // std::vector

// What kind of instrument a symbol is. The server's own one-byte codes, handed through unchanged
// and widened to int; the two below are those that the library produces itself.
enum KavKqsIntrumentType : int {
  KavKqsIntrumentTypeNone = '0',       // with the last call of OnSymbolList
  KavKqsIntrumentTypeMulticast = '6',  // with every quote that came over multicast
};

// How serious a log line is.
enum KavKqsLogLevel : int {
  LogLevelDebug = 0,    // traces: socket events, begin and end of threads, table sizes
  LogLevelInfo = 1,     // login success; a connect request while connected
  LogLevelWarning = 2,  // not used so far
  LogLevelError = 3,    // every failure
};

// One quote-server endpoint.
struct KqsTcpInfo {
  char m_Label[16];            //  0  free text for the caller's own use, never read
  char m_ServerIp[16];         // 16  dotted IPv4 address
  std::uint16_t m_ServerPort;  // 32  host byte order
};
static_assert(sizeof(KqsTcpInfo) == 34 && alignof(KqsTcpInfo) == 2, "endpoint record");
static_assert(offsetof(KqsTcpInfo, m_ServerIp) == 16, "endpoint address");
static_assert(offsetof(KqsTcpInfo, m_ServerPort) == 32, "endpoint port");

#pragma pack(push, 1)

// Login credentials. The password itself never travels, only its MD5 digest.
struct KqsLoginParam {
  char m_UserId[16];    //  0  at most 15 characters
  char m_Password[33];  // 16  plain text, at most 32 characters
};

// One multicast group of an exchange feed.
struct KqsMulticastInfo {
  char m_GroupIp[16];         //  0  dotted IPv4 multicast address
  std::uint16_t m_GroupPort;  // 16  host byte order
  char m_LocalIp[16];         // 18  address of the local interface that joins the group
  std::uint16_t m_LocalPort;  // 34  host byte order
  char m_ExchangeId[9];       // 36  exchange name, such as "SHFE"
};

// One quote, whatever its source. Zero (0, 0.0, an empty text) means that there is no value.
// Prices are in the instrument's price unit, volumes are lots. Texts end with a NUL where they are
// shorter than their field; one that fills it has none: read them with strnlen().
// Packed: read fields by value, a reference to one would be misaligned.
struct KAVMarketDepthQuoteData {
  char TradingDay[9];           //   0  YYYYMMDD
  char InstrumentID[31];        //   9  symbol as the caller knows it
  char ExchangeID[9];           //  40  exchange name
  char ExchangeInstID[31];      //  49  symbol as the exchange knows it
  double LastPrice;             //  80
  double PreSettlementPrice;    //  88
  double PreClosePrice;         //  96
  double PreOpenInterest;       // 104
  double OpenPrice;             // 112
  double HighestPrice;          // 120
  double LowestPrice;           // 128
  std::int32_t Volume;          // 136  traded since the day's opening
  double Turnover;              // 140
  double OpenInterest;          // 148
  double ClosePrice;            // 156
  double SettlementPrice;       // 164
  double UpperLimitPrice;       // 172
  double LowerLimitPrice;       // 180
  double PreDelta;              // 188
  double CurrDelta;             // 196
  char UpdateTime[9];           // 204  HH:MM:SS
  std::int32_t UpdateMillisec;  // 213
  double BidPrice1;             // 217  best bid
  std::int32_t BidVolume1;      // 225
  double AskPrice1;             // 229  best ask
  std::int32_t AskVolume1;      // 237
  double BidPrice2;             // 241
  std::int32_t BidVolume2;      // 249
  double AskPrice2;             // 253
  std::int32_t AskVolume2;      // 261
  double BidPrice3;             // 265
  std::int32_t BidVolume3;      // 273
  double AskPrice3;             // 277
  std::int32_t AskVolume3;      // 285
  double BidPrice4;             // 289
  std::int32_t BidVolume4;      // 297
  double AskPrice4;             // 301
  std::int32_t AskVolume4;      // 309
  double BidPrice5;             // 313
  std::int32_t BidVolume5;      // 321
  double AskPrice5;             // 325
  std::int32_t AskVolume5;      // 333
  double AveragePrice;          // 337
};

#pragma pack(pop)

static_assert(sizeof(KqsLoginParam) == 49 && alignof(KqsLoginParam) == 1, "login record");
static_assert(offsetof(KqsLoginParam, m_Password) == 16, "login password");
static_assert(sizeof(KqsMulticastInfo) == 45 && alignof(KqsMulticastInfo) == 1, "group record");
static_assert(offsetof(KqsMulticastInfo, m_GroupPort) == 16, "group port");
static_assert(offsetof(KqsMulticastInfo, m_LocalIp) == 18, "group local address");
static_assert(offsetof(KqsMulticastInfo, m_LocalPort) == 34, "group local port");
static_assert(offsetof(KqsMulticastInfo, m_ExchangeId) == 36, "group exchange name");

static_assert(sizeof(KAVMarketDepthQuoteData) == 345, "quote record");
static_assert(alignof(KAVMarketDepthQuoteData) == 1, "quote record is packed");
static_assert(offsetof(KAVMarketDepthQuoteData, InstrumentID) == 9, "quote symbol");
static_assert(offsetof(KAVMarketDepthQuoteData, ExchangeID) == 40, "quote exchange");
static_assert(offsetof(KAVMarketDepthQuoteData, ExchangeInstID) == 49, "quote exchange symbol");
static_assert(offsetof(KAVMarketDepthQuoteData, LastPrice) == 80, "quote prices");
static_assert(offsetof(KAVMarketDepthQuoteData, PreSettlementPrice) == 88, "quote prices");
static_assert(offsetof(KAVMarketDepthQuoteData, PreClosePrice) == 96, "quote prices");
static_assert(offsetof(KAVMarketDepthQuoteData, PreOpenInterest) == 104, "quote prices");
static_assert(offsetof(KAVMarketDepthQuoteData, OpenPrice) == 112, "quote prices");
static_assert(offsetof(KAVMarketDepthQuoteData, HighestPrice) == 120, "quote prices");
static_assert(offsetof(KAVMarketDepthQuoteData, LowestPrice) == 128, "quote prices");
static_assert(offsetof(KAVMarketDepthQuoteData, Volume) == 136, "quote volume");
static_assert(offsetof(KAVMarketDepthQuoteData, Turnover) == 140, "quote turnover");
static_assert(offsetof(KAVMarketDepthQuoteData, OpenInterest) == 148, "quote open interest");
static_assert(offsetof(KAVMarketDepthQuoteData, ClosePrice) == 156, "quote prices");
static_assert(offsetof(KAVMarketDepthQuoteData, SettlementPrice) == 164, "quote prices");
static_assert(offsetof(KAVMarketDepthQuoteData, UpperLimitPrice) == 172, "quote limits");
static_assert(offsetof(KAVMarketDepthQuoteData, LowerLimitPrice) == 180, "quote limits");
static_assert(offsetof(KAVMarketDepthQuoteData, PreDelta) == 188, "quote delta");
static_assert(offsetof(KAVMarketDepthQuoteData, CurrDelta) == 196, "quote delta");
static_assert(offsetof(KAVMarketDepthQuoteData, UpdateTime) == 204, "quote time");
static_assert(offsetof(KAVMarketDepthQuoteData, UpdateMillisec) == 213, "quote time");
static_assert(offsetof(KAVMarketDepthQuoteData, BidPrice1) == 217, "quote level 1");
static_assert(offsetof(KAVMarketDepthQuoteData, BidVolume1) == 225, "quote level 1");
static_assert(offsetof(KAVMarketDepthQuoteData, AskPrice1) == 229, "quote level 1");
static_assert(offsetof(KAVMarketDepthQuoteData, AskVolume1) == 237, "quote level 1");
static_assert(offsetof(KAVMarketDepthQuoteData, BidPrice2) == 241, "quote level 2");
static_assert(offsetof(KAVMarketDepthQuoteData, BidVolume2) == 249, "quote level 2");
static_assert(offsetof(KAVMarketDepthQuoteData, AskPrice2) == 253, "quote level 2");
static_assert(offsetof(KAVMarketDepthQuoteData, AskVolume2) == 261, "quote level 2");
static_assert(offsetof(KAVMarketDepthQuoteData, BidPrice3) == 265, "quote level 3");
static_assert(offsetof(KAVMarketDepthQuoteData, BidVolume3) == 273, "quote level 3");
static_assert(offsetof(KAVMarketDepthQuoteData, AskPrice3) == 277, "quote level 3");
static_assert(offsetof(KAVMarketDepthQuoteData, AskVolume3) == 285, "quote level 3");
static_assert(offsetof(KAVMarketDepthQuoteData, BidPrice4) == 289, "quote level 4");
static_assert(offsetof(KAVMarketDepthQuoteData, BidVolume4) == 297, "quote level 4");
static_assert(offsetof(KAVMarketDepthQuoteData, AskPrice4) == 301, "quote level 4");
static_assert(offsetof(KAVMarketDepthQuoteData, AskVolume4) == 309, "quote level 4");
static_assert(offsetof(KAVMarketDepthQuoteData, BidPrice5) == 313, "quote level 5");
static_assert(offsetof(KAVMarketDepthQuoteData, BidVolume5) == 321, "quote level 5");
static_assert(offsetof(KAVMarketDepthQuoteData, AskPrice5) == 325, "quote level 5");
static_assert(offsetof(KAVMarketDepthQuoteData, AskVolume5) == 333, "quote level 5");
static_assert(offsetof(KAVMarketDepthQuoteData, AveragePrice) == 337, "quote average price");
static_assert(std::is_trivially_copyable<KAVMarketDepthQuoteData>::value, "copied as bytes");

// What the library tells its caller. The caller implements and owns the object, which outlives
// the client; the library never deletes it.
//
// Threads: callbacks come from several threads, at times from two at once, and no lock of the
//          library is held meanwhile. Texts and records are valid only during the call.
//          From inside a callback every operation of the client may be called, DestroyKAVQuoteApi()
//          included: the client then goes when the callback has returned.
// Pace:    OnQuote() delays the quotes behind it; they wait in memory. Keep it short.
// Errors:  a callback on a thread of the library may throw std::bad_alloc: a log line or a quote of
//          a multicast group is lost then, anything else loses the connection, which is mended.
//          Any other exception ends the process, as one that leaves a thread does.
class KAVQuoteEvent {
 public:
  virtual ~KAVQuoteEvent() {}

  // The TCP connection stands. From inside ConnServer(), on the caller's thread; not repeated when
  // the library reconnects by itself.
  virtual void OnServerConnected() = 0;
  // The session ended before a login had been accepted: connection lost, or login refused (after
  // OnLoginResult). On a thread of the library. A loss after that is mended by reconnection.
  virtual void OnServerDisconnected() = 0;
  // The login was accepted and the symbol list is complete (true, ""), or the login failed (false,
  // the server's reason or "query symbol error"). On a thread of the library.
  virtual void OnLoginResult(bool success, const char* reason) = 0;
  // One quote. On the receive thread (TCP) or the multicast thread. The record is the library's.
  virtual void OnQuote(KavKqsIntrumentType type, KAVMarketDepthQuoteData* quote) = 0;
  // One log line of `length` characters, at most 1023, without a line end. On any thread.
  virtual void OnLog(KavKqsLogLevel level, const char* text, int length) = 0;
  // The server's answers to registrations, also to those that the library repeats after a loss.
  // Both on the receive thread.
  virtual void OnSymbolRegistered(KavKqsIntrumentType type, const char* symbol, bool success) = 0;
  virtual void OnSymbolUnregistered(KavKqsIntrumentType type, const char* symbol, bool success) = 0;
  // The answer to QuerySymbolList(): once for each known symbol with last == false, then once with
  // ('0', "", true). On the worker thread.
  virtual void OnSymbolList(KavKqsIntrumentType type, const char* symbol, bool last) = 0;
};

// One client: one session with one quote server. Any number may live; they share nothing.
// Operations may be called from any thread and, but for ConnServer() and DisConnServer(), return
// without waiting for the network.
class KAVQuoteApi {
 public:
  virtual ~KAVQuoteApi() {}

  // Connects to the first endpoint of the list; the others are not tried. Waits until the
  // connection stands or failed, 20 s at most. True: connected, or nothing done because the client
  // already was; false: invalid arguments or no connection, OnLog() says why.
  virtual bool ConnServer(std::vector<KqsTcpInfo>& servers, KAVQuoteEvent* event) = 0;
  virtual bool ConnServer(KqsTcpInfo& server, KAVQuoteEvent* event) = 0;
  // Returns 0 and does nothing in this version; kav_multicast.h receives multicast groups.
  virtual int InitMulticast(std::vector<KqsMulticastInfo>& groups, KAVQuoteEvent* event) = 0;
  // Sends the login request: nonzero when it went out, else 0. The outcome comes through
  // OnLoginResult(). Only while connected and not logged in.
  virtual int LoginToKqs(KqsLoginParam& param) = 0;
  // Asks for OnSymbolList() calls from the list that came with the login. Returns 0.
  virtual int QuerySymbolList() = 0;
  // Adds a symbol to, or takes it from, the wanted ones; the library keeps the server informed,
  // after reconnections too. Symbols longer than 19 characters are cut; one that is not in the
  // symbol list is dropped without a word. `type` is not looked at, the one of the symbol list goes
  // to the server: KavKqsIntrumentTypeNone will do. Return 0.
  virtual int RegisterSymbol(KavKqsIntrumentType type, const char* symbol) = 0;
  virtual int UnregisterSymbol(KavKqsIntrumentType type, const char* symbol) = 0;
  // Ends a logged-in session and waits for its worker thread, ten seconds at most; from inside a
  // callback of the library's threads it only asks for the end.
  virtual void DisConnServer() = 0;
};

// A new client, never null; std::bad_alloc when there is no memory. Free it with
// DestroyKAVQuoteApi().
extern "C" KAVQuoteApi* CreateKAVQuoteApi();
// Ends the session and deletes the client; null is ignored. Once it returns, no call of the
// caller's object begins any more; it waits for one under way, eleven seconds at most. From inside
// a callback of that client it waits only for callbacks that other threads are in, half a second at
// most; none begins afterwards, and the client goes when the callback has returned.
extern "C" void DestroyKAVQuoteApi(KAVQuoteApi* api);
