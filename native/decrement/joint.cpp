// _joint: the values of two independent lives (veltrane.contingencies.JointLife and the
// functions that take one). Every argument is checked before either table computes anything,
// so a refused call changes nothing; the kernels (kernels/joint) then value each pair on the
// survival of its status, each life on its own table's model (its select diagonal included).
#include "decrement/arguments.hpp"
#include "decrement/contingencies.hpp"
#include "kernels/joint.hpp"
#include "pyutil/module_functions.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <string>
#include <vector>

namespace veltrane::decrement {
namespace contingencies {
namespace {

using numeric::number_text;

enum class Kind { tpx, curtate, complete, annuity, insurance, pure_endowment, contingent };

struct KindName {
    const char* key;
    Kind kind;
    const char* method;  // the name in messages
};
constexpr std::array<KindName, 7> kKinds = {{{"tpx", Kind::tpx, "JointLife.tpx"},
                                             {"ex", Kind::curtate, "JointLife.ex"},
                                             {"ex_complete", Kind::complete, "JointLife.ex"},
                                             {"annuity", Kind::annuity, "annuity"},
                                             {"insurance", Kind::insurance, "insurance"},
                                             {"pure_endowment", Kind::pure_endowment, "pure_endowment"},
                                             {"contingent", Kind::contingent, "contingent_insurance"}}};

const KindName& kind_argument(PyObject* kind) {
    for (const KindName& k : kKinds) {
        if (str_equals(kind, k.key)) return k;
    }
    py::raise(PyExc_ValueError, "_joint: unknown kind %R", kind);
}

kernels::Status status_argument(PyObject* status) {
    if (status == nullptr || str_equals(status, "joint")) return kernels::Status::joint;
    if (str_equals(status, "last")) return kernels::Status::last;
    py::raise(PyExc_ValueError, "[JointLife] status must be 'joint' or 'last', got %R", status);
}

double pick(std::span<const double> v, std::size_t k) noexcept { return v.size() == 1 ? v[0] : v[k]; }

PyObject* joint(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 12> names = {"kind", "first", "second", "status", "x",     "y",
                                                          "n",    "i",     "m",      "due",    "defer", "endowment"};
    return py::guard([&]() -> PyObject* {
        const Arguments<12> a = parse_arguments("_joint", names, 6, args, nargs, kwnames);
        const KindName& kind = kind_argument(a.values[0]);
        const char* method = kind.method;
        TableObject* first = table_argument(module, a.values[1], method);
        TableObject* second = table_argument(module, a.values[2], method);
        const kernels::Status status = status_argument(a.values[3]);
        const actuarial::Values x = checked_ages(first, a.values[4], method);
        const actuarial::Values y = checked_ages(second, a.values[5], method);
        if (!x.scalar && !y.scalar && x.size() != y.size()) {
            py::raise(PyExc_ValueError, "[%s] the ages x and y of the pair must have the same length, got %zd and %zd",
                      method, static_cast<Py_ssize_t>(x.size()), static_cast<Py_ssize_t>(y.size()));
        }
        const bool valued = kind.kind != Kind::tpx && kind.kind != Kind::curtate && kind.kind != Kind::complete;
        const kernels::Interest r = valued ? interest(a.values[1], a.values[7], method) : kernels::Interest(0.0);
        const int m = kind.kind == Kind::annuity || kind.kind == Kind::insurance ? frequency(a.values[8], method) : 1;
        const bool due = a.given(9) ? flag(a.values[9], method, "due") : true;
        const bool endowment = a.given(11) ? flag(a.values[11], method, "endowment") : false;
        PyObject* n_arg = a.get(6, Py_None);
        if (n_arg == Py_None && (kind.kind == Kind::tpx || kind.kind == Kind::pure_endowment || endowment)) {
            py::raise(PyExc_ValueError, "[%s] needs a term n", method);
        }
        // Annuities run in their payment periods (any real term when continuous); the
        // probabilities, pure endowments and the complete expectation at any real term.
        const int per_year = kind.kind == Kind::annuity                              ? m
                             : kind.kind == Kind::insurance || kind.kind == Kind::curtate ||
                                     kind.kind == Kind::contingent                   ? 1
                                                                                     : 0;
        const actuarial::Values n = term(n_arg, per_year, method);
        const double defer = kind.kind == Kind::annuity || kind.kind == Kind::insurance
                                 ? deferment(a.values[10], kind.kind == Kind::annuity ? m : 1, method)
                                 : 0.0;
        const actuarial::Values& pair = x.scalar ? y : x;
        check_lengths(pair, n, method);
        // A single element (a number or a vector of one) takes the length of the others.
        const std::size_t count = std::max({x.size(), y.size(), n.size()});
        const Lives lives_first(first, method);
        const Lives lives_second(second, method);
        py::ref out;
        double value = 0.0;
        std::span<double> o(&value, 1);
        if (!(x.scalar && y.scalar && n.scalar)) {
            out = py::new_f64(static_cast<npy_intp>(count));
            o = py::f64_span(out.get());
        }
        const std::span<const double> xs = x.view(), ys = y.view(), ns = n.view();
        actuarial::run_piece(count * 64, [&] {
            std::vector<double> l1, l2;
            for (std::size_t k = 0; k < o.size(); ++k) {
                const double xv = pick(xs, k), yv = pick(ys, k), nv = pick(ns, k);
                const kernels::LifeModel one = lives_first.model_at(xv, l1);
                const kernels::LifeModel two = lives_second.model_at(yv, l2);
                if (kind.kind == Kind::contingent) {
                    o[k] = kernels::first_failing(one, xv, two, yv, r, nv);
                    continue;
                }
                const kernels::PairSurvival s(one, xv, two, yv, status);
                switch (kind.kind) {
                    case Kind::tpx: o[k] = s(nv); break;
                    case Kind::curtate: o[k] = kernels::pair_expectation(s, false, nv); break;
                    case Kind::complete: o[k] = kernels::pair_expectation(s, true, nv); break;
                    case Kind::annuity:
                        o[k] = kernels::pair_annuity(s, r, kernels::Payments{m, due, defer}, nv);
                        break;
                    case Kind::insurance: o[k] = kernels::pair_insurance(s, r, defer, m, endowment, nv); break;
                    case Kind::pure_endowment: o[k] = kernels::pair_pure_endowment(s, r, nv); break;
                    case Kind::contingent: break;
                }
            }
        });
        const auto infinite = std::find_if(o.begin(), o.end(), [](double v) { return !std::isfinite(v); });
        if (infinite != o.end() && !lives_first.has_nan() && !lives_second.has_nan()) {
            const std::size_t k = static_cast<std::size_t>(infinite - o.begin());
            py::raise_str(PyExc_ValueError, "[" + std::string(method) + "] at i = " + number_text(r.i) +
                                                " the value at (x, y) = (" + number_text(pick(xs, k)) + ", " +
                                                number_text(pick(ys, k)) + ") is beyond the range of a float");
        }
        return out ? out.release() : actuarial::new_float(value);
    });
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

PyMethodDef functions[] = {
    {"_joint", FASTCALL_KW(joint), METH_FASTCALL | METH_KEYWORDS,
     "_joint(kind, first, second, status, x, y, n=None, i=None, m=1, due=True, defer=0, endowment=False)\n--\n\n"
     "Values of two independent lives (see veltrane.contingencies.JointLife)."},
};

}  // namespace
}  // namespace contingencies

void bind_joint(PyObject* module) { py::add_functions(module, contingencies::functions); }

}  // namespace veltrane::decrement
