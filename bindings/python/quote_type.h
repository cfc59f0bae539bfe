// kavquote.Quote, and the NumPy dtype of the record.
#pragma once

#include <pybind11/numpy.h>     // py::dtype
#include <pybind11/pybind11.h>  // py::module_

namespace kav_python {

void add_quote_type(pybind11::module_& module);
pybind11::dtype quote_dtype();

}  // namespace kav_python
