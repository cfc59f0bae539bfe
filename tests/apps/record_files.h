// Folders and files for tests of the recorder and of the plots.
#pragma once

#include <unistd.h>  // mkdtemp
#include <zlib.h>    // gzopen

#include <algorithm>   // std::sort
#include <cstdlib>     // std::system
#include <filesystem>  // std::filesystem
#include <fstream>     // std::ifstream
#include <iterator>    // std::istreambuf_iterator
#include <stdexcept>   // std::runtime_error
#include <string>      // std::string
#include <vector>      // std::vector

namespace kav_record_test {

// A new folder, which goes with its contents.
class test_folder {
 public:
  test_folder() : m_path((std::filesystem::temp_directory_path() / "kav_record_XXXXXX").string()) {
    if (::mkdtemp(m_path.data()) == nullptr) throw std::runtime_error("mkdtemp");
  }
  ~test_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  test_folder(const test_folder&) = delete;
  test_folder& operator=(const test_folder&) = delete;

  const std::string& path() const { return m_path; }
  std::string operator/(const std::string& name) const { return m_path + "/" + name; }
  std::vector<std::string> names() const {
    std::vector<std::string> all;
    for (const auto& entry : std::filesystem::directory_iterator{m_path}) {
      all.push_back(entry.path().filename().string());
    }
    std::sort(all.begin(), all.end());
    return all;
  }

 private:
  std::string m_path;
};

inline std::string file_bytes(const std::string& path) {
  std::ifstream file{path, std::ios::binary};
  return {std::istreambuf_iterator<char>{file}, {}};
}

inline void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream{path, std::ios::binary} << bytes;
}

inline void write_packed(const std::string& path, const std::string& text) {
  gzFile file = ::gzopen(path.c_str(), "wb");
  ::gzwrite(file, text.data(), static_cast<unsigned>(text.size()));
  ::gzclose(file);
}

// Whether the program gzip finds the file whole.
inline bool gzip_accepts(const std::string& path) {
  // NOLINTNEXTLINE(cert-env33-c): each word of the command is the test's own
  return std::system(("gzip -t '" + path + "'").c_str()) == 0;
}

// The text of a packed file, or what is wrong with the file.
inline std::string unpacked(const std::string& path) {
  gzFile file = ::gzopen(path.c_str(), "rb");
  if (file == nullptr) return "no file";
  std::string text;
  char bytes[65536];
  int length = 0;
  while ((length = ::gzread(file, bytes, sizeof(bytes))) > 0) {
    text.append(bytes, static_cast<std::size_t>(length));
  }
  int code = Z_OK;
  const std::string fault = ::gzerror(file, &code);
  ::gzclose(file);
  return code == Z_OK || code == Z_STREAM_END ? text : "damaged: " + fault;
}

}  // namespace kav_record_test
