// Glue shared by the life-contingency functions: the expectation of life on the table
// (expectation.cpp) and the module functions behind veltrane.contingencies (contingencies.cpp).
// Both read the unrounded l vector (the lx decimals would cost old ages most of their digits)
// and return unrounded values.
#pragma once

#include "decrement/functions.hpp"
#include "kernels/contingencies.hpp"

#include <string_view>

namespace veltrane::decrement {

// The table's method `ex`, gathered with the other method tables by table.cpp.
extern PyMethodDef expectation_methods[];
// Binds _annuity, _insurance, _pure_endowment and _commutation in the module.
void bind_contingencies(PyObject* module);

namespace contingencies {

// The survival model of a ready table under the current settings; `keep` holds the l vector.
struct Life {
    py::ref keep;
    kernels::LifeModel model;
};
Life life_of(TableObject* t);

// Ages x, validated (finite numbers) and within [0, w]; errors are prefixed "[method] ".
actuarial::Values checked_ages(TableObject* t, PyObject* x, std::string_view method);
// A bool argument (True, False or a NumPy bool); TypeError naming it otherwise.
bool flag(PyObject* value, std::string_view method, std::string_view name);

}  // namespace contingencies
}  // namespace veltrane::decrement
