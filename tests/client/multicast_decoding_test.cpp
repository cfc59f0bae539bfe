// Datagrams that are handed to the client as a multicast receiver hands them over.
#include <array>  // std::array

#include "tests/client/multicast_support.h"
#include "tests/client/unit_fixture.h"

namespace kav_test {
namespace {

using namespace kav_session;
using VORLAN::SOCK::socket_param;

class multicast_decoding_test : public unconnected_client_test {
 protected:
  // What the callback returned.
  int arrive(const std::string& datagram, int exchange,
             VORLAN::SOCK::SOCKET_EVENT event = VORLAN::SOCK::EVENT_RECEIVE) {
    heap_bytes bytes(datagram);
    const char* address = bytes.data();
    socket_param param(event, 0, &address, bytes.size(), 0);
    McQuoteContext context{&m_client, 12345, exchange};
    return Ckqc_tcp::mc_event_callback(param, &context);
  }
  std::vector<recorded_call> quotes() const { return m_events.of(callback_kind::quote); }
};

TEST_F(multicast_decoding_test, a_datagram_becomes_a_quote_of_type_54_at_the_sessions_object) {
  EXPECT_EQ(368, arrive(shfe_datagram("rb2410", 3500.5), 106));
  ASSERT_EQ(1u, quotes().size());
  const recorded_call call = quotes().front();
  EXPECT_EQ(54, call.type);
  EXPECT_STREQ("rb2410", call.quote.InstrumentID);
  EXPECT_STREQ("CFFEX", call.quote.ExchangeID);
  EXPECT_EQ(3500.5, double{call.quote.LastPrice});
}

TEST_F(multicast_decoding_test, events_that_bring_no_datagram_deliver_nothing) {
  using namespace VORLAN::SOCK;
  for (int event = -1; event <= 10; ++event) {
    if (event == EVENT_RECEIVE) continue;
    EXPECT_EQ(368, arrive(shfe_datagram("rb2410", 1), 103, static_cast<SOCKET_EVENT>(event)));
  }
  EXPECT_EQ(0u, m_events.count());
}

TEST_F(multicast_decoding_test, the_result_is_the_datagrams_length_whatever_it_was) {
  EXPECT_EQ(360, arrive(std::string(360, 'x'), 103));
  EXPECT_EQ(1, arrive("x", 103));
  EXPECT_EQ(108, arrive(std::string(108, 'x'), 105));  // lumen, but its symbol has no end
  EXPECT_EQ(0u, m_events.count());
  const std::string bytes = shfe_datagram("rb2410", 1);
  const char* address = bytes.data();
  socket_param param(VORLAN::SOCK::EVENT_RECEIVE, 0, &address, 368, 0);
  EXPECT_EQ(368, m_client.on_receive_mc_data(param, -7, 103));
  EXPECT_EQ(1u, quotes().size());
  EXPECT_EQ(368, Ckqc_tcp::mc_event_callback(param, nullptr));
  EXPECT_EQ(1u, quotes().size());
}

TEST_F(multicast_decoding_test, lumen_parts_are_merged_in_a_record_that_keeps_its_address) {
  arrive(lumen_summary("au2412", 601), 103);
  arrive(lumen_trade("ag2412", 7000, 5), 103);
  arrive(lumen_trade("au2412", 602, 3), 105);
  arrive(lumen_trade("au2412", 603, 4), 0);
  const std::vector<recorded_call> seen = quotes();
  ASSERT_EQ(4u, seen.size());
  EXPECT_EQ(0.0, double{seen[0].quote.LastPrice});
  EXPECT_EQ(601.0, double{seen[3].quote.OpenPrice});
  EXPECT_EQ(603.0, double{seen[3].quote.LastPrice});
  EXPECT_EQ(7, int{seen[3].quote.Volume});
  EXPECT_EQ(5, int{seen[1].quote.Volume});
  EXPECT_EQ(seen[0].quote_address, seen[3].quote_address);
  EXPECT_NE(seen[0].quote_address, seen[1].quote_address);
}

TEST_F(multicast_decoding_test, without_an_object_to_call_the_lumen_cache_is_kept_up_to_date) {
  Ckqc_tcp fresh;
  const std::string bytes = lumen_trade("au2412", 600, 3);
  const char* address = bytes.data();
  socket_param param(VORLAN::SOCK::EVENT_RECEIVE, 0, &address, 108, 0);
  EXPECT_EQ(108, fresh.on_receive_mc_data(param, 0, 103));
  KqsTcpInfo nowhere = endpoint_of("nowhere", 7);
  fresh.ConnServer(nowhere, &m_events);
  EXPECT_EQ(108, fresh.on_receive_mc_data(param, 0, 103));
  ASSERT_EQ(1u, quotes().size());
  EXPECT_EQ(6, int{quotes().front().quote.Volume});
}

}  // namespace
}  // namespace kav_test
