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

}  // namespace veltrane::decrement
