// Data views of a table: the instance data frame (ages 0..w, the rate column of this sex and
// duration, the base rates beside modified ones, the improvement column where one applies),
// view_data / head / tail over it, and _safe_slice for the summary's samples.
// Not a hot path: frames are built through Polars' Python API; nothing on the table changes.
#include "decrement/table.hpp"

#include "decrement/arguments.hpp"
#include "kernels/rounding.hpp"

#include <algorithm>

namespace veltrane::decrement {
namespace {

py::ref polars_attr(const char* name) {
    py::ref polars = py::check(PyImport_ImportModule("polars"));
    return py::check(PyObject_GetAttrString(polars.get(), name));
}

py::ref series(ModuleState* st, PyObject* name, PyObject* values) {
    return py::check(PyObject_CallFunctionObjArgs(st->polars_series, name, values, nullptr));
}

py::ref text(const char* s) { return py::check(PyUnicode_FromString(s)); }

long last_age(TableObject* t) {
    PyObject* w = t->w_mod.get();
    if (w == nullptr || !PyLong_Check(w)) {
        py::ref name = table_name(t);
        py::raise(PyExc_ValueError, "Table '%S' has no last age (w) in force.", name.get());
    }
    const long v = PyLong_AsLong(w);
    if (v == -1 && PyErr_Occurred()) py::throw_error_set();
    return v;
}

// The first n values of a rate vector, rounded.
py::ref rounded_head(TableObject* t, const py::ref& rates, npy_intp n, int decimals, const char* what) {
    if (rates.is_none() || py::f64_size(rates.get()) < n) {
        py::ref name = table_name(t);
        py::raise(PyExc_ValueError, "Table '%S' has no %s for every age 0..%zd.", name.get(), what,
                  static_cast<Py_ssize_t>(n - 1));
    }
    py::ref out = py::f64_from(py::f64_cspan(rates.get()).first(static_cast<std::size_t>(n)));
    kernels::round_in_place(py::f64_span(out.get()), decimals);
    return out;
}

// The rate column's name: "{prefix}_{sex}", or for select tables "{prefix}_{sex}_s{d}", or
// "{prefix}_{sex}_ult" for the ultimate duration and for durations beyond the select period.
py::ref rate_label(TableObject* t, PyObject* self) {
    ModuleState* st = t->st;
    py::ref type = py::check(PyObject_GetAttr(self, st->names.table_type.get()));
    // Everything read here is held: the source's properties below run Python code, which
    // may change the public prefix map or the table's fields.
    py::ref held_prefix = py::ref::borrow(PyDict_GetItemWithError(st->prefix_map, type.get()));
    if (!held_prefix && PyErr_Occurred()) py::throw_error_set();
    if (!held_prefix) held_prefix = text("qx");
    PyObject* prefix = held_prefix.get();
    const py::ref held_sex = py::ref::borrow(t->sex.or_none());
    PyObject* sex = held_sex.get();
    if (!source_flag(t, st->names.select.get())) return py::check(PyUnicode_FromFormat("%S_%S", prefix, sex));
    const py::ref held_duration = t->duration.dup();
    PyObject* dur = held_duration.get();
    bool ultimate = dur == nullptr || dur == Py_None || str_equals(dur, "ult");
    if (!ultimate) {
        py::ref period = source_attr(t, st->names.select_period.get());
        ultimate = !period.is_none() && py::require(PyObject_RichCompareBool(dur, period.get(), Py_GT)) == 1;
    }
    if (ultimate) return py::check(PyUnicode_FromFormat("%S_%S_ult", prefix, sex));
    return py::check(PyUnicode_FromFormat("%S_%S_s%S", prefix, sex, dur));
}

py::ref build_instance_dataframe(PyObject* self) {
    TableObject* t = as_table(self);
    ModuleState* st = t->st;
    const Names& n = st->names;
    ensure_ready(t, "");
    const npy_intp rows = std::max<long>(last_age(t) + 1, 0);

    npy_intp dims[1] = {rows};
    py::ref ages = py::check(PyArray_SimpleNew(1, dims, NPY_INT32));
    auto* a = static_cast<npy_int32*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(ages.get())));
    for (npy_intp i = 0; i < rows; ++i) a[i] = static_cast<npy_int32>(i);

    const int decimals = decimals_for_decrement(t);
    py::ref label = rate_label(t, self);
    py::ref columns = py::check(PyList_New(0));
    py::ref age_name = text("age");
    py::ref age_series = series(st, age_name.get(), ages.get());
    py::require(PyList_Append(columns.get(), age_series.get()));
    py::ref rates = rounded_head(t, t->decrement, rows, decimals, "rates");
    py::ref rate_series = series(st, label.get(), rates.get());
    py::require(PyList_Append(columns.get(), rate_series.get()));
    if (t->modified) {
        py::ref original_name = py::check(PyUnicode_FromFormat("%S_original", label.get()));
        py::ref base = rounded_head(t, t->decrement_base, rows, decimals, "base rates");
        py::ref base_series = series(st, original_name.get(), base.get());
        py::require(PyList_Append(columns.get(), base_series.get()));
    }
    const py::ref held_sex = t->sex.dup();  // held across the source's Python properties
    PyObject* sex = held_sex.get();
    if (source_flag(t, n.generational.get()) && (str_equals(sex, "m") || str_equals(sex, "f"))) {
        py::ref structure = source_attr(t, n.mi_structure.get());
        if (str_equals(structure.get(), "flat") || str_equals(structure.get(), "select_period")) {
            py::ref mi_col = get_mi_col(t, sex, t->duration.or_none());
            py::ref data = source_attr(t, n.data.get());
            py::ref names = py::check(PyObject_GetAttr(data.get(), n.columns.get()));
            if (py::require(PySequence_Contains(names.get(), mi_col.get())) == 1) {
                py::ref column = py::check(PyObject_CallMethodOneArg(data.get(), n.get_column.get(), mi_col.get()));
                py::ref count = py::check(PyLong_FromSsize_t(rows));
                py::ref head = py::check(PyObject_CallMethod(column.get(), "head", "O", count.get()));
                py::require(PyList_Append(columns.get(), head.get()));
            }
        }
    }
    py::ref frame_type = polars_attr("DataFrame");
    return py::check(PyObject_CallOneArg(frame_type.get(), columns.get()));
}

bool truthy(PyObject* o) { return py::require(PyObject_IsTrue(o)) == 1; }

// A non-negative row count.
Py_ssize_t row_count(PyObject* value, const char* function) {
    if (PyBool_Check(value) || !(PyLong_Check(value) || PyArray_IsScalar(value, Integer))) {
        py::ref type = type_name_of(value);
        py::raise(PyExc_TypeError, "%s: n must be an int, got %U", function, type.get());
    }
    const Py_ssize_t count = PyNumber_AsSsize_t(value, PyExc_OverflowError);
    if (count == -1 && PyErr_Occurred()) py::throw_error_set();
    if (count < 0) py::raise(PyExc_ValueError, "%s: n must be >= 0, got %zd", function, count);
    return count;
}

enum class Cut { none, head, tail };

// The instance frame from start_age (unless normalised), cut to n rows, with or without ages.
PyObject* view(PyObject* self, Cut cut, PyObject* n_obj, PyObject* include_age, PyObject* show_normalized,
               const char* function) {
    const Py_ssize_t count = cut == Cut::none ? 0 : row_count(n_obj, function);
    const bool keep_age = truthy(include_age);
    const bool normalized = truthy(show_normalized);
    TableObject* t = as_table(self);
    py::ref frame = build_instance_dataframe(self);
    if (!normalized) {
        py::ref start_obj = py::check(PyObject_GetAttrString(t->table.or_none(), "start_age"));
        const long start = PyLong_AsLong(start_obj.get());
        if (start == -1 && PyErr_Occurred()) py::throw_error_set();
        const Py_ssize_t height = PyObject_Length(frame.get());
        if (height < 0) py::throw_error_set();
        const Py_ssize_t offset = std::clamp<Py_ssize_t>(start, 0, height);
        frame = py::check(PyObject_CallMethod(frame.get(), "slice", "nn", offset, height - offset));
    }
    if (cut != Cut::none) {
        frame = py::check(PyObject_CallMethod(frame.get(), cut == Cut::head ? "head" : "tail", "n", count));
    }
    if (!keep_age) frame = py::check(PyObject_CallMethod(frame.get(), "drop", "s", "age"));
    return frame.release();
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

PyObject* Table_build_instance_dataframe(PyObject* self, PyObject*) {
    return py::guard([&] { return build_instance_dataframe(self).release(); });
}

PyObject* Table_view_data(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 2> names = {"include_age", "show_normalized"};
    return py::guard([&] {
        const Arguments<2> a = parse_arguments("view_data", names, 0, args, nargs, kwnames);
        return view(self, Cut::none, nullptr, a.get(0, Py_True), a.get(1, Py_False), "view_data");
    });
}

PyObject* cut_view(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, Cut cut) {
    static constexpr std::array<const char*, 3> names = {"n", "include_age", "show_normalized"};
    return py::guard([&] {
        const char* function = cut == Cut::head ? "head" : "tail";
        const Arguments<3> a = parse_arguments(function, names, 0, args, nargs, kwnames);
        py::ref ten = py::check(PyLong_FromLong(10));
        return view(self, cut, a.get(0, ten.get()), a.get(1, Py_True), a.get(2, Py_False), function);
    });
}

PyObject* Table_head(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return cut_view(self, args, nargs, kwnames, Cut::head);
}

PyObject* Table_tail(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return cut_view(self, args, nargs, kwnames, Cut::tail);
}

// (first n, last n) of a sequence; shorter sequences give (all of it, all of it).
PyObject* Table_safe_slice(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 2> names = {"arr", "n"};
    return py::guard([&] {
        const Arguments<2> a = parse_arguments("_safe_slice", names, 2, args, nargs, kwnames);
        PyObject* arr = a.values[0];
        Py_ssize_t count = row_count(a.values[1], "_safe_slice");
        const Py_ssize_t length = PyObject_Length(arr);
        if (length < 0) py::throw_error_set();
        if (length < count) count = length;
        py::ref first = py::check(PySequence_GetSlice(arr, 0, count));
        py::ref last = length > count ? py::check(PySequence_GetSlice(arr, length - count, length))
                                      : py::ref::borrow(arr);
        return py::require(PyTuple_Pack(2, first.get(), last.get()));
    });
}

}  // namespace

PyMethodDef presentation_methods[] = {
    {"_build_instance_dataframe", Table_build_instance_dataframe, METH_NOARGS,
     "_build_instance_dataframe($self, /)\n--\n\n"
     "The table's rows for ages 0..w as a Polars frame: 'age', the rate column of this sex (and\n"
     "duration), its '_original' base rates when modified, and the improvement column where one applies."},
    {"view_data", FASTCALL_KW(Table_view_data), METH_FASTCALL | METH_KEYWORDS,
     "view_data($self, /, include_age=True, show_normalized=False)\n--\n\n"
     "The table's rates as a Polars DataFrame.\n\n"
     "Parameters\n----------\n"
     "include_age : bool, default True\n    Keep the 'age' column.\n"
     "show_normalized : bool, default False\n    Keep the rows below the table's start age.\n\n"
     "Returns\n-------\npolars.DataFrame"},
    {"head", FASTCALL_KW(Table_head), METH_FASTCALL | METH_KEYWORDS,
     "head($self, /, n=10, include_age=True, show_normalized=False)\n--\n\n"
     "The first n rows of ``view_data`` (from the start age unless ``show_normalized``).\n\n"
     "Returns\n-------\npolars.DataFrame"},
    {"tail", FASTCALL_KW(Table_tail), METH_FASTCALL | METH_KEYWORDS,
     "tail($self, /, n=10, include_age=True, show_normalized=False)\n--\n\n"
     "The last n rows of ``view_data``, ending at the current last age ``w``.\n\n"
     "Returns\n-------\npolars.DataFrame"},
    {"_safe_slice", FASTCALL_KW(Table_safe_slice), METH_FASTCALL | METH_KEYWORDS | METH_STATIC,
     "_safe_slice(arr, n)\n--\n\n"
     "The pair (first n elements, last n elements) of a sequence; a sequence of n elements or fewer\n"
     "gives (the whole sequence, the sequence itself)."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
