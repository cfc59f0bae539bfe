#include "apps/record/gzip_file.h"

#include <fcntl.h>     // open
#include <sys/stat.h>  // mode of the file
#include <unistd.h>    // pwrite, ftruncate, fsync, close

#include <algorithm>  // std::min
#include <array>      // std::array
#include <cerrno>     // errno
#include <new>        // std::bad_alloc
#include <utility>    // std::exchange

namespace kav_record {
namespace {

constexpr int k_level = 6;
constexpr int k_raw_window = -15;  // head and trailer are our own
constexpr int k_memory_level = 8;
constexpr std::string_view k_head{"\x1f\x8b\x08\0\0\0\0\0\0\x03", 10};  // no name, no time, Unix
constexpr std::string_view k_last_block{"\x03\0", 2};                   // empty, and the last one
constexpr std::size_t k_trailer_bytes = 10;

void append_little_endian(std::string& out, std::uint64_t value) {
  for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<char>(value >> shift));
}

bool write_all(int fd, std::string_view bytes, std::uint64_t at) {
  while (!bytes.empty()) {
    const ssize_t written = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(at));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
    at += static_cast<std::uint64_t>(written);
  }
  return true;
}

}  // namespace

gzip_file::~gzip_file() {
  if (m_stream_open) ::deflateEnd(&m_stream);
  if (m_fd >= 0) ::close(m_fd);
}

bool gzip_file::create(const std::string& path) {
  m_path = path;
  m_fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (m_fd < 0) return false;
  m_stream_open = ::deflateInit2(&m_stream, k_level, Z_DEFLATED, k_raw_window, k_memory_level,
                                 Z_DEFAULT_STRATEGY) == Z_OK;
  if (!m_stream_open) throw std::bad_alloc{};
  m_crc = ::crc32(0, nullptr, 0);
  m_packed = k_head;
  if (save()) return true;
  const int why = errno;
  ::unlink(path.c_str());
  errno = why;
  return false;
}

void gzip_file::append(std::string_view text) {
  m_crc = ::crc32_z(m_crc, reinterpret_cast<const Bytef*>(text.data()), text.size());
  m_text += text.size();
  pack(text, Z_NO_FLUSH);
}

void gzip_file::pack(std::string_view text, int flush) {
  std::array<char, 1 << 16> packed;
  m_stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  m_stream.avail_in = static_cast<uInt>(text.size());
  do {
    m_stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    m_stream.avail_out = static_cast<uInt>(packed.size());
    ::deflate(&m_stream, flush);
    m_packed.append(packed.data(), packed.size() - m_stream.avail_out);
  } while (m_stream.avail_out == 0);
}

std::string gzip_file::trailer() const {
  std::string bytes{k_last_block};
  append_little_endian(bytes, m_crc);
  append_little_endian(bytes, m_text);
  return bytes;
}

bool gzip_file::write_piece(const std::string& piece) {
  const std::size_t first = std::min(piece.size(), k_trailer_bytes);  // replaces the trailer
  const std::string_view bytes{piece};
  return write_all(m_fd, bytes.substr(first), m_joint + first) &&
         write_all(m_fd, bytes.substr(0, first), m_joint);
}

bool gzip_file::save() {
  pack("", Z_SYNC_FLUSH);  // ends with a whole byte
  const std::string piece = std::exchange(m_packed, {}) + trailer();
  if (!write_piece(piece)) {
    const int why = errno;
    // What cannot be cut off stays behind the trailer, where it does no harm.
    [[maybe_unused]] const int cut = ::ftruncate(m_fd, static_cast<off_t>(m_saved_end));
    errno = why;
    return false;
  }
  m_saved_end = m_joint + piece.size();
  m_joint = m_saved_end - k_trailer_bytes;
  return true;
}

bool gzip_file::close() {
  if (!save()) return false;
  if (::fsync(m_fd) != 0 && errno != EINVAL) return false;  // EINVAL: nothing like a disk
  return ::close(std::exchange(m_fd, -1)) == 0;
}

}  // namespace kav_record
