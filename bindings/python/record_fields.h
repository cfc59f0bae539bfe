// The fields of the quote record by name: one table for NumPy's dtype and for the attributes of
// kavquote.Quote.
#pragma once

#include <cstddef>  // std::size_t
#include <span>     // std::span

namespace kav_python {

enum class field_kind { text, number, count };  // char[], double, std::int32_t

struct record_field {
  const char* name;
  std::size_t offset, bytes;
  field_kind kind;
  const char* meaning;
};

// All fields, in the order of the record, without a gap.
std::span<const record_field> record_fields();

}  // namespace kav_python
