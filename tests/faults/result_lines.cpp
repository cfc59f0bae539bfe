#include "tests/faults/result_lines.h"

#include <fmt/format.h>

#include <cstdlib>  // strtod
#include <sstream>  // std::istringstream

namespace kav_faults {

std::string to_lines(const fault_result& r) {
  std::string lines;
  if (r.noticed_s) lines += fmt::format("noticed {}\n", *r.noticed_s);
  if (r.quotes_s) lines += fmt::format("quotes {}\n", *r.quotes_s);
  for (const std::string& call : r.calls) lines += fmt::format("call {}\n", call);
  for (const figure& f : r.figures) {
    lines += fmt::format("figure {}\t{}\t{}\n", f.name, f.value, f.unit);
  }
  for (const std::string& what : r.broken) lines += fmt::format("broken {}\n", what);
  if (!r.note.empty()) lines += fmt::format("note {}\n", r.note);
  if (!r.skipped.empty()) lines += fmt::format("skipped {}\n", r.skipped);
  return lines;
}

void add_lines(fault_result& r, const std::string& lines) {
  std::istringstream in{lines};
  for (std::string line; std::getline(in, line);) {
    const std::size_t blank = line.find(' ');
    if (blank == std::string::npos) continue;
    const std::string kind = line.substr(0, blank), text = line.substr(blank + 1);
    if (kind == "noticed") r.noticed_s = std::strtod(text.c_str(), nullptr);
    if (kind == "quotes") r.quotes_s = std::strtod(text.c_str(), nullptr);
    if (kind == "call") r.calls.push_back(text);
    if (kind == "broken") r.broken.push_back(text);
    if (kind == "note") r.note = text;
    if (kind == "skipped") r.skipped = text;
    if (kind != "figure") continue;
    std::istringstream parts{text};
    std::string name, value, unit;
    std::getline(parts, name, '\t');
    std::getline(parts, value, '\t');
    std::getline(parts, unit);
    r.add(name, std::strtod(value.c_str(), nullptr), unit);
  }
}

}  // namespace kav_faults
