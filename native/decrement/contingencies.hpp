// Glue shared by the life-contingency functions: the expectation of life on the table
// (expectation.cpp) and the module functions behind veltrane.contingencies (contingencies.cpp).
// Both read unrounded l vectors (the lx decimals would cost old ages most of their digits)
// and return unrounded values.
#pragma once

#include "decrement/functions.hpp"
#include "kernels/contingencies.hpp"

#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace veltrane::decrement {

// The table's methods ex, mu and lifetime_quantile, gathered with the other method tables by table.cpp.
extern PyMethodDef expectation_methods[];
// Binds _annuity, _insurance, _pure_endowment and _commutation in the module.
// (and _interest, through bind_interest of interest.cpp).
void bind_contingencies(PyObject* module);
void bind_interest(PyObject* module);
// Binds _joint (joint.cpp): the values of two lives.
void bind_joint(PyObject* module);

namespace contingencies {

// The survival a contingency values, under the current settings. On most tables the table's own
// l vector. On a select table at a select duration d, a life aged x is at duration d + k at age
// x + k (the ultimate column once past the select period), as in a projection: each whole age
// then has its own l vector, along its diagonal, built from the duration columns, and a
// fractional age follows the diagonal of the whole age below it. The table functions (tpx, ...)
// keep reading the one column. Built with the GIL; run() touches no Python object.
class Lives {
public:
    // Refuses, with "[method] ...", a select table at a select duration that carries
    // modifications: they were made on one column and have no meaning along a diagonal.
    Lives(TableObject* t, std::string_view method);

    // `value(model, x, n, out)` (returning std::optional<kernels::Breakdown>) over every element,
    // on the model of each element's diagonal; the first breakdown of the call, if any.
    template <class Value>
    std::optional<kernels::Breakdown> run(std::span<const double> x, std::span<const double> n,
                                          std::span<double> out, Value&& value) const {
        if (!on_diagonal_) return value(model_, x, n, out);
        const auto w = static_cast<std::size_t>(model_.s.w);
        std::vector<double> l(w + 1);
        kernels::LifeModel path = model_;
        path.s.l = l;
        return kernels::by_diagonal(x, n, out, model_.s.eps, w,
                                    [&](std::size_t j, std::span<const double> xs, std::span<const double> ns,
                                        std::span<double> os) {
                                        kernels::diagonal_survivorship(diagonal_, j, radix_, l);
                                        return value(path, xs, ns, os);
                                    });
    }

    // True when the rates read hold a NaN (then so may every result).
    bool has_nan() const noexcept;
    // The table's l vector it was built on.
    PyObject* source() const noexcept { return keep_.get(); }

    // The model a life aged x follows, its diagonal's built in `l` when there is one (then valid
    // while `l` is): one life at a time, for the values of two lives.
    kernels::LifeModel model_at(double x, std::vector<double>& l) const {
        if (!on_diagonal_) return model_;
        const auto w = static_cast<std::size_t>(model_.s.w);
        l.resize(w + 1);
        kernels::diagonal_survivorship(diagonal_, std::min(kernels::diagonal_age(x, model_.s.eps), w), radix_, l);
        kernels::LifeModel path = model_;
        path.s.l = l;
        return path;
    }

private:
    py::ref keep_;              // the table's l vector
    kernels::LifeModel model_;  // on it; on a diagonal, its settings and w serve every path
    bool on_diagonal_ = false;
    py::ref rates_;  // the select columns, then the ultimate one, as the rows of a matrix
    kernels::SelectDiagonal diagonal_;
    double radix_ = 0.0;
};

// Ages x, validated (finite numbers) and within [0, w]; errors are prefixed "[method] ".
actuarial::Values checked_ages(TableObject* t, PyObject* x, std::string_view method);
// A term n: None for life (kernels::kWholeLife), else numbers >= 0, whole numbers of periods
// of 1/per_year years unless per_year is 0 (any real term).
actuarial::Values term(PyObject* n, int per_year, const char* method);
// ValueError unless x and n have one length (or one of them a single element).
void check_lengths(const actuarial::Values& x, const actuarial::Values& n, const char* method);
// A bool argument (True, False or a NumPy bool); TypeError naming it otherwise.
bool flag(PyObject* value, std::string_view method, std::string_view name);
// The table argument of a module function (TypeError unless a DecrementTable), ready to compute.
TableObject* table_argument(PyObject* module, PyObject* table, const char* method);
// The rate i of the call, or else the table's interest_rate; finite and > -1.
kernels::Interest interest(PyObject* table, PyObject* i, const char* method);
// m: 1, 2, 3, 4, 6 or 12, or None (kernels::kContinuous).
int frequency(PyObject* m, const char* method);
// A deferment >= 0 in whole periods of 1/per_year years (0 when not given).
double deferment(PyObject* defer, int per_year, const char* method);

}  // namespace contingencies
}  // namespace veltrane::decrement
