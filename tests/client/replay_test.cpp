// A trading day through server and client: every field of every quote, in order, none lost and none
// twice.
#include <array>    // std::array
#include <cstring>  // memcmp
#include <fstream>  // std::ifstream
#include <map>      // std::map
#include <random>   // std::mt19937

#include "tests/client/session_support.h"
#include "tests/client/tick_sample.h"

namespace kav_session {
namespace {

constexpr int k_generated_rows = 20'000;
constexpr std::array<const char*, 4> k_symbols = {"pb1705", "IF1704", "cs1709", "SF705"};

// Every byte of every record is random but for the symbol, which decides who gets it.
quote_list generate() {
  std::mt19937 random{20250916};
  quote_list quotes(k_generated_rows);
  for (KAVMarketDepthQuoteData& quote : quotes) {
    std::array<unsigned char, sizeof(quote)> bytes;
    for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
    std::memcpy(&quote, bytes.data(), sizeof(quote));
    std::memset(quote.InstrumentID, 0, sizeof(quote.InstrumentID));
    put_text(quote.InstrumentID, sizeof(quote.InstrumentID), k_symbols[random() % 4]);
  }
  return quotes;
}

// One client that keeps the quotes of its symbols.
class reader {
 public:
  explicit reader(std::vector<std::string> symbols) : m_symbols(std::move(symbols)) {}
  ~reader() { DestroyKAVQuoteApi(m_api); }
  reader(const reader&) = delete;
  reader& operator=(const reader&) = delete;

  void start(unsigned short port) {
    KqsTcpInfo server = endpoint_of(port);
    KqsLoginParam param = login_of("reader", "abc");
    ASSERT_TRUE(m_api->ConnServer(server, &m_record));
    ASSERT_NE(0, m_api->LoginToKqs(param));
    ASSERT_TRUE(m_record.wait_text("OnLoginResult(true"));
    for (const std::string& symbol : m_symbols) {
      m_api->RegisterSymbol(static_cast<KavKqsIntrumentType>('1'), symbol.c_str());
    }
    for (const std::string& symbol : m_symbols) {
      ASSERT_TRUE(m_record.wait_text("OnSymbolRegistered(49, " + symbol + ", true)"));
    }
  }

  bool wants(const KAVMarketDepthQuoteData& quote) const {
    return std::find(m_symbols.begin(), m_symbols.end(), std::string(quote.InstrumentID)) !=
           m_symbols.end();
  }

  void expect_exactly(const quote_list& sent, milliseconds limit) {
    quote_list mine;
    std::copy_if(sent.begin(), sent.end(), std::back_inserter(mine),
                 [this](const KAVMarketDepthQuoteData& quote) { return wants(quote); });
    EXPECT_TRUE(wait_until([&] { return m_record.quote_count() >= mine.size(); }, limit));
    m_api->DisConnServer();  // whatever came twice is there by now
    const std::vector<kav_test::recorded_call> seen = m_record.quotes();
    ASSERT_EQ(mine.size(), seen.size());
    std::size_t different = 0;
    for (std::size_t i = 0; i < mine.size(); ++i) {
      if (seen[i].type != '1' || std::memcmp(&mine[i], &seen[i].quote, sizeof(mine[i])) != 0) {
        if (different++ == 0) ADD_FAILURE() << "first difference at quote " << i;
      }
    }
    EXPECT_EQ(0u, different);
    EXPECT_FALSE(m_record.has("OnLog(3"));
  }

 private:
  const std::vector<std::string> m_symbols;
  session_record m_record;
  KAVQuoteApi* const m_api = CreateKAVQuoteApi();
};

// Sizes that cut messages everywhere; small ones, which cost a pause each, stay rare.
std::vector<std::size_t> random_chunks() {
  std::mt19937 random{7};
  std::vector<std::size_t> sizes;
  for (int i = 0; i < 200; ++i) {
    const std::size_t longest = random() % 8 == 0 ? 400 : 60'000;
    sizes.push_back(1 + random() % longest);
  }
  return sizes;
}

void replay(const quote_list& quotes, const std::vector<std::vector<std::string>>& readers,
            bool in_chunks) {
  kav_sim::server_options options;
  for (const char* const symbol : k_symbols) options.symbols.push_back({symbol, '1'});
  kav_sim::quote_server server{options};
  kav_sim::behaviour how;
  if (in_chunks) {
    how.chunk_sizes = random_chunks();
    how.chunk_pause = milliseconds{1};
  }
  server.set_behaviour(how);
  ASSERT_TRUE(server.start());
  std::vector<std::unique_ptr<reader>> all;
  for (const std::vector<std::string>& symbols : readers) {
    all.push_back(std::make_unique<reader>(symbols));
    all.back()->start(server.port());
    ASSERT_FALSE(testing::Test::HasFatalFailure());
  }
  for (const KAVMarketDepthQuoteData& quote : quotes) {
    kav_sim::push_result result;
    ASSERT_TRUE(server.push_quote_waiting(quote, '1', k_patience, &result));
    ASSERT_EQ(1u, result.queued);
  }
  for (const std::unique_ptr<reader>& one : all) one->expect_exactly(quotes, milliseconds{60'000});
}

const std::vector<std::vector<std::string>> k_one_reader = {
    {"pb1705", "IF1704", "cs1709", "SF705"}};
const std::vector<std::vector<std::string>> k_two_readers = {{"pb1705", "SF705"},
                                                             {"IF1704", "cs1709"}};

class sample_replay_test : public testing::Test {
 protected:
  void SetUp() override {
    if (!std::ifstream{sample_path()}.good()) GTEST_SKIP() << "no " << sample_path();
    m_quotes = load_sample();
    ASSERT_EQ(k_sample_rows, m_quotes.size());
  }
  quote_list m_quotes;
};

TEST_F(sample_replay_test, one_client_gets_every_quote_in_whole_messages) {
  replay(m_quotes, k_one_reader, false);
}

TEST_F(sample_replay_test, one_client_gets_every_quote_in_random_chunks) {
  replay(m_quotes, k_one_reader, true);
}

TEST_F(sample_replay_test, two_clients_get_every_quote_of_theirs_in_whole_messages) {
  replay(m_quotes, k_two_readers, false);
}

TEST_F(sample_replay_test, two_clients_get_every_quote_of_theirs_in_random_chunks) {
  replay(m_quotes, k_two_readers, true);
}

TEST(generated_replay_test, one_client_gets_every_quote_in_whole_messages) {
  replay(generate(), k_one_reader, false);
}

TEST(generated_replay_test, one_client_gets_every_quote_in_random_chunks) {
  replay(generate(), k_one_reader, true);
}

TEST(generated_replay_test, two_clients_get_every_quote_of_theirs_in_whole_messages) {
  replay(generate(), k_two_readers, false);
}

TEST(generated_replay_test, two_clients_get_every_quote_of_theirs_in_random_chunks) {
  replay(generate(), k_two_readers, true);
}

}  // namespace
}  // namespace kav_session
