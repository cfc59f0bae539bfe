// One fault: what is done to a living session, what is measured, and what must hold.
#pragma once

#include <optional>  // std::optional
#include <string>    // std::string
#include <vector>    // std::vector

namespace kav_faults {

struct figure {
  std::string name;
  double value = 0;
  std::string unit;
};

struct fault_result {
  std::optional<double> noticed_s;  // until the client noticed; none: it did not
  std::optional<double> quotes_s;   // until quotes flowed again; none: they did not
  std::vector<std::string> calls;   // what the caller was told meanwhile, in order
  std::vector<figure> figures;
  std::string note;                 // how it was measured, where that needs saying
  std::string skipped;              // why nothing could be measured; empty: it was
  std::vector<std::string> broken;  // what should hold and does not

  void add(const std::string& name, double value, const std::string& unit) {
    figures.push_back({name, value, unit});
  }
  // Returns `holds`.
  bool expect(bool holds, const std::string& what) {
    if (!holds) broken.push_back(what);
    return holds;
  }
  // The figure of that name, -1 when there is none.
  double value_of(const std::string& name) const {
    for (const figure& f : figures) {
      if (f.name == name) return f.value;
    }
    return -1;
  }
};

struct fault {
  const char* name;   // for --only and in the JSON file
  const char* title;  // the row's head
  fault_result (*measure)();
};

// In the order of the table.
const std::vector<fault>& all_faults();

fault_result server_killed();
fault_result server_back_after_3_seconds();
fault_result server_back_after_10_minutes();
fault_result link_cut();
fault_result stalled_in_a_message();
fault_result silent_at_login();
fault_result silent_at_relogin();
fault_result refused_at_relogin();
fault_result garbage();
fault_result flood();
fault_result slow_callback();
fault_result signal_storm();
fault_result forks();
fault_result child_that_lives_on();
fault_result two_copies();
fault_result unloaded_while_in_use();

}  // namespace kav_faults
