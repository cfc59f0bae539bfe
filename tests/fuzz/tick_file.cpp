// The reader of recorded quotes: plain text, text that is packed here, and bytes as they come,
// which may be a packed file that is damaged.
#include "apps/sim/tick_file.h"

#include <zlib.h>  // deflate

#include <cmath>   // std::isfinite
#include <limits>  // std::numeric_limits
#include <set>     // std::set

#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/memory_file.h"
#include "tests/fuzz/record_check.h"

namespace {

using kav_fuzz::fuzz_input;

constexpr int k_gzip_window = 15 + 16;
constexpr std::size_t k_most_replayed = 1000;
constexpr std::size_t k_longest_symbol = 19;  // longer ones cannot be registered

std::string packed(const std::string& text) {
  z_stream stream{};
  KAV_CHECK(::deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, k_gzip_window, 8,
                           Z_DEFAULT_STRATEGY) == Z_OK);
  std::string out(::deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));  // only read
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  KAV_CHECK(::deflate(&stream, Z_FINISH) == Z_STREAM_END);
  out.resize(stream.total_out);
  ::deflateEnd(&stream);
  return out;
}

struct outcome {
  bool read = false;
  std::vector<kav_sim::tick> ticks;
  std::string error;
};

outcome read(const std::string& bytes) {
  const kav_fuzz::memory_file file(bytes);
  outcome result;
  result.read = kav_sim::read_tick_file(file.path(), result.ticks, result.error);
  if (!result.read) {
    KAV_CHECK(result.ticks.empty());
    KAV_CHECK(result.error.rfind(file.path() + ":", 0) == 0);
    result.error.erase(0, file.path().size());
  }
  return result;
}

// For a terminal: nothing in it moves the cursor or starts a command of the terminal.
void check_one_line(const std::string& error) {
  for (const char c : error) KAV_CHECK(static_cast<unsigned char>(c) >= ' ' && c != '\x7F');
}

void check_record(const KAVMarketDepthQuoteData& record) {
  kav_fuzz::check_texts_end(record);
  const std::string symbol = record.InstrumentID;
  KAV_CHECK(!symbol.empty() && symbol.size() <= k_longest_symbol);
  KAV_CHECK(record.UpdateMillisec >= 0 && record.UpdateMillisec <= 999);
  for (const double price : {+record.LastPrice, +record.Turnover, +record.BidPrice5}) {
    KAV_CHECK(std::isfinite(price));
  }
}

void check_ticks(const std::vector<kav_sim::tick>& ticks) {
  KAV_CHECK(!ticks.empty());
  std::int64_t before = 0;
  for (const kav_sim::tick& tick : ticks) {
    check_record(tick.record);
    KAV_CHECK(tick.source_ms >= before);
    before = tick.source_ms;
  }
}

void check_replay(std::vector<kav_sim::tick> ticks) {
  kav_sim::tick_replay replay(ticks, true);
  std::set<std::string> listed;
  for (const kav_sim::listed_symbol& symbol : replay.symbols()) {
    KAV_CHECK(listed.insert(symbol.name).second);
  }
  std::chrono::microseconds before{0};
  for (std::size_t i = 0; i < std::min(2 * ticks.size(), k_most_replayed); ++i) {
    kav_sim::tick tick;
    std::chrono::microseconds due;
    KAV_CHECK(replay.next(tick, due));
    KAV_CHECK(due >= before);
    KAV_CHECK(std::memcmp(&tick.record, &ticks[i % ticks.size()].record, sizeof(tick.record)) == 0);
    KAV_CHECK(listed.count(tick.record.InstrumentID) == 1);
    before = due;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  const bool pack = input.take_byte() == 'z';
  const std::string bytes = input.take_rest();
  const outcome result = read(bytes);
  if (pack) {
    const bool is_packed = bytes.rfind("\x1F\x8B", 0) == 0;  // already, or looks like it
    const outcome unpacked = read(packed(bytes));
    KAV_CHECK(is_packed || (unpacked.read == result.read && unpacked.error == result.error &&
                            unpacked.ticks.size() == result.ticks.size()));
  }
  if (!result.read) {
    check_one_line(result.error);
    return 0;
  }
  check_ticks(result.ticks);
  check_replay(result.ticks);
  return 0;
}
