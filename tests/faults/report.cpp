#include "tests/faults/report.h"

#include <fmt/format.h>

#include <fstream>  // std::ofstream

namespace kav_faults {

namespace {

std::string seconds_text(const std::optional<double>& s) {
  return s ? fmt::format("{:.3f} s", *s) : "-";
}

std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
  }
  return result + '"';
}

std::string list_of(const std::vector<std::string>& texts) {
  std::string result;
  for (const std::string& text : texts) result += (result.empty() ? "" : ", ") + quoted(text);
  return "[" + result + "]";
}

std::string number_or_null(const std::optional<double>& number) {
  return number ? fmt::format("{}", *number) : "null";
}

std::string figures_of(const std::vector<figure>& figures) {
  std::string result;
  for (const figure& f : figures) {
    result += fmt::format("{}{{\"name\": {}, \"value\": {}, \"unit\": {}}}",
                          result.empty() ? "" : ", ", quoted(f.name), f.value, quoted(f.unit));
  }
  return "[" + result + "]";
}

std::string json_of(const fault& f, const fault_result& r) {
  return fmt::format(
      "    {{\"name\": {}, \"title\": {}, \"noticed_s\": {}, \"quotes_s\": {},\n"
      "     \"calls\": {},\n     \"figures\": {},\n"
      "     \"note\": {}, \"skipped\": {}, \"broken\": {}}}",
      quoted(f.name), quoted(f.title), number_or_null(r.noticed_s), number_or_null(r.quotes_s),
      list_of(r.calls), figures_of(r.figures), quoted(r.note), quoted(r.skipped),
      list_of(r.broken));
}

std::string json_of(const kav_test::machine& m) {
  return fmt::format("{{\"cpu\": {}, \"cores\": {}, \"kernel\": {}, \"date\": {}}}", quoted(m.cpu),
                     m.cores, quoted(m.kernel), quoted(m.date));
}

}  // namespace

void print_table(const results& all) {
  fmt::print("{:<50} {:>10} {:>12}\n", "fault", "noticed", "quotes again");
  for (const fault& f : all_faults()) {
    const auto found = all.find(f.name);
    if (found == all.end()) continue;
    const fault_result& r = found->second;
    fmt::print("{:<50} {:>10} {:>12}\n", f.title, seconds_text(r.noticed_s),
               seconds_text(r.quotes_s));
    if (!r.skipped.empty()) fmt::print("    skipped: {}\n", r.skipped);
    if (!r.note.empty()) fmt::print("    ({})\n", r.note);
    for (const figure& g : r.figures) fmt::print("    {}: {:.6g} {}\n", g.name, g.value, g.unit);
    for (const std::string& call : r.calls) fmt::print("    > {}\n", call);
    for (const std::string& what : r.broken) fmt::print("    BROKEN: {}\n", what);
  }
}

std::string write_json(const std::string& path, const kav_test::machine& on, const results& all) {
  if (path.empty()) return "";
  std::string rows;
  for (const fault& f : all_faults()) {
    const auto found = all.find(f.name);
    if (found == all.end()) continue;
    rows += (rows.empty() ? "" : ",\n") + json_of(f, found->second);
  }
  std::ofstream file{path};
  file << "{\"program\": \"kav-faults\",\n \"machine\": " << json_of(on) << ",\n \"faults\": [\n"
       << rows << "\n]}\n";
  file.flush();
  return file ? "" : "cannot write " + path;
}

}  // namespace kav_faults
