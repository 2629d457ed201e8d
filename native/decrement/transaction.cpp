// Capture and restore of a table's source state, for key changes that must not half-happen.
#include "decrement/transaction.hpp"

namespace veltrane::decrement {

SourceState capture_source(TableObject* t) {
    SourceState s;
    s.table = t->table.dup();
    s.private_copy = t->table_is_private_copy;
    if (s.private_copy && s.table) {
        const Names& n = t->st->names;
        s.data = py::check(PyObject_GetAttr(s.table.get(), n.data_field.get()));
        s.valid_sexes = py::check(PyObject_GetAttr(s.table.get(), n.valid_sexes_field.get()));
    }
    return s;
}

void restore_source(TableObject* t, SourceState& s) {
    std::swap(t->table, s.table);
    t->table_is_private_copy = s.private_copy;
    if (!s.private_copy || !s.data || !t->table) return;
    // Called while an error may be in flight: keep it, whatever the writes do.
    py::SavedError in_flight;
    const Names& n = t->st->names;
    if (PyObject_SetAttr(t->table.get(), n.data_field.get(), s.data.get()) < 0 ||
        PyObject_SetAttr(t->table.get(), n.valid_sexes_field.get(), s.valid_sexes.get()) < 0) {
        PyErr_Clear();  // slot writes on the table's own source; only memory could fail them
    }
}

namespace {

// The items after the first of a (vector, ...) tuple of `size` items whose vector is the one
// in force; null otherwise.
py::ref parts_in_force(TableObject* t, PyObject* tuple, Py_ssize_t size) {
    if (tuple == nullptr || !PyTuple_Check(tuple) || PyTuple_GET_SIZE(tuple) != size ||
        PyTuple_GET_ITEM(tuple, 0) != t->decrement.get() || t->decrement.is_none()) {
        return {};
    }
    return py::check(PyTuple_GetSlice(tuple, 1, size));
}

// (vector, *parts), or null when there are no parts.
py::ref paired(PyObject* vector, const py::ref& parts) {
    if (!parts || vector == nullptr) return {};
    const Py_ssize_t n = PyTuple_GET_SIZE(parts.get());
    py::ref out = py::check(PyTuple_New(n + 1));
    PyTuple_SET_ITEM(out.get(), 0, Py_NewRef(vector));
    for (Py_ssize_t k = 0; k < n; ++k) PyTuple_SET_ITEM(out.get(), k + 1, Py_NewRef(PyTuple_GET_ITEM(parts.get(), k)));
    return out;
}

}  // namespace

RollbackExtras capture_extras(TableObject* t) {
    RollbackExtras e;
    e.source = capture_source(t);
    e.cause_parts = parts_in_force(t, t->cause_split.get(), 4);
    e.record_parts = parts_in_force(t, t->modification_record.get(), 3);
    return e;
}

void restore_extras(TableObject* t, const RollbackExtras& e) {
    // Built before anything is written: only memory can fail here.
    py::ref split = paired(t->decrement.get(), e.cause_parts);
    py::ref record = paired(t->decrement.get(), e.record_parts);
    // A copy of the held state: the extras stay valid for another restore.
    SourceState source;
    source.table = e.source.table.dup();
    source.data = e.source.data.dup();
    source.valid_sexes = e.source.valid_sexes.dup();
    source.private_copy = e.source.private_copy;
    restore_source(t, source);
    t->cause_split = std::move(split);
    t->modification_record = std::move(record);
}

}  // namespace veltrane::decrement
