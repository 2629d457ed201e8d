// The module functions behind veltrane.contingencies: _annuity, _insurance, _pure_endowment and
// _commutation. Every argument is checked before the table computes anything, so a refused call
// changes nothing; the kernels then run on the unrounded l vector, without the GIL for long vectors.
#include "decrement/contingencies.hpp"

#include "decrement/arguments.hpp"
#include "pyutil/module_functions.hpp"

#include <cmath>
#include <string>

namespace veltrane::decrement {
namespace contingencies {

namespace {

using numeric::number_text;

[[noreturn]] void refuse(std::string_view method, const std::string& what, double got) {
    py::raise_str(PyExc_ValueError, "[" + std::string(method) + "] " + what + ", got " + number_text(got));
}

}  // namespace

Life life_of(TableObject* t) {
    const ConfigSnapshot& cfg = config(t->st);
    actuarial::LVector l = actuarial::survivorship(t, cfg, true);
    Life life;
    life.keep = std::move(l.keep);
    life.model.s = l.view;
    return life;
}

actuarial::Values checked_ages(TableObject* t, PyObject* x, std::string_view method) {
    actuarial::Values ages = actuarial::validated(x, method, "x");
    const std::string prefix = "[" + std::string(method) + "] ";
    if (actuarial::any_negative(ages.view())) actuarial::raise_negative_ages(t, prefix.c_str());
    const double w = actuarial::table_w(t);
    for (double v : ages.view()) {
        if (v > w + numeric::kEpsInt) {
            py::ref name = table_name(t);
            py::ref got = py::check(PyUnicode_FromString(number_text(v).c_str()));
            py::raise(PyExc_ValueError, "%sAll ages x must be <= w (%lld) for table '%S', got %U.", prefix.c_str(),
                      static_cast<long long>(w), name.get(), got.get());
        }
    }
    return ages;
}

bool flag(PyObject* value, std::string_view method, std::string_view name) {
    if (PyBool_Check(value) || PyArray_IsScalar(value, Bool)) return py::require(PyObject_IsTrue(value)) == 1;
    py::ref type = type_name_of(value);
    py::raise(PyExc_TypeError, "[%s] %s must be True or False, got %U", std::string(method).c_str(),
              std::string(name).c_str(), type.get());
}

namespace {

TableObject* table_argument(PyObject* module, PyObject* table, const char* method) {
    ModuleState* st = state_of(module);
    if (!PyObject_TypeCheck(table, st->core_type)) {
        py::ref type = type_name_of(table);
        py::raise(PyExc_TypeError, "[%s] table must be a DecrementTable, got %U", method, type.get());
    }
    TableObject* t = as_table(table);
    ensure_ready(t, method);
    return t;
}

// The rate i of the call, or else the table's interest_rate; finite and >= 0.
kernels::Interest interest(PyObject* table, PyObject* i, const char* method) {
    py::ref own;
    const bool from_table = i == nullptr || i == Py_None;
    if (from_table) {
        own = py::ref::steal(PyObject_GetAttrString(table, "interest_rate"));
        if (!own) {
            if (!PyErr_ExceptionMatches(PyExc_AttributeError)) py::throw_error_set();
            PyErr_Clear();
        }
        if (own.is_none()) {
            py::raise(PyExc_ValueError, "[%s] i is required: pass i=... or give the table an interest_rate", method);
        }
        i = own.get();
    }
    const double rate = numeric::validate_scalar(i, "i", method);
    if (rate < 0.0) refuse(method, from_table ? "i (the table's interest_rate) must be >= 0" : "i must be >= 0", rate);
    return kernels::Interest(rate);
}

// A number of years >= 0 that is a whole number of periods of 1/per_year years.
void check_periods(std::span<const double> values, int per_year, const char* method, const char* name) {
    for (double v : values) {
        if (v < 0.0) refuse(method, std::string(name) + " must be >= 0", v);
        if (!numeric::is_integer_valued(v * per_year)) {
            const std::string unit = per_year == 1 ? "a whole number of years"
                                                   : "a whole number of payment periods (1/" +
                                                         std::to_string(per_year) + " of a year)";
            refuse(method, std::string(name) + " must be " + unit, v);
        }
    }
}

// A term: None for life (kWholeLife), else numbers >= 0, whole numbers of periods of
// 1/per_year years unless per_year is 0 (any real term).
actuarial::Values term(PyObject* n, int per_year, const char* method) {
    if (n == nullptr || n == Py_None) {
        actuarial::Values life;
        life.value = kernels::kWholeLife;
        life.scalar = true;
        return life;
    }
    actuarial::Values v = actuarial::validated(n, method, "n");
    if (per_year > 0) check_periods(v.view(), per_year, method, "n");
    for (double d : v.view()) {
        if (d < 0.0) refuse(method, "n must be >= 0", d);
    }
    return v;
}

double deferment(PyObject* defer, int per_year, const char* method) {
    if (defer == nullptr) return 0.0;
    const double v = numeric::validate_scalar(defer, "defer", method);
    check_periods(std::span<const double>(&v, 1), per_year, method, "defer");
    return v;
}

void check_lengths(const actuarial::Values& x, const actuarial::Values& n, const char* method) {
    if (x.scalar || n.scalar) return;
    if (x.size() != n.size() && x.size() != 1 && n.size() != 1) {
        py::raise(PyExc_ValueError, "[%s] x and n must have the same length, got %zd and %zd", method,
                  static_cast<Py_ssize_t>(x.size()), static_cast<Py_ssize_t>(n.size()));
    }
}

// Runs `kernel(out)` over the broadcast length of x and n; a float when both were single numbers.
template <class Kernel>
PyObject* evaluate(const actuarial::Values& x, const actuarial::Values& n, Kernel&& kernel) {
    if (x.scalar && n.scalar) {
        double value = 0.0;
        kernel(std::span<double>(&value, 1));
        return actuarial::new_float(value);
    }
    // One of them single (a number or a vector of one) takes the length of the other.
    const std::size_t count = x.scalar ? n.size() : n.scalar ? x.size() : x.size() == 1 ? n.size() : x.size();
    py::ref out = py::new_f64(static_cast<npy_intp>(count));
    const std::span<double> o = py::f64_span(out.get());
    actuarial::run_piece(count, [&] { kernel(o); });
    return out.release();
}

enum class Method { exact, udd, woolhouse2, woolhouse3 };

Method annuity_method(PyObject* method) {
    if (method == nullptr || str_equals(method, "exact")) return Method::exact;
    if (str_equals(method, "udd")) return Method::udd;
    if (str_equals(method, "woolhouse")) return Method::woolhouse3;
    if (str_equals(method, "woolhouse2")) return Method::woolhouse2;
    py::raise(PyExc_ValueError, "[annuity] method must be one of 'exact', 'udd', 'woolhouse', 'woolhouse2', got %R",
              method);
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

PyObject* annuity(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 8> names = {"table", "x", "n", "i", "due", "m", "defer", "method"};
    return py::guard([&]() -> PyObject* {
        const Arguments<8> a = parse_arguments("_annuity", names, 2, args, nargs, kwnames);
        TableObject* t = table_argument(module, a.values[0], "annuity");
        const actuarial::Values x = checked_ages(t, a.values[1], "annuity");
        const kernels::Interest r = interest(a.values[0], a.values[3], "annuity");
        const bool due = a.given(4) ? flag(a.values[4], "annuity", "due") : true;
        const int m = a.given(5) ? numeric::payment_frequency(a.values[5], "annuity") : 1;
        const Method method = annuity_method(a.values[7]);
        // The exact sums take terms in payment periods; the approximations work on annual annuities.
        const int per_year = method == Method::exact ? m : 1;
        const actuarial::Values n = term(a.values[2], per_year, "annuity");
        const double defer = deferment(a.values[6], per_year, "annuity");
        check_lengths(x, n, "annuity");
        const Life life = life_of(t);
        const kernels::Payments payments{m, due, defer};
        return evaluate(x, n, [&](std::span<double> out) {
            if (method == Method::exact) {
                kernels::annuity(life.model, r, payments, x.view(), n.view(), out);
                return;
            }
            const auto approximation = method == Method::udd          ? kernels::AnnuityApproximation::udd
                                       : method == Method::woolhouse2 ? kernels::AnnuityApproximation::woolhouse2
                                                                      : kernels::AnnuityApproximation::woolhouse3;
            kernels::annuity_from_annual(life.model, r, payments, approximation, x.view(), n.view(), out);
        });
    });
}

PyObject* insurance(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 7> names = {"table", "x", "n", "i", "m", "defer", "endowment"};
    return py::guard([&]() -> PyObject* {
        const Arguments<7> a = parse_arguments("_insurance", names, 2, args, nargs, kwnames);
        TableObject* t = table_argument(module, a.values[0], "insurance");
        const actuarial::Values x = checked_ages(t, a.values[1], "insurance");
        const kernels::Interest r = interest(a.values[0], a.values[3], "insurance");
        // m = None: paid at the moment of death.
        const bool continuous = a.given(4) && a.values[4] == Py_None;
        const int m = a.given(4) && !continuous ? numeric::payment_frequency(a.values[4], "insurance") : 1;
        const actuarial::Values n = term(a.values[2], 1, "insurance");
        const double defer = deferment(a.values[5], 1, "insurance");
        const bool endowment = a.given(6) ? flag(a.values[6], "insurance", "endowment") : false;
        if (endowment && (!a.given(2) || a.values[2] == Py_None)) {
            py::raise(PyExc_ValueError, "[insurance] an endowment needs a term n");
        }
        check_lengths(x, n, "insurance");
        const double factor = continuous ? kernels::i_over_delta(r.delta) : kernels::i_over_im(r.delta, m);
        const Life life = life_of(t);
        return evaluate(x, n, [&](std::span<double> out) {
            kernels::insurance(life.model, r, defer, factor, endowment, x.view(), n.view(), out);
        });
    });
}

PyObject* pure_endowment(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 4> names = {"table", "x", "n", "i"};
    return py::guard([&]() -> PyObject* {
        const Arguments<4> a = parse_arguments("_pure_endowment", names, 3, args, nargs, kwnames);
        TableObject* t = table_argument(module, a.values[0], "pure_endowment");
        const actuarial::Values x = checked_ages(t, a.values[1], "pure_endowment");
        const kernels::Interest r = interest(a.values[0], a.values[3], "pure_endowment");
        if (a.values[2] == Py_None) {
            py::raise(PyExc_TypeError, "[pure_endowment] n must be a number or a sequence of numbers, got None");
        }
        const actuarial::Values n = term(a.values[2], 0, "pure_endowment");
        check_lengths(x, n, "pure_endowment");
        const Life life = life_of(t);
        return evaluate(x, n, [&](std::span<double> out) {
            kernels::pure_endowment(life.model, r, x.view(), n.view(), out);
        });
    });
}

PyObject* commutation(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 2> names = {"table", "i"};
    return py::guard([&]() -> PyObject* {
        const Arguments<2> a = parse_arguments("_commutation", names, 1, args, nargs, kwnames);
        TableObject* t = table_argument(module, a.values[0], "commutation");
        const kernels::Interest r = interest(a.values[0], a.values[1], "commutation");
        const Life life = life_of(t);
        // The ages 0..w of the table in force.
        const std::size_t w = static_cast<std::size_t>(life.model.s.w);
        const std::span<const double> all = life.model.s.l;
        const std::span<const double> l = all.first(std::min(all.size(), w + 1));
        const auto size = static_cast<npy_intp>(l.size());
        py::ref lx = py::f64_from(l);
        py::ref columns[7] = {py::new_f64(size), py::new_f64(size), py::new_f64(size), py::new_f64(size),
                              py::new_f64(size), py::new_f64(size), py::new_f64(size)};
        kernels::Commutation out{py::f64_span(columns[0].get()), py::f64_span(columns[1].get()),
                                 py::f64_span(columns[2].get()), py::f64_span(columns[3].get()),
                                 py::f64_span(columns[4].get()), py::f64_span(columns[5].get()),
                                 py::f64_span(columns[6].get())};
        kernels::commutation(l, r, out);
        return py::require(PyTuple_Pack(8, lx.get(), columns[0].get(), columns[1].get(), columns[2].get(),
                                        columns[3].get(), columns[4].get(), columns[5].get(), columns[6].get()));
    });
}

PyMethodDef functions[] = {
    {"_annuity", FASTCALL_KW(annuity), METH_FASTCALL | METH_KEYWORDS,
     "_annuity(table, x, n=None, i=None, due=True, m=1, defer=0, method='exact')\n--\n\n"
     "Life annuity values for ages x and terms n (see veltrane.contingencies.annuity)."},
    {"_insurance", FASTCALL_KW(insurance), METH_FASTCALL | METH_KEYWORDS,
     "_insurance(table, x, n=None, i=None, m=1, defer=0, endowment=False)\n--\n\n"
     "Insurance values for ages x and terms n (see veltrane.contingencies.insurance)."},
    {"_pure_endowment", FASTCALL_KW(pure_endowment), METH_FASTCALL | METH_KEYWORDS,
     "_pure_endowment(table, x, n, i=None)\n--\n\n"
     "Pure endowments v^n l(x + n) / l(x) (see veltrane.contingencies.pure_endowment)."},
    {"_commutation", FASTCALL_KW(commutation), METH_FASTCALL | METH_KEYWORDS,
     "_commutation(table, i=None)\n--\n\n"
     "The columns lx, dx, Dx, Nx, Sx, Cx, Mx, Rx over ages 0..w as a tuple of float64 vectors."},
};

}  // namespace
}  // namespace contingencies

void bind_contingencies(PyObject* module) { py::add_functions(module, contingencies::functions); }

}  // namespace veltrane::decrement
