// Interval probabilities tpx and tqx: a scalar, a vector over ages or over durations, or the
// age-by-duration grid. tpx with t = 1 at integer ages takes the one-period engine, so that
// tpx(x, 1) equals px(x) exactly. The grid is written straight into the result in pieces of
// whole rows, kGridBlockCells cells at most (or pieces of one row when a row is longer), each
// computed without the GIL; nothing else grows with the grid, and Ctrl-C is honoured between
// pieces.
#include "decrement/functions.hpp"

#include "decrement/arguments.hpp"

#include <algorithm>
#include <vector>

namespace veltrane::decrement::actuarial {
namespace {

enum class Interval { tpx, tqx };

const char* interval_name(Interval kind) { return kind == Interval::tpx ? "tpx" : "tqx"; }

Values unit_duration() {
    Values one;
    one.value = 1.0;
    one.scalar = true;
    return one;
}

// Rows [first, end) of a grid of whole ages and durations: each row from a lookup of its
// ratios l(a) / l(x) by the age reached a, made with the general kernel's operations; a row
// whose lookup holds a value outside [0, 1] is left to the general kernel, which reports it
// if a duration reaches it.
std::optional<kernels::RangeFault> whole_grid_rows(const kernels::Survivorship& s, std::span<const double> x,
                                                   std::span<const double> t, const kernels::Finish& finish,
                                                   std::size_t first, std::size_t end, std::span<double> cells) {
    std::vector<double> lookup(kernels::lookup_size(s.l.size(), s.w));
    const std::size_t k = t.size();
    for (std::size_t i = first; i < end; ++i) {
        const double b = kernels::lx_point(s, x[i]);
        bool ok = true;
        if (b != 0.0) {
            for (auto a = static_cast<std::size_t>(x[i] < static_cast<double>(lookup.size()) ? x[i] : 0.0);
                 a < lookup.size() && ok; ++a) {
                const double r = kernels::lx_point(s, static_cast<double>(a)) / b;
                ok = kernels::within_unit_interval(r, s.eps);
                lookup[a] = finish(kernels::clamp_unit(r));
            }
        } else {
            std::fill(lookup.begin(), lookup.end(), finish(0.0));
        }
        if (ok) {
            kernels::gather_shifted(lookup, x[i], t, cells.data() + i * k);
        } else if (std::optional<kernels::RangeFault> fault = kernels::interval_grid(s, x, t, finish, i, i + 1, cells)) {
            return fault;
        }
    }
    return std::nullopt;
}

py::ref life_interval(TableObject* t, Interval kind, const Values& x, const Values& d, bool x_single,
                      bool t_single, bool use_raw) {
    const ConfigSnapshot cfg = config(t->st);
    const kernels::Finish finish{kind == Interval::tqx, kind == Interval::tpx ? cfg.tpx : cfg.tqx};
    const LVector l = survivorship(t, cfg, use_raw);
    const std::span<const double> ages = x.view();
    const std::span<const double> durations = d.view();
    const std::size_t n = ages.size();
    const std::size_t k = durations.size();
    if (t_single) {
        // One duration: both l values rounded to the lx decimals, ratios checked.
        const double duration = durations[0];
        if (x_single) {
            const kernels::Rounder lx_round(cfg.lx);
            const double p = kernels::interval_survival_rounded(l.view, ages[0], duration, lx_round);
            if (!kernels::within_unit_interval(p, numeric::kEpsInt)) {
                raise_fault({0, p}, "_prob_life_interval:tpx");
            }
            return float_result(finish(kernels::clamp_unit(p)));
        }
        const kernels::Rounder lx_round(cfg.lx);
        auto fill = [&](std::span<double> lookup) {
            for (std::size_t a = 0; a < lookup.size(); ++a) {
                const double p = kernels::interval_survival_rounded(l.view, static_cast<double>(a), duration, lx_round);
                if (!kernels::within_unit_interval(p, numeric::kEpsInt)) return false;
                lookup[a] = finish(kernels::clamp_unit(p));
            }
            return true;
        };
        if (py::ref whole = gathered(t, kernels::lookup_size(l.view.l.size(), l.view.w), ages, fill)) return whole;
        py::ref out = py::new_f64(static_cast<npy_intp>(n));
        const std::span<double> o = py::f64_span(out.get());
        const std::optional<kernels::RangeFault> fault = run_in_pieces(n, [&](std::size_t b, std::size_t e) {
            return kernels::interval_survivals_rounded(l.view, ages.subspan(b, e - b), duration, lx_round, finish,
                                                       o.subspan(b, e - b));
        });
        if (fault) raise_fault(*fault, "_prob_life_interval:tpx");
        return out;
    }
    // Several durations: l values as evaluated, one row per age.
    py::ref out = x_single ? py::new_f64(static_cast<npy_intp>(k))
                           : py::new_f64_2d(static_cast<npy_intp>(n), static_cast<npy_intp>(k));
    if (n == 0 || k == 0) return out;
    const std::span<double> cells(py::f64_data(out.get()), n * k);
    const std::size_t rows_per_piece = std::max<std::size_t>(1, kGridBlockCells / k);
    // Whole ages and durations read each row from a lookup by the age reached, worth its
    // making when a row is longer than half the table.
    const bool whole = t->st->fast_paths && 2 * k >= kernels::lookup_size(l.view.l.size(), l.view.w) &&
                       kernels::all_whole_ages(ages) && kernels::all_whole_ages(durations);
    for (std::size_t first = 0; first < n; first += rows_per_piece) {
        const std::size_t end = std::min(n, first + rows_per_piece);
        std::optional<kernels::RangeFault> fault;
        if (end - first == 1 && k > kInterruptCheckCells) {
            // One row longer than a piece: its columns are cut into pieces instead.
            const std::span<const double> age = ages.subspan(first, 1);
            const std::span<double> row = cells.subspan(first * k, k);
            fault = run_in_pieces(k, [&](std::size_t b, std::size_t e) {
                return kernels::interval_grid(l.view, age, durations.subspan(b, e - b), finish, 0, 1,
                                              row.subspan(b, e - b));
            });
        } else if (whole) {
            fault = run_piece((end - first) * k, [&] { return whole_grid_rows(l.view, ages, durations, finish, first, end, cells); });
        } else {
            static_assert(kGridBlockCells <= kInterruptCheckCells, "a block of whole rows is one piece");
            fault = run_piece((end - first) * k, [&] {
                return kernels::interval_grid(l.view, ages, durations, finish, first, end, cells);
            });
        }
        if (fault) raise_fault(*fault, "_prob_life_interval:tpx");
        if (end < n && PyErr_CheckSignals() < 0) py::throw_error_set();
    }
    return out;
}

// Validated ages and durations: rejects negatives, then evaluates.
py::ref checked_life_interval(TableObject* t, Interval kind, const Values& x, const Values& d, bool use_raw) {
    const char* name = interval_name(kind);
    if (any_negative(x.view())) py::raise(PyExc_ValueError, "[%s] Ages 'x' must be >= 0", name);
    if (any_negative(d.view())) py::raise(PyExc_ValueError, "[%s]: t must be >= 0", name);
    return life_interval(t, kind, x, d, x.scalar, d.scalar, use_raw);
}

constexpr std::array<const char*, 2> kXT = {"x", "t"};

}  // namespace

PyObject* Table_tpx(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&]() -> PyObject* {
        const Arguments<2> a = parse_arguments("tpx", kXT, 1, args, nargs, kwnames);
        TableObject* t = as_table(self);
        ensure_ready(t, "tpx");
        const Values d = a.given(1) ? validated(a.values[1], "tpx", "t") : unit_duration();
        const Values x = validated(a.values[0], "tpx", "x");
        if (d.scalar && d.value == 1.0 && kernels::all_integer_ages(x.view(), numeric::kEpsInt)) {
            if (any_negative(x.view())) raise_negative_ages(t, "");
            return decrement_interval(t, Probability::px, x, 1.0, false, x.scalar).release();
        }
        return checked_life_interval(t, Interval::tpx, x, d, false).release();
    });
}

PyObject* Table_tqx(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&]() -> PyObject* {
        const Arguments<2> a = parse_arguments("tqx", kXT, 1, args, nargs, kwnames);
        TableObject* t = as_table(self);
        ensure_ready(t, "tqx");
        const Values x = validated(a.values[0], "tqx", "x");
        const Values d = a.given(1) ? validated(a.values[1], "tqx", "t") : unit_duration();
        return checked_life_interval(t, Interval::tqx, x, d, false).release();
    });
}

PyObject* Table_prob_life_interval(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    static constexpr std::array<const char*, 5> names = {"prob_type", "x", "t", "validate", "use_raw"};
    return py::guard([&]() -> PyObject* {
        const Arguments<5> a = parse_arguments("_prob_life_interval", names, 2, args, nargs, kwnames);
        TableObject* t = as_table(self);
        ensure_ready(t, "_prob_life_interval");
        Interval kind;
        if (str_equals(a.values[0], "tpx")) {
            kind = Interval::tpx;
        } else if (str_equals(a.values[0], "tqx")) {
            kind = Interval::tqx;
        } else {
            py::raise(PyExc_ValueError, "_prob_life_interval: prob_type must be 'tpx' or 'tqx'");
        }
        const bool validate = py::require(PyObject_IsTrue(a.get(3, Py_True))) == 1;
        const bool use_raw = py::require(PyObject_IsTrue(a.get(4, Py_False))) == 1;
        const char* name = interval_name(kind);
        if (validate) {
            const Values x = validated(a.values[1], name, "x");
            const Values d = a.given(2) ? validated(a.values[2], name, "t") : unit_duration();
            return checked_life_interval(t, kind, x, d, use_raw).release();
        }
        const Values x = converted(a.values[1]);
        const Values d = a.given(2) ? converted(a.values[2]) : unit_duration();
        return life_interval(t, kind, x, d, x.size() == 1, d.size() == 1, use_raw).release();
    });
}

}  // namespace veltrane::decrement::actuarial
