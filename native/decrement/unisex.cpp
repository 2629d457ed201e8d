// Unisex rates blended from the male and female rates with a male weight. The blend is
// written as the unisex column of the table's private copy of its source, from which the
// ordinary rate construction reads it. Generational tables blend cohort-projected rates,
// kept in a process-wide first-in-first-out cache. Nothing is written before all checks pass.
#include "decrement/table.hpp"

#include "kernels/rounding.hpp"

#include <vector>

namespace veltrane::decrement {
namespace {


std::vector<double> rounded_column(PyObject* data, PyObject* col, int decimals, const Names& n) {
    py::ref series = py::check(PyObject_CallMethodOneArg(data, n.get_column.get(), col));
    py::ref values = py::check(PyObject_CallMethodNoArgs(series.get(), n.to_numpy.get()));
    py::ref v = py::copy_as_f64(values.get());
    std::span<const double> s = py::f64_cspan(v.get());
    std::vector<double> out(s.begin(), s.end());
    kernels::round_in_place(out, decimals);
    return out;
}

// The cohort-projected base rates of one sex, from the cache or computed from this table's
// own source. Computed directly rather than through a fresh table: a time step may carry the
// cohort past the years a constructor accepts.
std::vector<double> projected_rates(TableObject* t, const char* sex, PyObject* formula_type, int decimals) {
    ModuleState* st = t->st;
    py::ref file_name = source_attr(t, st->names.file_name.get());
    py::ref sex_obj = py::check(PyUnicode_FromString(sex));
    py::ref key = py::check(PyTuple_Pack(5, file_name.get(), sex_obj.get(), t->cohort.or_none(), formula_type,
                                         t->duration.or_none()));
    // The key names the table, not its data: a table whose name has since come to mean other
    // data (registered again, a file rewritten) neither reads nor fills the shared entries.
    py::ref current = py::check(PyObject_CallMethod(st->table_source, "_is_current", "O", t->table.get()));
    py::ref cached;
    if (py::require(PyObject_IsTrue(current.get())) == 0) {
        cached = compute_decrement(t, sex_obj.get());
    } else {
        cached = py::ref::steal(PyObject_GetItem(st->unisex_cache, key.get()));
    }
    if (!cached) {
        if (!PyErr_ExceptionMatches(PyExc_KeyError)) py::throw_error_set();
        PyErr_Clear();
        py::ref base = compute_decrement(t, sex_obj.get());
        while (PyObject_Length(st->unisex_cache) >= kCohortCacheMax) {
            py::ref popped = py::check(PyObject_CallMethod(st->unisex_cache, "popitem", "O", Py_False));
        }
        py::require(PyObject_SetItem(st->unisex_cache, key.get(), base.get()));
        cached = std::move(base);
    }
    std::span<const double> s = py::f64_cspan(cached.get());
    std::vector<double> out(s.begin(), s.end());
    kernels::round_in_place(out, decimals);
    return out;
}

// The improvement columns a sex's projection reads: the year-indexed columns of every grid
// year for year-indexed or projected improvement, otherwise the one column of the duration.
std::vector<py::ref> improvement_columns(TableObject* t, PyObject* sex, PyObject* formula) {
    const Names& n = t->st->names;
    py::ref structure = source_attr(t, n.mi_structure.get());
    std::vector<py::ref> out;
    if (str_equals(structure.get(), "year_indexed") || str_equals(formula, "projected_improvement")) {
        py::ref grid = source_attr(t, n.grid_years.get());
        if (!grid.is_none()) {
            py::ref years = py::check(PySequence_Tuple(grid.get()));
            for (Py_ssize_t j = 0; j < PyTuple_GET_SIZE(years.get()); ++j) {
                out.push_back(py::check(PyUnicode_FromFormat("mi_%S_%S", sex, PyTuple_GET_ITEM(years.get(), j))));
            }
        }
        return out;
    }
    out.push_back(get_mi_col(t, sex, t->duration.get()));
    return out;
}

// The first improvement column of a sex missing from `columns`, or null when all are there.
py::ref first_missing(PyObject* columns, const std::vector<py::ref>& wanted) {
    for (const py::ref& c : wanted) {
        if (!has_column(columns, c.get())) return c.dup();
    }
    return {};
}

}  // namespace

int decimals_for_decrement(TableObject* t) {
    // Kept across calls, but never past a change of settings: a stale cached value is not
    // trusted (the caches it belongs with are dropped at the next calculation).
    const bool current = t->caches_config_version == t->st->config_version;
    if (!t->decimals_decrement_cache.is_none() && current) {
        // The field can be written by hand: anything but a number the settings could hold
        // would round to nonsense (or, cast to int, overflow), so it is refused here.
        // Held: converting a hand-written value may run code that writes the field again.
        const py::ref held = t->decimals_decrement_cache.dup();
        PyObject* cached = held.get();
        const long d = PyLong_AsLong(cached);
        if (d < 0 || d > kMaxDecimals) {
            PyErr_Clear();  // not an int, or one too large for a long: the same refusal
            py::ref name = table_name(t);
            py::raise(PyExc_ValueError, "Table '%S': _decimals_decrement_cache must be an int in [0, %d], got %R",
                      name.get(), kMaxDecimals, cached);
        }
        return static_cast<int>(d);
    }
    const ConfigSnapshot& cfg = config(t->st);
    py::ref type = source_attr(t, t->st->names.table_type.get());
    const int d = str_equals(type.get(), "life") ? cfg.qx : str_equals(type.get(), "disability") ? cfg.ix : cfg.ox;
    if (current) t->decimals_decrement_cache = py::check(PyLong_FromLong(d));
    return d;
}

void generate_unisex(TableObject* t, PyObject* blend) {
    ModuleState* st = t->st;
    const Names& n = st->names;
    double w = 0.0;
    try {
        w = numeric::validate_scalar(blend, "unisex_blend", "_generate_unisex_decrement");
    } catch (const py::PyErrSet&) {
        if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw;
        PyErr_Clear();
        py::raise(PyExc_TypeError, "Expected numeric input for unisex_blend");
    }
    if (!(0.0 <= w && w <= 1.0)) {
        py::ref shown = py::check(PyFloat_FromDouble(w));
        py::raise(PyExc_ValueError, "unisex_blend must be in [0.0, 1.0], got %S", shown.get());
    }
    const std::string_view prefix = prefix_for(t);
    const std::string p(prefix);
    py::ref col_m, col_f, col_u;
    if (source_flag(t, n.select.get())) {
        col_m = select_column(t, n.m.get(), t->duration.get(), prefix);
        col_f = select_column(t, n.f.get(), t->duration.get(), prefix);
        col_u = select_column(t, n.u.get(), t->duration.get(), prefix);
    } else {
        col_m = py::check(PyUnicode_FromFormat("%s_m", p.c_str()));
        col_f = py::check(PyUnicode_FromFormat("%s_f", p.c_str()));
        col_u = py::check(PyUnicode_FromFormat("%s_u", p.c_str()));
    }
    py::ref data = source_attr(t, n.data.get());
    py::ref columns = py::check(PyObject_GetAttr(data.get(), n.columns.get()));
    py::ref name = table_name(t);
    if (!has_column(columns.get(), col_m.get()) || !has_column(columns.get(), col_f.get())) {
        py::raise(PyExc_ValueError,
                  "Cannot generate unisex rates: table '%S' is missing required columns '%S' and/or '%S'", name.get(),
                  col_m.get(), col_f.get());
    }
    const int d = decimals_for_decrement(t);
    std::vector<double> qm, qf;
    if (!source_flag(t, n.generational.get())) {
        qm = rounded_column(data.get(), col_m.get(), d, n);
        qf = rounded_column(data.get(), col_f.get(), d, n);
    } else {
        py::ref formula_for_columns = source_attr(t, n.generational_formula_type.get());
        const std::vector<py::ref> wanted_m = improvement_columns(t, n.m.get(), formula_for_columns.get());
        const std::vector<py::ref> wanted_f = improvement_columns(t, n.f.get(), formula_for_columns.get());
        py::ref missing_m = first_missing(columns.get(), wanted_m);
        py::ref missing_f = first_missing(columns.get(), wanted_f);
        if (missing_m || missing_f) {
            PyObject* shown_m = missing_m ? missing_m.get() : wanted_m.front().get();
            PyObject* shown_f = missing_f ? missing_f.get() : wanted_f.front().get();
            py::raise(PyExc_ValueError,
                      "Cannot generate unisex rates for generational table '%S': missing '%S' and/or '%S'", name.get(),
                      shown_m, shown_f);
        }
        if (t->cohort.is_none()) {
            py::raise(PyExc_ValueError, "Cohort must be set before generating unisex rates for generational tables.");
        }
        if (source_attr(t, n.base_year.get()).is_none()) {
            py::raise(PyExc_ValueError, "base_year metadata missing in table '%S'.", name.get());
        }
        py::ref formula = source_attr(t, n.generational_formula_type.get());
        if (formula.is_none()) {
            py::raise(PyExc_ValueError, "generational_formula_type metadata missing in table '%S'.", name.get());
        }
        PyObject* function = PyDict_GetItemWithError(st->formula_map, formula.get());
        if (function == nullptr && PyErr_Occurred()) py::throw_error_set();
        if (function == nullptr && !str_equals(formula.get(), "projected_improvement")) {
            py::raise(PyExc_ValueError, "Unknown generational_formula_type '%S' in table '%S'", formula.get(), name.get());
        }
        qm = projected_rates(t, "m", formula.get(), d);
        qf = projected_rates(t, "f", formula.get(), d);
    }
    if (qm.size() != qf.size()) py::raise(PyExc_ValueError, "male and female rates differ in length");
    py::ref u = py::new_f64(static_cast<npy_intp>(qm.size()));
    double* out = py::f64_data(u.get());
    for (std::size_t i = 0; i < qm.size(); ++i) {
        const double v = w * qm[i] + (1.0 - w) * qf[i];
        out[i] = v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v);
    }
    // Everything is computed: from here on only the table's own copy of the source changes.
    py::ref series = py::check(PyObject_CallFunctionObjArgs(st->polars_series, col_u.get(), u.get(), nullptr));
    py::ref new_data = py::check(PyObject_CallMethodOneArg(data.get(), n.with_columns.get(), series.get()));
    py::ref sexes = source_attr(t, n.valid_sexes.get());
    py::ref new_sexes;
    if (py::require(PySequence_Contains(sexes.get(), n.u.get())) == 0) {
        new_sexes = py::check(PySequence_List(sexes.get()));
        py::require(PyList_Append(new_sexes.get(), n.u.get()));
        py::require(PyList_Sort(new_sexes.get()));
    }
    if (!t->table_is_private_copy) {
        t->table = py::check(PyObject_CallOneArg(st->shallow_copy, t->table.get()));
        t->table_is_private_copy = true;
    }
    py::require(PyObject_SetAttr(t->table.get(), n.data_field.get(), new_data.get()));
    if (new_sexes) py::require(PyObject_SetAttr(t->table.get(), n.valid_sexes_field.get(), new_sexes.get()));
}

namespace {

PyObject* forget_unisex_name(PyObject* module, PyObject* name) {
    return py::guard([&]() -> PyObject* {
        // Held: deleting an entry may release the last reference to the cache's contents.
        py::ref cache = py::ref::borrow(state_of(module)->unisex_cache);
        py::ref keys = py::check(PySequence_List(cache.get()));
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(keys.get()); ++i) {
            PyObject* key = PyList_GET_ITEM(keys.get(), i);
            if (!PyTuple_Check(key) || PyTuple_GET_SIZE(key) == 0) continue;
            if (py::require(PyObject_RichCompareBool(PyTuple_GET_ITEM(key, 0), name, Py_EQ)) == 1) {
                py::require(PyObject_DelItem(cache.get(), key));
            }
        }
        Py_RETURN_NONE;
    });
}

PyObject* Table_generate_unisex(PyObject* self, PyObject* blend) {
    return py::guard([&]() -> PyObject* {
        generate_unisex(as_table(self), blend);
        Py_RETURN_NONE;
    });
}

}  // namespace

PyMethodDef forget_unisex_name_def = {
    "_forget_cohort_unisex_name", forget_unisex_name, METH_O,
    "_forget_cohort_unisex_name(name, /)\n--\n\n"
    "Drop the entries of the table name ``name`` from the cache of cohort-projected unisex inputs."};

PyMethodDef unisex_methods[] = {
    {"_generate_unisex_decrement", Table_generate_unisex, METH_O,
     "_generate_unisex_decrement($self, unisex_blend, /)\n--\n\n"
     "Blend the male and female rates with the male weight into the unisex column of a private copy of "
     "the source."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
