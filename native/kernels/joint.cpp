// Two lives: every value from the survival function of the status (see joint.hpp).
#include "kernels/joint.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace veltrane::kernels {

namespace {

// The end of the life of a model from an age: at w + 1 nobody remains (0 if nobody is there).
double life_horizon(const LifeModel& life, double age, double l0) noexcept {
    return l0 > 0.0 ? std::max(0.0, life.s.w + 1.0 - age) : 0.0;
}

// The times in (a, b) at which a life aged `age` reaches a whole age, appended to `times`.
void whole_age_times(double age, double a, double b, std::vector<double>& times) {
    for (double t = std::ceil(age + a) - age; t < b; t += 1.0) {
        if (t > a) times.push_back(t);
    }
}

// The number of 1/m periods in `years` (whole by the callers' validation).
double periods(double years, int m) noexcept { return std::round(years * m); }

// The integral of f(t) over a <= t <= b, by Gauss-Legendre between the times at which the lives
// aged x and y reach whole ages (where each interpolation changes formula).
template <class F>
double piecewise_integral(double x, double y, double a, double b, double extent, F f) {
    if (!(b > a)) return 0.0;
    std::vector<double> cuts{a};
    whole_age_times(x, a, b, cuts);
    whole_age_times(y, a, b, cuts);
    cuts.push_back(b);
    std::sort(cuts.begin(), cuts.end());
    double sum = 0.0;
    for (std::size_t k = 0; k + 1 < cuts.size(); ++k) {
        const double width = cuts[k + 1] - cuts[k];
        if (width > 0.0) sum += gauss_legendre(cuts[k], width, panels_for(extent * width), f);
    }
    return sum;
}

}  // namespace

PairSurvival::PairSurvival(const LifeModel& first, double x, const LifeModel& second, double y, Status status) noexcept
    : first_(&first), second_(&second), x_(x), y_(y), lx_(first.at(x)), ly_(second.at(y)), status_(status) {
    const double a = life_horizon(first, x, lx_);
    const double b = life_horizon(second, y, ly_);
    horizon_ = status == Status::joint ? std::min(a, b) : std::max(a, b);
}

double PairSurvival::operator()(double t) const noexcept {
    const double p = single(*first_, x_, lx_, t);
    const double q = single(*second_, y_, ly_, t);
    return status_ == Status::joint ? p * q : p + q - p * q;
}

double PairSurvival::discounted_integral(double a, double b, double delta) const {
    return piecewise_integral(x_, y_, a, std::min(b, horizon_), delta,
                              [&](double t) { return std::exp(-delta * t) * (*this)(t); });
}

double pair_annuity(const PairSurvival& s, const Interest& r, const Payments& p, double n) {
    const double horizon = s.horizon();
    if (p.m == kContinuous) return s.discounted_integral(p.defer, p.defer + n, r.delta);
    const double h = 1.0 / p.m;
    const double count = n == kWholeLife ? kWholeLife : periods(n, p.m);
    const double first = periods(p.defer, p.m) + (p.due ? 0.0 : 1.0);
    // The discount factor carried from payment to payment (one exp per call, not per payment).
    const double step = std::exp(-r.delta * h);
    double discount = std::exp(-r.delta * first * h);
    double sum = 0.0;
    for (double k = 0.0; k < count; k += 1.0, discount *= step) {
        const double t = (first + k) * h;
        if (t >= horizon) break;
        const double alive = s(t);
        // A payment no life reaches is 0, however far the discount factor has grown.
        if (alive != 0.0) sum += discount * alive;
    }
    return sum * h;
}

double pair_insurance(const PairSurvival& s, const Interest& r, double defer, int m, bool endowment, double n) {
    const double horizon = s.horizon();
    const double end = defer + n;
    double sum = 0.0;
    if (m == kContinuous) {
        // The integral of v^t (-dS), by parts: v^a S(a) - v^b S(b) - delta times that of v^t S.
        const double b = std::min(end, horizon);
        if (b > defer) {
            sum = std::exp(-r.delta * defer) * s(defer) - std::exp(-r.delta * b) * s(b) -
                  r.delta * s.discounted_integral(defer, b, r.delta);
        }
    } else {
        const double h = 1.0 / m;
        const double first = periods(defer, m);
        const double last = n == kWholeLife ? kWholeLife : first + periods(n, m);
        const double step = std::exp(-r.delta * h);
        double discount = std::exp(-r.delta * (first + 1.0) * h);
        double before = s(first * h);
        for (double j = first; j < last && j * h < horizon; j += 1.0, discount *= step) {
            const double after = s((j + 1.0) * h);
            const double failing = before - after;
            if (failing != 0.0) sum += discount * failing;
            before = after;
        }
    }
    if (endowment) sum += pair_pure_endowment(s, r, end);
    return sum;
}

double pair_pure_endowment(const PairSurvival& s, const Interest& r, double n) noexcept {
    const double alive = s(n);
    return alive == 0.0 ? 0.0 : std::exp(-r.delta * n) * alive;
}

double pair_expectation(const PairSurvival& s, bool complete, double n) {
    if (complete) return s.discounted_integral(0.0, n, 0.0);
    double sum = 0.0;
    for (double k = 1.0; k <= n && k < s.horizon(); k += 1.0) sum += s(k);
    return sum;
}

double first_failing(const LifeModel& first, double x, const LifeModel& second, double y, const Interest& r,
                     double n) {
    const double lx = first.at(x);
    const double ly = second.at(y);
    if (!(lx > 0.0) || !(ly > 0.0)) return lx == 0.0 || ly == 0.0 ? 0.0 : std::numeric_limits<double>::quiet_NaN();
    const double years = std::min(n, std::ceil(std::min(life_horizon(first, x, lx), life_horizon(second, y, ly))));
    double sum = 0.0;
    for (double k = 0.0; k < years; k += 1.0) {
        // The density of the first death, -l1'(x + t) / l1(x), against the second's survival.
        const double p = piecewise_integral(x, y, k, k + 1.0, 0.0, [&](double t) {
            return first.hazard(x + t) * first.at(x + t) / lx * second.at(y + t) / ly;
        });
        if (p != 0.0) sum += std::exp(-r.delta * (k + 1.0)) * p;
    }
    return sum;
}

}  // namespace veltrane::kernels
