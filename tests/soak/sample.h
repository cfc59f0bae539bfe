// What is looked at once a second while the client lives, and the file that it goes to.
#pragma once

#include <cstddef>  // std::size_t
#include <cstdint>  // std::uint64_t
#include <cstdio>   // FILE
#include <string>   // std::string

namespace kav_soak {

struct sample {
  double seconds = 0;  // since the client was made
  std::uint64_t quotes = 0;
  std::uint64_t reconnections = 0;
  std::size_t descriptors = 0;
  std::size_t threads = 0;
  std::uint64_t resident_kib = 0;
};

// What the system shows of this process now; the rest is the caller's to fill in.
sample look_at_process();

// A CSV file with a head line. Every line is written out at once: an interrupted run leaves what it
// has seen.
class sample_file {
 public:
  sample_file() = default;
  sample_file(const sample_file&) = delete;
  sample_file& operator=(const sample_file&) = delete;
  ~sample_file();
  // An empty path is no file, which is fine. False: error() says why.
  bool open(const std::string& path);
  bool write(const sample& s);
  const std::string& error() const { return m_error; }

 private:
  bool fail();

  std::string m_path, m_error;
  std::FILE* m_file = nullptr;
};

}  // namespace kav_soak
