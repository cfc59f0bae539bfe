// The checker finds what it is there to find, and nothing else.
#include "tests/chaos/checker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>  // memset, strncpy

namespace kav_chaos {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const char k_begin[] = "[QuoteClient] _th_kqc_send_and_reconn begin";
const char k_end[] = "[QuoteClient] _th_kqc_send_and_reconn end";

// Threads that need not exist.
std::thread::id thread_number(std::thread::native_handle_type number) {
  return std::thread::id(number);
}
const std::thread::id k_caller = thread_number(1), k_receive = thread_number(2),
                      k_worker = thread_number(3), k_other_worker = thread_number(4);

KAVMarketDepthQuoteData quote_of(const char* symbol, int number) {
  KAVMarketDepthQuoteData quote{};
  std::strncpy(quote.InstrumentID, symbol, sizeof(quote.InstrumentID) - 1);
  quote.Volume = number;
  quote.LastPrice = quote.AveragePrice = number;
  return quote;
}

class checker_test : public testing::Test {
 protected:
  void expect_only(const std::string& part) {
    EXPECT_THAT(m_checker.violations(), ElementsAre(HasSubstr(part)));
  }
  void expect_nothing() { EXPECT_THAT(m_checker.violations(), IsEmpty()); }

  void begin_call(callback_kind kind, std::thread::id thread, const std::string& text = "") {
    seen_call call;
    call.kind = kind;
    call.thread = thread;
    call.on_worker = thread == k_worker || thread == k_other_worker;
    call.at = m_now;
    call.text = text;
    call.length = static_cast<int>(text.size());
    call.success = true;
    m_checker.call_begins(call);
  }
  void call(callback_kind kind, std::thread::id thread, const std::string& text = "") {
    begin_call(kind, thread, text);
    m_checker.call_ends(thread);
  }
  void log(std::thread::id thread, const std::string& text) {
    call(callback_kind::log, thread, text);
  }
  void operate(operation what, milliseconds took = milliseconds{0}) {
    m_checker.operation_begins(what);
    m_checker.operation_ends(what, took, m_slack);
  }
  void connect() {
    operate(operation::connect);
    call(callback_kind::server_connected, k_caller);
  }
  void log_in(std::thread::id worker = k_worker) {
    connect();
    log(worker, k_begin);
    call(callback_kind::login_result, worker);
  }
  void quote(const char* symbol, int number) {
    begin_call(callback_kind::quote, k_receive);
    m_checker.quote_comes(quote_of(symbol, number));
    m_checker.call_ends(k_receive);
  }
  void full_width_quote(const char* symbol, int number) {
    KAVMarketDepthQuoteData data = quote_of(symbol, number);
    const std::size_t length = std::strlen(symbol);
    std::memset(data.InstrumentID + length, 'x', sizeof(data.InstrumentID) - length);
    begin_call(callback_kind::quote, k_receive);
    m_checker.quote_comes(data);
    m_checker.call_ends(k_receive);
  }
  void begin_with(const server_facts& facts) {
    m_checker.~checker();
    new (&m_checker) checker(facts);
  }

  const milliseconds m_slack{100};
  clock::time_point m_now = clock::now();
  checker m_checker{server_facts{}};
};

TEST_F(checker_test, good_life_is_no_violation) {
  log_in();
  EXPECT_TRUE(m_checker.session().confirmed);
  m_checker.registers("IF2509");
  quote("IF2509", 1);
  quote("IF2509", 2);
  operate(operation::disconnect, milliseconds{500});
  log(k_worker, k_end);
  EXPECT_FALSE(m_checker.session().confirmed);
  operate(operation::destroy);
  m_checker.destroyed();
  expect_nothing();
}

// ---- Destruction

TEST_F(checker_test, callback_after_the_destruction_is_found) {
  m_checker.destroyed();
  expect_nothing();
  log(k_receive, "too late");
  expect_only("too late) came after the client had been destroyed");
}

TEST_F(checker_test, callback_that_runs_on_after_the_destruction_is_found) {
  begin_call(callback_kind::quote, k_receive);
  m_checker.destroyed();
  expect_only("1 callbacks were still running");
}

TEST_F(checker_test, callback_after_a_destruction_inside_a_callback_is_found) {
  begin_call(callback_kind::quote, k_receive);
  m_checker.destroyed_inside(milliseconds{1});
  m_checker.call_ends(k_receive);
  expect_nothing();
  log(k_worker, "too late");
  EXPECT_THAT(m_checker.violations(), testing::Contains(HasSubstr("too late) came after")));
}

TEST_F(checker_test, call_that_a_destruction_inside_stopped_waiting_for_may_come_once) {
  m_checker.destroyed_inside(milliseconds{500});
  log(k_receive, "on its way");
  expect_nothing();
  log(k_receive, "too late");
  expect_only("too late");
}

// ---- Workers and sessions

TEST_F(checker_test, second_worker_beside_the_first_is_found) {
  log_in(k_worker);
  log(k_other_worker, k_begin);
  expect_nothing();
  log(k_worker, "[QuoteClient] nothing to reg or unreg");
  expect_only("two workers at once");
}

TEST_F(checker_test, worker_may_say_that_it_has_ended_when_the_next_has_begun) {
  log_in(k_worker);
  log(k_other_worker, k_begin);
  log(k_worker, k_end);
  expect_nothing();
}

TEST_F(checker_test, session_that_ends_without_a_reason_is_found) {
  log_in();
  log(k_worker, k_end);
  expect_only("nobody asked for it");
}

TEST_F(checker_test, stop_before_the_connection_is_no_reason) {
  operate(operation::disconnect);
  log_in();
  log(k_worker, k_end);
  expect_only("nobody asked for it");
}

TEST_F(checker_test, stop_is_still_the_reason_when_the_next_connection_has_been_made) {
  log_in();
  operate(operation::disconnect);
  connect();
  log(k_worker, k_end);
  expect_nothing();
}

TEST_F(checker_test, refused_relogin_and_ten_tries_are_reasons) {
  log_in();
  log(k_receive, "[QuoteClient] relogin failed, server ip: 127.0.0.1, port: 1.");
  log(k_worker, k_end);
  log_in();
  m_now += std::chrono::seconds{20};
  log(k_worker, k_end);
  expect_nothing();
}

TEST_F(checker_test, stop_that_gives_up_is_found) {
  log(k_caller, "[QuoteClient]stop thread timeout");
  expect_only("within ten seconds");
}

TEST_F(checker_test, loss_that_is_told_twice_is_found) {
  connect();
  call(callback_kind::server_disconnected, k_receive);
  expect_nothing();
  call(callback_kind::server_disconnected, k_receive);
  expect_only("more losses");
}

// ---- Quotes

TEST_F(checker_test, quote_that_comes_twice_is_found) {
  m_checker.registers("IF2509");
  quote("IF2509", 1);
  quote("IF2509", 1);
  expect_only("quote 1 of IF2509 came behind number 1");
}

TEST_F(checker_test, quote_out_of_order_is_found) {
  m_checker.registers("IF2509");
  quote("IF2509", 2);
  quote("IF2509", 1);
  expect_only("quote 1 of IF2509 came behind number 2");
}

TEST_F(checker_test, each_symbol_has_an_order_of_its_own) {
  m_checker.registers("IF2509");
  m_checker.registers("cs1709");
  quote("IF2509", 2);
  quote("cs1709", 1);
  expect_nothing();
  EXPECT_EQ(2, m_checker.last_volume("IF2509"));
}

TEST_F(checker_test, quote_of_a_symbol_never_registered_is_found) {
  quote("IF2509", 1);
  expect_only("\"IF2509\", which was never registered");
}

TEST_F(checker_test, quote_that_nobody_asked_for_is_the_servers_fault_if_it_sends_such) {
  quote(k_unasked_symbol, 0);
  expect_only("never registered");
  server_facts facts;
  facts.asked_quotes_only = false;
  begin_with(facts);
  quote(k_unasked_symbol, 0);
  expect_nothing();
}

TEST_F(checker_test, quote_of_two_halves_is_found) {
  m_checker.registers("IF2509");
  begin_call(callback_kind::quote, k_receive);
  KAVMarketDepthQuoteData data = quote_of("IF2509", 1);
  data.AveragePrice = 2;
  m_checker.quote_comes(data);
  expect_only("not whole");
}

TEST_F(checker_test, quotes_behind_garbage_are_not_judged) {
  server_facts facts;
  facts.whole_messages = false;
  begin_with(facts);
  m_checker.registers("IF2509");
  quote("IF2509", 2);
  quote("IF2509", 1);
  quote("what", 1);
  expect_nothing();
}

TEST_F(checker_test, text_of_a_quote_without_end_is_found) {
  m_checker.registers("IF2509");
  full_width_quote("IF2509", 1);
  EXPECT_THAT(m_checker.violations(), testing::Contains(HasSubstr("text of a quote has no end")));
}

TEST_F(checker_test, full_texts_of_a_server_that_sends_such_still_name_their_symbol) {
  server_facts facts;
  facts.terminated_quotes = false;
  begin_with(facts);
  m_checker.registers("Au(T+D)");
  full_width_quote("0", 1);
  expect_nothing();
  EXPECT_EQ(1, m_checker.last_volume("Au(T+D)"));
}

// ---- Texts and times

TEST_F(checker_test, text_without_end_is_found) {
  seen_call call;
  call.kind = callback_kind::symbol_registered;
  call.text_ended = false;
  m_checker.call_begins(call);
  expect_only("a text of OnSymbolRegistered has no end");
}

TEST_F(checker_test, log_line_whose_length_is_wrong_is_found) {
  seen_call call;
  call.kind = callback_kind::log;
  call.text = "four";
  call.length = 5;
  m_checker.call_begins(call);
  expect_only("of 4 characters was told to have 5");
}

TEST_F(checker_test, each_operation_that_takes_too_long_is_found) {
  for (const operation what :
       {operation::connect, operation::cancel_connect, operation::log_in,
        operation::register_symbol, operation::unregister_symbol, operation::query_list,
        operation::disconnect, operation::destroy, operation::destroy_inside}) {
    begin_with({});
    operate(what, limit_of(what) + m_slack);
    expect_nothing();
    operate(what, limit_of(what) + m_slack + milliseconds{1});
    expect_only("is the limit");
  }
}

}  // namespace
}  // namespace kav_chaos
