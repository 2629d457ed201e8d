// Cohort rates by the built-in projection kernels (projection.cpp), used while the formula
// in force is still the built-in Python function; null means "call the Python function".
#pragma once

#include "decrement/state.hpp"

#include <cstdint>
#include <vector>

namespace veltrane::decrement {

// A one-dimensional trend: `function` is the map's entry for the table's formula.
py::ref trend_by_kernel(TableObject* t, PyObject* function, PyObject* q, PyObject* mi, PyObject* cohort,
                        PyObject* base_year);
// A two-dimensional scale: `matrix` holds one row per age, one column per grid year.
py::ref projected_by_kernel(TableObject* t, PyObject* q, PyObject* matrix, const std::vector<long long>& years,
                            PyObject* base_year);

// Module function `_set_fast_paths(enabled)`: switches the kernels and the integer-age
// paths off (for tests that compare them with the general paths); returns the old setting.
void bind_fast_path_switch(PyObject* module);

}  // namespace veltrane::decrement
