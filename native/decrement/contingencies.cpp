// The module functions behind veltrane.contingencies: _annuity, _insurance, _pure_endowment and
// _commutation. Every argument is checked before the table computes anything, so a refused call
// changes nothing; the kernels then run on the unrounded l vector, without the GIL for long vectors.
#include "decrement/contingencies.hpp"

#include "decrement/arguments.hpp"
#include "decrement/contingency_cache.hpp"
#include "decrement/transaction.hpp"
#include "pyutil/module_functions.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

namespace veltrane::decrement {
namespace contingencies {

namespace {

using numeric::number_text;

[[noreturn]] void refuse(std::string_view method, const std::string& what, double got) {
    py::raise_str(PyExc_ValueError, "[" + std::string(method) + "] " + what + ", got " + number_text(got));
}

}  // namespace

namespace {

// Tables whose duration columns are kept (the most recent ones).
constexpr Py_ssize_t kDiagonalTables = 32;

// The rates in force at each duration from `first` to ultimate_from - 1, then the ultimate
// ones, as the rows of a matrix, from the table's own rebuilds under its other keys (cohort,
// unisex blend). They run inside a key change that is never committed: the table ends exactly
// as it began, its rebuild count included.
py::ref duration_columns(TableObject* t, long long first, long long ultimate_from, npy_intp ages) {
    // Gathered first, so that a select period longer than the columns present fails on the
    // first missing one rather than after reserving room for all of them.
    std::vector<std::vector<double>> rows;
    {
        KeyChange scratch(t);
        auto take = [&](py::ref duration) {
            t->duration = std::move(duration);
            rebuild_rates(t);
            const std::span<const double> q = py::f64_cspan(t->decrement.get());
            if (static_cast<npy_intp>(q.size()) != ages) {
                py::ref name = table_name(t);
                py::raise(PyExc_ValueError, "Table '%S': its duration columns differ in length.", name.get());
            }
            rows.emplace_back(q.begin(), q.end());
        };
        for (long long d = first; d < ultimate_from; ++d) take(py::check(PyLong_FromLongLong(d)));
        take(py::ref());  // the ultimate column
    }
    py::ref out = py::new_f64_2d(static_cast<npy_intp>(rows.size()), ages);
    double* row = py::f64_data(out.get());
    for (const std::vector<double>& q : rows) row = std::copy(q.begin(), q.end(), row);
    return out;
}

// The same, kept per table while its state is the one they were built in: repeated calls cost
// no rebuilds. The state is told by `_decrement_base`, which every rebuild replaces (held by the
// entry, so no other vector can take its address), and by the keys and the settings.
py::ref cached_duration_columns(TableObject* t, long long first, long long ultimate_from, npy_intp ages) {
    ModuleState* st = t->st;
    py::ref id = py::check(PyLong_FromLongLong(t->instance_id));
    py::ref keys = py::check(Py_BuildValue("(OOOOLK)", t->sex.or_none(), t->cohort.or_none(), t->duration.or_none(),
                                           t->unisex_blend.or_none(), first,
                                           static_cast<unsigned long long>(st->config_version)));
    py::ref entry = py::ref::borrow(PyDict_GetItemWithError(st->select_diagonals, id.get()));
    if (!entry && PyErr_Occurred()) py::throw_error_set();
    if (entry && PyTuple_GET_ITEM(entry.get(), 0) == t->decrement_base.get() &&
        py::require(PyObject_RichCompareBool(PyTuple_GET_ITEM(entry.get(), 1), keys.get(), Py_EQ)) == 1) {
        return py::ref::borrow(PyTuple_GET_ITEM(entry.get(), 2));
    }
    py::ref columns = duration_columns(t, first, ultimate_from, ages);
    py::ref fresh = py::check(PyTuple_Pack(3, t->decrement_base.or_none(), keys.get(), columns.get()));
    if (!entry) {
        while (PyDict_GET_SIZE(st->select_diagonals) >= kDiagonalTables) {
            // The oldest first (a dict keeps the order of insertion).
            Py_ssize_t pos = 0;
            PyObject* oldest = nullptr;
            PyDict_Next(st->select_diagonals, &pos, &oldest, nullptr);
            const py::ref held = py::ref::borrow(oldest);
            py::require(PyDict_DelItem(st->select_diagonals, held.get()));
        }
    }
    py::require(PyDict_SetItem(st->select_diagonals, id.get(), fresh.get()));
    return columns;
}

}  // namespace

Lives::Lives(TableObject* t, std::string_view method) {
    const ConfigSnapshot& cfg = config(t->st);
    actuarial::LVector l = actuarial::survivorship(t, cfg, true);
    keep_ = std::move(l.keep);
    model_.s = l.view;
    if (!source_flag(t, t->st->names.select.get()) || past_select_period(t, t->duration.get())) return;
    const long long duration = PyLong_AsLongLong(t->duration.get());
    if (duration == -1 && PyErr_Occurred()) py::throw_error_set();
    if (t->modified) {
        py::ref name = table_name(t);
        py::raise(PyExc_ValueError,
                  "[%s] Table '%S' at select duration %lld carries modifications, which were made on that one "
                  "column, while a life aged x moves along the select diagonal. Call select_path(x) on the "
                  "unmodified table and modify the path it returns, or value on duration='ult'.",
                  std::string(method).c_str(), name.get(), duration);
    }
    // The year before the whole age is followed too (the force of decrement at x looks back on it).
    const long long first = std::max<long long>(start_duration(t), duration - 1);
    const long long ultimate_from = first_ultimate_duration(t);
    const auto ages = static_cast<npy_intp>(model_.s.l.size());
    rates_ = cached_duration_columns(t, first, ultimate_from, ages);
    const double* row = py::f64_data(rates_.get());
    for (long long d = first; d < ultimate_from; ++d, row += ages) {
        diagonal_.columns.emplace_back(row, static_cast<std::size_t>(ages));
    }
    diagonal_.ultimate = std::span<const double>(row, static_cast<std::size_t>(ages));
    diagonal_.first = first;
    diagonal_.ultimate_from = ultimate_from;
    diagonal_.duration = duration;
    radix_ = t->st->lx_radix;
    on_diagonal_ = true;
}

bool Lives::has_nan() const noexcept {
    auto any_nan = [](std::span<const double> v) {
        return std::any_of(v.begin(), v.end(), [](double e) { return std::isnan(e); });
    };
    if (!on_diagonal_) return any_nan(model_.s.l);
    return any_nan(py::f64_cspan(rates_.get()));
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

// A number of years >= 0 that is a whole number of periods of 1/per_year years.
namespace {
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
}  // namespace

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

// The rate i of the call, or else the table's interest_rate; finite and > -1 (a negative rate
// is a valid basis: v > 1).
kernels::Interest interest(PyObject* table, PyObject* i, const char* method) {
    py::ref own;
    const bool from_table = i == nullptr || i == Py_None;
    if (from_table) {
        own = py::ref::steal(PyObject_GetAttr(table, as_table(table)->st->names.interest_rate.get()));
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
    if (!(rate > -1.0)) {
        refuse(method, from_table ? "i (the table's interest_rate) must be > -1" : "i must be > -1", rate);
    }
    return kernels::Interest(rate);
}

namespace {

using Breakdown = std::optional<kernels::Breakdown>;

// What a kernel that cannot break down reports.
constexpr Breakdown kHolds = std::nullopt;

// Runs `kernel(model, x, n, out)` on each element's survival over the broadcast length of x and n;
// a float when both were single numbers. A breakdown the kernel reports goes to `refuse_at`
// (which raises). A value beyond the range of a float (discounting at a rate near -1) is refused
// rather than returned as inf or NaN; a NaN in the table's rates propagates as it does everywhere.
template <class Kernel, class Refuse>
PyObject* evaluate(const Lives& lives, const actuarial::Values& x, const actuarial::Values& n, const char* method,
                   const kernels::Interest& r, Kernel&& kernel, Refuse&& refuse_at) {
    // One of them single (a number or a vector of one) takes the length of the other.
    const std::size_t count = x.scalar ? n.size() : n.scalar ? x.size() : x.size() == 1 ? n.size() : x.size();
    py::ref out;
    double value = 0.0;
    std::span<double> o(&value, 1);
    if (!(x.scalar && n.scalar)) {
        out = py::new_f64(static_cast<npy_intp>(count));
        o = py::f64_span(out.get());
    }
    const Breakdown breakdown =
        actuarial::run_piece(count, [&] { return lives.run(x.view(), n.view(), o, kernel); });
    if (breakdown) refuse_at(*breakdown);
    const auto infinite = std::find_if(o.begin(), o.end(), [](double v) { return !std::isfinite(v); });
    if (infinite != o.end() && !lives.has_nan()) {
        const std::size_t k = static_cast<std::size_t>(infinite - o.begin());
        const double age = x.size() == 1 ? x.view()[0] : x.view()[k];
        py::raise_str(PyExc_ValueError, "[" + std::string(method) + "] at i = " + number_text(r.i) +
                                            " the value at x = " + number_text(age) +
                                            " is beyond the range of a float");
    }
    return out ? out.release() : actuarial::new_float(value);
}

template <class Kernel>
PyObject* evaluate(const Lives& lives, const actuarial::Values& x, const actuarial::Values& n, const char* method,
                   const kernels::Interest& r, Kernel&& kernel) {
    return evaluate(lives, x, n, method, r, kernel, [](const kernels::Breakdown&) {});
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

}  // namespace

// m: 1, 2, 3, 4, 6 or 12, or None for payments made continuously (kernels::kContinuous).
int frequency(PyObject* m, const char* method) {
    if (m == nullptr) return 1;
    if (m == Py_None) return kernels::kContinuous;
    return numeric::payment_frequency(m, method);
}

namespace {

// moment: 1 (the value) or 2 (the second moment of the present value).
int moment_argument(PyObject* moment, const char* method) {
    if (moment == nullptr) return 1;
    if (!PyBool_Check(moment) && PyLong_Check(moment)) {
        const long v = PyLong_AsLong(moment);
        if (v == -1 && PyErr_Occurred()) py::throw_error_set();
        if (v == 1 || v == 2) return static_cast<int>(v);
    }
    py::raise(PyExc_ValueError, "[%s] moment must be 1 or 2, got %R", method, moment);
}

// increasing / decreasing (bools): the progression of the benefit; decreasing needs a term.
kernels::Progression progression_argument(PyObject* increasing, PyObject* decreasing, PyObject* n, const char* method) {
    const bool up = increasing != nullptr && flag(increasing, method, "increasing");
    const bool down = decreasing != nullptr && flag(decreasing, method, "decreasing");
    if (up && down) py::raise(PyExc_ValueError, "[%s] increasing and decreasing exclude each other", method);
    if (down && (n == nullptr || n == Py_None)) {
        py::raise(PyExc_ValueError, "[%s] a decreasing benefit needs a term n (it falls to 1 in the last year)", method);
    }
    return up ? kernels::Progression::increasing : down ? kernels::Progression::decreasing : kernels::Progression::level;
}

// The second moments are values at the doubled force: 1 + i' = (1 + i)^2.
kernels::Interest doubled(const kernels::Interest& r) { return kernels::Interest(r.i * (2.0 + r.i)); }

PyObject* annuity(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 11> names = {"table", "x",      "n",      "i",          "due",       "m",
                                                          "defer", "method", "moment", "increasing", "decreasing"};
    return py::guard([&]() -> PyObject* {
        const Arguments<11> a = parse_arguments("_annuity", names, 2, args, nargs, kwnames);
        TableObject* t = table_argument(module, a.values[0], "annuity");
        const std::optional<Scalar> scalar = annuity_call(t, a.values);
        if (scalar) {
            if (const std::optional<double> v = cached(t, scalar->key, scalar->x)) return PyFloat_FromDouble(*v);
        }
        const actuarial::Values x = checked_ages(t, a.values[1], "annuity");
        const kernels::Interest r = interest(a.values[0], a.values[3], "annuity");
        const bool due = a.given(4) ? flag(a.values[4], "annuity", "due") : true;
        const int m = frequency(a.values[5], "annuity");
        const Method method = annuity_method(a.values[7]);
        const int moment = moment_argument(a.values[8], "annuity");
        const kernels::Progression progression = progression_argument(a.values[9], a.values[10], a.values[2], "annuity");
        const bool level = progression == kernels::Progression::level;
        // The exact sums take terms in payment periods (any real term when continuous); the
        // approximations, and the benefits that change every year, whole years.
        const int per_year = method == Method::exact && level ? m : 1;
        const actuarial::Values n = term(a.values[2], per_year, "annuity");
        const double defer = deferment(a.values[6], per_year, "annuity");
        check_lengths(x, n, "annuity");
        if (moment == 2) {
            // Y = (1 - v^S) / d^(m), S the time to the end of the payments, needs a life annuity-due
            // from the start, its exact value, and a rate: E[Y^2] = 2 (a - a') / d^(m) + a' / m.
            if (defer != 0.0 || (!due && m != kernels::kContinuous) || (method != Method::exact && m != 1)) {
                py::raise(PyExc_ValueError,
                          "[annuity] moment=2 needs an annuity-due (or m=None) without defer, valued with "
                          "method='exact'");
            }
            if (r.delta == 0.0) py::raise(PyExc_ValueError, "[annuity] moment=2 needs i != 0");
            if (!level) py::raise(PyExc_ValueError, "[annuity] moment=2 is for level payments");
        }
        const kernels::Interest r2 = doubled(r);
        const Lives lives(t, "annuity");
        const kernels::Payments payments{m, due, defer};
        const auto approximation = method == Method::udd          ? kernels::AnnuityApproximation::udd
                                   : method == Method::woolhouse2 ? kernels::AnnuityApproximation::woolhouse2
                                                                  : kernels::AnnuityApproximation::woolhouse3;
        auto level_kernel = [&](const kernels::LifeModel& life, const kernels::Payments& p, std::span<const double> xs,
                                std::span<const double> ns, std::span<double> out) -> Breakdown {
            if (method != Method::exact) return kernels::annuity_from_annual(life, r, p, approximation, xs, ns, out);
            kernels::annuity(life, r, p, xs, ns, out);
            return kHolds;
        };
        auto kernel = [&](const kernels::LifeModel& life, std::span<const double> xs, std::span<const double> ns,
                          std::span<double> out) -> Breakdown {
            if (!level) {
                Breakdown first;
                kernels::progressive(progression, defer, life.s.w, xs, ns, out,
                                     [&](double defer_k, std::span<const double> ax, std::span<const double> one,
                                         std::span<double> year) {
                                         const Breakdown b =
                                             level_kernel(life, kernels::Payments{m, due, defer_k}, ax, one, year);
                                         if (b && !first) first = b;
                                     });
                return first;
            }
            if (moment == 2) {
                kernels::annuity(life, r, payments, xs, ns, out);
                std::vector<double> second(out.size());
                kernels::annuity(life, r2, payments, xs, ns, second);
                const double rate = kernels::nominal_discount_rate(r.delta, m);
                const double last = m == kernels::kContinuous ? 0.0 : 1.0 / m;
                for (std::size_t k = 0; k < out.size(); ++k) {
                    out[k] = 2.0 * (out[k] - second[k]) / rate + second[k] * last;
                }
                return kHolds;
            }
            return level_kernel(life, payments, xs, ns, out);
        };
        auto refuse_at = [&](const kernels::Breakdown& b) {
            const double age = x.size() == 1 ? x.view()[0] : x.view()[b.index];
            char corrections[96];
            std::snprintf(corrections, sizeof corrections, "its second correction (%.5g) outweighs its first (%.5g)",
                          std::fabs(b.second), std::fabs(b.first));
            py::raise_str(PyExc_ValueError, "[annuity] method=\"woolhouse\" does not hold at x = " + number_text(age) +
                                                " with i = " + number_text(r.i) + " and m = " + std::to_string(m) +
                                                ": " + corrections + "; use method=\"exact\"");
        };
        if (const std::optional<double> v = column_value(t, scalar, r.i, lives, kernel)) return PyFloat_FromDouble(*v);
        return evaluate(lives, x, n, "annuity", r, kernel, refuse_at);
    });
}

PyObject* insurance(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 11> names = {"table",  "x",      "n",          "i",
                                                          "m",      "defer",  "endowment",  "method",
                                                          "moment", "increasing", "decreasing"};
    return py::guard([&]() -> PyObject* {
        const Arguments<11> a = parse_arguments("_insurance", names, 2, args, nargs, kwnames);
        TableObject* t = table_argument(module, a.values[0], "insurance");
        const std::optional<Scalar> scalar = insurance_call(t, a.values);
        if (scalar) {
            if (const std::optional<double> v = cached(t, scalar->key, scalar->x)) return PyFloat_FromDouble(*v);
        }
        const actuarial::Values x = checked_ages(t, a.values[1], "insurance");
        const kernels::Interest given_rate = interest(a.values[0], a.values[3], "insurance");
        // m = None: paid at the moment of death.
        const int m = frequency(a.values[4], "insurance");
        bool exact = true;
        if (a.given(7) && !str_equals(a.values[7], "exact")) {
            if (!str_equals(a.values[7], "udd")) {
                py::raise(PyExc_ValueError, "[insurance] method must be one of 'exact', 'udd', got %R", a.values[7]);
            }
            exact = false;
        }
        // The second moment is the value at the doubled force (v^T squared is v'^T).
        const int moment = moment_argument(a.values[8], "insurance");
        const kernels::Interest r = moment == 2 ? doubled(given_rate) : given_rate;
        const kernels::Progression progression = progression_argument(a.values[9], a.values[10], a.values[2], "insurance");
        if (progression != kernels::Progression::level && moment == 2) {
            py::raise(PyExc_ValueError, "[insurance] moment=2 is for a level benefit");
        }
        const actuarial::Values n = term(a.values[2], 1, "insurance");
        const double defer = deferment(a.values[5], 1, "insurance");
        const bool endowment = a.given(6) ? flag(a.values[6], "insurance", "endowment") : false;
        if (endowment && (!a.given(2) || a.values[2] == Py_None)) {
            py::raise(PyExc_ValueError, "[insurance] an endowment needs a term n");
        }
        if (endowment && progression != kernels::Progression::level) {
            py::raise(PyExc_ValueError, "[insurance] increasing and decreasing are for term and whole-life covers, "
                                        "not with endowment=True");
        }
        check_lengths(x, n, "insurance");
        const kernels::Benefit benefit{m, exact, endowment};
        const Lives lives(t, "insurance");
        auto kernel = [&](const kernels::LifeModel& life, std::span<const double> xs, std::span<const double> ns,
                          std::span<double> out) {
                            if (progression == kernels::Progression::level) {
                                kernels::insurance(life, r, defer, benefit, xs, ns, out);
                            } else {
                                kernels::progressive(progression, defer, life.s.w, xs, ns, out,
                                                     [&](double defer_k, std::span<const double> ax,
                                                         std::span<const double> one, std::span<double> year) {
                                                         kernels::insurance(life, r, defer_k, benefit, ax, one, year);
                                                     });
                            }
                            return kHolds;
        };
        if (const std::optional<double> v = column_value(t, scalar, r.i, lives, kernel)) return PyFloat_FromDouble(*v);
        return evaluate(lives, x, n, "insurance", r, kernel);
    });
}

PyObject* pure_endowment(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 4> names = {"table", "x", "n", "i"};
    return py::guard([&]() -> PyObject* {
        const Arguments<4> a = parse_arguments("_pure_endowment", names, 3, args, nargs, kwnames);
        TableObject* t = table_argument(module, a.values[0], "pure_endowment");
        const std::optional<Scalar> scalar = pure_endowment_call(t, a.values);
        if (scalar) {
            if (const std::optional<double> v = cached(t, scalar->key, scalar->x)) return PyFloat_FromDouble(*v);
        }
        const actuarial::Values x = checked_ages(t, a.values[1], "pure_endowment");
        const kernels::Interest r = interest(a.values[0], a.values[3], "pure_endowment");
        if (a.values[2] == Py_None) {
            py::raise(PyExc_TypeError, "[pure_endowment] n must be a number or a sequence of numbers, got None");
        }
        const actuarial::Values n = term(a.values[2], 0, "pure_endowment");
        check_lengths(x, n, "pure_endowment");
        const Lives lives(t, "pure_endowment");
        auto kernel = [&](const kernels::LifeModel& life, std::span<const double> xs, std::span<const double> ns,
                          std::span<double> out) {
            kernels::pure_endowment(life, r, xs, ns, out);
            return kHolds;
        };
        if (const std::optional<double> v = column_value(t, scalar, r.i, lives, kernel)) return PyFloat_FromDouble(*v);
        return evaluate(lives, x, n, "pure_endowment", r, kernel);
    });
}

PyObject* commutation(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 2> names = {"table", "i"};
    return py::guard([&]() -> PyObject* {
        const Arguments<2> a = parse_arguments("_commutation", names, 1, args, nargs, kwnames);
        TableObject* t = table_argument(module, a.values[0], "commutation");
        const kernels::Interest r = interest(a.values[0], a.values[1], "commutation");
        // The table's own column, also on a select table at a select duration: the columns are
        // a function of the age alone.
        const actuarial::LVector life = actuarial::survivorship(t, config(t->st), true);
        // The ages 0..w of the table in force.
        const std::size_t w = static_cast<std::size_t>(life.view.w);
        const std::span<const double> all = life.view.l;
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
        const bool finite = std::all_of(out.R.begin(), out.R.end(), [](double v) { return std::isfinite(v); }) &&
                            std::all_of(out.S.begin(), out.S.end(), [](double v) { return std::isfinite(v); });
        if (!finite && std::none_of(l.begin(), l.end(), [](double v) { return std::isnan(v); })) {
            py::raise_str(PyExc_ValueError, "[commutation] at i = " + number_text(r.i) +
                                                " the columns are beyond the range of a float");
        }
        return py::require(PyTuple_Pack(8, lx.get(), columns[0].get(), columns[1].get(), columns[2].get(),
                                        columns[3].get(), columns[4].get(), columns[5].get(), columns[6].get()));
    });
}

PyObject* life_table(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 1> names = {"table"};
    return py::guard([&]() -> PyObject* {
        const Arguments<1> a = parse_arguments("_life_table", names, 1, args, nargs, kwnames);
        TableObject* t = table_argument(module, a.values[0], "life_table");
        // The table's one column, as commutation() reads it.
        const actuarial::LVector l = actuarial::survivorship(t, config(t->st), true);
        kernels::LifeModel life;
        life.s = l.view;
        const std::size_t w = static_cast<std::size_t>(l.view.w);
        const auto size = static_cast<npy_intp>(std::min(l.view.l.size(), w + 1));
        py::ref L = py::new_f64(size), T = py::new_f64(size);
        kernels::life_table_columns(life, py::f64_span(L.get()), py::f64_span(T.get()));
        return py::require(PyTuple_Pack(2, L.get(), T.get()));
    });
}

// net_premium(table, x, n=None, *, i=None, endowment=False) at a whole age (a Python int) and
// a whole term (None or an int > 0): benefit / payments from the two compiled functions, given
// the very arguments the Python function gives them (so their cached columns answer, with the
// same bits). NotImplemented for every other call, and where no payment is due: the Python
// function answers those.
PyObject* net_premium_whole(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 5> names = {"table", "x", "n", "i", "endowment"};
    return py::guard([&]() -> PyObject* {
        const Arguments<5> a = parse_arguments("_net_premium_whole", names, 2, args, nargs, kwnames);
        PyObject* n = a.given(2) ? a.values[2] : Py_None;
        bool whole = PyLong_CheckExact(a.values[1]) && (n == Py_None || PyLong_CheckExact(n));
        if (whole && n != Py_None) {
            const long long term = PyLong_AsLongLong(n);
            if (term == -1 && PyErr_Occurred()) PyErr_Clear();
            whole = term > 0;
        }
        if (!whole) Py_RETURN_NOTIMPLEMENTED;
        PyObject* i = a.given(3) ? a.values[3] : Py_None;
        PyObject* endowment = a.given(4) ? a.values[4] : Py_False;
        py::ref one = py::ref::steal(py::require(PyLong_FromLong(1)));
        py::ref zero = py::ref::steal(py::require(PyLong_FromLong(0)));
        // _insurance(table, x, n, i, 1, 0, endowment) and _annuity(table, x, n, i, True, 1, 0).
        PyObject* const benefit_args[] = {a.values[0], a.values[1], n, i, one.get(), zero.get(), endowment};
        PyObject* const payment_args[] = {a.values[0], a.values[1], n, i, Py_True, one.get(), zero.get()};
        py::ref benefit = py::ref::steal(py::require(insurance(module, benefit_args, 7, nullptr)));
        py::ref payments = py::ref::steal(py::require(annuity(module, payment_args, 7, nullptr)));
        const double p = PyFloat_AsDouble(payments.get());
        const double b = PyFloat_AsDouble(benefit.get());
        if (PyErr_Occurred()) py::throw_error_set();
        if (p == 0.0) Py_RETURN_NOTIMPLEMENTED;
        return PyFloat_FromDouble(b / p);
    });
}

PyMethodDef functions[] = {
    {"_life_table", FASTCALL_KW(life_table), METH_FASTCALL | METH_KEYWORDS,
     "_life_table(table)\n--\n\n"
     "The columns Lx and Tx over ages 0..w as a tuple of float64 vectors."},
    {"_annuity", FASTCALL_KW(annuity), METH_FASTCALL | METH_KEYWORDS,
     "_annuity(table, x, n=None, i=None, due=True, m=1, defer=0, method='exact', moment=1, increasing=False, "
     "decreasing=False)\n--\n\n"
     "Life annuity values for ages x and terms n (see veltrane.contingencies.annuity)."},
    {"_insurance", FASTCALL_KW(insurance), METH_FASTCALL | METH_KEYWORDS,
     "_insurance(table, x, n=None, i=None, m=1, defer=0, endowment=False, method='exact', moment=1, "
     "increasing=False, decreasing=False)\n--\n\n"
     "Insurance values for ages x and terms n (see veltrane.contingencies.insurance)."},
    {"_pure_endowment", FASTCALL_KW(pure_endowment), METH_FASTCALL | METH_KEYWORDS,
     "_pure_endowment(table, x, n, i=None)\n--\n\n"
     "Pure endowments v^n l(x + n) / l(x) (see veltrane.contingencies.pure_endowment)."},
    {"_net_premium_whole", FASTCALL_KW(net_premium_whole), METH_FASTCALL | METH_KEYWORDS,
     "_net_premium_whole(table, x, n=None, i=None, endowment=False)\n--\n\n"
     "The net premium at a whole age and term, or NotImplemented (see veltrane.contingencies.net_premium)."},
    {"_commutation", FASTCALL_KW(commutation), METH_FASTCALL | METH_KEYWORDS,
     "_commutation(table, i=None)\n--\n\n"
     "The columns lx, dx, Dx, Nx, Sx, Cx, Mx, Rx over ages 0..w as a tuple of float64 vectors."},
};

}  // namespace
}  // namespace contingencies

void bind_contingencies(PyObject* module) {
    py::add_functions(module, contingencies::functions);
    bind_interest(module);
    bind_joint(module);
}

}  // namespace veltrane::decrement
