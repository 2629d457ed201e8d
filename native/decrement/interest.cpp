// The module function behind veltrane.interest: _interest(kind, i, m=1, n=None, due=True), the
// interest functions of kernels/interest.hpp element by element over one rate or a vector of
// rates (and terms, paired element by element; the Python layer broadcasts shapes).
#include "decrement/contingencies.hpp"

#include "decrement/arguments.hpp"
#include "pyutil/module_functions.hpp"

#include <cmath>
#include <string>

namespace veltrane::decrement {
namespace {

enum class Kind { discount_rate, force, nominal_rate, nominal_discount_rate, alpha, beta, present, accumulated };

Kind kind_of(PyObject* kind) {
    static constexpr std::pair<const char*, Kind> kinds[] = {
        {"discount_rate", Kind::discount_rate},
        {"force", Kind::force},
        {"nominal_rate", Kind::nominal_rate},
        {"nominal_discount_rate", Kind::nominal_discount_rate},
        {"udd_alpha", Kind::alpha},
        {"udd_beta", Kind::beta},
        {"annuity_certain", Kind::present},
        {"accumulated_annuity_certain", Kind::accumulated},
    };
    for (const auto& [name, value] : kinds) {
        if (str_equals(kind, name)) return value;
    }
    py::raise(PyExc_ValueError, "unknown interest function %R", kind);
}

// m: a positive whole number of periods a year, or None (continuously) where `continuous_ok`
// (the function's limit as m grows).
int periods(PyObject* m, const std::string& method, bool continuous_ok) {
    if (m == nullptr) return 1;
    if (m == Py_None && continuous_ok) return kernels::kContinuous;
    if (!PyBool_Check(m) && (PyLong_Check(m) || PyArray_IsScalar(m, Integer))) {
        py::ref index = py::check(PyNumber_Index(m));
        const long long v = PyLong_AsLongLong(index.get());
        if (v == -1 && PyErr_Occurred()) PyErr_Clear();
        if (v >= 1 && v <= 1000000) return static_cast<int>(v);
    }
    py::raise(PyExc_ValueError, "[%s] m must be a whole number of periods a year from 1 to 1000000%s, got %R",
              method.c_str(), continuous_ok ? " or None" : "", m);
}

double value_of(Kind kind, double i, double n, int m, bool due) noexcept {
    const double delta = std::log1p(i);
    switch (kind) {
        case Kind::discount_rate: return i / (1.0 + i);
        case Kind::force: return delta;
        case Kind::nominal_rate: return kernels::nominal_rate(delta, m);
        case Kind::nominal_discount_rate: return kernels::nominal_discount_rate(delta, m);
        case Kind::alpha: return kernels::udd_alpha(delta, m);
        case Kind::beta: return kernels::udd_beta(delta, m);
        case Kind::present: return kernels::annuity_certain(delta, n, m, due);
        case Kind::accumulated: return kernels::accumulated_annuity_certain(delta, n, m, due);
    }
    return 0.0;
}

PyObject* interest(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 5> names = {"kind", "i", "m", "n", "due"};
    return py::guard([&]() -> PyObject* {
        const Arguments<5> a = parse_arguments("_interest", names, 2, args, nargs, kwnames);
        const Kind kind = kind_of(a.values[0]);
        const std::string method = PyUnicode_AsUTF8(a.values[0]);  // a str: kind_of matched it
        const actuarial::Values i = actuarial::validated(a.values[1], method, "i");
        for (double v : i.view()) {
            if (!(v > -1.0)) {
                py::raise_str(PyExc_ValueError, "[" + method + "] i must be > -1, got " + numeric::number_text(v));
            }
        }
        const bool certain = kind == Kind::present || kind == Kind::accumulated;
        const int m = periods(a.values[2], method, true);
        const bool due = a.given(4) ? contingencies::flag(a.values[4], method, "due") : true;
        actuarial::Values n;
        n.scalar = true;
        n.value = kernels::kWholeLife;  // a perpetuity
        if (certain && a.get(3, Py_None) != Py_None) {
            n = actuarial::validated(a.values[3], method, "n");
            for (double v : n.view()) {
                if (v < 0.0) py::raise_str(PyExc_ValueError, "[" + method + "] n must be >= 0, got " + numeric::number_text(v));
            }
        }
        contingencies::check_lengths(i, n, method.c_str());
        const std::span<const double> iv = i.view(), nv = n.view();
        auto at = [](std::span<const double> v, std::size_t k) { return v.size() == 1 ? v[0] : v[k]; };
        if (i.scalar && n.scalar) return actuarial::new_float(value_of(kind, iv[0], nv[0], m, due));
        const std::size_t count = std::max(iv.size(), nv.size());
        py::ref out = py::new_f64(static_cast<npy_intp>(count));
        double* o = py::f64_data(out.get());
        for (std::size_t k = 0; k < count; ++k) o[k] = value_of(kind, at(iv, k), at(nv, k), m, due);
        return out.release();
    });
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

PyMethodDef functions[] = {
    {"_interest", FASTCALL_KW(interest), METH_FASTCALL | METH_KEYWORDS,
     "_interest(kind, i, m=1, n=None, due=True)\n--\n\n"
     "The interest function `kind` at rates i (see veltrane.interest)."},
};

}  // namespace

void bind_interest(PyObject* module) { py::add_functions(module, functions); }

}  // namespace veltrane::decrement
