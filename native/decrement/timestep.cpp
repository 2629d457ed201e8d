// Time steps for projections: a snapshot of what a step changes, the advance of a table by
// whole years (select duration along the diagonal, generational cohort) with one rebuild,
// and the restore of a snapshot. The advance bypasses the key setters: no validation, no
// rebuild counter, no batch handling. A snapshot holds the fields by reference, which is
// safe because a rebuild replaces the vectors instead of writing into them.
// Invariant: an advance or a restore that raises leaves the table as it was.
#include "decrement/arguments.hpp"
#include "decrement/table.hpp"
#include "decrement/transaction.hpp"

#include <array>
#include <cmath>
#include <utility>

namespace veltrane::decrement {
namespace {

py::ref snapshot(TableObject* t) {
    py::ref snap = py::check(PyDict_New());
    auto put = [&](const char* key, PyObject* value) { py::require(PyDict_SetItemString(snap.get(), key, value)); };
    put("duration", t->duration.or_none());
    put("cohort", t->cohort.or_none());
    put("decrement", t->decrement.or_none());
    put("decrement_base", t->decrement_base.or_none());
    put("modified", t->modified ? Py_True : Py_False);
    put("w_mod", t->w_mod.or_none());
    return snap;
}

// The six fields a step changes (null stands for None, as in the table).
struct StepState {
    py::ref duration, cohort, decrement, decrement_base, w_mod;
    bool modified = false;
};

[[noreturn]] void bad_entry(const char* key, const char* expected, PyObject* value) {
    py::ref type = type_name_of(value);
    py::raise(PyExc_TypeError, "time-step snapshot: '%s' must be %s, got %U", key, expected, type.get());
}

py::ref int_entry(const char* key, PyObject* value, const char* expected) {
    if (value == Py_None) return {};
    if (!is_integer_object(value)) bad_entry(key, expected, value);
    return PyLong_Check(value) ? py::ref::borrow(value) : py::check(PyNumber_Index(value));
}

// Kernels read the rate fields as spans: keep them 1-D float64 vectors (the same object when
// it already is one, so a restore brings back the very vectors of the snapshot).
py::ref vector_entry(const char* key, PyObject* value) {
    if (value == Py_None) return {};
    if (py::is_f64_vector(value)) return py::ref::borrow(value);
    if (!PyArray_Check(value) || PyArray_NDIM(reinterpret_cast<PyArrayObject*>(value)) != 1) {
        bad_entry(key, "a one-dimensional float64 vector or None", value);
    }
    return py::copy_as_f64(value);
}

// Reads and checks every entry before anything is written.
StepState read_snapshot(PyObject* snap) {
    if (!PyDict_Check(snap)) {
        py::ref type = type_name_of(snap);
        py::raise(PyExc_TypeError,
                  "time-step snapshot must be the dict returned by _snapshot_actuarial_state_for_ts() or "
                  "_advance_actuarial_state_for_ts(), got %U",
                  type.get());
    }
    static constexpr const char* keys[6] = {"duration", "cohort", "decrement", "decrement_base", "modified", "w_mod"};
    // Own every entry first: the checks below may run Python code that changes the dict.
    py::ref entries[6];
    for (int i = 0; i < 6; ++i) {
        py::ref key = py::check(PyUnicode_FromString(keys[i]));
        PyObject* value = PyDict_GetItemWithError(snap, key.get());
        if (value == nullptr) {
            if (PyErr_Occurred()) py::throw_error_set();
            py::raise(PyExc_ValueError, "time-step snapshot has no '%s' entry", keys[i]);
        }
        entries[i] = py::ref::borrow(value);
    }
    StepState s;
    PyObject* duration = entries[0].get();
    if (duration != Py_None && str_equals(duration, "ult")) {
        s.duration = entries[0].dup();
    } else {
        s.duration = int_entry("duration", duration, "an int, 'ult' or None");
    }
    s.cohort = int_entry("cohort", entries[1].get(), "an int or None");
    s.decrement = vector_entry("decrement", entries[2].get());
    s.decrement_base = vector_entry("decrement_base", entries[3].get());
    s.modified = py::require(PyObject_IsTrue(entries[4].get())) == 1;
    s.w_mod = int_entry("w_mod", entries[5].get(), "an int or None");
    return s;
}

// Swaps the fields in; the replaced values are released with `s`, after every write.
void write_state(TableObject* t, StepState& s) {
    std::swap(t->duration, s.duration);
    std::swap(t->cohort, s.cohort);
    std::swap(t->decrement, s.decrement);
    std::swap(t->decrement_base, s.decrement_base);
    std::swap(t->modified, s.modified);
    std::swap(t->w_mod, s.w_mod);
    invalidate_caches(t);
}

bool differs(const py::ref& current, const py::ref& next) {
    if (current.is_none() || next.is_none()) return current.is_none() != next.is_none();
    return py::require(PyObject_RichCompareBool(current.get(), next.get(), Py_NE)) == 1;
}

PyObject* advance(TableObject* t, PyObject* ts_obj) {
    const Names& n = t->st->names;
    const double ts = numeric::validate_scalar(ts_obj, "ts", "_advance_actuarial_state_for_ts");
    const double whole = std::trunc(ts);
    if (!(whole >= 1.0)) Py_RETURN_NONE;
    const bool select = source_flag(t, n.select.get());
    const bool generational = source_flag(t, n.generational.get());
    if (!select && !generational) Py_RETURN_NONE;
    // A table without its keys has nothing to advance: refuse it as a calculation would
    // (ensure_ready raises on exactly this condition, before touching anything).
    if (t->metadata_pending || t->decrement.is_none()) ensure_ready(t, "_advance_actuarial_state_for_ts");

    py::ref k = py::check(PyLong_FromDouble(whole));
    py::ref snap = snapshot(t);
    py::ref duration = t->duration.dup();
    py::ref cohort = t->cohort.dup();
    bool changed = false;
    if (select && !is_ultimate(t->duration.get())) {
        py::ref current = py::check(PyNumber_Index(t->duration.get()));
        py::ref moved = py::check(PyNumber_Add(current.get(), k.get()));
        py::ref first_ultimate = py::check(PyLong_FromLongLong(first_ultimate_duration(t)));
        py::ref next;  // null: the ultimate column
        const bool still_select = py::require(PyObject_RichCompareBool(moved.get(), first_ultimate.get(), Py_LT)) == 1;
        if (still_select) next = std::move(moved);
        if (differs(t->duration, next)) {
            duration = std::move(next);
            changed = true;
        }
    }
    if (generational && !t->cohort.is_none()) {
        py::ref current = py::check(PyNumber_Index(t->cohort.get()));
        py::ref moved = py::check(PyNumber_Add(current.get(), k.get()));
        if (differs(t->cohort, moved)) {
            cohort = std::move(moved);
            changed = true;
        }
    }
    if (!changed) return snap.release();

    KeyChange change(t);
    std::swap(t->duration, duration);
    std::swap(t->cohort, cohort);
    // The rebuild of a key change (unisex blend or base rates, working copy, flags, caches).
    rebuild_rates(t);
    change.commit();
    return snap.release();
}

constexpr std::array<const char*, 1> kTsNames = {"ts"};
constexpr std::array<const char*, 1> kSnapNames = {"snap"};

PyObject* Table_snapshot_ts(PyObject* self, PyObject*) {
    return py::guard([&] { return snapshot(as_table(self)).release(); });
}

PyObject* Table_restore_ts(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&]() -> PyObject* {
        const Arguments<1> a =
            parse_arguments("_restore_actuarial_state_from_ts_snapshot", kSnapNames, 1, args, nargs, kwnames);
        StepState s = read_snapshot(a.values[0]);
        write_state(as_table(self), s);
        Py_RETURN_NONE;
    });
}

PyObject* Table_advance_ts(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        const Arguments<1> a = parse_arguments("_advance_actuarial_state_for_ts", kTsNames, 1, args, nargs, kwnames);
        return advance(as_table(self), a.values[0]);
    });
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

}  // namespace

PyMethodDef timestep_methods[] = {
    {"_snapshot_actuarial_state_for_ts", Table_snapshot_ts, METH_NOARGS,
     "_snapshot_actuarial_state_for_ts($self, /)\n--\n\n"
     "The fields a time step changes, by reference: a dict with 'duration', 'cohort', 'decrement',\n"
     "'decrement_base', 'modified' and 'w_mod'."},
    {"_restore_actuarial_state_from_ts_snapshot", FASTCALL_KW(Table_restore_ts), METH_FASTCALL | METH_KEYWORDS,
     "_restore_actuarial_state_from_ts_snapshot($self, /, snap)\n--\n\n"
     "Put back the fields of a time-step snapshot and drop the derived caches. Every entry is\n"
     "checked first: a malformed snapshot changes nothing."},
    {"_advance_actuarial_state_for_ts", FASTCALL_KW(Table_advance_ts), METH_FASTCALL | METH_KEYWORDS,
     "_advance_actuarial_state_for_ts($self, /, ts)\n--\n\n"
     "Move the table forward by int(ts) whole years: a select duration grows (reaching the ultimate\n"
     "column after the select period), a generational cohort moves; the rates are rebuilt once and\n"
     "earlier modifications dropped. Returns the snapshot taken before the change, for a restore,\n"
     "or None when ts < 1 or the table is neither select nor generational."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
