// Float64 columns of a table source, read once per source and frame (columns.cpp).
#pragma once

#include "decrement/state.hpp"

namespace veltrane::decrement {

// The names of the columns of `data` (the source's frame) as a frozenset.
py::ref source_columns(TableObject* t, PyObject* data);
// The column as a read-only float64 vector shared with the cache: never write into it.
py::ref cached_column(TableObject* t, PyObject* data, PyObject* name);
// A new, writable copy of the column.
py::ref column_copy(TableObject* t, PyObject* data, PyObject* name);

}  // namespace veltrane::decrement
