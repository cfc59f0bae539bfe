#include "bindings/python/quote_type.h"

#include <cstdint>      // std::int32_t
#include <cstring>      // std::memcpy, strnlen
#include <string>       // std::string
#include <string_view>  // std::string_view

#include "api/kav_quote_api.h"
#include "bindings/python/python_text.h"
#include "bindings/python/record_fields.h"

namespace kav_python {
namespace {

namespace py = pybind11;
using record = KAVMarketDepthQuoteData;

const char* bytes_of(const record& quote) { return reinterpret_cast<const char*>(&quote); }

template <class T>
T value_at(const char* at) {
  T value;
  std::memcpy(&value, at, sizeof(value));
  return value;
}

py::str text_at(const char* at, std::size_t width) {
  return python_text({at, ::strnlen(at, width)});
}

py::object field_value(const record& quote, const record_field& field) {
  const char* const at = bytes_of(quote) + field.offset;
  switch (field.kind) {
    case field_kind::text:
      return text_at(at, field.bytes);
    case field_kind::number:
      return py::float_(value_at<double>(at));
    case field_kind::count:
      return py::int_(value_at<std::int32_t>(at));
  }
  return py::none();
}

py::dict as_dict(const record& quote) {
  py::dict values;
  for (const record_field& field : record_fields()) values[field.name] = field_value(quote, field);
  return values;
}

py::bytes as_bytes(const record& quote) { return {bytes_of(quote), sizeof(record)}; }

record from_bytes(const py::bytes& bytes) {
  const std::string_view text = bytes;
  if (text.size() != sizeof(record)) throw py::value_error("a quote has 345 bytes");
  record quote;
  std::memcpy(&quote, text.data(), sizeof(quote));
  return quote;
}

std::string as_line(const record& quote) {
  return py::str("<Quote {} {}.{:03d} last {:.10g} bid {:.10g} x {} ask {:.10g} x {}>")
      .format(text_at(quote.InstrumentID, sizeof(quote.InstrumentID)),
              text_at(quote.UpdateTime, sizeof(quote.UpdateTime)), int{quote.UpdateMillisec},
              double{quote.LastPrice}, double{quote.BidPrice1}, int{quote.BidVolume1},
              double{quote.AskPrice1}, int{quote.AskVolume1});
}

std::string format_of(const record_field& field) {
  switch (field.kind) {
    case field_kind::text:
      return "S" + std::to_string(field.bytes);
    case field_kind::number:
      return "<f8";
    case field_kind::count:
      return "<i4";
  }
  return "";
}

constexpr const char* k_quote_doc =
    R"(One quote. Its attributes are the fields of the record, by their names: texts are str, prices
float, lots int. Zero and an empty text mean that there is no value. It can be compared and pickled.

>>> quote = kavquote.Quote(bytes(345))
>>> quote.InstrumentID, quote.LastPrice, quote.BidVolume1
('', 0.0, 0)
)";

}  // namespace

py::dtype quote_dtype() {
  py::list names, formats, offsets;
  for (const record_field& field : record_fields()) {
    names.append(field.name);
    formats.append(format_of(field));
    offsets.append(field.offset);
  }
  return {names, formats, offsets, sizeof(record)};
}

void add_quote_type(py::module_& module) {
  py::class_<record> type(module, "Quote", k_quote_doc);
  type.def(py::init(&from_bytes), py::arg("record"), "From the 345 bytes of a record.");
  for (const record_field& field : record_fields()) {
    type.def_property_readonly(
        field.name, [&field](const record& quote) { return field_value(quote, field); },
        field.meaning);
  }
  type.def("as_dict", &as_dict, "All fields by name, in the order of the record.");
  type.def("__bytes__", &as_bytes, "The 345 bytes of the record.");
  type.def("__repr__", &as_line);
  type.def(
      "__eq__",
      [](const record& a, const record& b) { return std::memcmp(&a, &b, sizeof(a)) == 0; },
      py::is_operator());
  type.def("__hash__", [](const record& quote) { return py::hash(as_bytes(quote)); });
  type.def(py::pickle(&as_bytes, &from_bytes));
}

}  // namespace kav_python
