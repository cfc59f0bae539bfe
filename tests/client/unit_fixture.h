// A client in each of its states, and the bytes that are handed to it.
#pragma once

#include <gtest/gtest.h>

#include <cstring>  // memcpy
#include <memory>   // std::unique_ptr
#include <string>   // std::string
#include <vector>   // std::vector

#include "apps/sim/quote_server.h"
#include "apps/sim/wire.h"
#include "client/ckqc_tcp.h"
#include "tests/support/recording_event.h"
#include "tests/support/wait_until.h"
#include "tools/helpers.h"

namespace kav_test {

inline constexpr std::chrono::seconds k_patience{20};
inline constexpr KavKqsIntrumentType k_future = static_cast<KavKqsIntrumentType>('1');

inline KqsTcpInfo endpoint_of(const char* ip, unsigned short port) {
  KqsTcpInfo info{};
  VORLAN::TOOLS::strncpy_vl(info.m_Label, sizeof(info.m_Label), "test");
  VORLAN::TOOLS::strncpy_vl(info.m_ServerIp, sizeof(info.m_ServerIp), ip);
  info.m_ServerPort = port;
  return info;
}

inline KqsLoginParam login_of(const char* user, const char* password) {
  KqsLoginParam param{};
  VORLAN::TOOLS::strncpy_vl(param.m_UserId, sizeof(param.m_UserId), user);
  VORLAN::TOOLS::strncpy_vl(param.m_Password, sizeof(param.m_Password), password);
  return param;
}

// Bytes in a heap block of exactly their size, so that AddressSanitizer sees a read behind them.
class heap_bytes {
 public:
  explicit heap_bytes(const std::string& bytes)
      : m_data(new char[bytes.size()]), m_size(static_cast<unsigned>(bytes.size())) {
    std::memcpy(m_data.get(), bytes.data(), bytes.size());
  }
  char* data() { return m_data.get(); }
  unsigned size() const { return m_size; }
  std::string text() const { return std::string(m_data.get(), m_size); }

 private:
  const std::unique_ptr<char[]> m_data;
  const unsigned m_size;
};

inline std::string list_entry(const std::string& symbol, char type = '1') {
  return kav_sim::list_entry_message(type, symbol, kav_sim::text_fill::zero);
}

inline std::string answer(char kind, char result, const std::string& symbol, char type = '1') {
  return kav_sim::symbol_answer_message(kind, result, type, symbol, kav_sim::text_fill::zero);
}

inline std::string login_answer(char result, const std::string& reason) {
  return kav_sim::login_answer_message(result, reason, kav_sim::text_fill::zero);
}

// A whole request as it has to travel, byte by byte.
inline std::string request(char kind, char type, const std::string& symbol) {
  std::string bytes(32, '\0');
  bytes[0] = kind;
  bytes[1] = '0';
  bytes[2] = type;
  bytes.replace(3, symbol.size(), symbol);
  bytes[30] = '\r';
  bytes[31] = '\n';
  return bytes;
}

// Knows its caller, but has no connection: the address that it was given is none.
class unconnected_client_test : public testing::Test {
 protected:
  unconnected_client_test() {
    KqsTcpInfo nowhere = endpoint_of("nowhere", 7);
    m_client.ConnServer(nowhere, &m_events);
    m_events.clear();
  }

  void list(const std::string& symbol, char type = '1') {
    heap_bytes bytes(list_entry(symbol, type));
    EXPECT_EQ(32u, m_client.on_symbol_list_resp(bytes.data(), bytes.size()));
  }

  // What the server says, and how many bytes of it were taken.
  unsigned hear(const std::string& message) {
    heap_bytes bytes(message);
    return m_client.on_tcp_client_data_recv(bytes.data(), bytes.size());
  }

  // One data event; how many bytes were reported as processed.
  unsigned cut(const char* data, unsigned size) {
    const char* address = data;
    VORLAN::SOCK::socket_param param(VORLAN::SOCK::EVENT_RECEIVE, 0, &address, size, 0);
    EXPECT_EQ(0, Ckqc_tcp::cache_callback(param, &m_client));
    return param.get_proc_len();
  }
  unsigned cut(const std::string& bytes) {
    heap_bytes copy(bytes);
    return cut(copy.data(), copy.size());
  }

  void report(VORLAN::SOCK::SOCKET_EVENT event) {
    VORLAN::SOCK::socket_param param(event, 0, nullptr, 0, 0);
    EXPECT_EQ(0, Ckqc_tcp::cache_callback(param, &m_client));
  }

  std::vector<std::string> log_lines() const {
    std::vector<std::string> lines;
    for (const recorded_call& call : m_events.of(callback_kind::log)) {
      lines.push_back(std::to_string(call.level) + " " + call.text);
    }
    return lines;
  }

  recording_event m_events;  // outlives the client
  Ckqc_tcp m_client;
};

// Connected, not logged in. The server keeps what it gets and answers nothing but a login, so that
// a test can answer in its place.
class connected_client_test : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_server.start()) << m_server.start_error();
    KqsTcpInfo server = endpoint_of("127.0.0.1", m_server.port());
    ASSERT_TRUE(m_client.ConnServer(server, &m_events));
    ASSERT_TRUE(wait_until([this] { return m_server.connections().ever == 1; }, k_patience));
    // Reported on the event thread of the connection.
    ASSERT_TRUE(m_events.wait_for_log("[on_cache_callback] EVENT_CONNECT"));
    m_events.clear();
  }

  void log_in() {
    KqsLoginParam login = login_of("trader", "abc");
    ASSERT_NE(0, m_client.LoginToKqs(login));
    ASSERT_TRUE(m_events.wait_for(callback_kind::login_result));
    ASSERT_TRUE(m_events.of(callback_kind::login_result).front().success);
    // Written behind the callback.
    ASSERT_TRUE(wait_until([this] { return m_events.has_log_with("login success"); }, k_patience));
  }

  void list(const std::string& symbol, char type = '1') {
    heap_bytes bytes(list_entry(symbol, type));
    EXPECT_EQ(32u, m_client.on_symbol_list_resp(bytes.data(), bytes.size()));
  }

  unsigned hear(const std::string& message) {
    heap_bytes bytes(message);
    return m_client.on_tcp_client_data_recv(bytes.data(), bytes.size());
  }

  // The messages that the server got, as soon as there are so many.
  std::vector<std::string> received(std::size_t count, std::size_t connection = 0) {
    wait_until([&] { return m_server.received(connection).size() >= count; }, k_patience);
    std::vector<std::string> messages;
    for (const kav_sim::received_message& message : m_server.received(connection)) {
      messages.push_back(message.bytes);
    }
    return messages;
  }

  std::vector<std::string> log_lines() const {
    std::vector<std::string> lines;
    for (const recorded_call& call : m_events.of(callback_kind::log)) {
      lines.push_back(std::to_string(call.level) + " " + call.text);
    }
    return lines;
  }

  kav_sim::quote_server m_server{kav_sim::server_options{}};
  recording_event m_events;
  Ckqc_tcp m_client;
};

}  // namespace kav_test
