// The base decrement vector for each table structure (period, generational with flat,
// year-indexed or projected improvement, select-ultimate), cohort validation, and the
// survivorship vector. Pure with respect to the table: results are returned, not stored.
#include "decrement/table.hpp"

#include "decrement/columns.hpp"
#include "decrement/projection.hpp"

#include <algorithm>
#include <limits>
#include <vector>

namespace veltrane::decrement {
namespace {

// Column names as a frozenset, cached with the source.
py::ref columns_of(TableObject* t, PyObject* data) { return source_columns(t, data); }

py::ref ages_vector(long w) {
    py::ref ages = py::new_f64(w + 1);
    double* a = py::f64_data(ages.get());
    for (long i = 0; i <= w; ++i) a[i] = static_cast<double>(i);
    return ages;
}

long long as_long_long(PyObject* o) {
    const long long v = PyLong_AsLongLong(o);
    if (v == -1 && PyErr_Occurred()) py::throw_error_set();
    return v;
}

std::vector<long long> int_list(PyObject* seq) {
    std::vector<long long> out;
    if (seq == nullptr || seq == Py_None) return out;
    py::ref fast = py::check(PySequence_Fast(seq, "grid_years must be a sequence"));
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(fast.get()); ++i) {
        out.push_back(as_long_long(PySequence_Fast_ITEMS(fast.get())[i]));
    }
    return out;
}

// Improvement rates of 0 where the base rate is 0 too are made +0.0 (a -0.0 would
// otherwise leak into the projected rates).
void zero_guard(std::span<const double> q, std::span<double> mi) {
    for (std::size_t i = 0; i < q.size() && i < mi.size(); ++i) {
        if (q[i] == 0.0 && mi[i] == 0.0) mi[i] = 0.0;
    }
}

// Checks a formula's result: an owned float64 vector with one rate per age.
py::ref formula_result(PyObject* result, PyObject* formula, long w) {
    py::ref out = py::copy_as_f64(result);
    if (PyArray_NDIM(reinterpret_cast<PyArrayObject*>(out.get())) != 1 || py::f64_size(out.get()) != w + 1) {
        py::raise(PyExc_ValueError, "generational formula '%S' returned %zd rates for %ld ages", formula,
                  static_cast<Py_ssize_t>(py::f64_size(out.get())), w + 1);
    }
    return out;
}

enum class Structure { plain, select };

// Cohort rates of a generational table from its base column `q`.
// `q` may be the source's read-only cached column: the Python functions get copies.
py::ref generational_rates(TableObject* t, PyObject* sex, py::ref q, PyObject* data, long w, Structure kind) {
    ModuleState* st = t->st;
    const Names& n = st->names;
    py::ref name = table_name(t);
    py::ref columns = columns_of(t, data);
    py::ref formula = source_attr(t, n.generational_formula_type.get());
    py::ref base_year = source_attr(t, n.base_year.get());
    auto need_formula = [&] {
        if (formula.is_none()) {
            py::raise(PyExc_ValueError, "generational_formula_type metadata missing in table '%S'.", name.get());
        }
    };
    auto need_base_year = [&] {
        if (base_year.is_none()) py::raise(PyExc_ValueError, "base_year metadata missing in table '%S'.", name.get());
    };
    if (kind == Structure::plain) {
        need_formula();
        need_base_year();
    } else {
        need_base_year();
        need_formula();
    }
    py::ref grid = source_attr(t, n.grid_years.get());
    const std::vector<long long> years = int_list(grid.get());
    py::ref structure = source_attr(t, n.mi_structure.get());

    if (str_equals(formula.get(), "projected_improvement")) {
        if (years.empty()) {
            py::raise(PyExc_ValueError,
                      "Table '%S': projected_improvement requires year-indexed mi_{sex}_YYYY columns but none found.",
                      name.get());
        }
        if (kind == Structure::select && t->cohort.is_none()) {
            py::raise(PyExc_ValueError, "Cohort must be set for projected_improvement select tables.");
        }
        py::ref matrix = py::new_f64_2d(w + 1, static_cast<npy_intp>(years.size()));
        double* m = py::f64_data(matrix.get());
        for (std::size_t j = 0; j < years.size(); ++j) {
            py::ref col = py::check(PyUnicode_FromFormat("mi_%S_%lld", sex, years[j]));
            if (!has_column(columns.get(), col.get())) {
                py::raise(PyExc_ValueError,
                          kind == Structure::plain ? "Column '%S' not found in table '%S' (projected_improvement)."
                                                   : "Column '%S' not found in table '%S' (projected_improvement select).",
                          col.get(), name.get());
            }
            py::ref v = cached_column(t, data, col.get());
            const double* src = py::f64_data(v.get());
            for (long i = 0; i <= w; ++i) m[i * static_cast<long>(years.size()) + static_cast<long>(j)] = src[i];
        }
        if (py::ref projected = projected_by_kernel(t, q.get(), matrix.get(), years, base_year.get())) {
            return projected;
        }
        py::ref q_copy = py::f64_from(py::f64_cspan(q.get()));
        py::ref call_args = py::check(PyTuple_Pack(2, q_copy.get(), matrix.get()));
        py::ref kwargs = py::check(PyDict_New());
        py::require(PyDict_SetItemString(kwargs.get(), "cohort", t->cohort.or_none()));
        py::require(PyDict_SetItemString(kwargs.get(), "base_year", base_year.get()));
        py::ref grid_list = py::check(PySequence_List(grid.get()));
        py::require(PyDict_SetItemString(kwargs.get(), "grid_years", grid_list.get()));
        py::ref result = py::check(PyObject_Call(st->projected, call_args.get(), kwargs.get()));
        return formula_result(result.get(), formula.get(), w);
    }

    py::ref mi;
    const char* unknown_message = "Unknown generational_formula_type '%S' in table '%S'.";
    if (str_equals(structure.get(), "year_indexed")) {
        if (years.empty()) {
            py::raise(PyExc_ValueError, "Table '%S': year_indexed mi_structure requires grid_years metadata.",
                      name.get());
        }
        std::vector<py::ref> grid_columns;
        for (long long year : years) {
            py::ref col = py::check(PyUnicode_FromFormat("mi_%S_%lld", sex, year));
            if (!has_column(columns.get(), col.get())) {
                py::raise(PyExc_ValueError, "Column '%S' not found in table '%S'.", col.get(), name.get());
            }
            grid_columns.push_back(cached_column(t, data, col.get()));
        }
        if (t->cohort.is_none()) py::raise(PyExc_ValueError, "Cohort must be set for generational tables.");
        const long long cohort = as_long_long(t->cohort.get());
        mi = py::new_f64(w + 1);
        double* out = py::f64_data(mi.get());
        for (long i = 0; i <= w; ++i) {
            const long long year = std::clamp(cohort + i, years.front(), years.back());
            const auto j = static_cast<std::size_t>(std::lower_bound(years.begin(), years.end(), year) - years.begin());
            out[i] = py::f64_data(grid_columns[j].get())[i];
        }
    } else {
        py::ref col = kind == Structure::plain ? py::check(PyUnicode_FromFormat("mi_%S", sex))
                                               : get_mi_col(t, sex, t->duration.get());
        if (!has_column(columns.get(), col.get())) {
            py::raise(PyExc_ValueError, "Column '%S' not found in table '%S'.", col.get(), name.get());
        }
        if (t->cohort.is_none()) py::raise(PyExc_ValueError, "Cohort must be set for generational tables.");
        mi = cached_column(t, data, col.get());
        if (kind == Structure::plain) {
            unknown_message = "Unknown or unsupported generational_formula_type '%S' in table '%S'";
        }
    }
    // Held: the map is a public dict that the call (or a formula) may change.
    const py::ref function = py::ref::borrow(PyDict_GetItemWithError(st->formula_map, formula.get()));
    if (!function) {
        if (PyErr_Occurred()) py::throw_error_set();
        py::raise(PyExc_ValueError, unknown_message, formula.get(), name.get());
    }
    const py::ref cohort = t->cohort.dup();
    // The zero guard only touches improvement rates beside zero base rates, whose projected
    // rates are zero whatever the improvement: the kernels need no guarded copy.
    if (py::ref projected = trend_by_kernel(t, function.get(), q.get(), mi.get(), cohort.get(), base_year.get())) {
        return projected;
    }
    py::ref q_copy = py::f64_from(py::f64_cspan(q.get()));
    py::ref mi_copy = py::f64_from(py::f64_cspan(mi.get()));
    zero_guard(py::f64_cspan(q_copy.get()), py::f64_span(mi_copy.get()));
    py::ref ages = ages_vector(w);
    PyObject* call[5] = {q_copy.get(), mi_copy.get(), ages.get(), cohort.get(), base_year.get()};
    py::ref result = py::check(PyObject_Vectorcall(function.get(), call, 5, nullptr));
    return formula_result(result.get(), formula.get(), w);
}

}  // namespace

long start_duration(TableObject* t) {
    py::ref start = source_attr(t, t->st->names.start_duration.get());
    if (start.is_none()) return 1;
    return static_cast<long>(as_long_long(start.get()));
}

namespace {

long long select_period(TableObject* t) {
    py::ref period = source_attr(t, t->st->names.select_period.get());
    return period.is_none() ? 0 : as_long_long(period.get());
}

}  // namespace

long long first_ultimate_duration(TableObject* t) {
    long long first = 0;
    // Saturates instead of wrapping: no duration a table can hold lies beyond it.
    if (__builtin_add_overflow(static_cast<long long>(start_duration(t)), select_period(t), &first)) {
        first = std::numeric_limits<long long>::max();
    }
    return first;
}

bool past_select_period(TableObject* t, PyObject* duration) {
    if (is_ultimate(duration)) return true;
    int overflow = 0;
    const long long d = PyLong_AsLongLongAndOverflow(duration, &overflow);
    if (d == -1 && PyErr_Occurred()) py::throw_error_set();
    if (overflow != 0) return overflow > 0;  // beyond any select period (or below any start)
    return d >= first_ultimate_duration(t);
}

py::ref select_column(TableObject* t, PyObject* sex, PyObject* dur, std::string_view prefix) {
    // Held: the source's properties run Python code, which may set the table's fields.
    const py::ref held_sex = py::ref::borrow(sex), held_dur = py::ref::borrow(dur);
    const std::string p(prefix);
    if (past_select_period(t, dur)) return py::check(PyUnicode_FromFormat("%s_%S_ult", p.c_str(), sex));
    int overflow = 0;
    const long long d = PyLong_AsLongLongAndOverflow(dur, &overflow);
    if (d == -1 && PyErr_Occurred()) py::throw_error_set();
    const long start = start_duration(t);
    if (overflow != 0 || d < start) {
        py::ref name = table_name(t);
        py::raise(PyExc_ValueError, "duration %R is below start_duration=%ld for table '%S'.", dur, start, name.get());
    }
    return py::check(PyUnicode_FromFormat("%s_%S_s%lld", p.c_str(), sex, d));
}

namespace {

py::ref select_decrement(TableObject* t, PyObject* sex, PyObject* data, long w, std::string_view prefix) {
    const Names& n = t->st->names;
    py::ref col = select_column(t, sex, t->duration.get(), prefix);
    py::ref columns = columns_of(t, data);
    if (!has_column(columns.get(), col.get())) {
        py::ref name = table_name(t);
        py::ref period = source_attr(t, n.select_period.get());
        py::raise(PyExc_ValueError, "Column '%S' not found in table '%S'. duration=%R, select_period=%R.", col.get(),
                  name.get(), t->duration.or_none(), period.get());
    }
    py::ref q = cached_column(t, data, col.get());
    if (!source_flag(t, n.generational.get())) return py::f64_from(py::f64_cspan(q.get()));
    // A blended unisex column is already projected for the cohort.
    if (str_equals(sex, "u") && !t->unisex_blend.is_none()) return py::f64_from(py::f64_cspan(q.get()));
    return generational_rates(t, sex, std::move(q), data, w, Structure::select);
}

}  // namespace

py::ref get_mi_col(TableObject* t, PyObject* sex, PyObject* dur) {
    // Held: the source's properties run Python code, which may set the table's fields.
    const py::ref held_sex = py::ref::borrow(sex), held_dur = py::ref::borrow(dur);
    if (!source_flag(t, t->st->names.mi_by_duration.get())) return py::check(PyUnicode_FromFormat("mi_%S", sex));
    if (past_select_period(t, dur)) {
        return py::check(PyUnicode_FromFormat("mi_%S_ult", sex));
    }
    return py::check(PyUnicode_FromFormat("mi_%S_s%lld", sex, as_long_long(dur)));
}

py::ref compute_decrement(TableObject* t) { return compute_decrement(t, t->sex.or_none()); }

py::ref compute_decrement(TableObject* t, PyObject* sex) {
    const Names& n = t->st->names;
    const py::ref held_sex = py::ref::borrow(sex);  // held across the source's properties
    py::ref data = source_attr(t, n.data.get());
    const long w = source_w(t);
    const std::string_view prefix = prefix_for(t);
    if (source_flag(t, n.select.get())) return select_decrement(t, sex, data.get(), w, prefix);
    py::ref col = py::check(PyUnicode_FromFormat("%s_%S", std::string(prefix).c_str(), sex));
    py::ref columns = columns_of(t, data.get());
    if (!has_column(columns.get(), col.get())) {
        py::ref name = table_name(t);
        py::raise(PyExc_ValueError, "Column '%S' not found in table '%S'.", col.get(), name.get());
    }
    py::ref q = cached_column(t, data.get(), col.get());
    if (!source_flag(t, n.generational.get())) return py::f64_from(py::f64_cspan(q.get()));
    if (str_equals(sex, "u") && !t->unisex_blend.is_none()) return py::f64_from(py::f64_cspan(q.get()));
    return generational_rates(t, sex, std::move(q), data.get(), w, Structure::plain);
}

py::ref validate_cohort_year(TableObject* t, PyObject* value) { return validate_cohort_year(t, value, nullptr); }

py::ref validate_cohort_year(TableObject* t, PyObject* value, long long* current) {
    if (PyBool_Check(value)) py::raise(PyExc_TypeError, "cohort must be int, got bool");
    if (!PyLong_Check(value) && !PyArray_IsScalar(value, Integer)) {
        py::raise(PyExc_ValueError, "Cohort year must be an integer.");
    }
    py::ref year = py::check(PyNumber_Index(value));
    long long now = 0;
    if (current != nullptr && *current != 0) {
        now = *current;
    } else {
        py::ref reading = py::check(PyObject_CallNoArgs(t->st->current_year));
        now = as_long_long(reading.get());
        if (current != nullptr) *current = now;
    }
    const long long y = PyLong_AsLongLong(year.get());
    if ((y == -1 && PyErr_Occurred()) || y < 1900 || y > now) {
        PyErr_Clear();
        py::raise(PyExc_ValueError, "Cohort year must be between 1900 and %lld.", now);
    }
    return year;
}

py::ref compute_lx(TableObject* t) {
    ensure_ready(t, "_compute_lx");
    if (t->decrement.is_none()) {
        py::ref name = table_name(t);
        py::raise(PyExc_ValueError, "Table '%S' has no decrement rates to build survivorship from.", name.get());
    }
    std::span<const double> q = py::f64_cspan(t->decrement.get());
    py::ref l = py::new_f64(static_cast<npy_intp>(q.size()));
    kernels::survivorship(q, t->st->lx_radix, py::f64_span(l.get()));
    return l;
}

namespace {

PyObject* Table_compute_decrement(PyObject* self, PyObject*) {
    return py::guard([&] { return compute_decrement(as_table(self)).release(); });
}

PyObject* Table_compute_lx(PyObject* self, PyObject*) {
    return py::guard([&] { return compute_lx(as_table(self)).release(); });
}

PyObject* Table_validate_cohort_year(PyObject* self, PyObject* value) {
    return py::guard([&] { return validate_cohort_year(as_table(self), value).release(); });
}

PyObject* Table_get_mi_col(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    return py::guard([&] {
        if (nargs != 2) py::raise(PyExc_TypeError, "_get_mi_col() takes 2 arguments (sex, dur)");
        return get_mi_col(as_table(self), args[0], args[1]).release();
    });
}

PyObject* Table_get_select_col(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    return py::guard([&] {
        if (nargs != 2) py::raise(PyExc_TypeError, "_get_select_col() takes 2 arguments (sex, dur)");
        TableObject* t = as_table(self);
        return select_column(t, args[0], args[1], prefix_for(t)).release();
    });
}

PyObject* Table_compute_select_decrement(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    return py::guard([&] {
        if (nargs != 4) {
            py::raise(PyExc_TypeError, "_compute_select_decrement() takes 4 arguments (sex, data, w, prefix)");
        }
        const long w = PyLong_AsLong(args[2]);
        if (w == -1 && PyErr_Occurred()) py::throw_error_set();
        const std::string prefix = utf8(args[3]);
        return select_decrement(as_table(self), args[0], args[1], w, prefix).release();
    });
}

#define FASTCALL(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

}  // namespace

PyMethodDef rates_methods[] = {
    {"_compute_decrement", Table_compute_decrement, METH_NOARGS,
     "_compute_decrement($self, /)\n--\n\nThe base one-year decrement vector for the current sex, cohort and duration."},
    {"_compute_lx", Table_compute_lx, METH_NOARGS,
     "_compute_lx($self, /)\n--\n\nSurvivorship from the radix: l[i] = radix * prod(1 - q[k], k < i)."},
    {"_validate_cohort_year", Table_validate_cohort_year, METH_O,
     "_validate_cohort_year($self, value, /)\n--\n\nThe cohort as an int between 1900 and the current year."},
    {"_get_mi_col", FASTCALL(Table_get_mi_col), METH_FASTCALL,
     "_get_mi_col($self, sex, dur, /)\n--\n\nName of the improvement column for a sex and select duration."},
    {"_get_select_col", FASTCALL(Table_get_select_col), METH_FASTCALL,
     "_get_select_col($self, sex, dur, /)\n--\n\nName of the rate column for a sex and select duration."},
    {"_compute_select_decrement", FASTCALL(Table_compute_select_decrement), METH_FASTCALL,
     "_compute_select_decrement($self, sex, data, w, prefix, /)\n--\n\nRates of a select-ultimate table for the duration."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
