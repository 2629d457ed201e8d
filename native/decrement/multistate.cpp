// The module functions behind veltrane.multistate.DisabilityModel. The Python class gathers each
// table's rates (rows by duration, ages 0..w, rounded as the table shows them) and hands them
// down as a tuple; here they are checked, the ages, terms and options validated, and the chain
// kernels run (without the GIL for long vectors). Nothing is cached: every call reads its inputs.
#include "decrement/multistate.hpp"

#include "decrement/arguments.hpp"
#include "decrement/functions.hpp"
#include "kernels/multistate.hpp"
#include "pyutil/module_functions.hpp"

#include <array>
#include <cmath>
#include <limits>
#include <string>

namespace veltrane::decrement {
namespace multistate {

namespace {

namespace ms = kernels::multistate;
using numeric::number_text;

// Largest number of years of a state path: far beyond any table, small enough that the
// output's size cannot overflow.
constexpr double kMaxYears = 100000.0;
// The rate sums of a year may exceed 1 by this much (rounding), no more.
constexpr double kSumTolerance = 1e-12;

[[noreturn]] void refuse(const char* method, const std::string& what) {
    py::raise_str(PyExc_ValueError, "[" + std::string(method) + "] " + what);
}

bool flag(PyObject* value, const char* method, const char* name) {
    if (PyBool_Check(value) || PyArray_IsScalar(value, Bool)) return py::require(PyObject_IsTrue(value)) == 1;
    py::ref type = type_name_of(value);
    py::raise(PyExc_TypeError, "[%s] %s must be True or False, got %U", method, name, type.get());
}

// The rates of one move and the arrays that hold them for the kernel's duration.
struct Held {
    std::array<py::ref, 4> arrays;
    ms::Model model;
};

ms::Rates rates_of(PyObject* item, bool ends_life, py::ref& keep) {
    PyObject* matrix = nullptr;
    Py_ssize_t first = 0;
    if (!PyTuple_Check(item) || PyTuple_GET_SIZE(item) != 2) {
        py::raise(PyExc_TypeError, "_disability rates: each item must be a (rates, first row) pair");
    }
    matrix = PyTuple_GET_ITEM(item, 0);
    first = PyLong_AsSsize_t(PyTuple_GET_ITEM(item, 1));
    if (first == -1 && PyErr_Occurred()) py::throw_error_set();
    keep = py::check(PyArray_FROM_OTF(matrix, NPY_FLOAT64, NPY_ARRAY_IN_ARRAY));
    auto* array = reinterpret_cast<PyArrayObject*>(keep.get());
    if (PyArray_NDIM(array) != 2 || PyArray_DIM(array, 0) < 1) {
        py::raise(PyExc_ValueError, "_disability rates: each rate array must be 2-D with a row at least");
    }
    const npy_intp rows = PyArray_DIM(array, 0);
    if (first < 0 || first >= rows) {
        py::raise(PyExc_ValueError, "_disability rates: first row %zd outside 0..%zd", first,
                  static_cast<Py_ssize_t>(rows - 1));
    }
    ms::Rates r;
    r.values = py::f64_cspan(keep.get());
    r.rows = static_cast<std::size_t>(rows);
    r.ages = static_cast<std::size_t>(PyArray_DIM(array, 1));
    r.first = static_cast<std::size_t>(first);
    r.ends_life = ends_life;
    return r;
}

// (active mortality, incidence, disabled mortality, recovery or None, mid_year), each table
// as (rates, first row).
Held model_of(PyObject* rates) {
    if (!PyTuple_Check(rates) || PyTuple_GET_SIZE(rates) != 5) {
        py::raise(PyExc_TypeError, "_disability rates: expected a tuple of 5 items");
    }
    Held held;
    held.model.active_death = rates_of(PyTuple_GET_ITEM(rates, 0), true, held.arrays[0]);
    held.model.incidence = rates_of(PyTuple_GET_ITEM(rates, 1), false, held.arrays[1]);
    held.model.disabled_death = rates_of(PyTuple_GET_ITEM(rates, 2), true, held.arrays[2]);
    PyObject* recovery = PyTuple_GET_ITEM(rates, 3);
    if (recovery != Py_None) held.model.recovery = rates_of(recovery, false, held.arrays[3]);
    held.model.mid_year = flag(PyTuple_GET_ITEM(rates, 4), "_disability", "mid_year");
    return held;
}

ms::State state_of_text(PyObject* value, const char* method, const char* name) {
    if (str_equals(value, "active")) return ms::State::active;
    if (str_equals(value, "disabled")) return ms::State::disabled;
    py::raise(PyExc_ValueError, "[%s] %s must be 'active' or 'disabled', got %R", method, name, value);
}

ms::Payable payable_of(PyObject* value) {
    if (str_equals(value, "active")) return ms::Payable::active;
    if (str_equals(value, "disabled")) return ms::Payable::disabled;
    if (str_equals(value, "alive")) return ms::Payable::alive;
    py::raise(PyExc_ValueError, "[annuity] payable must be 'active', 'disabled' or 'alive', got %R", value);
}

// Ages: whole numbers from 0 to the last age of the model (the later mortality end).
actuarial::Values ages(PyObject* x, const ms::Model& model, const char* method) {
    actuarial::Values v = actuarial::validated(x, method, "x");
    const double last = static_cast<double>(model.end_age()) - 1.0;
    for (double a : v.view()) {
        if (!numeric::is_integer_valued(a)) {
            refuse(method, "x must be whole numbers of years (the model moves a year at a time), got " +
                               number_text(a));
        }
        if (a < 0.0 || std::nearbyint(a) > last) {
            refuse(method, "x must lie in 0.." + number_text(last) + ", the ages of the mortality tables, got " +
                               number_text(a));
        }
    }
    if (v.array) {
        // The kernels read whole ages: snap values within the integer tolerance.
        py::ref whole = py::f64_from(v.view());
        for (double& a : py::f64_span(whole.get())) a = std::nearbyint(a);
        v.array = std::move(whole);
    } else {
        v.value = std::nearbyint(v.value);
    }
    return v;
}

// Terms: None for the whole of life, else whole numbers of years >= 0.
actuarial::Values terms(PyObject* n, const char* method) {
    actuarial::Values v;
    if (n == nullptr || n == Py_None) {
        v.value = std::numeric_limits<double>::infinity();
        v.scalar = true;
        return v;
    }
    v = actuarial::validated(n, method, "n");
    for (double d : v.view()) {
        if (d < 0.0 || !numeric::is_integer_valued(d)) {
            refuse(method, "n must be a whole number of years >= 0, got " + number_text(d));
        }
    }
    if (v.array) {
        py::ref whole = py::f64_from(v.view());
        for (double& d : py::f64_span(whole.get())) d = std::nearbyint(d);
        v.array = std::move(whole);
    } else {
        v.value = std::nearbyint(v.value);
    }
    return v;
}

std::size_t paired_length(const actuarial::Values& x, const actuarial::Values& n, const char* method) {
    if (x.scalar) return n.size();
    if (n.scalar) return x.size();
    if (x.size() != n.size() && x.size() != 1 && n.size() != 1) {
        py::raise(PyExc_ValueError, "[%s] x and n must have the same length, got %zd and %zd", method,
                  static_cast<Py_ssize_t>(x.size()), static_cast<Py_ssize_t>(n.size()));
    }
    return x.size() == 1 ? n.size() : x.size();
}

template <class Kernel>
PyObject* evaluate(const actuarial::Values& x, const actuarial::Values& n, const char* method, Kernel&& kernel) {
    if (x.scalar && n.scalar) {
        double value = 0.0;
        kernel(std::span<double>(&value, 1));
        return actuarial::new_float(value);
    }
    const std::size_t count = paired_length(x, n, method);
    py::ref out = py::new_f64(static_cast<npy_intp>(count));
    const std::span<double> o = py::f64_span(out.get());
    actuarial::run_piece(count * 64, [&] { kernel(o); });
    return out.release();
}

double discount(PyObject* v) {
    const double value = numeric::validate_scalar(v, "v", "_disability");
    if (!(value > 0.0 && value <= 1.0)) py::raise(PyExc_ValueError, "_disability: v must lie in (0, 1]");
    return value;
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

PyObject* check(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 1> names = {"rates"};
    return py::guard([&]() -> PyObject* {
        const Arguments<1> a = parse_arguments("_disability_check", names, 1, args, nargs, kwnames);
        const Held held = model_of(a.values[0]);
        const std::optional<ms::ImpossibleYear> bad = ms::impossible_year(held.model, kSumTolerance);
        if (!bad) Py_RETURN_NONE;
        const char* state = bad->state == ms::State::active ? "active" : "disabled";
        return Py_BuildValue("(nnsdd)", static_cast<Py_ssize_t>(bad->age), static_cast<Py_ssize_t>(bad->year), state,
                             bad->death, bad->other);
    });
}

PyObject* states(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 4> names = {"rates", "x", "years", "start"};
    return py::guard([&]() -> PyObject* {
        const Arguments<4> a = parse_arguments("_disability_states", names, 4, args, nargs, kwnames);
        const Held held = model_of(a.values[0]);
        const char* method = "state_probabilities";
        const actuarial::Values x = ages(a.values[1], held.model, method);
        const double years = numeric::validate_scalar(a.values[2], "years", method);
        if (!numeric::is_integer_valued(years) || years < 0.0 || years > kMaxYears) {
            refuse(method, "years must be a whole number in 0.." + number_text(kMaxYears) + ", got " +
                               number_text(years));
        }
        const ms::State start = state_of_text(a.values[3], method, "start");
        const auto span_years = static_cast<std::size_t>(std::nearbyint(years));
        const auto rows = static_cast<npy_intp>(span_years + 1);
        const std::span<const double> view = x.view();
        py::ref out;
        if (x.scalar) {
            out = py::new_f64_2d(rows, 3);
        } else {
            npy_intp dims[3] = {static_cast<npy_intp>(view.size()), rows, 3};
            out = py::check(PyArray_SimpleNew(3, dims, NPY_FLOAT64));
        }
        const std::span<double> o = py::f64_span(out.get());
        const std::size_t block = 3 * (span_years + 1);
        actuarial::run_piece(o.size(), [&] {
            for (std::size_t e = 0; e < view.size(); ++e) {
                ms::state_path(held.model, static_cast<std::size_t>(view[e]), start, span_years,
                               o.subspan(e * block, block));
            }
        });
        return out.release();
    });
}

PyObject* annuity(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 8> names = {"rates", "x", "n", "start", "payable", "v", "m", "due"};
    return py::guard([&]() -> PyObject* {
        const Arguments<8> a = parse_arguments("_disability_annuity", names, 8, args, nargs, kwnames);
        const char* method = "annuity";
        const Held held = model_of(a.values[0]);
        const actuarial::Values x = ages(a.values[1], held.model, method);
        const actuarial::Values n = terms(a.values[2], method);
        ms::AnnuityTerms t{};
        t.start = state_of_text(a.values[3], method, "start");
        t.payable = payable_of(a.values[4]);
        t.v = discount(a.values[5]);
        t.m = numeric::payment_frequency(a.values[6], method);
        t.due = flag(a.values[7], method, "due");
        return evaluate(x, n, method, [&](std::span<double> out) {
            ms::annuity(held.model, t, x.view(), n.view(), out);
        });
    });
}

PyObject* insurance(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 5> names = {"rates", "x", "n", "start", "v"};
    return py::guard([&]() -> PyObject* {
        const Arguments<5> a = parse_arguments("_disability_insurance", names, 5, args, nargs, kwnames);
        const char* method = "insurance";
        const Held held = model_of(a.values[0]);
        const actuarial::Values x = ages(a.values[1], held.model, method);
        const actuarial::Values n = terms(a.values[2], method);
        const ms::State start = state_of_text(a.values[3], method, "start");
        const double v = discount(a.values[4]);
        return evaluate(x, n, method, [&](std::span<double> out) {
            ms::insurance(held.model, start, v, x.view(), n.view(), out);
        });
    });
}

PyMethodDef functions[] = {
    {"_disability_check", FASTCALL_KW(check), METH_FASTCALL | METH_KEYWORDS,
     "_disability_check(rates)\n--\n\n"
     "None, or (age, year, state, death rate, other rate) of the first year whose rates sum above 1."},
    {"_disability_states", FASTCALL_KW(states), METH_FASTCALL | METH_KEYWORDS,
     "_disability_states(rates, x, years, start)\n--\n\n"
     "State probabilities (active, disabled, dead) after 0..years years (see DisabilityModel)."},
    {"_disability_annuity", FASTCALL_KW(annuity), METH_FASTCALL | METH_KEYWORDS,
     "_disability_annuity(rates, x, n, start, payable, v, m, due)\n--\n\n"
     "Annuities while in a state of the disability model (see DisabilityModel.annuity)."},
    {"_disability_insurance", FASTCALL_KW(insurance), METH_FASTCALL | METH_KEYWORDS,
     "_disability_insurance(rates, x, n, start, v)\n--\n\n"
     "Death benefits of the disability model (see DisabilityModel.insurance)."},
};

}  // namespace
}  // namespace multistate

void bind_multistate(PyObject* module) { py::add_functions(module, multistate::functions); }

}  // namespace veltrane::decrement
