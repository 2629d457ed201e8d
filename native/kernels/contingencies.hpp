// Life contingencies over a survivorship vector: expectation of life, life annuities,
// insurances, pure endowments and commutation columns, at an annual effective rate i > -1.
//
// Survival model (LifeModel): l at integer ages 0..w, between them the table's interpolation;
// the survivors at w leave uniformly over the following year, l(w + f) = l(w) (1 - f), and l is
// 0 from w + 1 on. A year that ends without survivors (q = 1: the year after w, or a certain rate
// below w) is UDD under every interpolation, since q = 1 has no constant-force or Balducci form:
// both would put every exit at the very start of the year.
//
// Callers validate: ages in [0, w], terms and deferments >= 0 and whole numbers of the
// periods the routine works in, finite i > -1, m in 1..12. Below 0 the discount factor v
// exceeds 1 and grows without bound with time, so a payment that no life reaches is 0 however
// far off it is (never v^t times 0, which is NaN once v^t overflows). NaN rules: no input may be NaN;
// a NaN in l (rates edited by hand) propagates into every result that reads it. Where
// l(x) = 0 (ages past a certain rate below w) every conditional value is 0.
// Pairs of ages and terms broadcast: both spans have one length, or one of them has one element.
#pragma once

#include "kernels/interest.hpp"
#include "kernels/probability.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <optional>
#include <span>
#include <vector>

namespace veltrane::kernels {

inline constexpr double kWholeLife = std::numeric_limits<double>::infinity();

struct LifeModel {
    Survivorship s;  // unrounded l(0..w), w, interpolation, integer tolerance

    // l at the integer age j: l[j] up to w (the last index for a short vector), 0 after w.
    double l_int(std::size_t j) const noexcept {
        if (static_cast<double>(j) > s.w || s.l.empty()) return 0.0;
        return s.l[j < s.l.size() ? j : s.l.size() - 1];
    }
    // l at any real age y >= 0, with the years that end without survivors as above.
    double at(double y) const noexcept {
        if (y <= s.w) {
            if (s.method == Interpolation::linear || !(y >= 0.0)) return lx_point(s, y);
            const auto j = static_cast<std::size_t>(y);
            if (l_int(j + 1) != 0.0) return lx_point(s, y);
            return lx_point(Survivorship{s.l, s.w, Interpolation::linear, s.eps}, y);
        }
        if (y < s.w + 1.0) return l_int(static_cast<std::size_t>(s.w)) * (1.0 - (y - s.w));
        return 0.0;
    }
    // The interpolation in force in the year of age j.
    Interpolation year_method(std::size_t j) const noexcept {
        return l_int(j + 1) != 0.0 ? s.method : Interpolation::linear;
    }
    // The integral of l(j + t) over a <= t <= b within the year of age j (0 <= a <= b <= 1), in
    // closed form for the year's interpolation.
    double integral(std::size_t j, double a, double b) const noexcept;
    // The same integral discounted to its start, the integral of v^(t - a) l(j + t); with
    // delta = 0 it is integral(j, a, b).
    double discounted_integral(std::size_t j, double a, double b, double delta) const noexcept;
    // The exits of the year of age j between j + a and j + b, each valued at the moment it
    // happens and discounted to j + a: the integral of v^(t - a) (-dl(j + t)).
    double discounted_exits(std::size_t j, double a, double b, double delta) const noexcept;
    // The exits of the whole year of age j paid at the end of the 1/m-th of a year in which they
    // happen (m = kContinuous: at the moment), discounted to age j, under the year's interpolation.
    double year_exits(std::size_t j, const Interest& r, int m) const noexcept;
    // The force of decrement at age y, -(ln p(y - 1) + ln p(y)) / 2 with p(y) = l(y + 1) / l(y):
    // the one term that exists where the other does not (below age 1, from w on), 0 where l(y) = 0.
    // An approximation from whole-year probabilities (Woolhouse's formula uses it).
    double force(double y) const noexcept;
    // The force of decrement -l'(y) / l(y) under the interpolation. At a whole age the
    // right-hand value (that of the year of age that starts there), so never NaN; 0 where
    // l(y) = 0. At w it is 1 (the survivors at w leave uniformly over the next year).
    double hazard(double y) const noexcept;
};

// An age within the integer tolerance of a whole number, as that number (or -1 when it is not one).
inline double whole_age(double x, double eps) noexcept {
    const double r = round_half_even(x);
    return std::fabs(x - r) <= eps ? r : -1.0;
}

// ---- quadrature ---------------------------------------------------------------------------
// Gauss-Legendre with 16 nodes on [-1, 1] (the positive half; the rule is symmetric). Shared by
// the single-life integrals and those of two lives (kernels/joint).
inline constexpr double kNodes[8] = {0.09501250983763744, 0.2816035507792589, 0.45801677765722737, 0.6178762444026438,
                              0.755404408355003,   0.8656312023878318, 0.9445750230732326,  0.9894009349916499};
inline constexpr double kWeights[8] = {0.18945061045506864, 0.18260341504492364, 0.16915651939500265, 0.1495959888165767,
                                0.12462897125553407, 0.0951585116824926,  0.062253523938647456, 0.027152459411754176};

// The integral of f over [a, a + width] in `panels` equal panels of 16 nodes each: exact to
// rounding for the smooth (entire) integrands below once no panel spans more than a unit of
// their exponents.
template <class F>
double gauss_legendre(double a, double width, int panels, F f) {
    const double h = width / panels;
    double sum = 0.0;
    for (int p = 0; p < panels; ++p) {
        const double mid = a + (p + 0.5) * h;
        double panel = 0.0;
        for (int k = 0; k < 8; ++k) panel += kWeights[k] * (f(mid - kNodes[k] * h / 2.0) + f(mid + kNodes[k] * h / 2.0));
        sum += panel * h / 2.0;
    }
    return sum;
}

inline int panels_for(double extent) noexcept { return 1 + static_cast<int>(std::min(std::fabs(extent), 1e4)); }

// ---- expectation of life ------------------------------------------------------------------
// out[k] = curtate e(x[k]) = sum over k >= 1 of l(x + k) / l(x), or with `complete` the complete
// expectation, the integral of l(x + t) / l(x) over t >= 0.
void expectation(const LifeModel& life, std::span<const double> x, bool complete, std::span<double> out);

// ---- annuities ----------------------------------------------------------------------------
// Payments of 1/m at the times defer + k/m (k = 0 .. n m - 1; with `due` false one period
// later) while the life survives, discounted and divided by l(x). n = kWholeLife for life.
// Requires defer * m and n * m whole numbers (n * m when finite).
struct Payments {
    int m = 1;
    bool due = true;
    double defer = 0.0;
};
// m = kContinuous: paid continuously, the integral of v^t l(x + t) / l(x) over defer .. defer + n
// (any real defer and n; `due` does not apply).
void annuity(const LifeModel& life, const Interest& r, const Payments& p, std::span<const double> x,
             std::span<const double> n, std::span<double> out);

// The m-thly annuity-due from annual annuities-due ann (of the same x, n, defer, due=true):
// method udd: alpha(m) ann - beta(m) (E(defer) - E(defer + n)), evaluated as alpha(m) a + (alpha(m) -
// beta(m)) (E(defer) - E(defer + n)) with a the annual annuity in arrears;
// woolhouse with 2 terms: ann - (m - 1) / 2m (E(defer) - E(defer + n));
// with 3 terms also - (m^2 - 1) / 12 m^2 (E(defer) (delta + mu(x + defer)) - E(defer + n) (delta + mu(x + defer + n))),
// where E(t) = v^t l(x + t) / l(x). Then, for payments in arrears, minus (E(defer) - E(defer + n)) / m.
// With m = 1 every method is the annual annuity (in advance or in arrears). Whole years only (n, defer).
//
// Woolhouse's formula is the start of an asymptotic series; cut after its second correction it
// means something only while that correction is smaller than the first (with delta + mu large,
// at high rates or forces, it would go on to any value, negative ones too). The first element
// where it is not is returned, with both corrections, and the outputs are then not to be used.
// Within that bound the value is never negative.
enum class AnnuityApproximation { udd, woolhouse2, woolhouse3 };
struct Breakdown {
    std::size_t index;     // in the elements of the call
    double first, second;  // the first and second corrections there
};
std::optional<Breakdown> annuity_from_annual(const LifeModel& life, const Interest& r, const Payments& p,
                                             AnnuityApproximation method, std::span<const double> x,
                                             std::span<const double> n, std::span<double> out);

// ---- insurances and endowments ------------------------------------------------------------
// 1 paid on leaving within the years defer .. defer + n - 1 (whole years; n = kWholeLife for
// life), plus with `endowment` 1 paid at defer + n on survival; discounted and divided by l(x).
// The death benefit is paid at the end of the 1/m-th of a year of leaving (m = kContinuous: at
// the moment); `exact` follows the table's interpolation within the year, otherwise (UDD) the
// benefit at the end of the year is multiplied by i / i^(m) (i / delta).
struct Benefit {
    int m = 1;
    bool exact = true;
    bool endowment = false;
};
void insurance(const LifeModel& life, const Interest& r, double defer, const Benefit& b, std::span<const double> x,
               std::span<const double> n, std::span<double> out);
// out[k] = v^n l(x + n) / l(x) for any real n >= 0.
void pure_endowment(const LifeModel& life, const Interest& r, std::span<const double> x, std::span<const double> n,
                    std::span<double> out);

// ---- increasing and decreasing benefits ---------------------------------------------------
// A benefit of k + 1 in the k-th year of cover (k from 0; increasing), or of n - k (decreasing,
// over a finite term n): the sum over the years of cover of the weight times the value of the
// level benefit of that one year, `level(defer_k, x, ones, out)` (1 a year, deferred defer_k =
// defer + k years). Terms are whole years; n = kWholeLife for life (increasing only). Every year
// a life can reach is summed, so a value costs one level valuation per year of cover.
enum class Progression { level, increasing, decreasing };

template <class Level>
void progressive(Progression progression, double defer, double w, std::span<const double> x,
                 std::span<const double> n, std::span<double> out, Level&& level) {
    const std::size_t count = out.size();
    if (count == 0) return;
    std::fill(out.begin(), out.end(), 0.0);
    double youngest = x[0];
    for (double v : x) youngest = std::min(youngest, v);
    double longest = 0.0;
    for (double v : n) longest = std::max(longest, v);
    // Past w + 1 no life remains.
    const double years = std::min(longest, std::ceil(w + 1.0 - youngest - defer));
    if (!(years > 0.0)) return;
    const double one = 1.0;
    std::vector<double> year(count);
    for (double k = 0.0; k < years; k += 1.0) {
        level(defer + k, x, std::span<const double>(&one, 1), std::span<double>(year));
        for (std::size_t e = 0; e < count; ++e) {
            const double term = n.size() == 1 ? n[0] : n[e];
            if (!(k < term)) continue;
            const double weight = progression == Progression::increasing ? k + 1.0 : term - k;
            out[e] += weight * year[e];
        }
    }
}

// ---- life-table columns ---------------------------------------------------------------------
// Over the ages 0 .. l.size() - 1 of the model: L(x) = the integral of l over the year of age
// (under the interpolation; the year after w uniform), T(x) = L(x) + L(x + 1) + ... Spans of
// l.size() elements.
void life_table_columns(const LifeModel& life, std::span<double> L, std::span<double> T) noexcept;

// ---- the future lifetime ------------------------------------------------------------------
// out[k] = the t >= 0 with l(x + t) = (1 - p) l(x), 0 < p < 1 (p = 1/2: the median), inverting
// the interpolation within the year where l falls to that level; the year after w is uniform,
// so t <= w + 1 - x. 0 where l(x) = 0. x and p broadcast.
void lifetime_quantile(const LifeModel& life, std::span<const double> x, std::span<const double> p,
                       std::span<double> out) noexcept;
// out[k] = hazard(x[k]).
void hazard(const LifeModel& life, std::span<const double> x, std::span<double> out) noexcept;

// ---- commutation columns ------------------------------------------------------------------
// Over the ages 0 .. l.size() - 1: d = l(x) - l(x + 1) (the last age: l(w)), D = v^x l, C = v^(x + 1) d,
// N, S, M and R the sums from the age upwards of D, N, C and M. Every span has l.size() elements.
struct Commutation {
    std::span<double> d, D, N, S, C, M, R;
};
void commutation(std::span<const double> l, const Interest& r, const Commutation& out) noexcept;

// ---- select diagonals --------------------------------------------------------------------
// A life aged j at duration d of a select table is at duration d + k at age j + k, on the
// ultimate column from duration `ultimate_from` on. `columns[c]` holds the rates by age
// 0 .. w of duration `first` + c (for every duration from `first` to ultimate_from - 1).
struct SelectDiagonal {
    std::vector<std::span<const double>> columns;
    std::span<const double> ultimate;
    long long first = 1;
    long long ultimate_from = 1;
    long long duration = 1;  // the duration of a life at a whole age j, d above (first <= d)

    std::span<const double> rates(long long d) const noexcept {
        return d >= ultimate_from || d < first ? ultimate : columns[static_cast<std::size_t>(d - first)];
    }
};

// l along the diagonal of a life at the whole age j (l.size() ages from 0): radix up to the
// age where the diagonal is followed from, then radix (1 - q) ... along it. That age is j - 1,
// at duration d - 1, when that duration is a select one (the year before, which the force of
// decrement at j looks back on), else j itself, so that a life selected at j has the l of a
// table whose rates are 0 below j and those of the diagonal from j on.
void diagonal_survivorship(const SelectDiagonal& diagonal, std::size_t j, double radix, std::span<double> l) noexcept;

// The whole age whose diagonal an age x >= 0 follows: x itself when it is whole (within eps),
// else the whole age below it (a fractional age reads the diagonal through its year of age).
inline std::size_t diagonal_age(double x, double eps) noexcept {
    const double whole = whole_age(x, eps);
    return static_cast<std::size_t>(whole >= 0.0 ? whole : std::floor(x));
}

// Runs `value(j, xs, ns, outs)` once for every whole age j (diagonal_age, at most `w`) found in
// x, on the elements of that age gathered (x and n broadcast as the kernels do; a single
// element stays single), and writes the results back into out. `value` returns
// std::optional<Breakdown> for the elements it was given; the first one found is returned with
// its index in the whole call.
template <class Value>
std::optional<Breakdown> by_diagonal(std::span<const double> x, std::span<const double> n, std::span<double> out,
                                     double eps, std::size_t w, Value&& value) {
    const std::size_t count = out.size();
    if (count == 0) return std::nullopt;
    auto key = [&](std::size_t k) { return std::min(diagonal_age(x[k], eps), w); };
    if (x.size() == 1) return value(key(0), x, n, out);  // one age: one diagonal
    // The elements ordered by whole age (a counting sort), then each age's run gathered.
    std::vector<std::size_t> start(w + 2, 0);
    for (std::size_t k = 0; k < count; ++k) ++start[key(k) + 1];
    for (std::size_t j = 0; j <= w; ++j) start[j + 1] += start[j];
    std::vector<std::size_t> order(count);
    {
        std::vector<std::size_t> next(start.begin(), start.end() - 1);
        for (std::size_t k = 0; k < count; ++k) order[next[key(k)]++] = k;
    }
    std::vector<double> xs, ns, os;
    std::optional<Breakdown> first;
    for (std::size_t j = 0; j <= w; ++j) {
        const std::size_t b = start[j], e = start[j + 1];
        if (b == e) continue;
        xs.resize(e - b);
        os.resize(e - b);
        for (std::size_t k = b; k < e; ++k) xs[k - b] = x[order[k]];
        std::span<const double> group_n = n;
        if (n.size() != 1) {
            ns.resize(e - b);
            for (std::size_t k = b; k < e; ++k) ns[k - b] = n[order[k]];
            group_n = ns;
        }
        const std::optional<Breakdown> fault = value(j, std::span<const double>(xs), group_n, std::span<double>(os));
        for (std::size_t k = b; k < e; ++k) out[order[k]] = os[k - b];
        if (fault && (!first || order[b + fault->index] < first->index)) {
            first = Breakdown{order[b + fault->index], fault->first, fault->second};
        }
    }
    return first;
}

}  // namespace veltrane::kernels
