// The columns of a table source as float64 vectors, read from the data frame once and kept
// with the source (its `_f64_columns` slot): a tuple (frame, {name: vector}, column names).
// The cache belongs to the frame it was read from: a source whose frame is replaced (a
// private copy with a blended column, a restored snapshot) or a reloaded source (a new
// object) reads afresh. Cached vectors are read-only; callers copy what they hand out.
#include "decrement/columns.hpp"

namespace veltrane::decrement {
namespace {

// The cache entry of the source for `data`, made on first use; null when the source cannot
// hold one (an object that is not a TableSource): then nothing is cached.
py::ref cache_for(TableObject* t, PyObject* data) {
    const Names& n = t->st->names;
    PyObject* source = t->table.get();
    py::ref entry = py::ref::steal(PyObject_GetAttr(source, n.f64_columns.get()));
    if (!entry) {
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) py::throw_error_set();
        PyErr_Clear();
    } else if (PyTuple_CheckExact(entry.get()) && PyTuple_GET_SIZE(entry.get()) == 3 &&
               PyTuple_GET_ITEM(entry.get(), 0) == data) {
        return entry;
    }
    py::ref names = py::check(PyObject_GetAttr(data, n.columns.get()));
    py::ref frozen = py::check(PyFrozenSet_New(names.get()));
    py::ref columns = py::check(PyDict_New());
    py::ref fresh = py::check(PyTuple_Pack(3, data, columns.get(), frozen.get()));
    if (PyObject_SetAttr(source, n.f64_columns.get(), fresh.get()) < 0) {
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) py::throw_error_set();
        PyErr_Clear();
    }
    return fresh;
}

py::ref read_column(PyObject* data, PyObject* name, const Names& n) {
    py::ref series = py::check(PyObject_CallMethodOneArg(data, n.get_column.get(), name));
    py::ref values = py::check(PyObject_CallMethodNoArgs(series.get(), n.to_numpy.get()));
    py::ref vector = py::copy_as_f64(values.get());
    PyArray_CLEARFLAGS(reinterpret_cast<PyArrayObject*>(vector.get()), NPY_ARRAY_WRITEABLE);
    return vector;
}

}  // namespace

py::ref source_columns(TableObject* t, PyObject* data) {
    py::ref entry = cache_for(t, data);
    return py::ref::borrow(PyTuple_GET_ITEM(entry.get(), 2));
}

py::ref cached_column(TableObject* t, PyObject* data, PyObject* name) {
    py::ref entry = cache_for(t, data);
    PyObject* columns = PyTuple_GET_ITEM(entry.get(), 1);
    PyObject* found = PyDict_GetItemWithError(columns, name);
    if (found != nullptr) return py::ref::borrow(found);
    if (PyErr_Occurred()) py::throw_error_set();
    py::ref vector = read_column(data, name, t->st->names);
    py::require(PyDict_SetItem(columns, name, vector.get()));
    return vector;
}

py::ref column_copy(TableObject* t, PyObject* data, PyObject* name) {
    py::ref cached = cached_column(t, data, name);
    return py::f64_from(py::f64_cspan(cached.get()));
}

}  // namespace veltrane::decrement
