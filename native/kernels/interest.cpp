// Interest functions. The UDD factors go through sinh and series where the textbook quotients
// would cancel (i d and i^(m) d^(m) both tend to 0 with i).
#include "kernels/interest.hpp"

#include <limits>

namespace veltrane::kernels {

double psi(double z) noexcept {
    if (std::fabs(z) < 0.5) {
        // sum over k >= 0 of (-z)^k / (k! (k + 2))
        double term = 1.0, sum = 0.5;
        for (int k = 1; k < 40; ++k) {
            term *= -z / k;
            const double add = term / (k + 2);
            sum += add;
            if (std::fabs(add) <= 1e-18 * std::fabs(sum)) break;
        }
        return sum;
    }
    return (-std::expm1(-z) - z * std::exp(-z)) / (z * z);
}

double nominal_rate(double delta, int m) noexcept {
    if (m == kContinuous) return delta;
    return m * std::expm1(delta / m);
}

double nominal_discount_rate(double delta, int m) noexcept {
    if (m == kContinuous) return delta;
    return -m * std::expm1(-delta / m);
}

double udd_alpha(double delta, int m) noexcept {
    if (m == 1 || delta == 0.0) return 1.0;
    // i d = 4 sinh^2(delta / 2) and i^(m) d^(m) = 4 m^2 sinh^2(delta / 2m) (delta^2 continuously).
    const double h = delta / 2.0;
    const double s = m == kContinuous ? std::sinh(h) / h : std::sinh(h) / (m * std::sinh(delta / (2.0 * m)));
    return s * s;
}

double udd_beta(double delta, int m) noexcept {
    if (m == 1) return 0.0;
    const bool continuous = m == kContinuous;
    const double mm = m;
    if (std::fabs(delta) < 1e-150) return continuous ? 0.5 : (mm - 1.0) / (2.0 * mm);  // delta^2 would underflow
    double denominator;
    if (continuous) {
        denominator = delta * delta;
    } else {
        const double h = std::sinh(delta / (2.0 * mm));
        denominator = 4.0 * mm * mm * h * h;
    }
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
            const double add = continuous ? term : term * (1.0 - 1.0 / mpow);
            numerator += add;
            if (std::fabs(add) <= std::fabs(numerator) * 1e-18) break;
        }
    } else {
        numerator = std::expm1(delta) - nominal_rate(delta, m);
    }
    return numerator / denominator;
}

double udd_alpha_less_beta(double delta, int m) noexcept {
    if (m == 1) return 1.0;
    // Both terms are of order 1 here, so their difference is accurate.
    if (std::fabs(delta) < 0.5) return udd_alpha(delta, m) - udd_beta(delta, m);
    // (i^(m) - d) / (i^(m) d^(m)): i^(m) > delta > d, no cancellation, and no overflow for any
    // finite rate (delta <= 710; above -1 a double rate has delta >= -37.5).
    const double im = nominal_rate(delta, m);
    const double d = -std::expm1(-delta);
    const double dm = nominal_discount_rate(delta, m);
    return (im - d) / (im * dm);
}

double i_over_im(double delta, int m) noexcept {
    if (m == kContinuous) return i_over_delta(delta);
    if (m == 1 || delta == 0.0) return 1.0;
    return std::expm1(delta) / (m * std::expm1(delta / m));
}

double i_over_delta(double delta) noexcept { return delta == 0.0 ? 1.0 : std::expm1(delta) / delta; }

namespace {

// The rate that divides 1 - v^n (or (1 + i)^n - 1) for payments of 1 a year m times a year.
double payment_rate(double delta, int m, bool due) noexcept {
    if (m == kContinuous) return delta;
    return due ? nominal_discount_rate(delta, m) : nominal_rate(delta, m);
}

}  // namespace

double annuity_certain(double delta, double n, int m, bool due) noexcept {
    if (n == 0.0) return 0.0;
    if (delta == 0.0) return n;
    if (std::isinf(n)) return delta > 0.0 ? 1.0 / payment_rate(delta, m, due) : std::numeric_limits<double>::infinity();
    return -std::expm1(-n * delta) / payment_rate(delta, m, due);
}

double accumulated_annuity_certain(double delta, double n, int m, bool due) noexcept {
    if (n == 0.0) return 0.0;
    if (delta == 0.0) return n;
    if (std::isinf(n)) return delta < 0.0 ? 1.0 / -payment_rate(delta, m, due) : std::numeric_limits<double>::infinity();
    return std::expm1(n * delta) / payment_rate(delta, m, due);
}

}  // namespace veltrane::kernels
