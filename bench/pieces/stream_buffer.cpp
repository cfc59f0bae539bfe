// stream_buffer as the receive thread uses it, beside a bare memcpy() of the same bytes and beside
// a std::string that is appended to and erased from.
#include "tools/stream_buffer.h"

#include <cstring>  // memcpy
#include <string>   // std::string
#include <vector>   // std::vector

#include "bench/pieces/piece.h"

namespace {

using kav_bench::unknown;
using VORLAN::TOOLS::stream_buffer;

constexpr std::size_t k_chunk_bytes[] = {367, 8192};
constexpr unsigned k_stream_bytes = 8192;
constexpr std::size_t k_message_bytes = 367;
constexpr std::size_t k_residue_bytes = 100;  // of a message whose rest has not come yet

// The whole messages among the bytes there.
std::size_t whole_messages(std::size_t bytes) { return bytes - bytes % k_message_bytes; }

// A chunk arrives, its whole messages are consumed, what is left waits for the next.
void push_pop_kav(benchmark::State& state, std::size_t size) {
  const std::string chunk(size, 'x');
  stream_buffer stream(k_stream_bytes);
  stream.push_data(chunk.data(), k_residue_bytes);
  for ([[maybe_unused]] auto _ : state) {
    stream.push_data(chunk.data(), unknown(size));
    benchmark::DoNotOptimize(*stream.get_data_ptr());
    stream.pop_data(whole_messages(stream.get_data_len()));
  }
}

void push_pop_string(benchmark::State& state, std::size_t size) {
  const std::string chunk(size, 'x');
  std::string stream;
  stream.reserve(k_stream_bytes);
  stream.append(chunk.data(), k_residue_bytes);
  for ([[maybe_unused]] auto _ : state) {
    stream.append(chunk.data(), unknown(size));
    benchmark::DoNotOptimize(*stream.data());
    stream.erase(0, whole_messages(stream.size()));
  }
}

void push_pop_memcpy(benchmark::State& state, std::size_t size) {
  const std::string chunk(size, 'x');
  std::vector<char> stream(k_stream_bytes + size);
  for ([[maybe_unused]] auto _ : state) {
    std::memcpy(stream.data() + k_residue_bytes, chunk.data(), unknown(size));
    benchmark::DoNotOptimize(stream.data());
    benchmark::ClobberMemory();
  }
}

// Nobody consumes: from the first 2048 bytes to 64 KiB, in chunks. Much more, and the system's
// giving of pages would be all that is seen.
constexpr std::size_t k_grown_bytes = 1 << 16;

void grow_kav(benchmark::State& state, std::size_t size) {
  const std::string chunk(size, 'x');
  for ([[maybe_unused]] auto _ : state) {
    stream_buffer stream(2048);
    while (stream.get_data_len() < k_grown_bytes) stream.push_data(chunk.data(), size);
    benchmark::DoNotOptimize(*stream.get_data_ptr());
  }
}

void grow_string(benchmark::State& state, std::size_t size) {
  const std::string chunk(size, 'x');
  for ([[maybe_unused]] auto _ : state) {
    std::string stream;
    stream.reserve(2048);
    while (stream.size() < k_grown_bytes) stream.append(chunk.data(), size);
    benchmark::DoNotOptimize(*stream.data());
  }
}

// Into memory that is there.
void grow_memcpy(benchmark::State& state, std::size_t size) {
  const std::string chunk(size, 'x');
  std::vector<char> stream(k_grown_bytes + size);
  for ([[maybe_unused]] auto _ : state) {
    for (std::size_t at = 0; at < k_grown_bytes; at += size) {
      std::memcpy(stream.data() + at, chunk.data(), unknown(size));
    }
    benchmark::DoNotOptimize(stream.data());
    benchmark::ClobberMemory();
  }
}

const kav_bench::at_start k_chunks([] {
  for (const std::size_t size : k_chunk_bytes) {
    kav_bench::add_piece("stream_buffer/push_pop", size, "kav", push_pop_kav);
    kav_bench::add_piece("stream_buffer/push_pop", size, "memcpy", push_pop_memcpy);
    kav_bench::add_piece("stream_buffer/push_pop", size, "string", push_pop_string);
    kav_bench::add_piece("stream_buffer/grow", size, "kav", grow_kav);
    kav_bench::add_piece("stream_buffer/grow", size, "memcpy", grow_memcpy);
    kav_bench::add_piece("stream_buffer/grow", size, "string", grow_string);
  }
});

}  // namespace
