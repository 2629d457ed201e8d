// Several keys at once with one rebuild. configure() validates every argument before it
// touches the table, then rebuilds once; batch_update() defers setter rebuilds to one at a
// clean exit and puts the table back as it was when the block raises; configure_all()
// configures many tables. Nothing is written before every check has passed.
#include "decrement/arguments.hpp"
#include "decrement/table.hpp"
#include "decrement/transaction.hpp"

#include "pyutil/members.hpp"

#include <memory>
#include <utility>

namespace veltrane::decrement {
namespace {

// The keyword arguments for apply_and_rebuild, in the order it applies them.
struct Collected {
    py::ref sex, cohort, duration, blend;
    bool has_sex = false, has_cohort = false, has_duration = false, has_blend = false;
};

py::ref checked_blend(PyObject* value) {
    if (PyBool_Check(value)) py::raise(PyExc_TypeError, "unisex_blend must be numeric, not bool.");
    double w = 0.0;
    try {
        w = numeric::validate_scalar(value, "unisex_blend", "configure");
    } catch (const py::PyErrSet&) {
        if (!PyErr_ExceptionMatches(PyExc_TypeError) && !PyErr_ExceptionMatches(PyExc_ValueError)) throw;
        PyErr_Clear();
        py::raise(PyExc_ValueError, "unisex_blend must be a numeric value in [0.0, 1.0], got %R.", value);
    }
    py::ref weight = py::check(PyFloat_FromDouble(w));
    if (!(0.0 <= w && w <= 1.0)) py::raise(PyExc_ValueError, "unisex_blend must be in [0.0, 1.0], got %S.", weight.get());
    return weight;
}

py::ref checked_cohort(TableObject* t, PyObject* value, PyObject* name) {
    if (!source_flag(t, t->st->names.generational.get())) {
        py::raise(PyExc_ValueError, "cohort is only valid for generational tables. Table '%S' is not generational.",
                  name);
    }
    auto refuse = [&]() {
        py::ref type = type_name_of(value);
        py::raise(PyExc_TypeError, "configure(): cohort must be int, got %U", type.get());
    };
    if (PyBool_Check(value) || is_integer_object(value)) return validate_cohort_year(t, value);
    if (PyUnicode_Check(value) || PyBytes_Check(value) || !PyNumber_Check(value)) refuse();
    // Any other number (float, Decimal, Fraction) is truncated by the integer conversion,
    // then checked as any year; one with no integer value (complex) is refused by type.
    py::ref year = py::ref::steal(PyNumber_Long(value));
    if (!year) {
        if (!PyErr_ExceptionMatches(PyExc_TypeError)) py::throw_error_set();
        PyErr_Clear();
        refuse();
    }
    return validate_cohort_year(t, year.get());
}

// The internal duration a select table would take from `value` (None for "ult"), or null when
// the value is not one; never raises for a value of the wrong kind.
py::ref accepted_duration(TableObject* t, PyObject* value) {
    if (PyBool_Check(value)) return {};
    if (str_equals(value, "ult")) return py::ref::borrow(Py_None);
    if (!is_integer_object(value)) return {};
    py::ref as_int = py::check(PyNumber_Index(value));
    py::ref floor = py::check(PyLong_FromLong(start_duration(t)));
    if (py::require(PyObject_RichCompareBool(as_int.get(), floor.get(), Py_GE)) == 1) return as_int;
    return {};
}

py::ref checked_duration(TableObject* t, PyObject* value, PyObject* name) {
    if (!source_flag(t, t->st->names.select.get())) {
        py::raise(PyExc_ValueError, "duration is only valid for select tables. Table '%S' is not a select table.", name);
    }
    if (PyBool_Check(value)) py::raise(PyExc_TypeError, "duration must be int, 'ult', or None, got bool.");
    if (py::ref accepted = accepted_duration(t, value)) return accepted;
    py::raise(PyExc_ValueError, "duration must be an integer >= %ld or 'ult', got %R.", start_duration(t), value);
}

// The column a unisex table of this structure reads (select tables: the duration's column).
py::ref unisex_column(TableObject* t, PyObject* duration) {
    const std::string_view prefix = prefix_for(t);
    if (source_flag(t, t->st->names.select.get())) return select_column(t, t->st->names.u.get(), duration, prefix);
    return py::check(PyUnicode_FromFormat("%s_u", std::string(prefix).c_str()));
}

void configure(TableObject* t, PyObject* sex, PyObject* cohort, PyObject* duration, PyObject* blend) {
    if (sex == Py_None && cohort == Py_None && duration == Py_None && blend == Py_None) {
        py::raise(PyExc_ValueError, "configure() requires at least one of: sex, cohort, duration, unisex_blend.");
    }
    const Names& n = t->st->names;
    Collected c;
    py::ref lowered;
    if (sex != Py_None) {
        if (!PyUnicode_Check(sex)) {
            py::ref type = type_name_of(sex);
            py::raise(PyExc_TypeError, "configure(): sex must be str, got %U", type.get());
        }
        lowered = py::check(PyObject_CallMethod(sex, "lower", nullptr));
    }
    if (blend != Py_None) {
        c.blend = checked_blend(blend);
        c.has_blend = true;
    }
    if (lowered && (str_equals(lowered.get(), "f") || str_equals(lowered.get(), "m")) && c.has_blend) {
        py::raise(PyExc_ValueError,
                  "Cannot specify unisex_blend when sex='%S' is explicitly set. Use sex='u' to apply unisex blending.",
                  lowered.get());
    }
    py::ref name = table_name(t);
    // The sex comes before the cohort and the duration. The unisex column of a select table is
    // the one of the duration the call asks for, when it is one the table would take.
    if (lowered) {
        py::ref data = source_attr(t, n.data.get());
        py::ref columns = py::check(PyObject_GetAttr(data.get(), n.columns.get()));
        py::ref asked;
        if (duration != Py_None && source_flag(t, n.select.get())) asked = accepted_duration(t, duration);
        py::ref column = unisex_column(t, asked ? asked.get() : t->duration.get());
        const bool native = py::require(PySequence_Contains(columns.get(), column.get())) == 1;
        const bool is_u = str_equals(lowered.get(), "u");
        if (is_u && !native && t->unisex_blend.is_none() && !c.has_blend) {
            py::ref klass = type_name_of(reinterpret_cast<PyObject*>(t));
            py::raise(PyExc_ValueError,
                      "unisex_blend parameter is required when sex='u' because table '%S' lacks native unisex column "
                      "'%S'. Example: %U('%S', sex='u', unisex_blend=0.5)",
                      name.get(), column.get(), klass.get(), name.get());
        }
        py::ref valid = source_attr(t, n.valid_sexes.get());
        const bool listed = py::require(PySequence_Contains(valid.get(), lowered.get())) == 1;
        if (!listed && !(is_u && (native || c.has_blend || !t->unisex_blend.is_none()))) {
            py::raise(PyExc_ValueError, "Invalid sex '%S' for table '%S'. Valid options: %R.", lowered.get(), name.get(),
                      valid.get());
        }
        c.sex = std::move(lowered);
        c.has_sex = true;
    }
    if (cohort != Py_None) {
        c.cohort = checked_cohort(t, cohort, name.get());
        c.has_cohort = true;
    }
    if (duration != Py_None) {
        c.duration = checked_duration(t, duration, name.get());
        c.has_duration = true;
    }
    PyObject* unset = t->st->sentinel;
    apply_and_rebuild(t, c.has_sex ? c.sex.get() : unset, c.has_cohort ? c.cohort.get() : unset,
                      c.has_duration ? c.duration.get() : unset, c.has_blend ? c.blend.get() : unset);
}

constexpr std::array<const char*, 4> kConfigureNames = {"sex", "cohort", "duration", "unisex_blend"};

PyObject* Table_configure(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        const Arguments<4> a = parse_arguments("configure", kConfigureNames, 0, args, nargs, kwnames);
        configure(as_table(self), a.get(0, Py_None), a.get(1, Py_None), a.get(2, Py_None), a.get(3, Py_None));
        return Py_NewRef(self);
    });
}

// ---- batch snapshots ----------------------------------------------------------------------

py::ref array_copy_or_none(const py::ref& v) { return v.is_none() ? py::ref::borrow(Py_None) : py::copy_as_f64(v.get()); }

py::ref capture_snapshot(TableObject* t) {
    py::ref snap = py::check(PyDict_New());
    auto put = [&](const char* key, PyObject* value) { py::require(PyDict_SetItemString(snap.get(), key, value)); };
    put("sex", t->sex.or_none());
    put("cohort", t->cohort.or_none());
    put("duration", t->duration.or_none());
    put("select_duration_set", t->select_duration_set ? Py_True : Py_False);
    put("unisex_blend", t->unisex_blend.or_none());
    put("metadata_pending", t->metadata_pending ? Py_True : Py_False);
    put("modified", t->modified ? Py_True : Py_False);
    put("w_mod", t->w_mod.or_none());
    py::ref counter = py::check(PyLong_FromLong(t->rebuilds_since_calc));
    put("rebuilds_since_calc", counter.get());
    py::ref applied = t->modifications_applied.is_none() ? py::check(PyList_New(0))
                                                          : py::check(PySequence_List(t->modifications_applied.get()));
    put("modifications_applied", applied.get());
    py::ref decrement = array_copy_or_none(t->decrement);
    put("decrement", decrement.get());
    py::ref base = array_copy_or_none(t->decrement_base);
    put("decrement_base", base.get());
    return snap;
}

PyObject* item(PyObject* snap, const char* key) {
    PyObject* value = PyObject_GetItem(snap, py::check(PyUnicode_FromString(key)).get());
    if (value == nullptr) py::throw_error_set();
    return value;
}

void restore_snapshot(TableObject* t, PyObject* snap) {
    // Read and convert everything first, so a malformed snapshot leaves the table untouched.
    py::ref sex = py::ref::steal(item(snap, "sex"));
    py::ref cohort = py::ref::steal(item(snap, "cohort"));
    py::ref duration = py::ref::steal(item(snap, "duration"));
    const bool select_set = py::require(PyObject_IsTrue(py::ref::steal(item(snap, "select_duration_set")).get())) == 1;
    py::ref blend = py::ref::steal(item(snap, "unisex_blend"));
    const bool pending = py::require(PyObject_IsTrue(py::ref::steal(item(snap, "metadata_pending")).get())) == 1;
    const bool modified = py::require(PyObject_IsTrue(py::ref::steal(item(snap, "modified")).get())) == 1;
    py::ref w_mod = py::ref::steal(item(snap, "w_mod"));
    py::ref counter = py::ref::steal(item(snap, "rebuilds_since_calc"));
    const long rebuilds = PyLong_AsLong(counter.get());
    if (rebuilds == -1 && PyErr_Occurred()) py::throw_error_set();
    py::ref applied_in = py::ref::steal(item(snap, "modifications_applied"));
    py::ref applied = py::check(PySequence_List(applied_in.get()));
    py::ref decrement_in = py::ref::steal(item(snap, "decrement"));
    py::ref base_in = py::ref::steal(item(snap, "decrement_base"));
    py::ref decrement = decrement_in.is_none() ? py::ref() : py::copy_as_f64(decrement_in.get());
    py::ref base = base_in.is_none() ? py::ref() : py::copy_as_f64(base_in.get());
    auto none_as_null = [](py::ref r) { return r.is_none() ? py::ref() : std::move(r); };
    t->sex = none_as_null(std::move(sex));
    t->cohort = none_as_null(std::move(cohort));
    t->duration = none_as_null(std::move(duration));
    t->select_duration_set = select_set;
    t->unisex_blend = none_as_null(std::move(blend));
    t->metadata_pending = pending;
    t->modified = modified;
    t->w_mod = none_as_null(std::move(w_mod));
    t->rebuilds_since_calc = rebuilds;
    t->modifications_applied = std::move(applied);
    t->decrement = std::move(decrement);
    t->decrement_base = std::move(base);
    // What described the vector in force no longer does: a batch puts it back beside the
    // snapshot (restore_extras).
    t->cause_split.reset();
    t->modification_record.reset();
    invalidate_caches(t);
}

// The rollback of a batch: the snapshot, then what is held beside it.
void roll_back(TableObject* t, PyObject* snap, const RollbackExtras* extras) {
    restore_snapshot(t, snap);
    if (extras != nullptr) restore_extras(t, *extras);
}

// Rolls back while an error is in flight; the original error is the one reported.
void restore_preserving_error(TableObject* t, PyObject* snap, const RollbackExtras* extras) {
    py::SavedError original;
    try {
        roll_back(t, snap, extras);
    } catch (...) {
        // Only memory can fail here (the snapshot is this context's own): the original error
        // is the one worth reporting.
    }
}

PyObject* Table_capture_batch_snapshot(PyObject* self, PyObject*) {
    return py::guard([&] { return capture_snapshot(as_table(self)).release(); });
}

PyObject* Table_restore_batch_snapshot(PyObject* self, PyObject* snap) {
    return py::guard([&]() -> PyObject* {
        restore_snapshot(as_table(self), snap);
        Py_RETURN_NONE;
    });
}

// ---- the batch context ------------------------------------------------------------------------

struct BatchObject {
    PyObject_HEAD
    PyObject* table;
    PyObject* n_rebuilds_on_enter;
    PyObject* snapshot;
    // Held beside the snapshot, not a field of the context's Python surface: what the
    // rollback restores besides the snapshot's keys and vectors.
    RollbackExtras* extras;
};

BatchObject* as_batch(PyObject* o) { return reinterpret_cast<BatchObject*>(o); }

TableObject* governed(PyObject* self) {
    PyObject* table = as_batch(self)->table;
    ModuleState* st = state_from_type(Py_TYPE(self));
    if (table == nullptr || !PyObject_TypeCheck(table, st->core_type)) {
        py::raise(PyExc_TypeError, "_BatchUpdateContext governs a DecrementTable");
    }
    return as_table(table);
}

int Batch_init(PyObject* self, PyObject* args, PyObject* kwargs) {
    return py::guard_int([&] {
        static const char* keywords[] = {"table", nullptr};
        PyObject* table = nullptr;
        if (!PyArg_ParseTupleAndKeywords(args, kwargs, "O:_BatchUpdateContext", const_cast<char**>(keywords), &table)) {
            py::throw_error_set();
        }
        ModuleState* st = state_from_type(Py_TYPE(self));
        if (!PyObject_TypeCheck(table, st->core_type)) {
            py::ref type = type_name_of(table);
            py::raise(PyExc_TypeError, "_BatchUpdateContext expects a DecrementTable, got %U", type.get());
        }
        BatchObject* b = as_batch(self);
        Py_XSETREF(b->table, Py_NewRef(table));
        Py_XSETREF(b->n_rebuilds_on_enter, PyLong_FromLong(0));
        Py_XSETREF(b->snapshot, PyDict_New());
        delete std::exchange(b->extras, nullptr);
        if (b->n_rebuilds_on_enter == nullptr || b->snapshot == nullptr) py::throw_error_set();
        return 0;
    });
}

PyObject* Batch_enter(PyObject* self, PyObject*) {
    return py::guard([&] {
        TableObject* t = governed(self);
        if (t->suspend_rebuild) {
            py::raise(PyExc_RuntimeError, "batch_update() contexts cannot be nested on the same table instance.");
        }
        BatchObject* b = as_batch(self);
        py::ref count = py::check(PyLong_FromLong(t->rebuilds_since_calc));
        py::ref snap = capture_snapshot(t);
        auto extras = std::make_unique<RollbackExtras>(capture_extras(t));
        Py_XSETREF(b->n_rebuilds_on_enter, count.release());
        Py_XSETREF(b->snapshot, snap.release());
        delete std::exchange(b->extras, extras.release());
        t->suspend_rebuild = true;
        return Py_NewRef(self);
    });
}

PyObject* Batch_exit(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    return py::guard([&]() -> PyObject* {
        if (nargs != 3) py::raise(PyExc_TypeError, "__exit__() takes 3 arguments (exc_type, exc_val, exc_tb)");
        TableObject* t = governed(self);
        t->suspend_rebuild = false;
        BatchObject* b = as_batch(self);
        if (args[0] == Py_None) {
            const long on_enter = b->n_rebuilds_on_enter ? PyLong_AsLong(b->n_rebuilds_on_enter) : 0;
            if (on_enter == -1 && PyErr_Occurred()) py::throw_error_set();
            if (t->rebuilds_since_calc != on_enter && metadata_complete(t)) {
                PyObject* unset = t->st->sentinel;
                try {
                    apply_and_rebuild(t, unset, unset, unset, unset);
                } catch (...) {
                    // The keys set in the block cannot be built: the whole block is undone.
                    if (b->snapshot != nullptr) restore_preserving_error(t, b->snapshot, b->extras);
                    throw;
                }
            }
            t->rebuilds_since_calc = 0;
        } else {
            if (b->snapshot == nullptr) py::raise(PyExc_RuntimeError, "_BatchUpdateContext was never entered");
            roll_back(t, b->snapshot, b->extras);
        }
        Py_RETURN_NONE;
    });
}

int Batch_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    BatchObject* b = as_batch(self);
    Py_VISIT(b->table);
    Py_VISIT(b->n_rebuilds_on_enter);
    Py_VISIT(b->snapshot);
    if (const RollbackExtras* e = b->extras) {
        Py_VISIT(e->source.table.get());
        Py_VISIT(e->source.data.get());
        Py_VISIT(e->source.valid_sexes.get());
        Py_VISIT(e->cause_parts.get());
        Py_VISIT(e->record_parts.get());
    }
    return 0;
}

int Batch_clear(PyObject* self) {
    BatchObject* b = as_batch(self);
    Py_CLEAR(b->table);
    Py_CLEAR(b->n_rebuilds_on_enter);
    Py_CLEAR(b->snapshot);
    delete std::exchange(b->extras, nullptr);
    return 0;
}

void Batch_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    Batch_clear(self);
    type->tp_free(self);
    Py_DECREF(type);
}

#define FASTCALL(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

PyMethodDef batch_methods[] = {
    {"__enter__", Batch_enter, METH_NOARGS,
     "__enter__($self, /)\n--\n\nSuspend the table's rebuilds and remember its state; returns the context."},
    {"__exit__", FASTCALL(Batch_exit), METH_FASTCALL,
     "__exit__($self, exc_type, exc_val, exc_tb, /)\n--\n\n"
     "Rebuild once if a key changed (and the keys are complete), or restore the state on an exception."},
    {nullptr, nullptr, 0, nullptr},
};

PyMemberDef batch_members[] = {
    {"_table", VELTRANE_T_OBJECT_EX, offsetof(BatchObject, table), 0, "the table governed"},
    {"_n_rebuilds_on_enter", VELTRANE_T_OBJECT_EX, offsetof(BatchObject, n_rebuilds_on_enter), 0,
     "the table's rebuild count at entry"},
    {"_snapshot", VELTRANE_T_OBJECT_EX, offsetof(BatchObject, snapshot), 0, "the table's state at entry"},
    {nullptr, 0, 0, 0, nullptr},
};

PyType_Slot batch_slots[] = {
    {Py_tp_init, reinterpret_cast<void*>(Batch_init)},
    {Py_tp_new, reinterpret_cast<void*>(PyType_GenericNew)},
    {Py_tp_dealloc, reinterpret_cast<void*>(Batch_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(Batch_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(Batch_clear)},
    {Py_tp_methods, batch_methods},
    {Py_tp_members, batch_members},
    {Py_tp_doc, const_cast<char*>("_BatchUpdateContext(table)\n--\n\n"
                                  "The context of ``table.batch_update()``: setters inside the block record their "
                                  "changes, one rebuild follows at a clean exit, and an exception restores the "
                                  "table as it was at entry.")},
    {0, nullptr},
};

PyType_Spec batch_spec = {
    "veltrane.tables.decrement._BatchUpdateContext",
    static_cast<int>(sizeof(BatchObject)),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC,
    batch_slots,
};

PyObject* Table_batch_update(PyObject* self, PyObject*) {
    return py::guard([&] {
        return py::require(PyObject_CallOneArg(reinterpret_cast<PyObject*>(as_table(self)->st->batch_type), self));
    });
}

}  // namespace

PyTypeObject* make_batch_type(PyObject* module) {
    PyObject* type = py::require(PyType_FromModuleAndSpec(module, &batch_spec, nullptr));
    py::ref slots = py::check(Py_BuildValue("(sss)", "_table", "_n_rebuilds_on_enter", "_snapshot"));
    py::require(PyObject_SetAttrString(type, "__slots__", slots.get()));
    return reinterpret_cast<PyTypeObject*>(type);
}

PyObject* configure_all(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 6> names = {"tables", "sex", "cohort", "duration", "unisex_blend",
                                                         "interest_rate"};
    return py::guard([&]() -> PyObject* {
        const Arguments<6> a = parse_arguments("configure_all", names, 1, args, nargs, kwnames);
        py::ref kwargs = py::check(PyDict_New());
        for (std::size_t i = 1; i < names.size(); ++i) {
            PyObject* v = a.get(i, Py_None);
            if (v != Py_None) py::require(PyDict_SetItemString(kwargs.get(), names[i], v));
        }
        if (PyDict_GET_SIZE(kwargs.get()) == 0) {
            py::raise(PyExc_ValueError,
                      "configure_all() requires at least one of: sex, cohort, duration, unisex_blend, interest_rate.");
        }
        PyObject* tables = a.values[0];
        py::ref items = PyDict_Check(tables) ? py::check(PyDict_Values(tables)) : py::ref::borrow(tables);
        py::ref iter = py::check(PyObject_GetIter(items.get()));
        py::ref empty = py::check(PyTuple_New(0));
        while (py::ref table = py::ref::steal(PyIter_Next(iter.get()))) {
            py::ref method = py::check(PyObject_GetAttrString(table.get(), "configure"));
            py::ref result = py::check(PyObject_Call(method.get(), empty.get(), kwargs.get()));
        }
        if (PyErr_Occurred()) py::throw_error_set();
        return Py_NewRef(tables);
    });
}

PyMethodDef configure_methods[] = {
    {"configure", FASTCALL(Table_configure), METH_FASTCALL | METH_KEYWORDS,
     "configure($self, /, sex=None, cohort=None, duration=None, unisex_blend=None)\n--\n\n"
     "Set several keys with one rebuild; every argument is checked before anything changes.\n\n"
     "None keeps the current value. Returns the table, so calls chain:\n"
     "``t.configure(cohort=1970).px(65)``."},
    {"batch_update", Table_batch_update, METH_NOARGS,
     "batch_update($self, /)\n--\n\n"
     "A context manager: setters inside the block record their changes and the table rebuilds\n"
     "once at the end; an exception inside the block restores the table as it was."},
    {"_capture_batch_snapshot", Table_capture_batch_snapshot, METH_NOARGS,
     "_capture_batch_snapshot($self, /)\n--\n\nThe keys, flags and rate vectors that a batch may change (arrays copied)."},
    {"_restore_batch_snapshot", Table_restore_batch_snapshot, METH_O,
     "_restore_batch_snapshot($self, snap, /)\n--\n\nPut back a snapshot taken by _capture_batch_snapshot()."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
