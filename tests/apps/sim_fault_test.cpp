// Each fault, seen from a raw socket.
#include <gtest/gtest.h>

#include "apps/sim/wire.h"
#include "tests/apps/sim_server_fixture.h"
#include "tests/support/wait_until.h"

namespace kav_sim_test {

using kav_sim::accept_answer;
using kav_sim::garbage_time;
using kav_sim::list_answer;
using kav_sim::login_answer;
using kav_sim::loss_kind;
using sim_fault_test = sim_server_test;

// For what must not come: long enough to catch it, short enough to wait for it in every run.
constexpr std::chrono::milliseconds k_silence{60};

TEST_F(sim_fault_test, refused_login_carries_result_and_reason) {
  m_how.login = login_answer::refuse;
  m_how.login_refusal_result = 'E';
  m_how.login_refusal_reason = "closed today";
  raw_client client{start()};
  ASSERT_TRUE(client.send(login_bytes("trader", k_abc_digest)));
  EXPECT_EQ(padded("AEclosed today", 24), client.read_exactly(24));
  EXPECT_FALSE(m_server->connection(0).logged_in);
}

TEST_F(sim_fault_test, full_width_refusal_holds_no_nul) {
  m_how.login = login_answer::refuse;
  m_how.login_refusal_reason = "no";
  m_how.full_width_reason = true;
  raw_client client{start()};
  ASSERT_TRUE(client.send(login_bytes("trader", k_abc_digest)));
  EXPECT_EQ("ANno" + std::string(20, 'x'), client.read_exactly(24));
}

TEST_F(sim_fault_test, ignored_login_gets_no_answer) {
  m_how.login = login_answer::ignore;
  raw_client client{start()};
  ASSERT_TRUE(client.send(login_bytes("trader", k_abc_digest)));
  ASSERT_TRUE(wait_until([&] { return m_server->received_count('L') == 1; }, k_patience));
  EXPECT_TRUE(client.silent_for(k_silence));
}

TEST_F(sim_fault_test, delayed_login_answer_comes_so_much_later) {
  m_how.login_delay = 80ms;
  raw_client client{start()};
  const auto before = std::chrono::steady_clock::now();
  log_in(client);
  EXPECT_GE(std::chrono::steady_clock::now() - before, 80ms);
}

TEST_F(sim_fault_test, list_without_end_mark_has_every_symbol) {
  m_how.list = list_answer::no_end_mark;
  raw_client client{start()};
  log_in(client);
  ASSERT_TRUE(client.send(list_query_bytes()));
  EXPECT_EQ(padded("M0020", 32), client.read_exactly(3 * 32).substr(64));
  EXPECT_TRUE(client.silent_for(k_silence));
}

TEST_F(sim_fault_test, delayed_end_mark_comes_so_much_later) {
  m_how.end_mark_delay = 80ms;
  raw_client client{start()};
  log_in(client);
  const auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(client.send(list_query_bytes()));
  EXPECT_EQ(96u, client.read_exactly(96).size());
  EXPECT_EQ(padded("M01", 32), client.read_exactly(32));
  EXPECT_GE(std::chrono::steady_clock::now() - before, 80ms);
}

TEST_F(sim_fault_test, empty_list_is_the_end_mark_alone) {
  m_how.list = list_answer::empty;
  raw_client client{start()};
  log_in(client);
  ASSERT_TRUE(client.send(list_query_bytes()));
  EXPECT_EQ(padded("M01", 32), client.read_exactly(32));
}

TEST_F(sim_fault_test, ignored_list_query_gets_no_answer) {
  m_how.list = list_answer::ignore;
  raw_client client{start()};
  log_in(client);
  ASSERT_TRUE(client.send(list_query_bytes()));
  ASSERT_TRUE(wait_until([&] { return m_server->received_count('S') == 1; }, k_patience));
  EXPECT_TRUE(client.silent_for(k_silence));
}

TEST_F(sim_fault_test, full_width_list_symbols_hold_no_nul) {
  m_how.full_width_list = true;
  raw_client client{start()};
  log_in(client);
  ASSERT_TRUE(client.send(list_query_bytes()));
  EXPECT_EQ("M001IF2509" + std::string(22, 'x'), client.read_exactly(32));
}

TEST_F(sim_fault_test, ignored_registration_gets_neither_answer_nor_quotes) {
  m_how.answer_register = false;
  raw_client client{start()};
  log_in(client);
  ASSERT_TRUE(client.send(symbol_request_bytes('N', '1', "IF2509")));
  ASSERT_TRUE(wait_until([&] { return m_server->received_count('N') == 1; }, k_patience));
  EXPECT_EQ(0u, m_server->push_quote(quote_of("IF2509", 1), '1').queued);
  EXPECT_TRUE(client.silent_for(k_silence));
}

TEST_F(sim_fault_test, register_result_two_registers_and_others_refuse) {
  m_how.register_result = '2';
  raw_client client{start()};
  log_in(client);
  ASSERT_TRUE(client.send(symbol_request_bytes('N', '1', "IF2509")));
  EXPECT_EQ("I2", client.read_exactly(32).substr(0, 2));
  EXPECT_TRUE(m_server->registered("IF2509"));
  m_server->change_behaviour([](kav_sim::behaviour& b) { b.register_result = '3'; });
  ASSERT_TRUE(client.send(symbol_request_bytes('N', '1', "cs1709")));
  EXPECT_EQ("I3", client.read_exactly(32).substr(0, 2));
  EXPECT_FALSE(m_server->registered("cs1709"));
}

TEST_F(sim_fault_test, refused_unregistration_keeps_the_symbol) {
  m_how.unregister_result = '2';
  raw_client client{start()};
  log_in(client);
  register_symbol(client, '1', "IF2509");
  ASSERT_TRUE(client.send(symbol_request_bytes('R', '1', "IF2509")));
  EXPECT_EQ("F2", client.read_exactly(32).substr(0, 2));
  EXPECT_TRUE(m_server->registered("IF2509"));
  m_server->change_behaviour([](kav_sim::behaviour& b) { b.answer_unregister = false; });
  ASSERT_TRUE(client.send(symbol_request_bytes('R', '1', "IF2509")));
  ASSERT_TRUE(wait_until([&] { return m_server->received_count('R') == 2; }, k_patience));
  EXPECT_TRUE(client.silent_for(k_silence));
}

TEST_F(sim_fault_test, close_and_reset_at_accept_end_the_connection_at_once) {
  m_how.on_accept = accept_answer::close;
  raw_client closed{start()};
  EXPECT_EQ(end_kind::fin, closed.wait_for_end());
  m_server->change_behaviour([](kav_sim::behaviour& b) { b.on_accept = accept_answer::reset; });
  raw_client reset{m_server->port()};
  if (reset.connected()) {
    EXPECT_EQ(end_kind::reset, reset.wait_for_end());
  }
  EXPECT_EQ(2u, m_server->connections().ever);
}

TEST_F(sim_fault_test, never_read_leaves_the_client_without_any_answer) {
  m_how.on_accept = accept_answer::never_read;
  raw_client client{start()};
  ASSERT_TRUE(client.send(login_bytes("trader", k_abc_digest)));
  ASSERT_TRUE(wait_until([&] { return m_server->connections().ever == 1; }, k_patience));
  EXPECT_TRUE(client.silent_for(k_silence));
  EXPECT_EQ(0u, m_server->received_count('L'));
}

TEST_F(sim_fault_test, loss_after_messages_comes_right_behind_the_last_of_them) {
  m_how.loss = loss_kind::close;
  m_how.loss_after_messages = 3;  // the login answer, the registration answer, one quote
  raw_client client{start()};
  log_in(client);
  register_symbol(client, '1', "IF2509");
  EXPECT_EQ(1u, m_server->push_quote(quote_of("IF2509", 1), '1').queued);
  EXPECT_EQ(0u, m_server->push_quote(quote_of("IF2509", 2), '1').queued);
  EXPECT_EQ(367u, client.read_exactly(400).size());
  EXPECT_EQ(end_kind::fin, client.wait_for_end());
  EXPECT_EQ(1u, m_server->counters().losses_caused);
}

TEST_F(sim_fault_test, reset_after_messages_reaches_the_client_as_reset) {
  m_how.loss = loss_kind::reset;
  m_how.loss_after_messages = 1;
  raw_client client{start()};
  ASSERT_TRUE(client.send(login_bytes("trader", k_abc_digest)));
  EXPECT_EQ(end_kind::reset, client.wait_for_end());
}

TEST_F(sim_fault_test, stall_after_messages_leaves_the_connection_standing_and_mute) {
  m_how.loss = loss_kind::stall;
  m_how.loss_after_messages = 1;
  raw_client client{start()};
  log_in(client);
  ASSERT_TRUE(client.send(list_query_bytes()));
  EXPECT_TRUE(client.silent_for(k_silence));
  EXPECT_TRUE(m_server->connection(0).open);
  EXPECT_TRUE(m_server->connection(0).stalled);
  EXPECT_EQ(0u, m_server->received_count('S'));
}

TEST_F(sim_fault_test, loss_after_a_time_needs_no_traffic) {
  m_how.loss = loss_kind::close;
  m_how.loss_after_time = 50ms;
  const auto before = std::chrono::steady_clock::now();
  raw_client client{start()};
  EXPECT_EQ(end_kind::fin, client.wait_for_end());
  EXPECT_GE(std::chrono::steady_clock::now() - before, 50ms);
}

TEST_F(sim_fault_test, loss_hits_at_most_so_many_connections) {
  m_how.loss = loss_kind::close;
  m_how.loss_after_messages = 1;
  m_how.loss_limit = 1;
  raw_client first{start()};
  log_in(first);
  EXPECT_EQ(end_kind::fin, first.wait_for_end());
  raw_client second{m_server->port()};
  log_in(second);
  register_symbol(second, '1', "IF2509");
}

TEST_F(sim_fault_test, truncated_message_ends_in_the_middle) {
  m_how.loss = loss_kind::truncate;
  m_how.loss_after_messages = 2;
  m_how.truncate_bytes = 100;
  raw_client client{start()};
  log_in(client);
  register_symbol(client, '1', "IF2509");
  m_server->push_quote(quote_of("IF2509", 1), '1');
  EXPECT_EQ(
      kav_sim::quote_message('1', quote_of("IF2509", 1), kav_sim::text_fill::zero).substr(0, 100),
      client.read_exactly(367));
  EXPECT_EQ(end_kind::fin, client.wait_for_end());
  EXPECT_EQ(0u, m_server->counters().quotes_sent);
}

TEST_F(sim_fault_test, garbage_comes_instead_of_the_login_answer_or_behind_it) {
  m_how.garbage_when = garbage_time::instead_of_login_answer;
  m_how.garbage = "\x01\x02junk";
  raw_client client{start()};
  ASSERT_TRUE(client.send(login_bytes("trader", k_abc_digest)));
  EXPECT_EQ("\x01\x02junk", client.read_exactly(6));
  m_server->change_behaviour(
      [](kav_sim::behaviour& b) { b.garbage_when = garbage_time::after_login_answer; });
  log_in(client);
  EXPECT_EQ("\x01\x02junk", client.read_exactly(6));
}

TEST_F(sim_fault_test, answers_come_as_many_times_as_they_are_told_to) {
  m_how.login_copies = 2;
  m_how.symbol_copies = 3;
  raw_client client{start()};
  ASSERT_TRUE(client.send(login_bytes("trader", k_abc_digest)));
  EXPECT_EQ(padded("AY", 24) + padded("AY", 24), client.read_exactly(48));
  ASSERT_TRUE(client.send(symbol_request_bytes('N', '1', "IF2509")));
  const std::string answer = client.read_exactly(32);
  EXPECT_EQ("I0", answer.substr(0, 2));
  EXPECT_EQ(answer + answer, client.read_exactly(64));
  EXPECT_TRUE(client.silent_for(k_silence));
}

TEST_F(sim_fault_test, refusals_come_as_many_times_as_they_are_told_to) {
  m_how.login = login_answer::refuse;
  m_how.login_refusal_reason = "no";
  m_how.login_copies = 2;
  raw_client client{start()};
  ASSERT_TRUE(client.send(login_bytes("trader", k_abc_digest)));
  EXPECT_EQ(padded("ANno", 24) + padded("ANno", 24), client.read_exactly(48));
  EXPECT_TRUE(client.silent_for(k_silence));
}

TEST_F(sim_fault_test, full_width_answers_and_quotes_hold_no_nul_in_their_texts) {
  m_how.full_width_answers = true;
  m_how.full_width_quotes = true;
  raw_client client{start()};
  log_in(client);
  ASSERT_TRUE(client.send(symbol_request_bytes('N', '1', "IF2509")));
  EXPECT_EQ("IF2509" + std::string(22, 'x'), client.read_exactly(32).substr(4));
  m_server->push_quote(quote_of("IF2509", 1), '1');
  EXPECT_EQ("IF2509" + std::string(25, 'x'), client.read_exactly(367).substr(31, 31));
}

TEST_F(sim_fault_test, chunks_cut_the_stream_where_they_are_told_to) {
  m_how.chunk_sizes = {5, 19, 40};
  m_how.chunk_pause = 200ms;
  raw_client client{start()};
  const auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(client.send(login_bytes("trader", k_abc_digest)));
  EXPECT_EQ(5u, client.read_once().size());  // a new one comes only 200 ms later
  EXPECT_EQ(19u, client.read_exactly(19).size());
  EXPECT_GE(std::chrono::steady_clock::now() - before, 200ms);
  ASSERT_TRUE(client.send(list_query_bytes()));
  EXPECT_EQ(padded("M01", 32), client.read_exactly(4 * 32).substr(96));  // 40, 5, 19, 40, 5, 19
  EXPECT_GE(std::chrono::steady_clock::now() - before, 5 * 200ms);
}

TEST_F(sim_fault_test, drop_and_reset_reach_every_client_as_fin_and_rst) {
  raw_client first{start()}, second{m_server->port()};
  log_in(first);
  log_in(second);
  m_server->drop_all();
  EXPECT_EQ(end_kind::fin, first.wait_for_end());
  EXPECT_EQ(end_kind::fin, second.wait_for_end());
  raw_client third{m_server->port()}, fourth{m_server->port()};
  log_in(third);
  log_in(fourth);
  EXPECT_EQ(2u, m_server->connections().current);
  EXPECT_TRUE(m_server->reset(2));
  EXPECT_EQ(end_kind::reset, third.wait_for_end());
  EXPECT_TRUE(m_server->drop(3));
  EXPECT_EQ(end_kind::fin, fourth.wait_for_end());
  EXPECT_FALSE(m_server->drop(3));
  EXPECT_FALSE(m_server->reset(99));
}

TEST_F(sim_fault_test, a_fin_is_no_reset_even_when_the_client_goes_on_sending) {
  raw_client client{start()};
  log_in(client);
  m_server->drop_all();
  for (int i = 0; i < 20; ++i) client.send(heartbeat_bytes());
  EXPECT_EQ(end_kind::fin, client.wait_for_end());
}

TEST_F(sim_fault_test, stalled_connections_go_on_where_they_stopped) {
  raw_client client{start()};
  log_in(client);
  register_symbol(client, '1', "IF2509");
  m_server->stall(true);
  EXPECT_EQ(1u, m_server->push_quote(quote_of("IF2509", 1), '1').queued);
  ASSERT_TRUE(client.send(list_query_bytes()));
  EXPECT_TRUE(client.silent_for(k_silence));
  EXPECT_FALSE(m_server->all_written());
  m_server->stall(false);
  EXPECT_EQ('Q', client.read_exactly(367)[0]);
  EXPECT_EQ('M', client.read_exactly(32)[0]);
}

TEST_F(sim_fault_test, raw_bytes_reach_one_client_or_all) {
  raw_client first{start()}, second{m_server->port()};
  log_in(first);
  log_in(second);
  m_server->send_raw("to all");
  EXPECT_TRUE(m_server->send_raw(1, "one"));
  EXPECT_FALSE(m_server->send_raw(7, "none"));
  EXPECT_EQ("to all", first.read_exactly(6));
  EXPECT_EQ("to allone", second.read_exactly(9));
  EXPECT_TRUE(first.silent_for(k_silence));
}

TEST_F(sim_fault_test, an_outage_refuses_connections_and_ends_on_the_same_port) {
  const unsigned short port = start();
  raw_client client{port};
  log_in(client);
  m_server->outage(100ms);
  EXPECT_EQ(end_kind::fin, client.wait_for_end());
  EXPECT_EQ(0u, m_server->connections().current);
  const raw_client refused{port};
  if (!m_server->listening()) {  // else the outage was over before we came
    EXPECT_FALSE(refused.connected());
    EXPECT_EQ(ECONNREFUSED, refused.connect_error());
  }
  ASSERT_TRUE(wait_until([&] { return m_server->listening(); }, k_patience));
  EXPECT_EQ(port, m_server->port());
  raw_client again{port};
  log_in(again);
}

TEST_F(sim_fault_test, down_lasts_until_come_back) {
  const unsigned short port = start();
  m_server->go_down();
  const raw_client refused{port};
  EXPECT_EQ(ECONNREFUSED, refused.connect_error());
  EXPECT_EQ(port, m_server->port());
  EXPECT_TRUE(m_server->come_back());
  raw_client client{port};
  log_in(client);
}

TEST_F(sim_fault_test, behaviour_can_be_read_and_changed_while_it_runs) {
  start();
  m_server->change_behaviour([](kav_sim::behaviour& b) { b.login = login_answer::refuse; });
  EXPECT_EQ(login_answer::refuse, m_server->current_behaviour().login);
  m_server->set_behaviour({});
  EXPECT_EQ(login_answer::accept, m_server->current_behaviour().login);
}

}  // namespace kav_sim_test
