// Cohort rates of generational tables by the C++ kernels of kernels/generational.hpp. The
// formula map stays the extension point: a kernel runs only while the map's entry is the
// built-in function it repeats, and every input that the Python function would refuse goes
// back to it, so that its own message is raised.
#include "decrement/projection.hpp"

#include "decrement/columns.hpp"
#include "kernels/generational.hpp"
#include "pyutil/module_functions.hpp"

#include <string>

#include <optional>

namespace veltrane::decrement {
namespace {

// A calendar year as a C integer: an int (never a bool) within a range where every
// difference of years is exact as a double; otherwise nothing (the Python path decides).
std::optional<std::int64_t> year_of(PyObject* o) {
    if (o == nullptr || !PyLong_CheckExact(o)) return std::nullopt;
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(o, &overflow);
    if (v == -1 && PyErr_Occurred()) py::throw_error_set();
    constexpr long long kLimit = 1LL << 31;
    if (overflow != 0 || v <= -kLimit || v >= kLimit) return std::nullopt;
    return v;
}

}  // namespace

py::ref trend_by_kernel(TableObject* t, PyObject* function, PyObject* q, PyObject* mi, PyObject* cohort,
                        PyObject* base_year) {
    ModuleState* st = t->st;
    if (!st->fast_paths) return {};
    static constexpr kernels::Trend trends[] = {kernels::Trend::exponential, kernels::Trend::compound,
                                                kernels::Trend::exponential_damped};
    std::optional<kernels::Trend> trend;
    for (std::size_t i = 0; i < 3; ++i) {
        if (function == st->builtin_formulas[i]) trend = trends[i];
    }
    const std::optional<std::int64_t> c = year_of(cohort), b = year_of(base_year);
    if (!trend || !c || !b) return {};
    const std::span<const double> rates = py::f64_cspan(q);
    py::ref out = py::new_f64(static_cast<npy_intp>(rates.size()));
    if (!kernels::project_trend(*trend, rates, py::f64_cspan(mi), *c - *b, py::f64_span(out.get()))) return {};
    return out;
}

py::ref projected_by_kernel(TableObject* t, PyObject* q, PyObject* matrix, const std::vector<long long>& years,
                            PyObject* base_year) {
    if (!t->st->fast_paths) return {};
    const std::optional<std::int64_t> c = year_of(t->cohort.get()), b = year_of(base_year);
    if (!c || !b) return {};
    const std::vector<std::int64_t> grid(years.begin(), years.end());
    const std::span<const double> rates = py::f64_cspan(q);
    py::ref out = py::new_f64(static_cast<npy_intp>(rates.size()));
    if (!kernels::project_scale(rates, py::f64_cspan(matrix), grid, *c, *b, py::f64_span(out.get()))) return {};
    return out;
}

TrendRecipe trend_recipe(TableObject* t) {
    ModuleState* st = t->st;
    const Names& n = st->names;
    TrendRecipe r;
    if (!st->fast_paths || t->sex.is_none() || !t->unisex_blend.is_none()) return r;
    if (source_flag(t, n.select.get()) || !source_flag(t, n.generational.get())) return r;
    py::ref structure = source_attr(t, n.mi_structure.get());
    py::ref formula = source_attr(t, n.generational_formula_type.get());
    if (str_equals(structure.get(), "year_indexed") || !PyUnicode_Check(formula.get())) return r;
    PyObject* function = PyDict_GetItemWithError(st->formula_map, formula.get());
    if (function == nullptr) {
        if (PyErr_Occurred()) py::throw_error_set();
        return r;
    }
    for (int i = 0; i < 3; ++i) {
        if (function == st->builtin_formulas[i]) {
            r.trend = i;
            r.usable = true;
        }
    }
    py::ref base_year = source_attr(t, n.base_year.get());
    const std::optional<std::int64_t> b = year_of(base_year.get());
    if (!r.usable || !b) return {};
    r.base_year = *b;
    py::ref data = source_attr(t, n.data.get());
    py::ref columns = source_columns(t, data.get());
    py::ref q_col = py::check(PyUnicode_FromFormat("%s_%S", std::string(prefix_for(t)).c_str(), t->sex.get()));
    py::ref mi_col = py::check(PyUnicode_FromFormat("mi_%S", t->sex.get()));
    if (py::require(PySet_Contains(columns.get(), q_col.get())) != 1 ||
        py::require(PySet_Contains(columns.get(), mi_col.get())) != 1) {
        return {};
    }
    r.q = cached_column(t, data.get(), q_col.get());
    r.mi = cached_column(t, data.get(), mi_col.get());
    if (py::f64_size(r.q.get()) != source_w(t) + 1 || py::f64_size(r.mi.get()) != py::f64_size(r.q.get())) return {};
    return r;
}

py::ref project_recipe(const TrendRecipe& recipe, std::int64_t cohort) {
    const std::span<const double> rates = py::f64_cspan(recipe.q.get());
    py::ref out = py::new_f64(static_cast<npy_intp>(rates.size()));
    if (!kernels::project_trend(static_cast<kernels::Trend>(recipe.trend), rates, py::f64_cspan(recipe.mi.get()),
                                cohort - recipe.base_year, py::f64_span(out.get()))) {
        return {};
    }
    return out;
}

namespace {

PyObject* set_fast_paths(PyObject* module, PyObject* enabled) {
    return py::guard([&]() -> PyObject* {
        const int on = py::require(PyObject_IsTrue(enabled));
        ModuleState* st = state_of(module);
        const bool previous = st->fast_paths;
        st->fast_paths = on == 1;
        return py::require(PyBool_FromLong(previous ? 1 : 0));
    });
}

PyMethodDef set_fast_paths_def = {
    "_set_fast_paths", set_fast_paths, METH_O,
    "_set_fast_paths(enabled)\n--\n\n"
    "Switch the C++ projection kernels and the integer-age fast paths on or off; returns the\n"
    "previous setting. For tests that compare them with the general paths."};

}  // namespace

void bind_fast_path_switch(PyObject* module) { py::add_function(module, set_fast_paths_def); }

}  // namespace veltrane::decrement
