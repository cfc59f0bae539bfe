#include "tests/support/memory_search.h"

#include <fcntl.h>   // open
#include <string.h>  // explicit_bzero
#include <unistd.h>  // pread

#include <algorithm>  // std::min
#include <cinttypes>  // SCNxPTR
#include <cstdint>    // std::uintptr_t
#include <cstdio>     // std::sscanf
#include <fstream>    // std::ifstream
#include <random>     // std::random_device

namespace kav_test {

struct hidden_text::region {
  std::uintptr_t begin = 0, end = 0;
  std::string name;
};

namespace {

constexpr std::size_t k_block = 1 << 20;

}  // namespace

hidden_text::hidden_text() {
  std::random_device random;
  for (std::size_t i = 0; i < k_length; ++i) {
    m_key[i] = static_cast<unsigned char>(random());
    const char character = "0123456789abcdefghijklmnopqrstuv"[random() % 32];
    m_masked[i] = static_cast<unsigned char>(character ^ m_key[i]);
    if (i % k_piece == 0) m_begins[static_cast<unsigned char>(character)] = true;
  }
}

void hidden_text::reveal(char* to) const {
  for (std::size_t i = 0; i < k_length; ++i) to[i] = static_cast<char>(m_masked[i] ^ m_key[i]);
  to[k_length] = '\0';
}

bool hidden_text::is_piece_at(const char* bytes) const {
  for (std::size_t piece = 0; piece < k_length; piece += k_piece) {
    std::size_t same = 0;
    while (same < k_piece && (static_cast<unsigned char>(bytes[same]) ^ m_key[piece + same]) ==
                                 m_masked[piece + same]) {
      ++same;
    }
    if (same == k_piece) return true;
  }
  return false;
}

void hidden_text::search(int memory, const region& where, std::vector<std::string>& places) const {
  std::vector<char> block(std::min(k_block, where.end - where.begin));
  for (std::uintptr_t at = where.begin; at + k_piece <= where.end;) {
    const std::size_t wanted = std::min(block.size(), where.end - at);
    const ssize_t got = ::pread(memory, block.data(), wanted, static_cast<off_t>(at));
    if (got < static_cast<ssize_t>(k_piece)) return;
    const std::size_t starts = static_cast<std::size_t>(got) - k_piece + 1;
    for (std::size_t i = 0; i < starts; ++i) {
      if (m_begins[static_cast<unsigned char>(block[i])] && is_piece_at(&block[i])) {
        places.push_back(where.name);
      }
    }
    at += starts;
  }
  ::explicit_bzero(block.data(), block.size());
}

std::vector<std::string> hidden_text::places_in(pid_t process) const {
  const std::string folder = "/proc/" + std::to_string(process);
  const int memory = ::open((folder + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  if (memory < 0) return {"unreadable"};
  std::vector<region> regions;  // all of them first: reading the list takes memory too
  std::ifstream maps(folder + "/maps");
  for (std::string line; std::getline(maps, line);) {
    region found;
    char rights[5] = {};
    int name = 0;
    if (std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %4s %*s %*s %*s %n", &found.begin,
                    &found.end, rights, &name) < 3) {
      continue;
    }
    if (rights[0] != 'r' || rights[1] != 'w') continue;
    found.name = name > 0 ? line.substr(static_cast<std::size_t>(name)) : "";
    if (found.name.empty()) found.name = "unnamed";
    regions.push_back(found);
  }
  std::vector<std::string> places;
  for (const region& where : regions) search(memory, where, places);
  ::close(memory);
  return regions.empty() ? std::vector<std::string>{"unreadable"} : places;
}

}  // namespace kav_test
