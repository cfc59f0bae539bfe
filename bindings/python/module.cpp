// kavquote._native: what the Python package is made of. Its public face is kavquote/client.py.
#include <exception>     // std::rethrow_exception
#include <system_error>  // std::system_error
#include <utility>       // std::move

#include "bindings/python/quote_type.h"
#include "bindings/python/session_type.h"

namespace {

// What the system refuses, such as a descriptor or a thread, is an OSError in Python.
void throw_as_os_error(std::exception_ptr thrown) {
  try {
    if (thrown) std::rethrow_exception(std::move(thrown));
  } catch (const std::system_error& e) {
    const pybind11::object error =
        pybind11::module_::import("builtins").attr("OSError")(e.code().value(), e.what());
    PyErr_SetObject(PyExc_OSError, error.ptr());
  }
}

}  // namespace

PYBIND11_MODULE(_native, module) {
  module.doc() = "Sessions and quotes of libkavquote.so. Use the package kavquote instead.";
  pybind11::register_local_exception_translator(&throw_as_os_error);
  kav_python::add_quote_type(module);
  kav_python::add_session_type(module);
  module.attr("QUOTE_DTYPE") = kav_python::quote_dtype();
}
