// The table's functions of the future lifetime: the expectation of life ex(x, n=None,
// complete=False), the force of decrement mu(x) and lifetime_quantile(x, p). Unrounded, on the
// unrounded l vector, exact under the configured interpolation; the year after w as in
// kernels/contingencies.hpp. On a select table at a select duration each age follows its select
// diagonal (contingencies.hpp).
#include "decrement/contingencies.hpp"

#include "decrement/arguments.hpp"
#include "decrement/contingency_cache.hpp"

#include <cmath>
#include <string>

namespace veltrane::decrement {
namespace {

using actuarial::Values;
using Value = std::optional<kernels::Breakdown>;

// Every integer age 0..w.
Values every_age(TableObject* t) {
    const double w = actuarial::table_w(t);
    const npy_intp count = w < 0.0 ? 0 : static_cast<npy_intp>(w) + 1;
    Values ages;
    ages.array = py::new_f64(count);
    double* data = py::f64_data(ages.array.get());
    for (npy_intp i = 0; i < count; ++i) data[i] = static_cast<double>(i);
    return ages;
}

// `value(model, x, other, out)` over the broadcast length of x and `other` (a second argument
// paired element by element); a float when both were single numbers.
template <class Kernel>
PyObject* over_lives(const contingencies::Lives& lives, const Values& x, const Values& other, Kernel&& value) {
    const std::size_t count = x.scalar       ? other.size()
                              : other.scalar ? x.size()
                              : x.size() == 1 ? other.size()
                                              : x.size();
    if (x.scalar && other.scalar) {
        double result = 0.0;
        lives.run(x.view(), other.view(), std::span<double>(&result, 1), value);
        return actuarial::new_float(result);
    }
    py::ref out = py::new_f64(static_cast<npy_intp>(count));
    const std::span<double> o = py::f64_span(out.get());
    actuarial::run_piece(count, [&] { return lives.run(x.view(), other.view(), o, value); });
    return out.release();
}

// A single number, read by no kernel, broadcast over every age.
Values unused() {
    Values none;
    none.scalar = true;
    return none;
}

PyObject* Table_ex(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 3> names = {"x", "n", "complete"};
    return py::guard([&]() -> PyObject* {
        const Arguments<3> a = parse_arguments("ex", names, 0, args, nargs, kwnames);
        TableObject* t = as_table(self);
        ensure_ready(t, "ex");
        const std::optional<contingencies::Scalar> scalar =
            contingencies::enabled(t) ? contingencies::expectation_call(a.values) : std::nullopt;
        if (scalar) {
            if (const std::optional<double> v = contingencies::cached(t, scalar->key, scalar->x)) {
                return PyFloat_FromDouble(*v);
            }
        }
        PyObject* x = a.get(0, Py_None);
        const Values ages = x == Py_None ? every_age(t) : contingencies::checked_ages(t, x, "ex");
        const bool complete = a.given(2) ? contingencies::flag(a.values[2], "ex", "complete") : false;
        PyObject* n = a.get(1, Py_None);
        if (n == Py_None) {
            const contingencies::Lives lives(t, "ex");
            auto kernel = [&](const kernels::LifeModel& life, std::span<const double> xs, std::span<const double>,
                              std::span<double> out) -> Value {
                kernels::expectation(life, xs, complete, out);
                return std::nullopt;
            };
            if (const std::optional<double> v = contingencies::column_value(t, scalar, 0.0, lives, kernel)) {
                return PyFloat_FromDouble(*v);
            }
            return over_lives(lives, ages, unused(), kernel);
        }
        // Over a term, the expectations are annuities at i = 0: the complete one paid
        // continuously, the curtate one of 1 at the end of each whole year survived.
        const Values term = contingencies::term(n, complete ? 0 : 1, "ex");
        contingencies::check_lengths(ages, term, "ex");
        const contingencies::Lives lives(t, "ex");
        const kernels::Interest none(0.0);
        const kernels::Payments payments{complete ? kernels::kContinuous : 1, false, 0.0};
        auto kernel = [&](const kernels::LifeModel& life, std::span<const double> xs, std::span<const double> ns,
                          std::span<double> out) -> Value {
            kernels::annuity(life, none, payments, xs, ns, out);
            return std::nullopt;
        };
        if (const std::optional<double> v = contingencies::column_value(t, scalar, 0.0, lives, kernel)) {
            return PyFloat_FromDouble(*v);
        }
        return over_lives(lives, ages, term, kernel);
    });
}

PyObject* Table_mu(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 1> names = {"x"};
    return py::guard([&]() -> PyObject* {
        const Arguments<1> a = parse_arguments("mu", names, 0, args, nargs, kwnames);
        TableObject* t = as_table(self);
        ensure_ready(t, "mu");
        PyObject* x = a.get(0, Py_None);
        const Values ages = x == Py_None ? every_age(t) : contingencies::checked_ages(t, x, "mu");
        const contingencies::Lives lives(t, "mu");
        return over_lives(lives, ages, unused(),
                          [&](const kernels::LifeModel& life, std::span<const double> xs, std::span<const double>,
                              std::span<double> out) -> Value {
                              kernels::hazard(life, xs, out);
                              return std::nullopt;
                          });
    });
}

PyObject* Table_lifetime_quantile(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 2> names = {"x", "p"};
    return py::guard([&]() -> PyObject* {
        const Arguments<2> a = parse_arguments("lifetime_quantile", names, 2, args, nargs, kwnames);
        TableObject* t = as_table(self);
        ensure_ready(t, "lifetime_quantile");
        const Values ages = contingencies::checked_ages(t, a.values[0], "lifetime_quantile");
        const Values p = actuarial::validated(a.values[1], "lifetime_quantile", "p");
        for (double v : p.view()) {
            if (!(v > 0.0 && v < 1.0)) {
                py::raise_str(PyExc_ValueError, "[lifetime_quantile] p must lie strictly between 0 and 1, got " +
                                                    numeric::number_text(v));
            }
        }
        if (!ages.scalar && !p.scalar && ages.size() != p.size() && ages.size() != 1 && p.size() != 1) {
            py::raise(PyExc_ValueError, "[lifetime_quantile] x and p must have the same length, got %zd and %zd",
                      static_cast<Py_ssize_t>(ages.size()), static_cast<Py_ssize_t>(p.size()));
        }
        const contingencies::Lives lives(t, "lifetime_quantile");
        return over_lives(lives, ages, p,
                          [&](const kernels::LifeModel& life, std::span<const double> xs, std::span<const double> ps,
                              std::span<double> out) -> Value {
                              kernels::lifetime_quantile(life, xs, ps, out);
                              return std::nullopt;
                          });
    });
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

}  // namespace

PyMethodDef expectation_methods[] = {
    {"ex", FASTCALL_KW(Table_ex), METH_FASTCALL | METH_KEYWORDS,
     "ex($self, /, x=None, n=None, complete=False)\n--\n\n"
     "Expectation of life (of time in the initial state) at age x, not rounded.\n\n"
     "Curtate: e(x) = sum over k >= 1 of l(x + k) / l(x). Complete: the integral of l(x + t) / l(x)\n"
     "over t >= 0, exact under ``Config().lx_interpolation``. With a term n, the temporary\n"
     "expectation: the sum over 1 <= k <= n (whole years), or the integral over 0 <= t <= n (any\n"
     "n >= 0). In the year after ``w`` the survivors at\n"
     "``w`` leave uniformly, so the complete expectation at ``w`` is 1/2. Computed on the unrounded\n"
     "survivorship; 0 at an age where no life remains. On a select table at a select duration d a\n"
     "life aged x is at duration d + k at age x + k (the ultimate column after the select period;\n"
     "a fractional age on the diagonal of the whole age below it), unlike ``tpx``, which reads the\n"
     "one column; a modified select table is refused there (see ``select_path``).\n\n"
     "Parameters\n----------\n"
     "x : float, sequence, ndarray, pandas or Polars Series, or None\n"
     "    Ages in [0, w], fractional ages too. None gives every integer age 0..w.\n"
     "n : float or array-like, optional\n"
     "    Term in years, paired element by element with x; None for the whole lifetime.\n"
     "complete : bool, default False\n    The complete expectation instead of the curtate one.\n\n"
     "Returns\n-------\nfloat or ndarray\n    A float for a scalar age and term, otherwise a float64 vector."},
    {"mu", FASTCALL_KW(Table_mu), METH_FASTCALL | METH_KEYWORDS,
     "mu($self, /, x=None)\n--\n\n"
     "The force of decrement (of mortality, on a life table) at age x, not rounded.\n\n"
     "-l'(x) / l(x) under ``Config().lx_interpolation``: q / (1 - f q) (linear), -ln(1 - q)\n"
     "(exponential) or q / (1 - (1 - f) q) (hyperbolic) at x = j + f in the year of age j with rate q.\n"
     "At a whole age it is the value at the start of the year of age that begins there (the\n"
     "right-hand limit), so it is defined at every age; at ``w`` it is 1 (the survivors at ``w``\n"
     "leave uniformly over the year after), and 0 where no life remains. A select table at a\n"
     "select duration follows the select diagonal, as ``ex`` does.\n\n"
     "Parameters\n----------\n"
     "x : float, sequence, ndarray, or None\n"
     "    Ages in [0, w]. None gives every integer age 0..w.\n\n"
     "Returns\n-------\nfloat or ndarray"},
    {"lifetime_quantile", FASTCALL_KW(Table_lifetime_quantile), METH_FASTCALL | METH_KEYWORDS,
     "lifetime_quantile($self, /, x, p)\n--\n\n"
     "The p-quantile of the future lifetime at age x: the t with tqx(x, t) = p, not rounded.\n\n"
     "Exact under ``Config().lx_interpolation`` (the interpolation is inverted within the year in\n"
     "which l falls to (1 - p) l(x)); ``p=0.5`` gives the median. The survivors at ``w`` leave\n"
     "uniformly over the year after, so t <= w + 1 - x. 0 where no life remains. A select table\n"
     "at a select duration follows the select diagonal, as ``ex`` does.\n\n"
     "Parameters\n----------\n"
     "x : float or array-like\n    Ages in [0, w].\n"
     "p : float or array-like\n    Probabilities strictly between 0 and 1, paired element by element with x.\n\n"
     "Returns\n-------\nfloat or ndarray"},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
