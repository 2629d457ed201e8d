// Cohort rates by the built-in projection kernels (projection.cpp), used while the formula
// in force is still the built-in Python function; null means "call the Python function".
#pragma once

#include "decrement/state.hpp"

#include <cstdint>
#include <vector>

namespace veltrane::decrement {

// A one-dimensional trend: `function` is the map's entry for the table's formula.
py::ref trend_by_kernel(TableObject* t, PyObject* function, PyObject* q, PyObject* mi, PyObject* cohort,
                        PyObject* base_year);
// A two-dimensional scale: `matrix` holds one row per age, one column per grid year.
py::ref projected_by_kernel(TableObject* t, PyObject* q, PyObject* matrix, const std::vector<long long>& years,
                            PyObject* base_year);

// The cohort-independent inputs of a flat generational table projected by a built-in trend
// (the table's current sex, not a blend): only the cohort is left to vary. `usable` is false
// for every other kind of table, which then goes through compute_decrement.
struct TrendRecipe {
    bool usable = false;
    py::ref q, mi;  // the source's cached columns (read-only)
    int trend = 0;  // kernels::Trend
    std::int64_t base_year = 0;
};
TrendRecipe trend_recipe(TableObject* t);
// The rates of the recipe for one cohort year, or null when the Python function must decide.
py::ref project_recipe(const TrendRecipe& recipe, std::int64_t cohort);

// Module function `_set_fast_paths(enabled)`: switches the kernels and the integer-age
// paths off (for tests that compare them with the general paths); returns the old setting.
void bind_fast_path_switch(PyObject* module);

}  // namespace veltrane::decrement
