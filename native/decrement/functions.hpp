// Pieces shared by the actuarial functions: functions.cpp (lx, px, qx, dx and the lazy l
// vectors) and intervals.cpp (tpx, tqx and the age-by-duration grid).
// Every vector handed to a kernel is held by an owned reference for the kernel's duration,
// so a kernel running without the GIL never reads memory that another thread could free.
// Ages and durations may be the caller's own arrays (read in place, never written).
#pragma once

#include "decrement/table.hpp"
#include "kernels/gather.hpp"
#include "kernels/probability.hpp"

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace veltrane::decrement::actuarial {

// Vectors at least this long are computed with the GIL released; below it the release and
// re-acquisition would cost more than it frees.
inline constexpr std::size_t kReleaseGilCells = std::size_t{1} << 15;
// Longer vectors are computed in pieces of this many cells (a few milliseconds each), with
// the GIL taken back between pieces to honour Ctrl-C: a long call stops within one piece.
inline constexpr std::size_t kInterruptCheckCells = std::size_t{1} << 21;

// Runs `body()` once, without the GIL when the piece has `cells` cells or more.
template <class F>
auto run_piece(std::size_t cells, F&& body) {
    if (cells < kReleaseGilCells) return body();
    py::gil_released nogil;
    return body();
}

// Runs `body(begin, end)` over the cells [0, n) in pieces, each without the GIL when the
// whole is long enough, and stops at the first piece that reports a fault (its index is
// made relative to the whole). A signal handler that raises (KeyboardInterrupt) stops the
// loop with the error set; the pieces write only into the caller's new output vector, so
// nothing else is left half-done. `body` must touch no Python object.
template <class F>
std::optional<kernels::RangeFault> run_in_pieces(std::size_t n, F&& body) {
    if (n < kReleaseGilCells) return body(std::size_t{0}, n);
    for (std::size_t begin = 0; begin < n; begin += kInterruptCheckCells) {
        const std::size_t end = n - begin > kInterruptCheckCells ? begin + kInterruptCheckCells : n;
        std::optional<kernels::RangeFault> fault = run_piece(end - begin, [&] { return body(begin, end); });
        if (fault) {
            fault->index += begin;
            return fault;
        }
        if (end < n && PyErr_CheckSignals() < 0) py::throw_error_set();
    }
    return std::nullopt;
}

// The same for a kernel that cannot fail.
template <class F>
void run_unchecked_in_pieces(std::size_t n, F&& body) {
    run_in_pieces(n, [&](std::size_t begin, std::size_t end) -> std::optional<kernels::RangeFault> {
        body(begin, end);
        return std::nullopt;
    });
}

// Integer ages: below this many, filling a lookup costs more than it saves.
inline constexpr std::size_t kGatherMinimum = 64;

// The values of a function of the age at the ages `x`, when every one is whole (an integer
// >= 0; found out while reading, in one pass), as a new vector read from a lookup by integer
// age that `fill(lookup)` writes with the scalar kernels (one entry per age 0 .. lookup_n - 1,
// the last standing for all larger ages). Null when the fast path does not apply: switched
// off, too few ages, an age not whole, or `fill` refused (a value the general path reports).
template <class Fill>
py::ref gathered(TableObject* t, std::size_t lookup_n, std::span<const double> x, Fill&& fill) {
    if (!t->st->fast_paths || x.size() < kGatherMinimum) return {};
    std::vector<double> lookup(lookup_n);
    if (!fill(std::span<double>(lookup))) return {};
    py::ref out = py::new_f64(static_cast<npy_intp>(x.size()));
    const std::span<double> o = py::f64_span(out.get());
    bool whole = true;
    run_unchecked_in_pieces(x.size(), [&](std::size_t b, std::size_t e) {
        whole = whole && kernels::gather_whole(lookup, x.subspan(b, e - b), o.subspan(b, e - b));
    });
    if (!whole) return {};
    return out;
}

// Ages or durations after validation or conversion.
struct Values {
    py::ref array;        // the vector (null when a scalar was given)
    double value = 0.0;   // the number when `array` is null
    bool scalar = false;  // a scalar was given: the result takes the scalar's shape
    std::span<const double> view() const {
        return array ? py::f64_cspan(array.get()) : std::span<const double>(&value, 1);
    }
    std::size_t size() const { return array ? static_cast<std::size_t>(py::f64_size(array.get())) : 1; }
};

// Checked: finite numbers only, "[method] attr must be finite, got nan" otherwise.
Values validated(PyObject* obj, std::string_view method, std::string_view attr);
// Unchecked conversion to a vector (internal callers that validated already).
Values converted(PyObject* obj);
bool any_negative(std::span<const double> values) noexcept;

// The table's last age in force (`w`).
double table_w(TableObject* t);
// The decrement vector in use, or a ValueError naming the table when there is none.
py::ref decrement_vector(TableObject* t);

// The rounded (or, with `raw`, unrounded) l vector, built on first use, with the settings.
struct LVector {
    py::ref keep;
    kernels::Survivorship view;
};
LVector survivorship(TableObject* t, const ConfigSnapshot& cfg, bool raw);

[[noreturn]] void raise_negative_ages(TableObject* t, const char* prefix);
[[noreturn]] void raise_fault(const kernels::RangeFault& fault, std::string_view caller);

// A Python float: a new reference for returning, or owned.
inline PyObject* new_float(double v) { return py::require(PyFloat_FromDouble(v)); }
inline py::ref float_result(double v) { return py::check(PyFloat_FromDouble(v)); }

enum class Probability { px, qx };

// The one-period engine: ages already validated (or converted), m already checked.
// `scalar_result` asks for a float (the input was a single number).
py::ref decrement_interval(TableObject* t, Probability kind, const Values& x, double m, bool use_raw,
                           bool scalar_result);

// intervals.cpp
PyObject* Table_tpx(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);
PyObject* Table_tqx(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);
PyObject* Table_prob_life_interval(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);

}  // namespace veltrane::decrement::actuarial
