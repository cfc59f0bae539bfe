// A gzip file that is whole at every moment, also while it grows and whenever its writer is killed.
#pragma once

#include <zlib.h>  // z_stream

#include <cstdint>      // std::uint64_t
#include <string>       // std::string
#include <string_view>  // std::string_view

namespace kav_record {

// What has been saved is followed by a trailer that ends the file well. The next piece is first
// written behind that trailer, where readers ignore it, except for its first bytes, which then
// replace the trailer at one stroke. So a reader finds whole pieces only, each ending with a line.
//
// Threads: one at a time. Ownership: of the descriptor. Failures leave the file as it was saved
// last.
class gzip_file {
 public:
  gzip_file() = default;
  ~gzip_file();  // without saving
  gzip_file(const gzip_file&) = delete;
  gzip_file& operator=(const gzip_file&) = delete;

  // A new file; false: errno says why, EEXIST that there is one of that name, and another may be
  // tried.
  bool create(const std::string& path);
  // Packs the text; nothing of it is in the file before save().
  void append(std::string_view text);
  // The file holds all that was appended; false: it holds what it held before, errno says why.
  bool save();
  // The same, and it is on the disk. No other call may follow.
  bool close();

  const std::string& path() const { return m_path; }
  std::uint64_t bytes() const { return m_saved_end; }  // of the file, with its trailer

 private:
  void pack(std::string_view text, int flush);
  std::string trailer() const;
  bool write_piece(const std::string& piece);

  std::string m_path;
  int m_fd = -1;
  z_stream m_stream{};
  bool m_stream_open = false;
  unsigned long m_crc = 0;    // of all text
  std::uint64_t m_text = 0;   // bytes of all text
  std::uint64_t m_joint = 0;  // where the trailer begins that the next piece replaces
  std::uint64_t m_saved_end = 0;
  std::string m_packed;  // since the last save()
};

}  // namespace kav_record
