// The binary interface: slots of both classes, called and answered the way a program would that was
// compiled elsewhere; sizes and offsets of the records.
#include <gtest/gtest.h>

#include <algorithm>    // std::find
#include <atomic>       // std::atomic
#include <cstdlib>      // malloc
#include <cstring>      // strcmp
#include <mutex>        // std::mutex
#include <new>          // std::bad_alloc
#include <string>       // std::string
#include <type_traits>  // std::is_abstract
#include <typeinfo>     // typeid
#include <vector>       // std::vector

#include "api/kav_quote_api.h"
#include "apps/sim/quote_server.h"
#include "client/ckqc_tcp.h"
#include "tests/support/wait_until.h"

namespace {

// How often the memory at one address has been given back.
std::atomic<void*> g_watched{nullptr};
std::atomic<int> g_freed{0};

void give_back(void* memory) {
  if (memory != nullptr && memory == g_watched.load()) ++g_freed;
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
  if (void* const memory = std::malloc(size != 0 ? size : 1)) return memory;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return ::operator new(size); }
void operator delete(void* memory) noexcept { give_back(memory); }
void operator delete(void* memory, std::size_t) noexcept { give_back(memory); }
void operator delete[](void* memory) noexcept { give_back(memory); }
void operator delete[](void* memory, std::size_t) noexcept { give_back(memory); }

namespace {

using slot = void (*)();

// The address of a virtual table is the first word of an object.
const slot* table_of(const void* object) { return *static_cast<const slot* const*>(object); }

template <class FUNCTION>
FUNCTION as(slot function) {
  return reinterpret_cast<FUNCTION>(function);
}

// ---- A caller's object without a class: a table of functions, and where to write what they heard.

struct plain_event {
  const slot* table;
  std::mutex lock;
  std::vector<std::string> lines;  // protected by lock

  KAVQuoteEvent* get() { return reinterpret_cast<KAVQuoteEvent*>(this); }
  void hear(const std::string& line) {
    const std::lock_guard<std::mutex> guard(lock);
    lines.push_back(line);
  }
  std::vector<std::string> heard() {
    const std::lock_guard<std::mutex> guard(lock);
    return lines;
  }
  bool hears(const std::string& line) {
    const auto heard_it = [&] {
      const std::lock_guard<std::mutex> guard(lock);
      return std::find(lines.begin(), lines.end(), line) != lines.end();
    };
    return wait_until(heard_it, std::chrono::seconds{20});
  }
};
static_assert(offsetof(plain_event, table) == 0, "an object begins with its table");

template <int NUMBER>
void no_arguments(plain_event* self) {
  self->hear(std::to_string(NUMBER));
}
void login_result(plain_event* self, bool success, const char* reason) {
  self->hear("4 " + std::to_string(int{success}) + reason);
}
void quote(plain_event* self, int type, KAVMarketDepthQuoteData* record) {
  self->hear("5 " + std::to_string(type) + record->InstrumentID);
}
void log(plain_event* self, int level, const char* text, int length) {
  self->hear("6 " + std::to_string(level) + std::string(text, text + length));
}
template <int NUMBER>
void symbol(plain_event* self, int type, const char* name, bool flag) {
  self->hear(std::to_string(NUMBER) + " " + std::to_string(type) + name +
             std::to_string(int{flag}));
}

// In front of the slots stand the offset to the object's begin (0) and its type.
struct event_table {
  std::ptrdiff_t offset;
  const std::type_info* type;
  slot slots[10];
};

const event_table k_event_table = {
    0,
    &typeid(KAVQuoteEvent),
    {reinterpret_cast<slot>(no_arguments<0>), reinterpret_cast<slot>(no_arguments<1>),
     reinterpret_cast<slot>(no_arguments<2>), reinterpret_cast<slot>(no_arguments<3>),
     reinterpret_cast<slot>(login_result), reinterpret_cast<slot>(quote),
     reinterpret_cast<slot>(log), reinterpret_cast<slot>(symbol<7>),
     reinterpret_cast<slot>(symbol<8>), reinterpret_cast<slot>(symbol<9>)}};

KqsTcpInfo nowhere() {
  KqsTcpInfo info{};
  std::strcpy(info.m_ServerIp, "nowhere");
  info.m_ServerPort = 7;
  return info;
}

const std::string k_connect_failed =
    "6 3[QuoteClient] init connect server failed. server ip: nowhere, port: 7.";

}  // namespace

class slot_order_test : public testing::Test {
 protected:
  void TearDown() override {
    if (m_api != nullptr) DestroyKAVQuoteApi(m_api);
  }
  template <class FUNCTION>
  FUNCTION slot_at(int number) const {
    return as<FUNCTION>(table_of(m_api)[number]);
  }

  plain_event m_event{k_event_table.slots, {}, {}};
  KAVQuoteApi* m_api = CreateKAVQuoteApi();
};

// ---- KAVQuoteApi

TEST_F(slot_order_test, slot_1_deletes_the_client) {
  g_watched = m_api;
  g_freed = 0;
  slot_at<void (*)(void*)>(1)(m_api);
  m_api = nullptr;
  EXPECT_EQ(1, g_freed);
  g_watched = nullptr;
}

TEST_F(slot_order_test, slot_0_destroys_the_client_and_leaves_its_memory) {
  g_watched = m_api;
  g_freed = 0;
  slot_at<void (*)(void*)>(0)(m_api);
  EXPECT_EQ(0, g_freed);
  ::operator delete(static_cast<void*>(m_api));
  m_api = nullptr;
  EXPECT_EQ(1, g_freed);
  g_watched = nullptr;
}

TEST_F(slot_order_test, destroy_function_deletes_the_client) {
  g_watched = m_api;
  g_freed = 0;
  DestroyKAVQuoteApi(m_api);
  m_api = nullptr;
  EXPECT_EQ(1, g_freed);
  g_watched = nullptr;
}

TEST_F(slot_order_test, slot_2_connects_to_the_first_of_a_list) {
  std::vector<KqsTcpInfo> servers{nowhere(), KqsTcpInfo{}};
  const auto connect = slot_at<bool (*)(void*, std::vector<KqsTcpInfo>*, KAVQuoteEvent*)>(2);
  EXPECT_FALSE(connect(m_api, &servers, m_event.get()));
  EXPECT_EQ(std::vector<std::string>{k_connect_failed}, m_event.heard());
  servers.clear();
  EXPECT_FALSE(connect(m_api, &servers, m_event.get()));
  EXPECT_EQ("6 3[QuoteClient] invalid params.", m_event.heard().back());
}

TEST_F(slot_order_test, slot_3_connects_to_one) {
  KqsTcpInfo server = nowhere();
  const auto connect = slot_at<bool (*)(void*, KqsTcpInfo*, KAVQuoteEvent*)>(3);
  EXPECT_FALSE(connect(m_api, &server, m_event.get()));
  EXPECT_EQ(std::vector<std::string>{k_connect_failed}, m_event.heard());
}

TEST_F(slot_order_test, slot_4_is_multicast_and_does_nothing) {
  std::vector<KqsMulticastInfo> groups(1);
  const auto init = slot_at<int (*)(void*, std::vector<KqsMulticastInfo>*, KAVQuoteEvent*)>(4);
  EXPECT_EQ(0, init(m_api, &groups, m_event.get()));
  EXPECT_EQ(1u, groups.size());
  EXPECT_TRUE(m_event.heard().empty());
}

TEST_F(slot_order_test, slot_5_logs_in) {
  KqsTcpInfo server = nowhere();
  m_api->ConnServer(server, m_event.get());
  KqsLoginParam param{};
  EXPECT_EQ(0, slot_at<int (*)(void*, KqsLoginParam*)>(5)(m_api, &param));
  EXPECT_EQ("6 3[QuoteClient] login_to_kqs failed. wrong kqc tcp status: 0.",
            m_event.heard().back());
}

TEST_F(slot_order_test, slot_9_stops) {
  slot_at<void (*)(void*)>(9)(m_api);
  // Tries until it is told to stop.
  EXPECT_FALSE(dynamic_cast<Ckqc_tcp&>(*m_api)._th_try_reconn());
}

// ---- A whole session through the slots of both classes

TEST_F(slot_order_test, session_reaches_every_slot_of_the_callers_object_but_the_destructors) {
  kav_sim::server_options options;
  options.symbols = {{"IF2509", '1'}};
  kav_sim::quote_server server(options);
  ASSERT_TRUE(server.start());
  KqsTcpInfo endpoint{};
  std::strcpy(endpoint.m_ServerIp, "127.0.0.1");
  endpoint.m_ServerPort = server.port();
  KqsLoginParam login{};
  EXPECT_TRUE(
      slot_at<bool (*)(void*, KqsTcpInfo*, KAVQuoteEvent*)>(3)(m_api, &endpoint, m_event.get()));
  EXPECT_TRUE(m_event.hears("2"));
  EXPECT_NE(0, slot_at<int (*)(void*, KqsLoginParam*)>(5)(m_api, &login));
  EXPECT_TRUE(m_event.hears("4 1"));
  EXPECT_TRUE(m_event.hears("6 0Ckqc_tcp::_th_try_query_symbol_list,size:1"));
  EXPECT_EQ(0, slot_at<int (*)(void*)>(6)(m_api));
  EXPECT_TRUE(m_event.hears("9 49IF25090"));
  EXPECT_TRUE(m_event.hears("9 481"));
  EXPECT_EQ(0, slot_at<int (*)(void*, int, const char*)>(7)(m_api, '7', "IF2509"));
  EXPECT_TRUE(m_event.hears("7 49IF25091"));
  KAVMarketDepthQuoteData record{};
  std::strcpy(record.InstrumentID, "IF2509");
  EXPECT_EQ(1u, server.push_quote(record, '3').queued);
  EXPECT_TRUE(m_event.hears("5 51IF2509"));
  EXPECT_EQ(0, slot_at<int (*)(void*, int, const char*)>(8)(m_api, '7', "IF2509"));
  EXPECT_TRUE(m_event.hears("8 49IF25091"));
  slot_at<void (*)(void*)>(9)(m_api);
  EXPECT_TRUE(
      wait_until([&] { return server.connections().current == 0; }, std::chrono::seconds{20}));

  EXPECT_TRUE(
      slot_at<bool (*)(void*, KqsTcpInfo*, KAVQuoteEvent*)>(3)(m_api, &endpoint, m_event.get()));
  EXPECT_TRUE(
      wait_until([&] { return server.connections().current == 1; }, std::chrono::seconds{20}));
  server.drop_all();
  EXPECT_TRUE(m_event.hears("3"));
  DestroyKAVQuoteApi(m_api);
  m_api = nullptr;
  for (const std::string& line : m_event.heard()) {
    EXPECT_NE("0", line) << "the caller's object is not the library's to destroy";
    EXPECT_NE("1", line) << "the caller's object is not the library's to delete";
  }
}

// ---- Types

TEST(public_types, both_classes_are_abstract_with_virtual_destructors_and_without_data) {
  EXPECT_TRUE(std::is_abstract<KAVQuoteApi>::value);
  EXPECT_TRUE(std::is_abstract<KAVQuoteEvent>::value);
  EXPECT_TRUE(std::has_virtual_destructor<KAVQuoteApi>::value);
  EXPECT_TRUE(std::has_virtual_destructor<KAVQuoteEvent>::value);
  EXPECT_EQ(sizeof(void*), sizeof(KAVQuoteApi));
  EXPECT_EQ(sizeof(void*), sizeof(KAVQuoteEvent));
}

TEST(public_types, enumerations_are_ints_with_fixed_values) {
  EXPECT_EQ(4u, sizeof(KavKqsIntrumentType));
  EXPECT_EQ(4u, sizeof(KavKqsLogLevel));
  EXPECT_TRUE((std::is_convertible<KavKqsIntrumentType, int>::value)) << "unscoped";
  EXPECT_EQ(0, int{LogLevelDebug});
  EXPECT_EQ(1, int{LogLevelInfo});
  EXPECT_EQ(2, int{LogLevelWarning});
  EXPECT_EQ(3, int{LogLevelError});
  for (const int value : {-128, -1, 0, 48, 54, 127}) {
    EXPECT_EQ(value, int{static_cast<KavKqsIntrumentType>(value)});
  }
}

TEST(public_types, records_lie_as_callers_were_compiled_for) {
  EXPECT_EQ(34u, sizeof(KqsTcpInfo));
  EXPECT_EQ(2u, alignof(KqsTcpInfo));
  EXPECT_EQ(0u, offsetof(KqsTcpInfo, m_Label));
  EXPECT_EQ(16u, offsetof(KqsTcpInfo, m_ServerIp));
  EXPECT_EQ(32u, offsetof(KqsTcpInfo, m_ServerPort));
  EXPECT_EQ(49u, sizeof(KqsLoginParam));
  EXPECT_EQ(1u, alignof(KqsLoginParam));
  EXPECT_EQ(0u, offsetof(KqsLoginParam, m_UserId));
  EXPECT_EQ(16u, offsetof(KqsLoginParam, m_Password));
  EXPECT_EQ(33u, sizeof(KqsLoginParam::m_Password));
  EXPECT_EQ(45u, sizeof(KqsMulticastInfo));
  EXPECT_EQ(1u, alignof(KqsMulticastInfo));
  EXPECT_EQ(16u, offsetof(KqsMulticastInfo, m_GroupPort));
  EXPECT_EQ(18u, offsetof(KqsMulticastInfo, m_LocalIp));
  EXPECT_EQ(34u, offsetof(KqsMulticastInfo, m_LocalPort));
  EXPECT_EQ(36u, offsetof(KqsMulticastInfo, m_ExchangeId));
}

#define EXPECT_QUOTE_FIELD(offset, width, field)                  \
  EXPECT_EQ(offset##u, offsetof(KAVMarketDepthQuoteData, field)); \
  EXPECT_EQ(width##u, sizeof(KAVMarketDepthQuoteData::field))

TEST(public_types, quote_record_is_345_bytes_without_padding) {
  EXPECT_EQ(345u, sizeof(KAVMarketDepthQuoteData));
  EXPECT_EQ(1u, alignof(KAVMarketDepthQuoteData));
  EXPECT_QUOTE_FIELD(0, 9, TradingDay);
  EXPECT_QUOTE_FIELD(9, 31, InstrumentID);
  EXPECT_QUOTE_FIELD(40, 9, ExchangeID);
  EXPECT_QUOTE_FIELD(49, 31, ExchangeInstID);
  EXPECT_QUOTE_FIELD(80, 8, LastPrice);
  EXPECT_QUOTE_FIELD(88, 8, PreSettlementPrice);
  EXPECT_QUOTE_FIELD(96, 8, PreClosePrice);
  EXPECT_QUOTE_FIELD(104, 8, PreOpenInterest);
  EXPECT_QUOTE_FIELD(112, 8, OpenPrice);
  EXPECT_QUOTE_FIELD(120, 8, HighestPrice);
  EXPECT_QUOTE_FIELD(128, 8, LowestPrice);
  EXPECT_QUOTE_FIELD(136, 4, Volume);
  EXPECT_QUOTE_FIELD(140, 8, Turnover);
  EXPECT_QUOTE_FIELD(148, 8, OpenInterest);
  EXPECT_QUOTE_FIELD(156, 8, ClosePrice);
  EXPECT_QUOTE_FIELD(164, 8, SettlementPrice);
  EXPECT_QUOTE_FIELD(172, 8, UpperLimitPrice);
  EXPECT_QUOTE_FIELD(180, 8, LowerLimitPrice);
  EXPECT_QUOTE_FIELD(188, 8, PreDelta);
  EXPECT_QUOTE_FIELD(196, 8, CurrDelta);
  EXPECT_QUOTE_FIELD(204, 9, UpdateTime);
  EXPECT_QUOTE_FIELD(213, 4, UpdateMillisec);
  EXPECT_QUOTE_FIELD(217, 8, BidPrice1);
  EXPECT_QUOTE_FIELD(225, 4, BidVolume1);
  EXPECT_QUOTE_FIELD(229, 8, AskPrice1);
  EXPECT_QUOTE_FIELD(237, 4, AskVolume1);
  EXPECT_QUOTE_FIELD(241, 8, BidPrice2);
  EXPECT_QUOTE_FIELD(249, 4, BidVolume2);
  EXPECT_QUOTE_FIELD(253, 8, AskPrice2);
  EXPECT_QUOTE_FIELD(261, 4, AskVolume2);
  EXPECT_QUOTE_FIELD(265, 8, BidPrice3);
  EXPECT_QUOTE_FIELD(273, 4, BidVolume3);
  EXPECT_QUOTE_FIELD(277, 8, AskPrice3);
  EXPECT_QUOTE_FIELD(285, 4, AskVolume3);
  EXPECT_QUOTE_FIELD(289, 8, BidPrice4);
  EXPECT_QUOTE_FIELD(297, 4, BidVolume4);
  EXPECT_QUOTE_FIELD(301, 8, AskPrice4);
  EXPECT_QUOTE_FIELD(309, 4, AskVolume4);
  EXPECT_QUOTE_FIELD(313, 8, BidPrice5);
  EXPECT_QUOTE_FIELD(321, 4, BidVolume5);
  EXPECT_QUOTE_FIELD(325, 8, AskPrice5);
  EXPECT_QUOTE_FIELD(333, 4, AskVolume5);
  EXPECT_QUOTE_FIELD(337, 8, AveragePrice);
}
#undef EXPECT_QUOTE_FIELD
