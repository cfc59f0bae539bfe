// The files of a recording: one for each trading day and run.
#pragma once

#include <fmt/format.h>  // fmt::memory_buffer

#include <cstdint>  // std::uint64_t
#include <ctime>    // std::time_t
#include <map>      // std::map
#include <memory>   // std::unique_ptr
#include <string>   // std::string

#include "apps/record/gzip_file.h"
#include "apps/record/quote_queue.h"

namespace kav_record {

struct file_options {
  std::string folder;
  std::string name;  // what file names begin with
  bool receive_time = false;
};

struct file_counts {
  std::uint64_t saved_quotes = 0;
  std::uint64_t bytes = 0;  // on the disk
  std::uint64_t files = 0;
  std::string last_path;  // of the file that was saved last
};

// Sorts quotes into FOLDER/NAME-DAY.csv.gz. A name that is taken is never opened: the file becomes
// NAME-DAY-2.csv.gz, and so on. Several days may be in work at once: at night some exchanges name
// the day that begins, others the one that ends.
//
// Threads: one at a time.
class day_files {
 public:
  explicit day_files(file_options options);

  // False, here and below: error() tells what to do; call nothing but counts() then.
  bool add(const received_quote& quote, std::time_t now);
  bool save();
  bool close();

  const std::string& error() const { return m_error; }
  file_counts counts() const;

  static constexpr std::size_t k_most_open = 16;
  static constexpr std::uint64_t k_most_days = 1000;  // quotes of further ones are odd

 private:
  struct open_file {
    gzip_file packed;
    fmt::memory_buffer lines;
    std::uint64_t unsaved = 0;   // quotes
    std::uint64_t last_use = 0;  // a count of quotes
  };
  using files = std::map<std::string, std::unique_ptr<open_file>>;

  open_file* file_of(const std::string& day);
  bool make_room();
  bool create(const std::string& day, open_file& file);
  void append_line(open_file& file, const received_quote& quote) const;
  bool save(open_file& file);
  bool close(open_file& file);
  bool fail(const std::string& path);
  bool count_saved(open_file& file, std::uint64_t bytes_before);

  const file_options m_options;
  files m_files;  // by their days
  std::uint64_t m_quotes = 0;
  file_counts m_counts;
  std::string m_error;
};

}  // namespace kav_record
