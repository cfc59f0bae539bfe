// _native.Session, what kavquote.Client is made of.
#pragma once

#include <pybind11/pybind11.h>  // py::module_

namespace kav_python {

void add_session_type(pybind11::module_& module);

}  // namespace kav_python
