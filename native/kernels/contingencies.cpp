// Life contingencies. Integer ages (with whole-year terms and deferments) read sums over the
// years of age, built once per call from the oldest age down (a backward recursion, so nothing
// underflows and every value costs O(1) once the sums exist); any other age sums its payments
// one by one.
#include "kernels/contingencies.hpp"

#include <algorithm>
#include <limits>
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

// The sum over the pieces [y0, y1] of x + from .. x + to (to infinite for life) cut at the whole
// ages, up to w + 1, of v^(y0 - x) piece(j, y0 - j, y1 - j) (a value discounted to y0 in the
// year of age j), divided by lx. A piece worth 0 adds nothing, whatever its discount factor.
template <class Piece>
double over_years(const LifeModel& life, const Interest& r, double x, double lx, double from, double to, Piece piece) {
    const double end = std::min(x + to, life.s.w + 1.0);
    double sum = 0.0;
    for (double y = x + from; y < end;) {
        const double j = std::floor(y);
        const double next = std::min(j + 1.0, end);
        const double value = piece(static_cast<std::size_t>(j), y - j, next - j);
        if (value != 0.0) sum += r.discount(y - x) * value;
        y = next;
    }
    return sum / lx;
}

// The due payments of one year of age j, 1/m at j + k/m (k < m), discounted to age j.
class YearPayments {
public:
    YearPayments(const LifeModel& life, const Interest& r, int m) : life_(life), m_(m), delta_(r.delta) {
        if (m == kContinuous) {
            // A linear year: the integral of v^t (lo - t (lo - hi)) is lo phi(delta) - (lo - hi) psi(delta).
            c0_ = phi(r.delta);
            c1_ = psi(r.delta);
            return;
        }
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
        if (m_ == kContinuous) {
            if (life_.year_method(j) == Interpolation::linear) return c0_ * lo - c1_ * (lo - life_.l_int(j + 1));
            return life_.discounted_integral(j, 0.0, 1.0, delta_);
        }
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
        if (m == kContinuous) return;
        within_.resize(static_cast<std::size_t>(m));
        for (int k = 0; k < m; ++k) within_[static_cast<std::size_t>(k)] = r.discount(static_cast<double>(k) / m);
    }

    double operator()(double x, double lx, double defer, double n) const {
        if (m_ == kContinuous) {
            return over_years(life_, r_, x, lx, defer, defer + n, [&](std::size_t j, double a, double b) {
                return life_.discounted_integral(j, a, b, r_.delta);
            });
        }
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

double LifeModel::discounted_integral(std::size_t j, double a, double b, double delta) const noexcept {
    if (delta == 0.0) return integral(j, a, b);
    const double lo = l_int(j);
    const double hi = l_int(j + 1);
    const double width = b - a;
    if (lo == 0.0 || width <= 0.0) return 0.0;
    switch (year_method(j)) {
        case Interpolation::linear: {
            // l(j + a + s) = l(j + a) - s (lo - hi)
            const double d = lo - hi;
            return (lo - a * d) * width * phi(delta * width) - d * width * width * psi(delta * width);
        }
        case Interpolation::exponential: {
            const double L = std::log1p((hi - lo) / lo);  // -mu
            return lo * std::exp(a * L) * width * phi((delta - L) * width);
        }
        case Interpolation::hyperbolic: {
            const double d = lo - hi;
            if (d == 0.0) return lo * width * phi(delta * width);
            // With s = ln((hi + t d) / hi): l = lo e^(-s), dt = hi e^s / d ds, t = hi (e^s - 1) / d.
            const double sa = std::log1p(a * d / hi);
            const double span = std::log1p(width * d / (hi + a * d));
            const double value = gauss_legendre(sa, span, panels_for(delta * width), [&](double u) {
                return std::exp(-delta * (hi * std::expm1(u) / d - a));
            });
            return lo * hi / d * value;
        }
    }
    return 0.0;
}

double LifeModel::discounted_exits(std::size_t j, double a, double b, double delta) const noexcept {
    const double lo = l_int(j);
    const double hi = l_int(j + 1);
    const double width = b - a;
    if (lo == 0.0 || width <= 0.0) return 0.0;
    switch (year_method(j)) {
        case Interpolation::linear: return (lo - hi) * width * phi(delta * width);
        case Interpolation::exponential: {
            const double L = std::log1p((hi - lo) / lo);  // -mu; exits mu l(t)
            return -L * lo * std::exp(a * L) * width * phi((delta - L) * width);
        }
        case Interpolation::hyperbolic: {
            const double d = lo - hi;
            if (d == 0.0) return 0.0;
            // As above: the exits -dl = lo e^(-s) ds.
            const double sa = std::log1p(a * d / hi);
            const double span = std::log1p(width * d / (hi + a * d));
            return lo * gauss_legendre(sa, span, panels_for(std::max(span, delta * width)), [&](double u) {
                       return std::exp(-u - delta * (hi * std::expm1(u) / d - a));
                   });
        }
    }
    return 0.0;
}

double LifeModel::year_exits(std::size_t j, const Interest& r, int m) const noexcept {
    const double lo = l_int(j);
    const double hi = l_int(j + 1);
    if (m == 1 || lo == 0.0) return r.v * (lo - hi);
    switch (year_method(j)) {
        // Uniform exits: the UDD factor is exact.
        case Interpolation::linear: return i_over_im(r.delta, m) * (r.v * (lo - hi));
        case Interpolation::exponential: {
            if (m == kContinuous) return discounted_exits(j, 0.0, 1.0, r.delta);
            // lo rho^k (1 - rho) leave in period k (rho = (hi / lo)^(1/m)), paid at (k + 1) / m:
            // a geometric series in v^(1/m) rho.
            const double L = std::log1p((hi - lo) / lo);
            const double g = (L - r.delta) / m;
            const double series = g == 0.0 ? m : std::expm1(m * g) / std::expm1(g);
            return lo * -std::expm1(L / m) * std::exp(-r.delta / m) * series;
        }
        case Interpolation::hyperbolic: {
            if (m == kContinuous) return discounted_exits(j, 0.0, 1.0, r.delta);
            // l(a) - l(b) = lo hi d (b - a) / ((hi + a d)(hi + b d)), without cancellation.
            const double d = lo - hi;
            double sum = 0.0;
            for (int k = 0; k < m; ++k) {
                const double fa = static_cast<double>(k) / m, fb = static_cast<double>(k + 1) / m;
                sum += r.discount(fb) * (lo * hi * d / m / ((hi + fa * d) * (hi + fb * d)));
            }
            return sum;
        }
    }
    return 0.0;
}

double LifeModel::hazard(double y) const noexcept {
    const double whole = whole_age(y, s.eps);
    const double j = whole >= 0.0 ? whole : std::floor(y);
    const double f = whole >= 0.0 ? 0.0 : y - j;
    const auto year = static_cast<std::size_t>(j);
    const double lo = l_int(year);
    const double hi = l_int(year + 1);
    if (std::isnan(lo) || std::isnan(hi)) return std::numeric_limits<double>::quiet_NaN();
    if (lo == 0.0) return 0.0;
    const double d = lo - hi;
    switch (year_method(year)) {
        case Interpolation::linear: return d / (lo - f * d);
        case Interpolation::exponential: return -std::log1p(-d / lo);
        case Interpolation::hyperbolic: return d / (hi + f * d);
    }
    return 0.0;
}

void hazard(const LifeModel& life, std::span<const double> x, std::span<double> out) noexcept {
    for (std::size_t k = 0; k < out.size(); ++k) out[k] = life.hazard(x[k]);
}

void lifetime_quantile(const LifeModel& life, std::span<const double> x, std::span<const double> p,
                       std::span<double> out) noexcept {
    const std::size_t w = last_age(life);
    for (std::size_t k = 0; k < out.size(); ++k) {
        const double age = pick(x, k);
        const double lx = life.at(age);
        if (lx == 0.0) {
            out[k] = 0.0;
            continue;
        }
        const double target = (1.0 - pick(p, k)) * lx;
        const double whole = whole_age(age, life.s.eps);
        auto j = static_cast<std::size_t>(whole >= 0.0 ? whole : std::floor(age));
        // The year in which l falls to the target (the year after w always ends at 0).
        while (j < w && life.l_int(j + 1) > target) ++j;
        const double lo = life.l_int(j);
        const double hi = life.l_int(j + 1);
        double f = 0.0;
        if (lo > hi) {
            switch (life.year_method(j)) {
                case Interpolation::linear: f = (lo - target) / (lo - hi); break;
                case Interpolation::exponential: f = std::log(target / lo) / std::log1p((hi - lo) / lo); break;
                case Interpolation::hyperbolic: f = hi * (lo - target) / (target * (lo - hi)); break;
            }
        } else if (std::isnan(lo) || std::isnan(hi) || std::isnan(target)) {
            f = std::numeric_limits<double>::quiet_NaN();
        }
        const double t = static_cast<double>(j) + f - (whole >= 0.0 ? whole : age);
        out[k] = t < 0.0 ? 0.0 : t;  // (rounding within the first year; NaN stays NaN)
    }
}

void life_table_columns(const LifeModel& life, std::span<double> L, std::span<double> T) noexcept {
    double tail = 0.0;
    for (std::size_t j = L.size(); j-- > 0;) {
        L[j] = life.integral(j, 0.0, 1.0);
        tail += L[j];
        T[j] = tail;
    }
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
        if (!p.due && p.m != kContinuous) {
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
    const bool continuous = p.m == kContinuous;
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
    // Their limits 1/2 and 1/12 for payments made continuously.
    const double second = continuous ? 0.5 : (m - 1.0) / (2.0 * m);
    const double third = continuous ? 1.0 / 12.0 : (m * m - 1.0) / (12.0 * m * m);
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
        if (!p.due && !continuous) value -= (lead - end) / m;
        out[k] = value;
    }
    return breakdown;
}

// ---- insurances and endowments ------------------------------------------------------------

void insurance(const LifeModel& life, const Interest& r, double defer, const Benefit& benefit,
               std::span<const double> x, std::span<const double> n, std::span<double> out) {
    const std::size_t count = out.size();
    if (count == 0) return;
    const std::size_t w = last_age(life);
    const double eps = life.s.eps;
    const double top = static_cast<double>(w) + 1.0;
    // Under UDD the benefit at the end of the year, times i / i^(m); exactly, the year's exits
    // valued when the benefit is paid.
    const int m = benefit.exact ? benefit.m : 1;
    const double factor = benefit.exact ? 1.0 : i_over_im(r.delta, benefit.m);
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
                sums.emplace(std::min(first_year(x), w), w, r.v,
                             [&](std::size_t j) { return life.year_exits(j, r, m); });
            }
            const double from = whole_age(age, eps) + defer;
            if (from <= static_cast<double>(w)) {
                const double end = term_end(from, term, w);
                death = r.discount(defer) * sums->window(static_cast<std::size_t>(from), end, r) / lx;
            }
        } else if (m == kContinuous) {
            death = over_years(life, r, age, lx, defer, defer + term, [&](std::size_t j, double a, double b) {
                return life.discounted_exits(j, a, b, r.delta);
            });
        } else {
            // Period by period, each paid at its end.
            const double stop = std::isinf(term) ? top : std::min(top, start + term);
            const double step = 1.0 / m;
            double sum = 0.0;
            double before = life.at(start);
            for (long long period = 0; start + static_cast<double>(period) * step < stop && before != 0.0; ++period) {
                const double t = defer + static_cast<double>(period + 1) * step;
                const double after = life.at(age + t);
                sum += r.discount(t) * (before - after);
                before = after;
            }
            death = sum / lx;
        }
        double value = factor * death;
        if (benefit.endowment) value += endowment_factor(life, r, age, lx, defer + term);
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
