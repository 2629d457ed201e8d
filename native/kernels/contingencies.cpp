// Life contingencies. Integer ages (with whole-year terms and deferments) read sums over the
// years of age, built once per call from the oldest age down (a backward recursion, so nothing
// underflows and every value costs O(1) once the sums exist); any other age sums its payments
// one by one.
#include "kernels/contingencies.hpp"

#include <algorithm>
#include <optional>
#include <vector>

namespace veltrane::kernels {
namespace {

// A pair of spans that broadcast: element k of each, or its only element.
inline double pick(std::span<const double> v, std::size_t k) noexcept { return v.size() == 1 ? v[0] : v[k]; }

std::size_t last_age(const LifeModel& life) noexcept { return static_cast<std::size_t>(life.s.w); }

// The youngest whole year of age any element starts in (ages are in [0, w]).
std::size_t first_year(std::span<const double> x) noexcept {
    double lowest = x[0];
    for (double v : x) lowest = std::min(lowest, v);
    return static_cast<std::size_t>(std::floor(std::max(lowest, 0.0)));
}

// Discounted sums over the years of age j0 .. w of a value per year: window(a, b) is the sum
// over a <= k < b of v^(k - a) value(k). The tails (b past w) come from one backward recursion,
// tail[j - j0] = value(j) + v tail[j + 1 - j0], so every one costs O(1). While v <= 1 a window
// that ends before w is a tail less the discounted tail at its end: the digits that difference
// loses are those of tail / window, which survival alone bounds. With v > 1 (a negative rate)
// discounting multiplies that ratio by up to v^w, and the difference could be all cancellation:
// the window is summed over its own years instead.
class YearSums {
public:
    template <class Value>
    YearSums(std::size_t j0, std::size_t w, double v, Value value)
        : j0_(j0), w_(w), v_(v), values_(w + 1 - j0), tail_(w + 2 - j0, 0.0) {
        for (std::size_t j = w + 1; j-- > j0;) {
            values_[j - j0] = value(j);
            tail_[j - j0] = values_[j - j0] + v * tail_[j + 1 - j0];
        }
    }

    // a in [j0, w], b >= a a whole number (any b past w is the tail).
    double window(std::size_t a, double b, const Interest& r) const noexcept {
        const double tail = tail_[a - j0_];
        if (b > static_cast<double>(w_)) return tail;
        const auto end = static_cast<std::size_t>(b);
        if (v_ <= 1.0) return tail - r.discount(b - static_cast<double>(a)) * tail_[end - j0_];
        double sum = 0.0;
        for (std::size_t j = end; j-- > a;) sum = values_[j - j0_] + v_ * sum;
        return sum;
    }

private:
    std::size_t j0_, w_;
    double v_;
    std::vector<double> values_, tail_;
};

// Whole years of a term: n itself, or a number past w + 1 for life.
inline double term_end(double start, double n, std::size_t w) noexcept {
    const double end = start + n;  // infinite for life
    return std::min(end, static_cast<double>(w) + 1.0);
}

// The due payments of one year of age j, 1/m at j + k/m (k < m), discounted to age j.
class YearPayments {
public:
    YearPayments(const LifeModel& life, const Interest& r, int m) : life_(life), m_(m), delta_(r.delta) {
        weights_.resize(static_cast<std::size_t>(m));
        for (int k = 0; k < m; ++k) {
            const double w = r.discount(static_cast<double>(k) / m) / m;
            weights_[static_cast<std::size_t>(k)] = w;
            c0_ += w;
            c1_ += w * static_cast<double>(k) / m;
        }
    }

    double operator()(std::size_t j) const noexcept {
        const double lo = life_.l_int(j);
        if (m_ == 1) return lo;
        const double hi = life_.l_int(j + 1);
        switch (life_.year_method(j)) {
            case Interpolation::linear: return c0_ * lo + c1_ * (hi - lo);
            case Interpolation::exponential: {
                // A geometric series in (v l(j + 1) / l(j))^(1/m); hi > 0 here.
                if (lo == 0.0) return 0.0;
                const double g = (std::log1p((hi - lo) / lo) - delta_) / m_;
                if (g == 0.0) return lo;
                return lo / m_ * (std::expm1(m_ * g) / std::expm1(g));
            }
            case Interpolation::hyperbolic: {
                double sum = weights_[0] * lo;
                for (int k = 1; k < m_; ++k) {
                    sum += weights_[static_cast<std::size_t>(k)] *
                           interpolate_hyperbolic(lo, hi, static_cast<double>(k) / m_);
                }
                return sum;
            }
        }
        return 0.0;
    }

private:
    const LifeModel& life_;
    int m_;
    double delta_;
    std::vector<double> weights_;
    double c0_ = 0.0, c1_ = 0.0;
};

// Annuities-due of single elements, payment by payment: 1/m at defer + k/m for k < n m.
class PointwiseAnnuity {
public:
    PointwiseAnnuity(const LifeModel& life, const Interest& r, int m) : life_(life), r_(r), m_(m) {
        within_.resize(static_cast<std::size_t>(m));
        for (int k = 0; k < m; ++k) within_[static_cast<std::size_t>(k)] = r.discount(static_cast<double>(k) / m);
    }

    double operator()(double x, double lx, double defer, double n) const {
        const long long m = m_;
        // From w + 1 - x on every payment is 0. The bounds are limited to that count in floating
        // point first: a deferment or term of 1e300 years has no long long value.
        const double beyond = std::ceil((life_.s.w + 1.0 - x) * m_);
        const double from = std::nearbyint(defer * m_);
        const double to = std::isinf(n) ? beyond : std::min(beyond, std::nearbyint((defer + n) * m_));
        if (!(from < to)) return 0.0;
        const auto first = static_cast<long long>(from);
        const auto end = static_cast<long long>(to);
        double sum = 0.0;
        long long year = -1;
        double year_discount = 0.0;
        for (long long k = first; k < end; ++k) {
            const long long q = k / m;
            if (q != year) {
                year = q;
                year_discount = r_.discount(static_cast<double>(q));
            }
            sum += year_discount * within_[static_cast<std::size_t>(k - q * m)] *
                   life_.at(x + static_cast<double>(k) / m_);
        }
        return sum / m_ / lx;
    }

private:
    const LifeModel& life_;
    const Interest& r_;
    int m_;
    std::vector<double> within_;
};

// True when the value of this element can be read from sums over whole years of age.
inline bool whole_years(double x, double defer, double n, double eps) noexcept {
    return whole_age(x, eps) >= 0.0 && whole_age(defer, eps) >= 0.0 && (std::isinf(n) || whole_age(n, eps) >= 0.0);
}

// E(t) = v^t l(x + t) / l(x); 0 for an infinite t (the end of a life annuity), and 0 where no
// life remains, whatever v^t (past the table, with v > 1, it overflows).
inline double endowment_factor(const LifeModel& life, const Interest& r, double x, double lx, double t) noexcept {
    if (std::isinf(t) || lx == 0.0) return 0.0;
    const double lives = life.at(x + t);
    return lives == 0.0 ? 0.0 : r.discount(t) * lives / lx;
}

}  // namespace

// ---- interest -----------------------------------------------------------------------------

double udd_alpha(double delta, int m) noexcept {
    if (m == 1 || delta == 0.0) return 1.0;
    // i d = 4 sinh^2(delta / 2) and i^(m) d^(m) = 4 m^2 sinh^2(delta / 2m).
    const double s = std::sinh(delta / 2.0) / (m * std::sinh(delta / (2.0 * m)));
    return s * s;
}

double udd_beta(double delta, int m) noexcept {
    const double mm = m;
    if (m == 1) return 0.0;
    if (std::fabs(delta) < 1e-150) return (mm - 1.0) / (2.0 * mm);  // the limit; delta^2 would underflow
    const double h = std::sinh(delta / (2.0 * mm));
    const double denominator = 4.0 * mm * mm * h * h;
    double numerator;
    if (std::fabs(delta) < 0.5) {
        // i - i^(m) = sum over k >= 2 of delta^k / k! (1 - m^(1 - k)): no cancellation for small
        // |delta| (the terms alternate below 0, and shrink at least fourfold each).
        numerator = 0.0;
        double term = delta;
        double mpow = 1.0;
        for (int k = 2; k < 60; ++k) {
            term *= delta / k;
            mpow *= mm;
            const double add = term * (1.0 - 1.0 / mpow);
            numerator += add;
            if (std::fabs(add) <= std::fabs(numerator) * 1e-18) break;
        }
    } else {
        numerator = std::expm1(delta) - mm * std::expm1(delta / mm);
    }
    return numerator / denominator;
}

double udd_alpha_less_beta(double delta, int m) noexcept {
    if (m == 1) return 1.0;
    // Both terms are of order 1 here, so their difference is accurate.
    if (std::fabs(delta) < 0.5) return udd_alpha(delta, m) - udd_beta(delta, m);
    // (i^(m) - d) / (i^(m) d^(m)): i^(m) > delta > d, no cancellation, and no overflow for any
    // finite rate (delta <= 710; above -1 a double rate has delta >= -37.5).
    const double mm = m;
    const double im = mm * std::expm1(delta / mm);
    const double d = -std::expm1(-delta);
    const double dm = -mm * std::expm1(-delta / mm);
    return (im - d) / (im * dm);
}

double i_over_im(double delta, int m) noexcept {
    if (m == 1 || delta == 0.0) return 1.0;
    return std::expm1(delta) / (m * std::expm1(delta / m));
}

double i_over_delta(double delta) noexcept { return delta == 0.0 ? 1.0 : std::expm1(delta) / delta; }

// ---- the survival model -------------------------------------------------------------------

double LifeModel::integral(std::size_t j, double a, double b) const noexcept {
    const double lo = l_int(j);
    const double hi = l_int(j + 1);
    const double width = b - a;
    switch (year_method(j)) {
        case Interpolation::linear: return width * (lo + (hi - lo) * (a + b) / 2.0);
        case Interpolation::exponential: {
            // l(j + t) = lo e^(t L), L = ln(hi / lo); hi > 0 here.
            if (lo == 0.0) return 0.0;
            const double L = std::log1p((hi - lo) / lo);
            if (L == 0.0) return lo * width;
            return lo * std::exp(a * L) * (std::expm1(width * L) / L);
        }
        case Interpolation::hyperbolic: {
            // l(j + t) = lo hi / (hi + t d), d = lo - hi: a logarithm; hi > 0 here.
            if (lo == 0.0) return 0.0;
            const double d = lo - hi;
            if (d == 0.0) return lo * width;
            return lo * hi / d * std::log1p(width * d / (hi + a * d));
        }
    }
    return 0.0;
}

double LifeModel::force(double y) const noexcept {
    const double ly = at(y);
    if (std::isnan(ly)) return ly;
    if (ly == 0.0) return 0.0;
    double sum = 0.0;
    int terms = 0;
    const double next = at(y + 1.0);
    if (next > 0.0) {
        sum += std::log1p((next - ly) / ly);
        ++terms;
    }
    if (y >= 1.0) {
        const double before = at(y - 1.0);
        if (before > 0.0) {
            sum += std::log1p((ly - before) / before);
            ++terms;
        }
    }
    return terms == 0 ? 0.0 : -sum / terms;
}

// ---- expectation of life ------------------------------------------------------------------

void expectation(const LifeModel& life, std::span<const double> x, bool complete, std::span<double> out) {
    if (x.empty()) return;
    const std::size_t w = last_age(life);
    const std::size_t j0 = std::min(first_year(x), w);
    // tail[j - j0]: l summed (curtate) or integrated (complete) from age j to w + 1.
    std::vector<double> tail(w + 2 - j0, 0.0);
    for (std::size_t j = w + 1; j-- > j0;) {
        tail[j - j0] = tail[j + 1 - j0] + (complete ? life.integral(j, 0.0, 1.0) : life.l_int(j));
    }
    const double top = static_cast<double>(w) + 1.0;
    for (std::size_t k = 0; k < x.size(); ++k) {
        const double age = x[k];
        const double whole = whole_age(age, life.s.eps);
        if (whole >= 0.0) {
            const auto j = static_cast<std::size_t>(whole);
            const double lx = life.l_int(j);
            out[k] = lx == 0.0 ? 0.0 : tail[j + (complete ? 0 : 1) - j0] / lx;
            continue;
        }
        const double lx = life.at(age);
        if (lx == 0.0) {
            out[k] = 0.0;
            continue;
        }
        const auto j = static_cast<std::size_t>(std::floor(age));
        if (complete) {
            out[k] = (life.integral(j, age - static_cast<double>(j), 1.0) + tail[j + 1 - j0]) / lx;
        } else {
            double sum = 0.0;
            for (double y = age + 1.0; y < top; y += 1.0) sum += life.at(y);
            out[k] = sum / lx;
        }
    }
}

// ---- annuities ----------------------------------------------------------------------------

void annuity(const LifeModel& life, const Interest& r, const Payments& p, std::span<const double> x,
             std::span<const double> n, std::span<double> out) {
    const std::size_t count = out.size();
    if (count == 0) return;
    const std::size_t w = last_age(life);
    const double eps = life.s.eps;
    const PointwiseAnnuity pointwise(life, r, p.m);
    std::optional<YearSums> sums;  // built for the first element that reads them
    for (std::size_t k = 0; k < count; ++k) {
        const double age = pick(x, k);
        const double term = pick(n, k);
        const double lx = life.at(age);
        if (lx == 0.0) {
            out[k] = 0.0;
            continue;
        }
        double due = 0.0;
        if (whole_years(age, p.defer, term, eps)) {
            if (!sums) sums.emplace(std::min(first_year(x), w), w, r.v, YearPayments(life, r, p.m));
            const double defer = whole_age(p.defer, eps);
            const double start = whole_age(age, eps) + defer;
            if (start <= static_cast<double>(w)) {
                const double end = term_end(start, std::isinf(term) ? term : whole_age(term, eps), w);
                due = r.discount(defer) * sums->window(static_cast<std::size_t>(start), end, r) / lx;
            }
        } else {
            due = pointwise(age, lx, p.defer, term);
        }
        if (!p.due) {
            // In arrears: the first payment of the period goes, one at its end comes.
            due -= (endowment_factor(life, r, age, lx, p.defer) - endowment_factor(life, r, age, lx, p.defer + term)) / p.m;
        }
        out[k] = due;
    }
}

std::optional<Breakdown> annuity_from_annual(const LifeModel& life, const Interest& r, const Payments& p,
                                             AnnuityApproximation method, std::span<const double> x,
                                             std::span<const double> n, std::span<double> out) {
    if (p.m == 1) {
        // Every method is the annual annuity itself, in advance or in arrears.
        annuity(life, r, p, x, n, out);
        return std::nullopt;
    }
    annuity(life, r, Payments{1, true, p.defer}, x, n, out);
    const double m = p.m;
    const double alpha = udd_alpha(r.delta, p.m);
    // UDD as alpha a + (alpha - beta) (E(defer) - E(defer + n)), with a = the annual annuity in
    // arrears summed on its own: alpha ä - beta (...) cancels catastrophically at high rates, where
    // alpha and beta are both huge and ä is little more than its first payment.
    const double alpha_less_beta = udd_alpha_less_beta(r.delta, p.m);
    std::vector<double> arrears;
    if (method == AnnuityApproximation::udd) {
        arrears.resize(out.size());
        annuity(life, r, Payments{1, true, p.defer + 1.0}, x, n, arrears);
    }
    const double second = (m - 1.0) / (2.0 * m);
    const double third = (m * m - 1.0) / (12.0 * m * m);
    std::optional<Breakdown> breakdown;
    for (std::size_t k = 0; k < out.size(); ++k) {
        const double age = pick(x, k);
        const double term = pick(n, k);
        const double lx = life.at(age);
        if (lx == 0.0) continue;
        const double lead = endowment_factor(life, r, age, lx, p.defer);
        const double end = endowment_factor(life, r, age, lx, p.defer + term);
        double value = out[k];
        switch (method) {
            case AnnuityApproximation::udd: value = alpha * arrears[k] + alpha_less_beta * (lead - end); break;
            case AnnuityApproximation::woolhouse2: value -= second * (lead - end); break;
            case AnnuityApproximation::woolhouse3: {
                double correction = lead * (r.delta + life.force(age + p.defer));
                if (end != 0.0) correction -= end * (r.delta + life.force(age + p.defer + term));
                const double first_term = second * (lead - end);
                const double second_term = third * correction;
                if (std::fabs(second_term) > std::fabs(first_term) && !breakdown) {
                    breakdown = Breakdown{k, first_term, second_term};
                }
                value -= first_term + second_term;
                break;
            }
        }
        if (!p.due) value -= (lead - end) / m;
        out[k] = value;
    }
    return breakdown;
}

// ---- insurances and endowments ------------------------------------------------------------

void insurance(const LifeModel& life, const Interest& r, double defer, double death_factor, bool endowment,
               std::span<const double> x, std::span<const double> n, std::span<double> out) {
    const std::size_t count = out.size();
    if (count == 0) return;
    const std::size_t w = last_age(life);
    const double eps = life.s.eps;
    const double top = static_cast<double>(w) + 1.0;
    // Whole years, validated to within the integer tolerance: taken at their whole values, since
    // the sums below index years by truncation (2.9999999996 years would otherwise read as 2).
    defer = round_half_even(defer);
    std::optional<YearSums> sums;
    for (std::size_t k = 0; k < count; ++k) {
        const double age = pick(x, k);
        const double given = pick(n, k);
        const double term = std::isinf(given) ? given : round_half_even(given);
        const double lx = life.at(age);
        if (lx == 0.0) {
            out[k] = 0.0;
            continue;
        }
        double death = 0.0;
        const double start = age + defer;
        if (whole_age(age, eps) >= 0.0) {
            if (!sums) {
                // v (l(j) - l(j + 1)): the deaths of the year, paid at its end, discounted to age j.
                sums.emplace(std::min(first_year(x), w), w, r.v,
                             [&](std::size_t j) { return r.v * (life.l_int(j) - life.l_int(j + 1)); });
            }
            const double from = whole_age(age, eps) + defer;
            if (from <= static_cast<double>(w)) {
                const double end = term_end(from, term, w);
                death = r.discount(defer) * sums->window(static_cast<std::size_t>(from), end, r) / lx;
            }
        } else {
            const double stop = std::isinf(term) ? top : std::min(top, start + term);
            double sum = 0.0;
            double before = life.at(start);
            for (double year = 0.0; start + year < stop; year += 1.0) {
                const double after = life.at(start + year + 1.0);
                sum += r.discount(defer + year + 1.0) * (before - after);
                before = after;
            }
            death = sum / lx;
        }
        double value = death_factor * death;
        if (endowment) value += endowment_factor(life, r, age, lx, defer + term);
        out[k] = value;
    }
}

void pure_endowment(const LifeModel& life, const Interest& r, std::span<const double> x, std::span<const double> n,
                    std::span<double> out) {
    for (std::size_t k = 0; k < out.size(); ++k) {
        const double age = pick(x, k);
        out[k] = endowment_factor(life, r, age, life.at(age), pick(n, k));
    }
}

// ---- select diagonals ---------------------------------------------------------------------

void diagonal_survivorship(const SelectDiagonal& diagonal, std::size_t j, double radix, std::span<double> l) noexcept {
    const std::size_t size = l.size();
    if (size == 0) return;
    const bool look_back = j >= 1 && diagonal.duration - 1 >= diagonal.first;
    const std::size_t from = std::min(look_back ? j - 1 : j, size - 1);
    std::fill(l.begin(), l.begin() + static_cast<std::ptrdiff_t>(from) + 1, radix * 1.0);
    // The same running product as the table's own l (survivorship), from `from` on.
    double product = 1.0;
    for (std::size_t y = from; y + 1 < size; ++y) {
        const long long d = diagonal.duration + (static_cast<long long>(y) - static_cast<long long>(j));
        const std::span<const double> q = diagonal.rates(d);
        product *= (1.0 - (y < q.size() ? q[y] : 1.0));
        l[y + 1] = radix * product;
    }
}

// ---- commutation columns ------------------------------------------------------------------

void commutation(std::span<const double> l, const Interest& r, const Commutation& out) noexcept {
    const std::size_t size = l.size();
    if (size == 0) return;
    for (std::size_t x = 0; x < size; ++x) {
        const double next = x + 1 < size ? l[x + 1] : 0.0;
        out.d[x] = l[x] - next;
        out.D[x] = r.discount(static_cast<double>(x)) * l[x];
        out.C[x] = r.discount(static_cast<double>(x) + 1.0) * out.d[x];
    }
    double n = 0.0, s = 0.0, m = 0.0, rr = 0.0;
    for (std::size_t x = size; x-- > 0;) {
        n += out.D[x];
        out.N[x] = n;
        s += n;
        out.S[x] = s;
        m += out.C[x];
        out.M[x] = m;
        rr += m;
        out.R[x] = rr;
    }
}

}  // namespace veltrane::kernels
