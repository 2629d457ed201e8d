// Pickling: a table (or a registry) travels as its table name, keys and the record of its
// modifications, and is rebuilt from them on arrival. The recipes are made and followed in
// veltrane.tables._pickling; this file only hands the objects over.
#include "decrement/table.hpp"

namespace veltrane::decrement {

py::ref call_pickling(const char* function, PyObject* arg) {
    py::ref module = py::check(PyImport_ImportModule("veltrane.tables._pickling"));
    py::ref callable = py::check(PyObject_GetAttrString(module.get(), function));
    return py::check(PyObject_CallOneArg(callable.get(), arg));
}

namespace {

PyObject* Table_reduce(PyObject* self, PyObject*) {
    return py::guard([&] { return call_pickling("_reduce_table", self).release(); });
}

}  // namespace

PyMethodDef pickling_methods[] = {
    {"__reduce__", Table_reduce, METH_NOARGS,
     "__reduce__($self, /)\n--\n\n"
     "Pickle the table as its table name, keys and modifications; unpickling rebuilds it."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
