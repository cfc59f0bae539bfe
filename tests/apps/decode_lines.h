// What kav-watch prints for the quotes that the library's decoder makes of payloads.
#pragma once

#include <string>  // std::string
#include <vector>  // std::vector

#include "apps/watch/quote_format.h"
#include "feeds/multicast_decoder.h"
#include "tests/apps/decode_packets.h"
#include "tests/support/recording_event.h"

namespace kav_decode_test {

struct sent_record {
  int exchange;
  bytes payload;
};

inline std::vector<std::string> lines_of(const std::vector<sent_record>& records, bool json) {
  kav_test::recording_event events;
  multicast_decoder decoder;
  decoder.set_event(&events);
  for (const sent_record& record : records) {
    decoder.decode(reinterpret_cast<const char*>(record.payload.data()),
                   static_cast<unsigned>(record.payload.size()), record.exchange);
  }
  std::vector<std::string> lines;
  for (const kav_test::recorded_call& call : events.of(kav_test::callback_kind::quote)) {
    fmt::memory_buffer line;
    if (json) {
      kav_watch::append_json(line, call.quote);
    } else {
      kav_watch::append_csv(line, call.quote);
    }
    lines.push_back(fmt::to_string(line));
  }
  return lines;
}

inline std::string csv_header() {
  fmt::memory_buffer line;
  kav_watch::append_csv_header(line);
  return fmt::to_string(line);
}

inline std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line;
  return text;
}

}  // namespace kav_decode_test
