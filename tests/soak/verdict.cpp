#include "tests/soak/verdict.h"

#include <fmt/format.h>

#include <algorithm>  // std::max, std::sort
#include <span>       // std::span

namespace kav_soak {

namespace {

constexpr std::size_t k_fewest_samples = 8;

using samples = std::span<const sample>;

samples second_half(const std::vector<sample>& all) { return samples{all}.subspan(all.size() / 2); }

double minutes_of(samples part) {
  return part.empty() ? 0 : (part.back().seconds - part.front().seconds) / 60;
}

std::vector<std::size_t> sorted(samples part, std::size_t sample::*what) {
  std::vector<std::size_t> values;
  for (const sample& s : part) values.push_back(s.*what);
  std::sort(values.begin(), values.end());
  return values;
}

// Descriptors and threads come and go with every reconnection. Where they pile up, what is usual in
// the second half is more than was ever there in the first.
void judge_count(const soak_record& record, const char* name, std::size_t sample::*what,
                 std::vector<std::string>& faults) {
  if (record.after.*what != record.before.*what) {
    faults.push_back(fmt::format("{} {} before the client's life, {} after it", record.before.*what,
                                 name, record.after.*what));
  }
  const samples all{record.samples};
  const std::size_t most = sorted(all.first(all.size() / 2), what).back();
  const std::vector<std::size_t> later = sorted(second_half(record.samples), what);
  const std::size_t usual = later[later.size() / 2];
  if (usual > most) {
    faults.push_back(fmt::format(
        "{} in use grew from {} at most in the first half to {} in the second", name, most, usual));
  }
}

void judge_memory(const soak_record& record, std::vector<std::string>& faults) {
  const double minutes = minutes_of(second_half(record.samples));
  const double rise = resident_slope(record.samples) * minutes;
  const double bound = std::max(k_rise_kib, k_rise_kib_per_minute * minutes);
  if (rise <= bound) return;
  faults.push_back(
      fmt::format("resident memory rose by {:.0f} KiB over the second half, {:.1f} minutes; at "
                  "most {:.0f} KiB are allowed",
                  rise, minutes, bound));
}

void judge_sessions(const soak_record& record, std::vector<std::string>& faults) {
  const sample& last = record.samples.back();
  const auto fewest = static_cast<std::uint64_t>(last.seconds / k_most_seconds_per_reconnection);
  if (last.reconnections < fewest || last.reconnections == 0) {
    faults.push_back(fmt::format("{} reconnections in {:.0f} s, fewer than {}", last.reconnections,
                                 last.seconds, std::max<std::uint64_t>(fewest, 1)));
  }
  if (record.silent_sessions != 0) {
    faults.push_back(fmt::format("{} of {} sessions ended without a quote", record.silent_sessions,
                                 record.sessions));
  }
  if (record.out_of_order != 0) {
    faults.push_back(fmt::format("{} quotes came twice or out of order", record.out_of_order));
  }
  if (record.login_gave_up != 0) {
    faults.push_back(fmt::format("the client gave up {} times", record.login_gave_up));
  }
}

}  // namespace

double resident_slope(const std::vector<sample>& all) {
  const samples part = second_half(all);
  double time = 0, memory = 0;
  for (const sample& s : part) {
    time += s.seconds;
    memory += static_cast<double>(s.resident_kib);
  }
  const auto count = static_cast<double>(part.size());
  double shared = 0, spread = 0;
  for (const sample& s : part) {
    const double away = s.seconds - time / count;
    shared += away * (static_cast<double>(s.resident_kib) - memory / count);
    spread += away * away;
  }
  return spread > 0 ? shared / spread * 60 : 0;
}

std::vector<std::string> faults_of(const soak_record& record) {
  if (record.samples.size() < k_fewest_samples) {
    return {fmt::format("only {} samples: too short a run to judge", record.samples.size())};
  }
  std::vector<std::string> faults;
  judge_count(record, "descriptors", &sample::descriptors, faults);
  judge_count(record, "threads", &sample::threads, faults);
  judge_memory(record, faults);
  judge_sessions(record, faults);
  return faults;
}

}  // namespace kav_soak
