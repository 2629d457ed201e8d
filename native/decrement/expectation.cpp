// The expectation of life of a table, ex(x, complete=False): curtate from the survivors at the
// whole years that follow x, complete from the integral of l in closed form under the configured
// interpolation. Unrounded, on the unrounded l vector; the year after w as in kernels/contingencies.hpp.
// On a select table at a select duration each age follows its select diagonal (contingencies.hpp).
#include "decrement/contingencies.hpp"

#include "decrement/arguments.hpp"

namespace veltrane::decrement {
namespace {

using actuarial::Values;

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

PyObject* Table_ex(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 2> names = {"x", "complete"};
    return py::guard([&]() -> PyObject* {
        const Arguments<2> a = parse_arguments("ex", names, 0, args, nargs, kwnames);
        TableObject* t = as_table(self);
        ensure_ready(t, "ex");
        PyObject* x = a.get(0, Py_None);
        const Values ages = x == Py_None ? every_age(t) : contingencies::checked_ages(t, x, "ex");
        const bool complete = a.given(1) ? contingencies::flag(a.values[1], "ex", "complete") : false;
        const contingencies::Lives lives(t, "ex");
        auto expectation = [&](const kernels::LifeModel& life, std::span<const double> xs, std::span<const double>,
                               std::span<double> out) -> std::optional<kernels::Breakdown> {
            kernels::expectation(life, xs, complete, out);
            return std::nullopt;
        };
        const double no_term = 0.0;  // broadcast over every age, unread
        const std::span<const double> n(&no_term, 1);
        if (ages.scalar) {
            double value = 0.0;
            lives.run(ages.view(), n, std::span<double>(&value, 1), expectation);
            return actuarial::new_float(value);
        }
        const std::span<const double> in = ages.view();
        py::ref out = py::new_f64(static_cast<npy_intp>(in.size()));
        const std::span<double> o = py::f64_span(out.get());
        actuarial::run_piece(in.size(), [&] { lives.run(in, n, o, expectation); });
        return out.release();
    });
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

}  // namespace

PyMethodDef expectation_methods[] = {
    {"ex", FASTCALL_KW(Table_ex), METH_FASTCALL | METH_KEYWORDS,
     "ex($self, /, x=None, complete=False)\n--\n\n"
     "Expectation of life (of time in the initial state) at age x, not rounded.\n\n"
     "Curtate: e(x) = sum over k >= 1 of l(x + k) / l(x). Complete: the integral of l(x + t) / l(x)\n"
     "over t >= 0, exact under ``Config().lx_interpolation``. In the year after ``w`` the survivors at\n"
     "``w`` leave uniformly, so the complete expectation at ``w`` is 1/2. Computed on the unrounded\n"
     "survivorship; 0 at an age where no life remains. On a select table at a select duration d a\n"
     "life aged x is at duration d + k at age x + k (the ultimate column after the select period;\n"
     "a fractional age on the diagonal of the whole age below it), unlike ``tpx``, which reads the\n"
     "one column; a modified select table is refused there (see ``select_path``).\n\n"
     "Parameters\n----------\n"
     "x : float, sequence, ndarray, pandas or Polars Series, or None\n"
     "    Ages in [0, w], fractional ages too. None gives every integer age 0..w.\n"
     "complete : bool, default False\n    The complete expectation instead of the curtate one.\n\n"
     "Returns\n-------\nfloat or ndarray\n    A float for a scalar age, otherwise a float64 vector."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
