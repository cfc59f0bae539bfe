// Texts in the fixed fields of records.
#pragma once

#include <cstddef>  // std::size_t
#include <string>   // std::string

#include "tools/helpers.h"

namespace kav_chaos {

// What does not fit is cut; the field ends with a NUL.
template <std::size_t N>
void fill(char (&field)[N], const std::string& text) {
  VORLAN::TOOLS::strncpy_vl(field, sizeof(field), text.c_str());
}

}  // namespace kav_chaos
