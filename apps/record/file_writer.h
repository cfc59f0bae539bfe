// The thread that writes the quotes of the queue to files.
#pragma once

#include <chrono>    // std::chrono::milliseconds
#include <mutex>     // std::mutex
#include <optional>  // std::optional
#include <string>    // std::string
#include <thread>    // std::thread

#include "apps/record/day_files.h"
#include "apps/record/quote_queue.h"

namespace kav_record {

// Threads:  one of its own, from start() to finish(); the other operations on the main thread.
// Shutdown: finish() closes the queue, whose last quotes are written, and joins the thread.
class file_writer {
 public:
  file_writer(quote_queue& queue, file_options options);  // the queue outlives the writer
  ~file_writer();
  file_writer(const file_writer&) = delete;
  file_writer& operator=(const file_writer&) = delete;

  void start();
  void finish();

  struct state {
    file_counts counts;
    std::optional<std::string> failure;  // why nothing is written any more, and a way out
  };
  state look() const;

  // From a quote's coming until it is in its file, when the disk does not hesitate.
  static constexpr std::chrono::milliseconds k_save_pause{500};

 private:
  void run();
  bool write_quotes();
  bool write_batch();
  bool save_when_due();
  void tell(std::optional<std::string> failure);

  quote_queue& m_queue;
  std::thread m_thread;
  // The writer's thread only.
  day_files m_files;
  std::vector<received_quote> m_batch;
  std::chrono::steady_clock::time_point m_save_at;

  mutable std::mutex m_lock;
  state m_state;  // under m_lock
};

}  // namespace kav_record
