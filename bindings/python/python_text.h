// Text from a server as str. It is not always UTF-8; what is not becomes U+FFFD, so that reading
// never fails.
#pragma once

#include <pybind11/pybind11.h>  // py::str

#include <string_view>  // std::string_view

namespace kav_python {

inline pybind11::str python_text(std::string_view text) {
  return pybind11::reinterpret_steal<pybind11::str>(
      PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace"));
}

}  // namespace kav_python
