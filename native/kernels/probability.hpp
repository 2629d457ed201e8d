// Survivorship at real ages, one-period and interval probabilities, decrements and the
// age-by-duration grid, over spans. Each routine repeats the whole-vector NumPy formulation
// operation by operation (same operations, same order), so results agree bit for bit;
// rounding is round-half-to-even (rounding.hpp).
//
// NaN rules: a NaN age or duration gives a NaN survivorship value; masks written as
// `l != 0` let NaN through, masks written as comparisons (`x + t <= w`) do not, exactly as
// in NumPy. Ages above the last age w give 0 survivors; negative ages count as age 0.
// Indices are always clipped to the vector, so no input can read outside it.
// Probabilities are checked: a survival probability outside [-eps, 1 + eps] (or NaN, which
// only rates or l values edited by hand can produce) is a RangeFault, smaller excursions are
// clamped into [0, 1]. Whole-vector routines check for themselves; callers of the scalar
// forms check with within_unit_interval.
// Output spans may alias the age span (each result is written after its age is read).
#pragma once

#include "kernels/rounding.hpp"
#include "kernels/survival.hpp"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace veltrane::kernels {

// The survivorship vector l of a table (index = integer age from 0), the table's last age w
// (normally l.size() - 1), the interpolation between integer ages and the tolerance within
// which a real age counts as an integer.
struct Survivorship {
    std::span<const double> l;
    double w = 0.0;
    Interpolation method = Interpolation::linear;
    double eps = 1e-9;
};

// How a survival probability p becomes a result: p or its complement 1 - p, then rounded.
struct Finish {
    Finish(bool complement_, int decimals) noexcept : complement(complement_), round(decimals) {}
    bool complement;
    Rounder round;
    double operator()(double p) const noexcept { return round(complement ? 1.0 - p : p); }
};

// The first probability found outside [-eps, 1 + eps] (or NaN) by a checking routine.
struct RangeFault {
    std::size_t index;
    double value;
};

// |x - rint(x)| <= eps (NaN and infinities are not integers).
inline bool is_integer_age(double x, double eps) noexcept { return std::fabs(x - round_half_even(x)) <= eps; }

inline bool all_integer_ages(std::span<const double> x, double eps) noexcept {
    for (double v : x) {
        if (!is_integer_age(v, eps)) return false;
    }
    return true;
}

// np.clip(x, 0.0, w): the minimum with w, then the maximum with 0 (NaN stays NaN).
inline double clip_age(double x, double w) noexcept {
    const double upper = w < x ? w : x;
    return upper < 0.0 ? 0.0 : upper;
}

// True when p lies in [-eps, 1 + eps]; such a p is then clamped into [0, 1].
inline bool within_unit_interval(double p, double eps) noexcept { return p >= -eps && p <= 1.0 + eps; }
inline double clamp_unit(double p) noexcept { return p < 0.0 ? 0.0 : (p > 1.0 ? 1.0 : p); }

inline double interpolate(double lo, double hi, double frac, Interpolation method) noexcept {
    switch (method) {
        case Interpolation::linear: return interpolate_linear(lo, hi, frac);
        case Interpolation::exponential: return interpolate_exponential(lo, hi, frac);
        case Interpolation::hyperbolic: return interpolate_hyperbolic(lo, hi, frac);
    }
    return interpolate_linear(lo, hi, frac);
}

// l(x): exact at integer ages (an age within eps below an integer counts as that integer),
// interpolated between them, 0 above w.
inline double lx_point(const Survivorship& s, double x) noexcept {
    if (std::isnan(x)) return x;
    if (x > s.w || s.l.empty()) return 0.0;
    if (x < 0.0) x = 0.0;
    const std::size_t last = s.l.size() - 1;
    // From the last index on, both neighbours are l[last] (indices are clipped): no interpolation.
    if (x >= static_cast<double>(last)) return s.l[last];
    const auto whole = static_cast<std::int64_t>(x);  // 0 <= x < last: truncation is the floor
    const double frac = x - static_cast<double>(whole);
    const auto i = static_cast<std::size_t>(whole);
    if (frac <= s.eps) return s.l[i];
    if (frac >= 1.0 - s.eps) return s.l[i + 1];
    return interpolate(s.l[i], s.l[i + 1], frac, s.method);
}

// One-year survival at an integer age from the rates q: 1 - q[rint x] (index clipped to q),
// 0 from the last age w on.
inline double survival_from_rate(std::span<const double> q, double w, double x) noexcept {
    if (x >= w || q.empty()) return 0.0;
    const double r = round_half_even(x);
    const std::size_t last = q.size() - 1;
    if (!(r > 0.0)) return 1.0 - q[0];
    if (r >= static_cast<double>(last)) return 1.0 - q[last];
    return 1.0 - q[static_cast<std::size_t>(static_cast<std::int64_t>(r))];
}

// l(xc + period) / l(xc) on the clipped age xc from unrounded l values; 0 where l(xc) = 0
// or the period passes w (the annual path for fractional ages).
inline double period_survival(const Survivorship& s, double x, double period) noexcept {
    const double xc = clip_age(x, s.w);
    const double l0 = lx_point(s, xc);
    const double l1 = lx_point(s, xc + period);
    return (l0 != 0.0 && xc + period <= s.w) ? l1 / l0 : 0.0;
}

// A single age and a sub-annual period: the age is limited to w (not clipped at 0), and the
// ratio is 0 from w on. Unchecked: the caller tests the unit interval.
inline double period_survival_single(const Survivorship& s, double x, double period,
                                     const Rounder& lx_round) noexcept {
    const double x0 = x > s.w ? s.w : x;
    const double l1 = lx_round(lx_point(s, x0 + period));
    const double l0 = lx_round(lx_point(s, x0));
    return (l0 == 0.0 || x0 >= s.w) ? 0.0 : l1 / l0;
}

// l(x + t) / l(x) with both l values rounded to the lx decimals; 0 where l(x) rounds to 0.
inline double interval_survival_rounded(const Survivorship& s, double x, double t, const Rounder& lx_round) noexcept {
    const double a = lx_round(lx_point(s, x + t));
    const double b = lx_round(lx_point(s, x));
    return b != 0.0 ? a / b : 0.0;
}

// d(x) = l(x) - l(x + 1), rounded.
inline double decrement_point(const Survivorship& s, double x, const Rounder& round) noexcept {
    return round(lx_point(s, x) - lx_point(s, x + 1.0));
}

// ---- whole vectors ---------------------------------------------------------------------
// Loops run in short passes over chunks of a few hundred values, so that the processor
// overlaps the divisions of many elements instead of waiting on one long chain per element.

// out[k] = l(x[k]), unrounded.
void survivors(const Survivorship& s, std::span<const double> x, std::span<double> out) noexcept;
// out[k] = l(x[k]), rounded.
void survivors_rounded(const Survivorship& s, std::span<const double> x, const Rounder& round,
                       std::span<double> out) noexcept;
// out[i] = l(i) at the integer ages i = 0 .. out.size() - 1 (all at most w), rounded.
void survivors_by_age(const Survivorship& s, const Rounder& round, std::span<double> out) noexcept;
// out[k] = d(x[k]), rounded.
void decrements(const Survivorship& s, std::span<const double> x, const Rounder& round,
                std::span<double> out) noexcept;
// d by integer age from the vector itself: l[i] - l[i + 1], and l[last] for the last age.
void decrements_by_age(std::span<const double> l, const Rounder& round, std::span<double> out) noexcept;
// out[k] = finish(q[k]) for the rates q themselves (px: 1 - q; qx: q), each rate checked and
// clamped first; a fault holds the value the caller asked for (1 - q for px, q for qx).
std::optional<RangeFault> finish_rates(std::span<const double> q, const Finish& finish, double eps,
                                       std::span<double> out) noexcept;

// One-year probabilities at integer ages from the rates (survival_from_rate): checked,
// clamped, finished.
std::optional<RangeFault> survival_from_rates(std::span<const double> q, double w, std::span<const double> x,
                                              double eps, const Finish& finish, std::span<double> out) noexcept;
// period_survival over ages: checked, clamped, finished. With `lx_round`, both l values are
// first rounded to the lx decimals (sub-annual periods). Stops at the first fault.
std::optional<RangeFault> period_survivals(const Survivorship& s, std::span<const double> x, double period,
                                           const Finish& finish, std::span<double> out,
                                           const Rounder* lx_round = nullptr) noexcept;
// interval_survival_rounded over ages for one duration: checked, clamped, finished.
std::optional<RangeFault> interval_survivals_rounded(const Survivorship& s, std::span<const double> x, double t,
                                                     const Rounder& lx_round, const Finish& finish,
                                                     std::span<double> out) noexcept;

// The age-by-duration grid, rows [row_begin, row_end) of it: out[i * t.size() + j] =
// l(x[i] + t[j]) / l(x[i]) from unrounded l values, 0 where l(x[i]) = 0, checked, clamped,
// finished. `out` spans the whole grid (x.size() * t.size() cells, row-major); a fault's
// index is the cell's.
std::optional<RangeFault> interval_grid(const Survivorship& s, std::span<const double> x, std::span<const double> t,
                                        const Finish& finish, std::size_t row_begin, std::size_t row_end,
                                        std::span<double> out) noexcept;

}  // namespace veltrane::kernels
