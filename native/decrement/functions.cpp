// The actuarial functions of a table at real ages: lx, px, qx and dx, the one-period engine
// shared by px, qx and tpx (a payment period of 1/m years), the lazily built l vectors, and
// the interpolation routines exposed on the class. tpx and tqx live in intervals.cpp.
// A single age never becomes an array: it goes straight to the inline kernels.
#include "decrement/functions.hpp"

#include "decrement/arguments.hpp"
#include "kernels/scan.hpp"

#include <cmath>
#include <string>

namespace veltrane::decrement {
namespace actuarial {

namespace {

bool truthy(PyObject* o) { return py::require(PyObject_IsTrue(o)) == 1; }

const char* probability_name(Probability kind) { return kind == Probability::px ? "px" : "qx"; }

}  // namespace

Values validated(PyObject* obj, std::string_view method, std::string_view attr) {
    numeric::Input in = numeric::validate_input(obj, {.method = method, .attr = attr, .read_only = true});
    Values v;
    v.array = std::move(in.array);
    v.value = in.value;
    v.scalar = in.scalar;
    return v;
}

Values converted(PyObject* obj) {
    Values v;
    v.array = numeric::as_f64_read_only(obj);
    return v;
}

bool any_negative(std::span<const double> values) noexcept {
    return kernels::find_first(values, [](double v) { return v < 0.0; }) < values.size();
}

double table_w(TableObject* t) {
    PyObject* w = t->w_mod.get();
    if (w != nullptr && PyLong_CheckExact(w)) {
        const long long v = PyLong_AsLongLong(w);
        if (v == -1 && PyErr_Occurred()) py::throw_error_set();
        return static_cast<double>(v);
    }
    // Anything integral (a NumPy integer written into the field) is read by its index value.
    if (w == nullptr || PyBool_Check(w) || (!PyLong_Check(w) && !PyArray_IsScalar(w, Integer))) {
        py::ref name = table_name(t);
        py::raise(PyExc_ValueError, "Table '%S' has no last age (w) in force.", name.get());
    }
    py::ref index = py::check(PyNumber_Index(w));
    const long long v = PyLong_AsLongLong(index.get());
    if (v == -1 && PyErr_Occurred()) py::throw_error_set();
    return static_cast<double>(v);
}

py::ref decrement_vector(TableObject* t) {
    if (t->decrement.is_none()) {
        py::ref name = table_name(t);
        py::raise(PyExc_ValueError, "Table '%S' has no decrement rates.", name.get());
    }
    return t->decrement.dup();
}

LVector survivorship(TableObject* t, const ConfigSnapshot& cfg, bool raw) {
    if (t->lx_raw.is_none() || t->lx.is_none()) {
        py::ref l_raw = compute_lx(t);
        py::ref l = py::copy_as_f64(l_raw.get());
        kernels::round_in_place(py::f64_span(l.get()), cfg.lx);
        t->lx_raw = std::move(l_raw);
        t->lx = std::move(l);
    }
    LVector out;
    out.keep = (raw ? t->lx_raw : t->lx).dup();
    out.view = {py::f64_cspan(out.keep.get()), table_w(t), cfg.interpolation, numeric::kEpsInt};
    return out;
}

void raise_negative_ages(TableObject* t, const char* prefix) {
    py::ref name = table_name(t);
    py::raise(PyExc_ValueError, "%sAll ages x must be >= 0 for table '%S'.", prefix, name.get());
}

void raise_fault(const kernels::RangeFault& fault, std::string_view caller) {
    numeric::raise_outside_unit_interval(fault.value, caller);
}

namespace {

constexpr std::string_view kIntervalCaller = "_prob_decrement_interval:px";

// A new vector of probabilities, one per age, filled piece by piece by `kernel(ages, out)`,
// which reports the first one outside [0, 1]. Kept out of line so that the scalar paths
// beside its callers stay lean.
template <class Kernel>
[[gnu::noinline]] py::ref checked_vector(std::span<const double> ages, Kernel& kernel) {
    py::ref out = py::new_f64(static_cast<npy_intp>(ages.size()));
    const std::span<double> o = py::f64_span(out.get());
    const std::optional<kernels::RangeFault> fault = run_in_pieces(ages.size(), [&](std::size_t b, std::size_t e) {
        return kernel(ages.subspan(b, e - b), o.subspan(b, e - b));
    });
    if (fault) raise_fault(*fault, kIntervalCaller);
    return out;
}

}  // namespace

py::ref decrement_interval(TableObject* t, Probability kind, const Values& x, double m, bool use_raw,
                           bool scalar_result) {
    const ConfigSnapshot cfg = config(t->st);
    const kernels::Finish finish = kind == Probability::px ? kernels::Finish{false, cfg.px}
                                                           : kernels::Finish{true, decimals_for_decrement(t)};
    const std::span<const double> ages = x.view();
    const std::size_t n = ages.size();
    if (scalar_result && n != 1) {
        py::raise(PyExc_TypeError, "_prob_decrement_interval: a scalar result needs one age, got %zd",
                  static_cast<Py_ssize_t>(n));
    }
    // Rates or l values edited by hand can give a ratio outside [0, 1] on any path, so every
    // path checks it (and clamps what lies within the tolerance), not only the sub-annual one.
    auto single = [&](double p) {
        if (!kernels::within_unit_interval(p, numeric::kEpsInt)) [[unlikely]] {
            raise_fault({0, p}, kIntervalCaller);
        }
        return float_result(finish(kernels::clamp_unit(p)));
    };
    auto vector = [ages](auto&& kernel) { return checked_vector(ages, kernel); };
    if (m == 1.0) {
        if (!scalar_result) {
            const py::ref q = decrement_vector(t);
            const std::span<const double> rates = py::f64_cspan(q.get());
            const double w = table_w(t);
            auto fill = [&](std::span<double> lookup) {
                for (std::size_t k = 0; k < lookup.size(); ++k) {
                    const double p = kernels::survival_from_rate(rates, w, static_cast<double>(k));
                    if (!kernels::within_unit_interval(p, numeric::kEpsInt)) return false;
                    lookup[k] = finish(kernels::clamp_unit(p));
                }
                return true;
            };
            if (py::ref whole = gathered(t, kernels::lookup_size(rates.size(), w), ages, fill)) return whole;
        }
        // Integer ages read the table's own rates; any fractional age sends all through l.
        if (kernels::all_integer_ages(ages, numeric::kEpsInt)) {
            const py::ref q = decrement_vector(t);
            const std::span<const double> rates = py::f64_cspan(q.get());
            const double w = table_w(t);
            if (scalar_result) return single(kernels::survival_from_rate(rates, w, ages[0]));
            return vector([&](std::span<const double> piece, std::span<double> o) {
                return kernels::survival_from_rates(rates, w, piece, numeric::kEpsInt, finish, o);
            });
        }
        const LVector l = survivorship(t, cfg, use_raw);
        if (scalar_result) return single(kernels::period_survival(l.view, ages[0], 1.0));
        return vector([&](std::span<const double> piece, std::span<double> o) {
            return kernels::period_survivals(l.view, piece, 1.0, finish, o);
        });
    }
    const double period = 1.0 / m;
    const LVector l = survivorship(t, cfg, use_raw);
    const kernels::Rounder lx_round(cfg.lx);
    if (scalar_result) return single(kernels::period_survival_single(l.view, ages[0], period, lx_round));
    return vector([&](std::span<const double> piece, std::span<double> o) {
        return kernels::period_survivals(l.view, piece, period, finish, o, &lx_round);
    });
}

namespace {

// ---- px and qx over the whole table (cached, handed out as copies) ----------------------

PyObject* cached_vector(TableObject* t, Probability kind) {
    py::ref& cache = kind == Probability::px ? t->px : t->qx;
    if (cache.is_none()) {
        const ConfigSnapshot cfg = config(t->st);
        const kernels::Finish finish = kind == Probability::px ? kernels::Finish{true, cfg.px}
                                                               : kernels::Finish{false, decimals_for_decrement(t)};
        const py::ref q = decrement_vector(t);
        const std::span<const double> rates = py::f64_cspan(q.get());
        py::ref values = py::new_f64(static_cast<npy_intp>(rates.size()));
        const std::optional<kernels::RangeFault> fault =
            kernels::finish_rates(rates, finish, numeric::kEpsInt, py::f64_span(values.get()));
        if (fault) raise_fault(*fault, probability_name(kind));
        cache = std::move(values);
    }
    return py::require(PyArray_NewCopy(reinterpret_cast<PyArrayObject*>(cache.get()), NPY_CORDER));
}

constexpr std::array<const char*, 2> kXM = {"x", "m"};
constexpr std::array<const char*, 1> kX = {"x"};

PyObject* one_period(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, Probability kind) {
    return py::guard([&]() -> PyObject* {
        const char* name = probability_name(kind);
        const Arguments<2> a = parse_arguments(name, kXM, 0, args, nargs, kwnames);
        TableObject* t = as_table(self);
        ensure_ready(t, name);
        PyObject* x = a.get(0, Py_None);
        if (x == Py_None) return cached_vector(t, kind);
        const Values ages = validated(x, name, "x");
        const double m = a.given(1) ? numeric::payment_frequency(a.values[1], name) : 1.0;
        if (any_negative(ages.view())) raise_negative_ages(t, "");
        return decrement_interval(t, kind, ages, m, false, ages.scalar).release();
    });
}

PyObject* Table_px(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return one_period(self, args, nargs, kwnames, Probability::px);
}

PyObject* Table_qx(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return one_period(self, args, nargs, kwnames, Probability::qx);
}

PyObject* Table_prob_decrement_interval(PyObject* self, PyObject* const* args, Py_ssize_t nargs,
                                        PyObject* kwnames) {
    static constexpr std::array<const char*, 6> names = {"prob_type", "x",       "m",
                                                         "validate",  "use_raw", "is_scalar_x_hint"};
    return py::guard([&]() -> PyObject* {
        const Arguments<6> a = parse_arguments("_prob_decrement_interval", names, 2, args, nargs, kwnames);
        TableObject* t = as_table(self);
        ensure_ready(t, "_prob_decrement_interval");
        PyObject* prob_type = a.values[0];
        Probability kind;
        if (str_equals(prob_type, "px")) {
            kind = Probability::px;
        } else if (str_equals(prob_type, "qx")) {
            kind = Probability::qx;
        } else {
            py::raise(PyExc_ValueError, "_prob_decrement_interval: prob_type must be 'px' or 'qx'");
        }
        const char* name = probability_name(kind);
        const bool validate = truthy(a.get(3, Py_True));
        const bool use_raw = truthy(a.get(4, Py_False));
        Values ages = validate ? validated(a.values[1], name, "x") : converted(a.values[1]);
        const double m = a.given(2) ? numeric::payment_frequency(a.values[2], name) : 1.0;
        if (validate) {
            if (any_negative(ages.view())) raise_negative_ages(t, "");
        } else {
            ages.scalar = truthy(a.get(5, Py_None));
        }
        return decrement_interval(t, kind, ages, m, use_raw, ages.scalar).release();
    });
}

// ---- lx and dx -----------------------------------------------------------------------------

// Values at the ages `in`: through one lookup of `point` at every integer age when all ages are
// whole, otherwise `kernel` over the ages in interruptible pieces.
template <class Point, class Kernel>
py::ref at_ages(TableObject* t, const LVector& l, std::span<const double> in, Point&& point, Kernel&& kernel) {
    auto fill = [&](std::span<double> lookup) {
        for (std::size_t k = 0; k < lookup.size(); ++k) lookup[k] = point(static_cast<double>(k));
        return true;
    };
    if (py::ref whole = gathered(t, kernels::lookup_size(l.view.l.size(), l.view.w), in, fill)) return whole;
    py::ref out = py::new_f64(static_cast<npy_intp>(in.size()));
    const std::span<double> o = py::f64_span(out.get());
    run_unchecked_in_pieces(in.size(), [&](std::size_t b, std::size_t e) { kernel(in.subspan(b, e - b), o.subspan(b, e - b)); });
    return out;
}

PyObject* Table_lx(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&]() -> PyObject* {
        const Arguments<1> a = parse_arguments("lx", kX, 0, args, nargs, kwnames);
        TableObject* t = as_table(self);
        ensure_ready(t, "lx");
        const ConfigSnapshot cfg = config(t->st);
        PyObject* x = a.get(0, Py_None);
        if (x == Py_None) {
            // Every integer age 0..w.
            const LVector l = survivorship(t, cfg, false);
            const npy_intp n = l.view.w < 0.0 ? 0 : static_cast<npy_intp>(l.view.w) + 1;
            py::ref out = py::new_f64(n);
            kernels::survivors_by_age(l.view, kernels::Rounder(cfg.lx), py::f64_span(out.get()));
            return out.release();
        }
        const Values ages = validated(x, "lx", "x");
        if (any_negative(ages.view())) raise_negative_ages(t, "[lx] ");
        const LVector l = survivorship(t, cfg, false);
        if (ages.scalar) return new_float(kernels::round_to(kernels::lx_point(l.view, ages.value), cfg.lx));
        const kernels::Rounder round(cfg.lx);
        return at_ages(
                   t, l, ages.view(), [&](double k) { return round(kernels::lx_point(l.view, k)); },
                   [&](std::span<const double> part, std::span<double> o) { kernels::survivors_rounded(l.view, part, round, o); })
            .release();
    });
}

PyObject* Table_lx_at(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 2> names = {"x_arr", "use_raw"};
    return py::guard([&]() -> PyObject* {
        const Arguments<2> a = parse_arguments("_lx_at", names, 1, args, nargs, kwnames);
        TableObject* t = as_table(self);
        const bool use_raw = truthy(a.get(1, Py_False));
        const Values ages = converted(a.values[0]);
        const ConfigSnapshot cfg = config(t->st);
        const LVector l = survivorship(t, cfg, use_raw);
        const std::span<const double> in = ages.view();
        py::ref out = py::new_f64(static_cast<npy_intp>(in.size()));
        const std::span<double> o = py::f64_span(out.get());
        run_unchecked_in_pieces(in.size(), [&](std::size_t b, std::size_t e) {
            kernels::survivors(l.view, in.subspan(b, e - b), o.subspan(b, e - b));
        });
        return out.release();
    });
}

PyObject* Table_dx(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&]() -> PyObject* {
        const Arguments<1> a = parse_arguments("dx", kX, 0, args, nargs, kwnames);
        TableObject* t = as_table(self);
        ensure_ready(t, "dx");
        const ConfigSnapshot cfg = config(t->st);
        PyObject* x = a.get(0, Py_None);
        if (x == Py_None) {
            const LVector l = survivorship(t, cfg, false);
            py::ref out = py::new_f64(static_cast<npy_intp>(l.view.l.size()));
            kernels::decrements_by_age(l.view.l, kernels::Rounder(cfg.dx), py::f64_span(out.get()));
            return out.release();
        }
        const Values ages = validated(x, "dx", "x");
        if (any_negative(ages.view())) raise_negative_ages(t, "");
        const LVector l = survivorship(t, cfg, false);
        if (ages.scalar) return new_float(kernels::decrement_point(l.view, ages.value, kernels::Rounder(cfg.dx)));
        const kernels::Rounder round(cfg.dx);
        return at_ages(
                   t, l, ages.view(), [&](double k) { return kernels::decrement_point(l.view, k, round); },
                   [&](std::span<const double> part, std::span<double> o) { kernels::decrements(l.view, part, round, o); })
            .release();
    });
}

// ---- the interpolation routines of the class --------------------------------------------------

PyObject* interpolate(PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, kernels::Interpolation method) {
    static constexpr std::array<const char*, 3> names = {"lx", "x", "frac"};
    const bool linear = method == kernels::Interpolation::linear;
    const char* function = linear ? "_lx_interpolation_linear"
                           : method == kernels::Interpolation::exponential ? "_lx_interpolation_exponential"
                                                                           : "_lx_interpolation_hyperbolic";
    const Arguments<3> a = parse_arguments(function, names, 3, args, nargs, kwnames);
    const py::ref l_arr = numeric::as_f64_read_only(a.values[0]);
    const py::ref x_arr = numeric::as_f64_read_only(a.values[1]);
    const py::ref f_arr = numeric::as_f64_read_only(a.values[2]);
    const std::span<const double> l = py::f64_cspan(l_arr.get());
    const std::span<const double> x = py::f64_cspan(x_arr.get());
    const std::span<const double> frac = py::f64_cspan(f_arr.get());
    if (x.size() != frac.size()) {
        py::raise(PyExc_ValueError, "%s: x and frac must have the same length, got %zd and %zd", function,
                  static_cast<Py_ssize_t>(x.size()), static_cast<Py_ssize_t>(frac.size()));
    }
    py::ref out = py::new_f64(static_cast<npy_intp>(x.size()));
    double* o = py::f64_data(out.get());
    const auto size = static_cast<double>(l.size());
    for (std::size_t k = 0; k < x.size(); ++k) {
        const double i = x[k];
        // Linear reads l[i + 1] as given; exponential and hyperbolic limit it to the last index.
        const double top = linear ? i + 1.0 : i;
        if (!(i >= 0.0 && top < size && i == std::floor(i))) {
            py::ref value = py::check(PyFloat_FromDouble(i));
            py::raise(PyExc_IndexError, "%s: index %R is out of bounds for an l vector of size %zd", function,
                      value.get(), static_cast<Py_ssize_t>(l.size()));
        }
        const auto lo = static_cast<std::size_t>(i);
        const std::size_t hi = lo + 1 < l.size() ? lo + 1 : l.size() - 1;
        o[k] = linear ? kernels::interpolate_linear(l[lo], l[hi], frac[k]) : kernels::interpolate(l[lo], l[hi], frac[k], method);
    }
    return out.release();
}

PyObject* lx_interpolation_linear(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] { return interpolate(args, nargs, kwnames, kernels::Interpolation::linear); });
}

PyObject* lx_interpolation_exponential(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] { return interpolate(args, nargs, kwnames, kernels::Interpolation::exponential); });
}

PyObject* lx_interpolation_hyperbolic(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] { return interpolate(args, nargs, kwnames, kernels::Interpolation::hyperbolic); });
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

PyMethodDef interpolation_defs[] = {
    {"_lx_interpolation_linear", FASTCALL_KW(lx_interpolation_linear), METH_FASTCALL | METH_KEYWORDS,
     "_lx_interpolation_linear(lx, x, frac)\n--\n\n"
     "Linear survivorship between integer ages (uniform distribution of decrements):\n"
     "``lx[x] + (lx[x + 1] - lx[x]) * frac``, element by element."},
    {"_lx_interpolation_exponential", FASTCALL_KW(lx_interpolation_exponential), METH_FASTCALL | METH_KEYWORDS,
     "_lx_interpolation_exponential(lx, x, frac)\n--\n\n"
     "Exponential survivorship between integer ages (constant force of decrement):\n"
     "``lx[x] * (lx[hi] / lx[x]) ** frac`` with ``hi = min(x + 1, len(lx) - 1)``; 0 where ``lx[x]`` is 0."},
    {"_lx_interpolation_hyperbolic", FASTCALL_KW(lx_interpolation_hyperbolic), METH_FASTCALL | METH_KEYWORDS,
     "_lx_interpolation_hyperbolic(lx, x, frac)\n--\n\n"
     "Hyperbolic survivorship between integer ages (Balducci): ``1 / l = (1 - frac) / lx[x] + frac / lx[hi]``\n"
     "with ``hi = min(x + 1, len(lx) - 1)``; 0 where ``lx[x]`` is 0."},
};

}  // namespace
}  // namespace actuarial

void add_function_class_entries(ModuleState*, PyObject* ns) {
    py::ref module_name = py::check(PyUnicode_FromString("veltrane.tables.decrement"));
    py::ref routines = py::check(PyDict_New());
    const char* keys[] = {"linear", "exponential", "hyperbolic"};
    for (std::size_t i = 0; i < 3; ++i) {
        PyMethodDef* def = &actuarial::interpolation_defs[i];
        py::ref function = py::check(PyCFunction_NewEx(def, nullptr, module_name.get()));
        py::ref method = py::check(PyStaticMethod_New(function.get()));
        py::require(PyDict_SetItemString(ns, def->ml_name, method.get()));
        // The map holds the function objects themselves, as a class body's names would.
        py::require(PyDict_SetItemString(routines.get(), keys[i], function.get()));
    }
    py::require(PyDict_SetItemString(ns, "_LX_INTERPOLATION_MAP", routines.get()));
}

PyMethodDef function_methods[] = {
    {"lx", FASTCALL_KW(actuarial::Table_lx), METH_FASTCALL | METH_KEYWORDS,
     "lx($self, /, x=None)\n--\n\n"
     "Survivors l(x) at real ages out of the radix of 1,000,000, rounded to ``decimals.lx``.\n\n"
     "Exact at integer ages, interpolated between them by ``Config().lx_interpolation``, 0 above ``w``.\n\n"
     "Parameters\n----------\n"
     "x : float, sequence, ndarray, pandas or Polars Series, or None\n"
     "    Ages (>= 0). None gives l at every integer age 0..w.\n\n"
     "Returns\n-------\nfloat or ndarray\n    A float for a scalar age, otherwise a float64 vector."},
    {"px", FASTCALL_KW(actuarial::Table_px), METH_FASTCALL | METH_KEYWORDS,
     "px($self, /, x=None, m=1)\n--\n\n"
     "Probability of staying in the initial state for one period of 1/m years from age x,\n"
     "l(x + 1/m) / l(x), rounded to ``decimals.px``.\n\n"
     "Parameters\n----------\n"
     "x : float, sequence, ndarray, pandas or Polars Series, or None\n"
     "    Ages (>= 0). None gives the one-year rates 1 - q at every age 0..w (``m`` is then ignored).\n"
     "m : {1, 2, 3, 4, 6, 12}\n    Payments per year.\n\n"
     "Returns\n-------\nfloat or ndarray\n    A float for a scalar age, otherwise a float64 vector (a new copy)."},
    {"qx", FASTCALL_KW(actuarial::Table_qx), METH_FASTCALL | METH_KEYWORDS,
     "qx($self, /, x=None, m=1)\n--\n\n"
     "Probability of leaving the initial state within one period of 1/m years from age x,\n"
     "1 - l(x + 1/m) / l(x), rounded to the decimals of the table's rate type.\n\n"
     "Parameters\n----------\n"
     "x : float, sequence, ndarray, pandas or Polars Series, or None\n"
     "    Ages (>= 0). None gives the table's one-year rates at every age 0..w (``m`` is then ignored).\n"
     "m : {1, 2, 3, 4, 6, 12}\n    Payments per year.\n\n"
     "Returns\n-------\nfloat or ndarray\n    A float for a scalar age, otherwise a float64 vector (a new copy)."},
    {"tpx", FASTCALL_KW(actuarial::Table_tpx), METH_FASTCALL | METH_KEYWORDS,
     "tpx($self, /, x, t=1)\n--\n\n"
     "Probability that a life aged x stays in the initial state for t years, l(x + t) / l(x),\n"
     "rounded to ``decimals.tpx``. With t = 1 at integer ages it equals ``px(x)``.\n\n"
     "Parameters\n----------\n"
     "x : float, sequence, ndarray, pandas or Polars Series\n    Ages (>= 0).\n"
     "t : float, sequence, ndarray, pandas or Polars Series\n    Durations in years (>= 0).\n\n"
     "Returns\n-------\nfloat or ndarray\n"
     "    A float for scalar x and t; a vector over t for scalar x, over x for scalar t; otherwise\n"
     "    a matrix with one row per age and one column per duration."},
    {"tqx", FASTCALL_KW(actuarial::Table_tqx), METH_FASTCALL | METH_KEYWORDS,
     "tqx($self, /, x, t=1)\n--\n\n"
     "Probability that a life aged x leaves the initial state within t years, 1 - l(x + t) / l(x),\n"
     "rounded to ``decimals.tqx``. Shapes as for ``tpx``.\n\n"
     "Parameters\n----------\n"
     "x : float, sequence, ndarray, pandas or Polars Series\n    Ages (>= 0).\n"
     "t : float, sequence, ndarray, pandas or Polars Series\n    Durations in years (>= 0).\n\n"
     "Returns\n-------\nfloat or ndarray"},
    {"dx", FASTCALL_KW(actuarial::Table_dx), METH_FASTCALL | METH_KEYWORDS,
     "dx($self, /, x=None)\n--\n\n"
     "Expected decrements between ages x and x + 1 out of the radix, l(x) - l(x + 1), rounded to\n"
     "``decimals.dx``.\n\n"
     "Parameters\n----------\n"
     "x : float, sequence, ndarray, pandas or Polars Series, or None\n"
     "    Ages (>= 0). None gives d at every integer age 0..w (the last being l(w)).\n\n"
     "Returns\n-------\nfloat or ndarray"},
    {"_lx_at", FASTCALL_KW(actuarial::Table_lx_at), METH_FASTCALL | METH_KEYWORDS,
     "_lx_at($self, /, x_arr, use_raw=False)\n--\n\n"
     "l at real ages as a float64 vector, unrounded evaluation on the rounded (or, with use_raw,\n"
     "the unrounded) l vector. Builds the l vectors on first use; does not validate the ages."},
    {"_prob_decrement_interval", FASTCALL_KW(actuarial::Table_prob_decrement_interval),
     METH_FASTCALL | METH_KEYWORDS,
     "_prob_decrement_interval($self, /, prob_type, x, m=1, validate=True, use_raw=False, is_scalar_x_hint=None)\n--\n\n"
     "The engine of px and qx: 'px' or 'qx' for one period of 1/m years from ages x."},
    {"_prob_life_interval", FASTCALL_KW(actuarial::Table_prob_life_interval), METH_FASTCALL | METH_KEYWORDS,
     "_prob_life_interval($self, /, prob_type, x, t=1, validate=True, use_raw=False)\n--\n\n"
     "The engine of tpx and tqx: 'tpx' or 'tqx' for ages x and durations t."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
