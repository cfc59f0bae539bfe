#include "apps/record/day_files.h"

#include <algorithm>  // std::min_element
#include <cerrno>     // errno
#include <cstring>    // std::strerror
#include <iterator>   // std::back_inserter
#include <utility>    // std::exchange, std::move

#include "apps/record/trading_day.h"
#include "apps/watch/quote_format.h"

namespace kav_record {
namespace {

constexpr std::size_t k_pack_bytes = 1 << 16;  // lines that are packed together
constexpr int k_most_names = 10'000;           // for one day, then something else is wrong

std::string_view text_of(const fmt::memory_buffer& buffer) {
  return {buffer.data(), buffer.size()};
}

}  // namespace

day_files::day_files(file_options options) : m_options(std::move(options)) {}

file_counts day_files::counts() const { return m_counts; }

bool day_files::fail(const std::string& path) {
  m_error = fmt::format(
      "cannot write {}: {}; what was saved before is whole. Free some space, look at the disk, or "
      "give another --output",
      path, std::strerror(errno));
  return false;
}

bool day_files::add(const received_quote& quote, std::time_t now) {
  std::string day = file_day(quote.record, now);
  if (m_counts.files >= k_most_days && !m_files.contains(day)) day = trading_day_at(now) + "-odd";
  open_file* const file = file_of(day);
  if (file == nullptr) return false;
  append_line(*file, quote);
  ++file->unsaved;
  file->last_use = ++m_quotes;
  if (file->lines.size() < k_pack_bytes) return true;
  file->packed.append(text_of(file->lines));
  file->lines.clear();
  return true;
}

day_files::open_file* day_files::file_of(const std::string& day) {
  const auto known = m_files.find(day);
  if (known != m_files.end()) return known->second.get();
  if (!make_room()) return nullptr;
  auto file = std::make_unique<open_file>();
  if (!create(day, *file)) return nullptr;
  return m_files.emplace(day, std::move(file)).first->second.get();
}

bool day_files::make_room() {
  if (m_files.size() < k_most_open) return true;
  const auto oldest = std::min_element(m_files.begin(), m_files.end(), [](auto& a, auto& b) {
    return a.second->last_use < b.second->last_use;
  });
  if (!close(*oldest->second)) return false;
  m_files.erase(oldest);
  return true;
}

bool day_files::create(const std::string& day, open_file& file) {
  const std::string begin = fmt::format("{}/{}-{}", m_options.folder, m_options.name, day);
  bool made = file.packed.create(begin + ".csv.gz");
  for (int number = 2; !made && errno == EEXIST && number < k_most_names; ++number) {
    made = file.packed.create(fmt::format("{}-{}.csv.gz", begin, number));
  }
  if (!made) return fail(file.packed.path());
  ++m_counts.files;
  kav_watch::append_csv_header(file.lines);
  if (!m_options.receive_time) return true;
  file.lines.resize(file.lines.size() - 1);  // its line feed
  fmt::format_to(std::back_inserter(file.lines), ",ReceiveTimeNs\n");
  return true;
}

void day_files::append_line(open_file& file, const received_quote& quote) const {
  kav_watch::append_csv(file.lines, quote.record);
  if (!m_options.receive_time) return;
  file.lines.resize(file.lines.size() - 1);  // its line feed
  fmt::format_to(std::back_inserter(file.lines), ",{}\n", quote.received_ns);
}

bool day_files::save() {
  for (auto& [day, file] : m_files) {
    if (file->unsaved > 0 && !save(*file)) return false;
  }
  return true;
}

bool day_files::save(open_file& file) {
  const std::uint64_t before = file.packed.bytes();
  file.packed.append(text_of(file.lines));
  file.lines.clear();
  return file.packed.save() ? count_saved(file, before) : fail(file.packed.path());
}

bool day_files::close() {
  for (auto& [day, file] : m_files) {
    if (!close(*file)) return false;
  }
  m_files.clear();
  return true;
}

bool day_files::close(open_file& file) {
  const std::uint64_t before = file.packed.bytes();
  file.packed.append(text_of(file.lines));
  file.lines.clear();
  return file.packed.close() ? count_saved(file, before) : fail(file.packed.path());
}

bool day_files::count_saved(open_file& file, std::uint64_t bytes_before) {
  m_counts.saved_quotes += std::exchange(file.unsaved, 0);
  m_counts.bytes += file.packed.bytes() - bytes_before;
  m_counts.last_path = file.packed.path();
  return true;
}

}  // namespace kav_record
