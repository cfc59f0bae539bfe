#include "apps/record/file_writer.h"

#include <ctime>      // std::time
#include <exception>  // std::exception
#include <utility>    // std::move

namespace kav_record {

using steady = std::chrono::steady_clock;

file_writer::file_writer(quote_queue& queue, file_options options)
    : m_queue(queue), m_files(std::move(options)) {}

file_writer::~file_writer() { finish(); }

void file_writer::start() {
  m_thread = std::thread([this] { run(); });
}

void file_writer::finish() {
  m_queue.close();
  if (m_thread.joinable()) m_thread.join();
}

file_writer::state file_writer::look() const {
  const std::lock_guard lock(m_lock);
  return m_state;
}

void file_writer::tell(std::optional<std::string> failure) {
  const std::lock_guard lock(m_lock);
  m_state = {m_files.counts(), std::move(failure)};
}

void file_writer::run() {
  try {
    if (write_quotes()) return tell(std::nullopt);
    tell(m_files.error());
  } catch (const std::exception& error) {
    tell(std::string{"cannot write any more: "} + error.what());
  }
}

bool file_writer::write_quotes() {
  m_save_at = steady::now() + k_save_pause;
  while (m_queue.take_all(m_batch, m_save_at)) {
    if (!write_batch() || !save_when_due()) return false;
  }
  return m_files.close();
}

bool file_writer::write_batch() {
  const std::time_t now = std::time(nullptr);
  for (const received_quote& quote : m_batch) {
    if (!m_files.add(quote, now) || !save_when_due()) return false;
  }
  return true;
}

bool file_writer::save_when_due() {
  if (steady::now() < m_save_at) return true;
  if (!m_files.save()) return false;
  m_save_at = steady::now() + k_save_pause;
  tell(std::nullopt);
  return true;
}

}  // namespace kav_record
